// Element types, 16-byte chunks and launch helpers shared by the CUDA kernels.
//
// Kernels are written against vorta::half / vorta::bf16 (common/numeric.h),
// whose bit patterns are those of __half / __nv_bfloat16; arithmetic is in
// float and every conversion to a 16-bit type rounds to nearest, ties to even.
#pragma once

#include <cuda_bf16.h>
#include <cuda_fp16.h>
#include <cuda_runtime.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "common/numeric.h"
#include "cuda/device.h"

namespace vorta::cuda {

__device__ __forceinline__ float widen(float v) { return v; }
__device__ __forceinline__ float widen(half v) { return __half2float(__ushort_as_half(v.bits)); }
__device__ __forceinline__ float widen(bf16 v) {
  return __bfloat162float(__ushort_as_bfloat16(v.bits));
}

template <typename T>
__device__ __forceinline__ T narrow(float v);
template <>
__device__ __forceinline__ float narrow<float>(float v) {
  return v;
}
template <>
__device__ __forceinline__ half narrow<half>(float v) {
  return half{__half_as_ushort(__float2half_rn(v))};
}
template <>
__device__ __forceinline__ bf16 narrow<bf16>(float v) {
  return bf16{__bfloat16_as_ushort(__float2bfloat16_rn(v))};
}

// v rounded once to T, as a float again (the identity for float).
template <typename T>
__device__ __forceinline__ float round_to(float v) {
  return widen(narrow<T>(v));
}

// kN consecutive elements of T: 16 bytes, the widest load a thread issues.
template <typename T>
struct Chunk {
  static constexpr int kN = 16 / int(sizeof(T));
  T v[kN];
};

// Loads chunk-sized runs of elements: one 16-byte access where the caller
// has checked alignment, else element by element (the caller's choice is
// uniform across the launch, so the branch costs nothing).
template <typename T>
__device__ __forceinline__ Chunk<T> load_chunk(const T* p, bool vector) {
  Chunk<T> c;
  if (vector) {
    const uint4 raw = *reinterpret_cast<const uint4*>(p);
    memcpy(&c, &raw, 16);
  } else {
#pragma unroll
    for (int j = 0; j < Chunk<T>::kN; ++j) c.v[j] = p[j];
  }
  return c;
}

template <typename T>
__device__ __forceinline__ void store_chunk(T* p, const Chunk<T>& c, bool vector) {
  if (vector) {
    uint4 raw;
    memcpy(&raw, &c, 16);
    *reinterpret_cast<uint4*>(p) = raw;
  } else {
#pragma unroll
    for (int j = 0; j < Chunk<T>::kN; ++j) p[j] = c.v[j];
  }
}

// True when p is 16-byte aligned, and so is p + k * stride for every k.
template <typename T>
inline bool aligned16(const T* p, int64_t stride = 0) {
  return p == nullptr || (reinterpret_cast<uintptr_t>(p) % 16 == 0 &&
                          (stride * int64_t(sizeof(T))) % 16 == 0);
}

// The error of the launch just made (configuration errors surface here; a
// kernel's own faults surface at the next synchronising call, as with torch).
inline cudaError_t launch_status() { return cudaGetLastError(); }

__host__ __device__ inline int64_t ceil_div(int64_t a, int64_t b) { return (a + b - 1) / b; }

}  // namespace vorta::cuda
