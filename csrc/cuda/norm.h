// CUDA launchers: RMS and layer normalisation (T = float, half).
#pragma once

#include <cuda_runtime_api.h>

#include "common/numeric.h"
#include "common/params/norm.h"

namespace vorta::cuda {

// One block per row; hidden a multiple of 32, at most 8192.
template <typename T>
cudaError_t rms_norm(const NormParams<T>& p, cudaStream_t stream);
template <typename T>
cudaError_t layer_norm(const NormParams<T>& p, cudaStream_t stream);

}  // namespace vorta::cuda
