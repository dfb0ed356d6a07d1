// CUDA launchers: gated SiLU, repetition penalty, attention softmax
// (T = float, half).
#pragma once

#include <cuda_runtime_api.h>

#include "common/numeric.h"
#include "common/params/elementwise.h"

namespace vorta::cuda {

template <typename T>
cudaError_t silu_mul(const SiluMulParams<T>& p, cudaStream_t stream);

// One block per sequence: gather, block barrier, scatter. Ids outside
// [0, vocab) are skipped (checking them would need the host to wait).
template <typename T>
cudaError_t repetition_penalty(const PenaltyParams<T>& p, cudaStream_t stream);

template <typename T>
cudaError_t attn_softmax(const SoftmaxParams<T>& p, cudaStream_t stream);

}  // namespace vorta::cuda
