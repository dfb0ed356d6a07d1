// Mixture-of-experts routing: checks, allocation and launch.
#include <ATen/ops/empty.h>
#include <torch/types.h>  // torch::kFloat32, as a check message spells it

#include "common/fatal.h"
#include "cpu/moe.h"
#include "ops/dispatch.h"
#include "ops/launch.h"
#include "ops/ops.h"

#if VORTA_CUDA_MOE
#include "cuda/moe.h"
#endif

namespace vorta {
namespace {

constexpr char kAssertSource[] = "moe";

// A token's expert row is held as ES-wide blocks of one 256-lane vector on the
// device; the bounds are checked in the launch's 32-bit sizes.
constexpr int32_t ES = 16;

template <typename T>
void moe_softmax_topk_launcher(const MoeSoftmaxParams<T>& p, const c10::Device& device) {
  launch(device, "moe softmax topk", [&] { cpu::moe_softmax_topk(p); },
         VORTA_CUDA_LAUNCHER(MOE, "moe_softmax_topk",
                             [&](cudaStream_t s) { return cuda::moe_softmax_topk(p, s); }));
}

template <typename T>
void moe_group_topk_launcher(const MoeGroupParams<T>& p, const c10::Device& device) {
  launch(device, "moe group topk", [&] { cpu::moe_group_topk(p); },
         VORTA_CUDA_LAUNCHER(MOE, "moe_group_topk",
                             [&](cudaStream_t s) { return cuda::moe_group_topk(p, s); }));
}

// The launch preconditions, before the operators' own checks.
void check_softmax_sizes(int32_t n_experts, int32_t top_k) {
  VORTA_ASSERT(n_experts <= 256);
  VORTA_ASSERT(n_experts % ES == 0);
  VORTA_ASSERT(top_k <= 32);
}

void check_group_sizes(int32_t n_experts, int32_t n_groups, int32_t top_k) {
  // n_groups == 0 passes these and is refused by the caller's checks.
  const int32_t experts_per_group = n_groups > 0 ? n_experts / n_groups : 0;
  VORTA_ASSERT(n_experts <= 256);
  VORTA_ASSERT(experts_per_group <= 256);
  VORTA_ASSERT(experts_per_group % ES == 0);
  VORTA_ASSERT(top_k <= 32);
}

// Every choice must be a different real expert.
void check_expert_count(int64_t n_experts, int64_t top_k) {
  TORCH_CHECK(n_experts > 0, "the router needs at least one expert (n_experts = size(1)), got ", n_experts);
  TORCH_CHECK(top_k <= n_experts, "top_k must not exceed the number of experts (", n_experts, "), got ",
              top_k);
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
    check_softmax_sizes(int32_t(n_experts), int32_t(top_k));
    check_expert_count(n_experts, top_k);
    TORCH_CHECK(logits.is_contiguous(), "logits must be contiguous");
    const MoeSoftmaxParams<T> p{const_ptr<T>(logits),   mut_ptr<int64_t>(topk_ids),
                                mut_ptr<T>(topk_weights), num_tokens,
                                n_experts,              top_k,
                                renormalize};
    moe_softmax_topk_launcher(p, logits.device());
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
    check_group_sizes(int32_t(n_experts), int32_t(n_groups), int32_t(top_k));
    check_expert_count(n_experts, top_k);
    TORCH_CHECK(n_groups > 0 && n_experts % n_groups == 0,
                "n_groups must divide the number of experts");
    TORCH_CHECK(top_k >= 0 && topk_group >= 0, "top_k and topk_group must not be negative");
    // A group score sums topk_group different experts of the group.
    TORCH_CHECK(topk_group <= n_experts / n_groups, "topk_group must not exceed the experts per group (",
                n_experts / n_groups, "), got ", topk_group);
    TORCH_CHECK(scores.is_contiguous(), "scores must be contiguous");
    TORCH_CHECK(!bias || (bias->numel() == n_experts && bias->is_contiguous() &&
                          bias->device() == scores.device()),
                "bias must be a contiguous vector of n_experts values on the scores' device");
    const MoeGroupParams<T> p{const_ptr<float>(scores),
                              bias ? const_ptr<T>(*bias) : nullptr,
                              mut_ptr<int64_t>(topk_ids),
                              mut_ptr<T>(topk_weights),
                              num_tokens,
                              n_experts,
                              n_groups,
                              topk_group,
                              top_k,
                              renormalize,
                              renormalize_eps,
                              routed_scaling_factor};
    moe_group_topk_launcher(p, scores.device());
  });
  return {topk_ids, topk_weights};
}

}  // namespace vorta
