// CUDA launchers: key/value cache rows to and from the 8-bit codes of
// common/kv_codes.h (T = float, half).
#pragma once

#include <cuda_runtime_api.h>

#include <cstdint>

#include "common/numeric.h"
#include "common/params/kv_cache.h"

namespace vorta::cuda {

template <typename T>
cudaError_t quantize_key_value(const KvConvertParams<T, uint8_t>& p, cudaStream_t stream);
template <typename T>
cudaError_t dequantize_key_value(const KvConvertParams<uint8_t, T>& p, cudaStream_t stream);

}  // namespace vorta::cuda
