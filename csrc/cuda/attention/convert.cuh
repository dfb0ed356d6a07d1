// Scalar loads and stores of the attention kernels' element types, widened
// to or rounded from float32.
#pragma once

#include <cuda_fp16.h>

#include <cstdint>

#include "common/numeric.h"

namespace vorta::cuda::attn {

__device__ __forceinline__ float load_float(const float* p) { return __ldg(p); }
__device__ __forceinline__ float load_float(const half* p) {
  return __half2float(__ushort_as_half(__ldg(reinterpret_cast<const unsigned short*>(p))));
}

__device__ __forceinline__ void store_float(float* p, float v) { *p = v; }
__device__ __forceinline__ void store_float(half* p, float v) {
  *reinterpret_cast<__half*>(p) = __float2half_rn(v);
}

// The raw 16 bits of a half element.
__device__ __forceinline__ uint32_t load_half_bits(const half* p) {
  return __ldg(reinterpret_cast<const unsigned short*>(p));
}

// n bytes at p (any alignment) as a little-endian word, for rows whose
// addresses do not allow wide loads.
__device__ __forceinline__ uint32_t ld_bytes(const uint8_t* p, int n) {
  uint32_t w = 0;
  for (int i = 0; i < n; ++i) w |= uint32_t(__ldg(p + i)) << (8 * i);
  return w;
}

}  // namespace vorta::cuda::attn
