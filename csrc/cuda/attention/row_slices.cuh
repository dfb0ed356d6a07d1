// How several lanes of a warp share the loads of one key or value row.
//
// A row of kRowBytes bytes is cut into runs of kLanes pieces, 16 bytes wide
// while whole runs fit, then 8, 4 and 2 bytes wide; lane i takes piece i of
// every run. Adjacent lanes therefore read adjacent bytes (coalesced), each
// load is as wide as the row allows, and a lane's bytes (its "slice", in run
// order) sit in kWords registers. Which row element a slice byte holds is
// fixed at compile time up to the lane number; the tensor-core kernels permute
// the reduction dimension accordingly, which a dot product does not notice.
#pragma once

#include <cuda_runtime.h>

#include <cstdint>

#include "cuda/attention/memory.cuh"

namespace vorta::cuda::attn {

template <int kRowBytes, int kLanes>
struct RowSlices {
  static constexpr int kRun16 = 16 * kLanes, kRun8 = 8 * kLanes, kRun4 = 4 * kLanes, kRun2 = 2 * kLanes;
  static constexpr int kN16 = kRowBytes / kRun16;
  static constexpr int kN8 = (kRowBytes - kN16 * kRun16) / kRun8;
  static constexpr int kN4 = (kRowBytes - kN16 * kRun16 - kN8 * kRun8) / kRun4;
  static constexpr int kN2 = (kRowBytes - kN16 * kRun16 - kN8 * kRun8 - kN4 * kRun4) / kRun2;
  static_assert(kN16 * kRun16 + kN8 * kRun8 + kN4 * kRun4 + kN2 * kRun2 == kRowBytes,
                "rows must split into 2-byte pieces per lane");
  static constexpr int kBytes = kRowBytes / kLanes;  // per lane
  static constexpr int kWords = (kBytes + 3) / 4;
  // Where each width's runs start, in the row and in the slice.
  static constexpr int kRow8 = kN16 * kRun16, kRow4 = kRow8 + kN8 * kRun8, kRow2 = kRow4 + kN4 * kRun4;
  static constexpr int kSlice8 = kN16 * 16, kSlice4 = kSlice8 + kN8 * 8, kSlice2 = kSlice4 + kN4 * 4;

  // The row byte that byte i of lane's slice holds.
  __host__ __device__ static constexpr int row_byte(int lane, int i) {
    return i < kSlice8   ? (i / 16) * kRun16 + lane * 16 + i % 16
           : i < kSlice4 ? kRow8 + ((i - kSlice8) / 8) * kRun8 + lane * 8 + (i - kSlice8) % 8
           : i < kSlice2 ? kRow4 + ((i - kSlice4) / 4) * kRun4 + lane * 4 + (i - kSlice4) % 4
                         : kRow2 + ((i - kSlice2) / 2) * kRun2 + lane * 2 + (i - kSlice2) % 2;
  }
};

// Loads lane's slice of the row at `row` into w; zeros when !valid.
// `wide`: the row address is 16-byte aligned (else byte loads).
template <class S>
__device__ __forceinline__ void load_slice(uint32_t (&w)[S::kWords], const uint8_t* row, int lane,
                                           bool valid, bool wide) {
#pragma unroll
  for (int i = 0; i < S::kWords; ++i) w[i] = 0;
  if (!valid) return;
  if (wide) {
#pragma unroll
    for (int j = 0; j < S::kN16; ++j) {
      const uint4 v = ld_stream_16(row + j * S::kRun16 + lane * 16);
      w[4 * j] = v.x, w[4 * j + 1] = v.y, w[4 * j + 2] = v.z, w[4 * j + 3] = v.w;
    }
#pragma unroll
    for (int j = 0; j < S::kN8; ++j) {
      const uint2 v = ld_stream_8(row + S::kRow8 + j * S::kRun8 + lane * 8);
      w[(S::kSlice8 + 8 * j) / 4] = v.x, w[(S::kSlice8 + 8 * j) / 4 + 1] = v.y;
    }
#pragma unroll
    for (int j = 0; j < S::kN4; ++j)
      w[(S::kSlice4 + 4 * j) / 4] = ld_stream_4(row + S::kRow4 + j * S::kRun4 + lane * 4);
#pragma unroll
    for (int j = 0; j < S::kN2; ++j)
      w[(S::kSlice2 + 2 * j) / 4] |= ld_stream_2(row + S::kRow2 + j * S::kRun2 + lane * 2)
                                     << (8 * ((S::kSlice2 + 2 * j) % 4));
    return;
  }
#pragma unroll
  for (int i = 0; i < S::kBytes; i += 2)
    w[i / 4] |= ld_bytes(row + S::row_byte(lane, i), 2) << (8 * (i % 4));
}

}  // namespace vorta::cuda::attn
