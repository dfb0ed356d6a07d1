// The running-maximum step of the online softmax, shared by the attention kernels.
#pragma once

#include <cfloat>
#include <cmath>

#include "cuda/common/mma.cuh"

namespace vorta::cuda::attn {

inline constexpr float kLog2e = 1.4426950408889634f;

// Adds a mask value (natural units) to a base-2 score. A finite mask that
// overflows in base 2 (the float32 minimum, the usual "masked" value) stays
// the most negative finite score, as it is in natural units: a row masked
// that way everywhere still averages its values, where -inf would empty it.
__device__ __forceinline__ float add_mask(float score, float mask) {
  const float x = fmaf(mask, kLog2e, score);
  return x == -INFINITY && mask != -INFINITY ? -FLT_MAX : x;
}

// Folds a tile's maximum score `tile_max` (base-2 units) into the running
// maximum m. Returns the factor 2^(old m - new m) for the sums kept so far
// (exactly 1 when the maximum stays), and sets `ref`, the value the tile's
// exponentials subtract: the new maximum, or 0 while no key is visible, so
// that -inf - -inf never happens.
__device__ __forceinline__ float rescale(float& m, float tile_max, float& ref) {
  const float m_new = fmaxf(m, tile_max);
  ref = m_new == -INFINITY ? 0.0f : m_new;
  const float alpha = m_new > m ? fast_exp2(m - ref) : 1.0f;
  m = m_new;
  return alpha;
}

}  // namespace vorta::cuda::attn
