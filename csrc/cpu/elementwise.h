// Element-wise and per-row operators on the CPU (common/params/elementwise.h):
// the gated SiLU, the repetition penalty and the attention softmax.
// Declarations only, without an include guard: cpu/dispatch.cpp includes it
// once per instruction-set build.

#include "common/params/elementwise.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

// nelem is a multiple of 8; computed in float, rounded once to T.
template <typename T>
void silu_mul(const SiluMulParams<T>& p);

// Every position of a sequence is gathered into `working` before any is
// written back, so a repeated id is penalised once.
template <typename T>
void repetition_penalty(const PenaltyParams<T>& p);

template <typename T>
void attn_softmax(const SoftmaxParams<T>& p);

VORTA_ISA_END
}  // namespace vorta::cpu
