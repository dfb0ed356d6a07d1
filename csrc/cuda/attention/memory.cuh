// Memory access of the attention kernels: scalar loads and stores of their
// element types (widened to or rounded from float32), loads of read-once
// rows, and the CTA's dynamic shared memory.
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

// Global loads of read-once data: not kept in L1.
__device__ __forceinline__ uint4 ld_stream_16(const void* p) {
  uint4 v;
  asm volatile("ld.global.nc.L1::no_allocate.v4.u32 {%0, %1, %2, %3}, [%4];\n"
               : "=r"(v.x), "=r"(v.y), "=r"(v.z), "=r"(v.w)
               : "l"(p));
  return v;
}
__device__ __forceinline__ uint2 ld_stream_8(const void* p) {
  uint2 v;
  asm volatile("ld.global.nc.L1::no_allocate.v2.u32 {%0, %1}, [%2];\n" : "=r"(v.x), "=r"(v.y) : "l"(p));
  return v;
}
__device__ __forceinline__ uint32_t ld_stream_4(const void* p) {
  uint32_t v;
  asm volatile("ld.global.nc.L1::no_allocate.u32 %0, [%1];\n" : "=r"(v) : "l"(p));
  return v;
}
__device__ __forceinline__ uint32_t ld_stream_2(const void* p) {
  unsigned short v;
  asm volatile("ld.global.nc.L1::no_allocate.u16 %0, [%1];\n" : "=h"(v) : "l"(p));
  return v;
}

// The CTA's dynamic shared memory.
__device__ __forceinline__ uint8_t* dynamic_smem() {
  extern __shared__ __align__(16) uint8_t smem[];
  return smem;
}

}  // namespace vorta::cuda::attn
