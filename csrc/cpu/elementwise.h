// Element-wise and per-row operators on the CPU (common/params/elementwise.h):
// the gated SiLU, the repetition penalty and the attention softmax.
#pragma once

#include "common/params/elementwise.h"

namespace vorta::cpu {

// nelem is a multiple of 8; computed in float, rounded once to T.
template <typename T>
void silu_mul(const SiluMulParams<T>& p);

// Every position of a sequence is gathered into `working` before any is
// written back, so a repeated id is penalised once.
template <typename T>
void repetition_penalty(const PenaltyParams<T>& p);

template <typename T>
void attn_softmax(const SoftmaxParams<T>& p);

}  // namespace vorta::cpu
