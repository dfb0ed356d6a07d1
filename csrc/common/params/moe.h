// Expert selection for mixture-of-experts layers, one token per row. Ties go
// to the lowest expert number; an expert is never chosen twice for a token.
#pragma once

#include <cstdint>

namespace vorta {

// logits [num_tokens, n_experts] dense; ids and weights [num_tokens, top_k].
// Softmax over the row, the top_k largest probabilities, optionally
// renormalised to sum to one.
template <typename T>
struct MoeSoftmaxParams {
  const T* logits;
  int64_t* ids;
  T* weights;
  int64_t num_tokens, n_experts, top_k;
  bool renormalize;
};

// scores [num_tokens, n_experts] float32 dense; bias [n_experts] or null.
// Groups of n_experts / n_groups experts are scored by the sum of their
// topk_group largest biased scores; the topk_group best groups stay
// eligible, the others' experts count as 0.0. Weights are the unbiased scores
// of the chosen experts, optionally divided by (their sum + eps), then
// multiplied by scaling.
template <typename T>
struct MoeGroupParams {
  const float* scores;
  const T* bias;
  int64_t* ids;
  T* weights;
  int64_t num_tokens, n_experts, n_groups, topk_group, top_k;
  bool renormalize;
  float eps, scaling;
};

}  // namespace vorta
