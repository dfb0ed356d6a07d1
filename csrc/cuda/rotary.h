// CUDA launchers: rotary position embedding in place.
#pragma once

#include <cuda_runtime_api.h>

#include "common/numeric.h"
#include "common/params/rotary.h"

namespace vorta::cuda {

// Angles from positions and inverse frequencies (T = float, half).
template <typename T>
cudaError_t rotary_inv_freq(const RotaryFreqParams<T>& p, cudaStream_t stream);

// Angles from a cos/sin cache (T = float, half, bf16).
template <typename T>
cudaError_t rotary_with_cache(const RotaryCacheParams<T>& p, cudaStream_t stream);

}  // namespace vorta::cuda
