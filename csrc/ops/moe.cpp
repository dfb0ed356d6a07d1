// Mixture-of-experts routing: checks, allocation and launch.
#include <ATen/ops/empty.h>

#include "common/fatal.h"
#include "cpu/moe.h"
#include "ops/dispatch.h"
#include "ops/launch.h"
#include "ops/ops.h"

namespace vorta {
namespace {

constexpr char kAssertSource[] = "moe";

// A token's expert row is held as ES-wide blocks of one 256-lane vector on the
// device. `more_checks` runs after the launch preconditions, before the launch.
template <typename T, int ES, typename Checks>
void moe_softmax_topk_kernel(const void* logits, int64_t* ids, void* weights, int32_t num_tokens,
                             int32_t n_experts, int32_t top_k, int32_t renormalize,
                             const c10::Device& device, Checks more_checks) {
  VORTA_ASSERT(n_experts <= 256);
  VORTA_ASSERT(n_experts % ES == 0);
  VORTA_ASSERT(top_k <= 32);
  more_checks();
  auto x = static_cast<const T*>(logits);
  auto w = static_cast<T*>(weights);
  submit_kernel(
      [=](const Stream& s) {
        if (s.is_cpu())
          return cpu::moe_softmax_topk<T>(x, ids, w, num_tokens, n_experts, top_k, renormalize);
        VORTA_CUDA(cuda::moe_softmax_topk<T>(x, ids, w, num_tokens, n_experts, top_k, renormalize,
                                             s.cuda()));
      },
      device, "moe softmax topk");
}

template <typename T, int ES, typename Checks>
void moe_group_topk_kernel(const float* scores, const void* bias, int64_t* ids, void* weights,
                           int32_t num_tokens, int32_t n_experts, int32_t n_groups,
                           int32_t topk_group, int32_t top_k, int32_t renormalize, float eps,
                           float routed_scaling_factor, const c10::Device& device,
                           Checks more_checks) {
  // n_groups == 0 passes these and is refused by the caller's checks.
  const int32_t experts_per_group = n_groups > 0 ? n_experts / n_groups : 0;
  VORTA_ASSERT(n_experts <= 256);
  VORTA_ASSERT(experts_per_group <= 256);
  VORTA_ASSERT(experts_per_group % ES == 0);
  VORTA_ASSERT(top_k <= 32);
  more_checks();
  auto b = static_cast<const T*>(bias);
  auto w = static_cast<T*>(weights);
  submit_kernel(
      [=](const Stream& s) {
        if (s.is_cpu())
          return cpu::moe_group_topk<T>(scores, b, ids, w, num_tokens, n_experts, n_groups,
                                        topk_group, top_k, renormalize, eps,
                                        routed_scaling_factor);
        VORTA_CUDA(cuda::moe_group_topk<T>(scores, b, ids, w, num_tokens, n_experts, n_groups,
                                           topk_group, top_k, renormalize, eps,
                                           routed_scaling_factor, s.cuda()));
      },
      device, "moe group topk");
}

}  // namespace

std::tuple<at::Tensor, at::Tensor> moe_softmax_topk(const at::Tensor& logits, int64_t top_k,
                                                    bool renormalize) {
  TORCH_CHECK(logits.dim() == 2);
  const int64_t num_tokens = logits.size(0), n_experts = logits.size(1);
  at::Tensor topk_ids = at::empty({num_tokens, top_k}, logits.options().dtype(at::kLong));
  at::Tensor topk_weights = at::empty({num_tokens, top_k}, logits.options());
  dispatch_float_half(logits.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    moe_softmax_topk_kernel<T, 16>(logits.const_data_ptr(), mut_ptr<int64_t>(topk_ids),
                                   topk_weights.data_ptr(), int32_t(num_tokens),
                                   int32_t(n_experts), int32_t(top_k), renormalize,
                                   logits.device(),
                                   [&] { TORCH_CHECK(logits.is_contiguous(), "logits must be contiguous"); });
  });
  return {topk_ids, topk_weights};
}

std::tuple<at::Tensor, at::Tensor> moe_group_topk(const at::Tensor& scores, const OptTensor& bias,
                                                  int64_t n_groups, int64_t topk_group,
                                                  int64_t /*unused*/, int64_t top_k,
                                                  bool renormalize, float renormalize_eps,
                                                  float routed_scaling_factor) {
  TORCH_CHECK(scores.dim() == 2);
  TORCH_CHECK(scores.scalar_type() == torch::kFloat32);
  const int64_t num_tokens = scores.size(0), n_experts = scores.size(1);
  const at::ScalarType weight_type = bias ? bias->scalar_type() : at::kFloat;
  at::Tensor topk_ids = at::empty({num_tokens, top_k}, scores.options().dtype(at::kLong));
  at::Tensor topk_weights = at::empty({num_tokens, top_k}, scores.options().dtype(weight_type));
  dispatch_float_half(weight_type, [&](auto tag) {
    using T = typename decltype(tag)::type;
    moe_group_topk_kernel<T, 16>(
        const_ptr<float>(scores), bias ? bias->const_data_ptr() : nullptr,
        mut_ptr<int64_t>(topk_ids), topk_weights.data_ptr(), int32_t(num_tokens),
        int32_t(n_experts), int32_t(n_groups), int32_t(topk_group), int32_t(top_k), renormalize,
        renormalize_eps, routed_scaling_factor, scores.device(), [&] {
          TORCH_CHECK(n_groups > 0 && n_experts % n_groups == 0 && n_experts > 0,
                      "n_groups must divide the number of experts");
          TORCH_CHECK(top_k >= 0 && topk_group >= 0, "top_k and topk_group must not be negative");
          TORCH_CHECK(scores.is_contiguous(), "scores must be contiguous");
          TORCH_CHECK(!bias || (bias->numel() == n_experts && bias->is_contiguous() &&
                                bias->device() == scores.device()),
                      "bias must be a contiguous vector of n_experts values on the scores' device");
        });
  });
  return {topk_ids, topk_weights};
}

}  // namespace vorta
