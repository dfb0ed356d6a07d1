// Warp-level reductions.
#pragma once

#include <cuda_runtime.h>

#include <cmath>

namespace vorta::cuda {

constexpr unsigned kFullWarp = 0xffffffffu;

// Sum over the 32 lanes, folded by halves (lane i takes lane i + 16, then
// i + 8, ...): the order the CPU backend sums 32 partials in. Every lane
// gets the result.
__device__ __forceinline__ float warp_fold_sum(float v) {
#pragma unroll
  for (int off = 16; off >= 1; off /= 2) v += __shfl_down_sync(kFullWarp, v, off);
  return __shfl_sync(kFullWarp, v, 0);
}

// Butterfly sum; the order does not matter to the caller.
__device__ __forceinline__ float warp_sum(float v) {
#pragma unroll
  for (int off = 16; off >= 1; off /= 2) v += __shfl_xor_sync(kFullWarp, v, off);
  return v;
}

// Largest non-NaN value over the 32 lanes (-inf if none); every lane gets it.
__device__ __forceinline__ float warp_max(float v) {
#pragma unroll
  for (int off = 16; off >= 1; off /= 2) v = fmaxf(v, __shfl_xor_sync(kFullWarp, v, off));
  return v;
}

// Sum or maximum over a block of kWarps warps (every thread gets it);
// `scratch` holds kWarps floats and may be reused once this returns.
template <int kWarps, bool kMax>
__device__ __forceinline__ float block_reduce(float v, float* scratch) {
  v = kMax ? warp_max(v) : warp_sum(v);
  if constexpr (kWarps > 1) {
    const int lane = threadIdx.x % 32, warp = threadIdx.x / 32;
    if (lane == 0) scratch[warp] = v;
    __syncthreads();
    v = lane < kWarps ? scratch[lane] : (kMax ? -INFINITY : 0.0f);
    v = kMax ? warp_max(v) : warp_sum(v);
    __syncthreads();
  }
  return v;
}

}  // namespace vorta::cuda
