// RMS and layer normalisation: checks, allocation and launch.
#include <ATen/ops/empty.h>

#include "common/fatal.h"
#include "cpu/norm.h"
#include "ops/dispatch.h"
#include "ops/launch.h"
#include "ops/ops.h"

namespace vorta {
namespace {

constexpr char kAssertSource[] = "norm";

// Rows are cached whole on the device; their width is bounded and blocked.
void check_hidden_size(int64_t hidden_size) {
  VORTA_ASSERT(hidden_size % 32 == 0);
  VORTA_ASSERT(hidden_size <= 8 * 1024);
}

template <typename T>
void rms_norm_kernel(const void* weight, const void* input, void* output, float eps,
                     int64_t num_tokens, int64_t hidden_size, const c10::Device& device) {
  check_hidden_size(hidden_size);
  auto w = static_cast<const T*>(weight);
  auto in = static_cast<const T*>(input);
  auto out = static_cast<T*>(output);
  submit_kernel(
      [=](const Stream& s) {
        if (s.is_cpu()) return cpu::rms_norm<T>(w, in, out, eps, num_tokens, hidden_size);
        VORTA_CUDA(cuda::rms_norm<T>(w, in, out, eps, num_tokens, hidden_size, s.cuda()));
      },
      device, "rms norm");
}

template <typename T>
void layer_norm_kernel(const void* input, const void* weight, const void* bias, void* output,
                       float eps, int64_t num_tokens, int64_t hidden_size,
                       const c10::Device& device) {
  check_hidden_size(hidden_size);
  auto in = static_cast<const T*>(input);
  auto w = static_cast<const T*>(weight);
  auto b = static_cast<const T*>(bias);
  auto out = static_cast<T*>(output);
  submit_kernel(
      [=](const Stream& s) {
        if (s.is_cpu()) return cpu::layer_norm<T>(in, w, b, out, eps, num_tokens, hidden_size);
        VORTA_CUDA(cuda::layer_norm<T>(in, w, b, out, eps, num_tokens, hidden_size, s.cuda()));
      },
      device, "layer norm");
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
    rms_norm_kernel<T>(weight.const_data_ptr(), input.const_data_ptr(), output.data_ptr(), eps,
                       num_tokens, hidden_size, input.device());
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
    layer_norm_kernel<T>(input.const_data_ptr(), weight ? weight->const_data_ptr() : nullptr,
                         bias ? bias->const_data_ptr() : nullptr, output.data_ptr(), eps,
                         num_tokens, hidden_size, input.device());
  });
  return output;
}

}  // namespace vorta
