// Expert selection for mixture-of-experts layers on the CPU
// (common/params/moe.h).
#pragma once

#include "common/params/moe.h"

namespace vorta::cpu {

// n_experts <= 256 and a multiple of 8; top_k <= 32.
template <typename T>  // float, half
void moe_softmax_topk(const MoeSoftmaxParams<T>& p);

// n_experts <= 256, experts per group a multiple of 8; top_k <= 32.
template <typename T>  // float, half
void moe_group_topk(const MoeGroupParams<T>& p);

}  // namespace vorta::cpu
