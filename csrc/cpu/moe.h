// Expert selection for mixture-of-experts layers, one token per row.
#pragma once

#include <cstdint>

namespace vorta::cpu {

// logits [num_tokens, n_experts] contiguous, n_experts <= 256 and a multiple of
// 8; ids and weights [num_tokens, top_k], top_k <= 32. Softmax over the row,
// then the top_k largest probabilities (ties to the lowest expert), optionally
// renormalised to sum to one.
template <typename T>
void moe_softmax_topk(const T* logits, int64_t* ids, T* weights, int64_t num_tokens,
                      int64_t n_experts, int64_t top_k, bool renormalize);

// scores [num_tokens, n_experts] contiguous, bias [n_experts] or null;
// n_experts = n_groups * experts_per_group <= 256, experts_per_group a
// multiple of 8. Groups are scored by the sum of their topk_group largest
// biased scores; the topk_group best groups stay eligible, the others' experts
// count as 0.0. Weights are the unbiased scores of the chosen experts,
// optionally divided by (their sum + eps), then multiplied by scaling.
template <typename T>
void moe_group_topk(const float* scores, const T* bias, int64_t* ids, T* weights,
                    int64_t num_tokens, int64_t n_experts, int64_t n_groups, int64_t topk_group,
                    int64_t top_k, bool renormalize, float eps, float scaling);

}  // namespace vorta::cpu
