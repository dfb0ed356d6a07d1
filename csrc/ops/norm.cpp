// RMS and layer normalisation: checks, allocation and launch.
#include <ATen/ops/empty.h>

#include "common/fatal.h"
#include "cpu/norm.h"
#include "ops/dispatch.h"
#include "ops/launch.h"
#include "ops/ops.h"

#if VORTA_CUDA_NORM
#include "cuda/norm.h"
#endif

namespace vorta {
namespace {

constexpr char kAssertSource[] = "norm";

// Rows are cached whole on the device; their width is bounded and blocked.
void check_hidden_size(int64_t hidden_size) {
  VORTA_ASSERT(hidden_size % 32 == 0);
  VORTA_ASSERT(hidden_size <= 8 * 1024);
}

template <typename T>
NormParams<T> norm_params(const at::Tensor& input, const std::optional<at::Tensor>& weight,
                          const std::optional<at::Tensor>& bias, const at::Tensor& output,
                          float eps) {
  return {const_ptr<T>(input),
          weight ? const_ptr<T>(*weight) : nullptr,
          bias ? const_ptr<T>(*bias) : nullptr,
          mut_ptr<T>(output),
          input.size(0),
          input.size(1),
          eps};
}

template <typename T>
void rms_norm_launcher(const NormParams<T>& p, const c10::Device& device) {
  check_hidden_size(p.hidden);
  launch(device, "rms norm", [&] { cpu::rms_norm(p); },
         VORTA_CUDA_LAUNCHER(NORM, "rms_norm", [&](cudaStream_t s) { return cuda::rms_norm(p, s); }));
}

template <typename T>
void layer_norm_launcher(const NormParams<T>& p, const c10::Device& device) {
  check_hidden_size(p.hidden);
  launch(device, "layer norm", [&] { cpu::layer_norm(p); },
         VORTA_CUDA_LAUNCHER(NORM, "layer_norm", [&](cudaStream_t s) { return cuda::layer_norm(p, s); }));
}

void check_dense_on(const at::Tensor& t, const at::Tensor& input, const char* what) {
  TORCH_CHECK(t.is_contiguous(), what, " must be contiguous");
  TORCH_CHECK(t.device() == input.device(), what, " must be on the input's device");
}

}  // namespace

at::Tensor rms_norm(const at::Tensor& weight, const at::Tensor& input, float eps) {
  VORTA_ASSERT(input.dim() == 2);
  VORTA_ASSERT(weight.dim() == 1);
  VORTA_ASSERT(weight.size(0) == input.size(1));
  VORTA_ASSERT(input.scalar_type() == weight.scalar_type());
  const int64_t num_tokens = input.size(0), hidden_size = input.size(1);
  at::Tensor output = at::empty({num_tokens, hidden_size}, input.options());
  dispatch_float_half(input.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    check_dense_on(input, input, "input");
    check_dense_on(weight, input, "weight");
    rms_norm_launcher(norm_params<T>(input, weight, std::nullopt, output, eps), input.device());
  });
  return output;
}

at::Tensor layer_norm(const at::Tensor& input, const std::optional<at::Tensor>& weight,
                      const std::optional<at::Tensor>& bias, float eps) {
  const int64_t num_tokens = input.size(0), hidden_size = input.size(1);
  VORTA_ASSERT(input.dim() == 2);
  VORTA_ASSERT(!weight || (weight->numel() == hidden_size &&
                           weight->scalar_type() == input.scalar_type() && weight->is_contiguous()));
  VORTA_ASSERT(!bias || (bias->numel() == hidden_size && bias->scalar_type() == input.scalar_type() &&
                         bias->is_contiguous()));
  at::Tensor output = at::empty({num_tokens, hidden_size}, input.options());
  dispatch_float_half(input.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    check_dense_on(input, input, "input");
    if (weight) check_dense_on(*weight, input, "weight");
    if (bias) check_dense_on(*bias, input, "bias");
    layer_norm_launcher(norm_params<T>(input, weight, bias, output, eps), input.device());
  });
  return output;
}

}  // namespace vorta
