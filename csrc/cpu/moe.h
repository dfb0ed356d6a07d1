// Expert selection for mixture-of-experts layers on the CPU
// (common/params/moe.h).
// Declarations only, without an include guard: cpu/dispatch.cpp includes it
// once per instruction-set build.

#include "common/params/moe.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

// n_experts <= 256 and a multiple of 8; top_k <= 32.
template <typename T>  // float, half
void moe_softmax_topk(const MoeSoftmaxParams<T>& p);

// n_experts <= 256, experts per group a multiple of 8; top_k <= 32.
template <typename T>  // float, half
void moe_group_topk(const MoeGroupParams<T>& p);

VORTA_ISA_END
}  // namespace vorta::cpu
