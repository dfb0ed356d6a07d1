// Decode attention split over the key sequence (flash-decoding), shared by
// the launchers of decode.cu and the per-head-size kernels of decode_d*.cu.
//
// One CTA serves up to kChunkRows query rows of one (batch, key/value head)
// pair (the query heads of its group times the query tokens) against the keys
// of one split, so every cache row of the split is read once for all of them.
// Its warps take interleaved key tiles, each keeping its own softmax state,
// and combine them at the end. A split either writes the final rows (one
// split) or its partial result: the maximum score m (base-2 units), the sum
// l of 2^(score - m) and the row of weighted values divided by l.
#pragma once

#include <cuda_runtime.h>

#include <algorithm>
#include <cstdint>

#include "common/params/attention.h"

namespace vorta::cuda::decode {

inline constexpr int kWarps = 4;
inline constexpr int kChunkRows = 8;

enum Sink : int {
  kSinkOut = 0,      // final rows into `out`
  kSinkPartial = 1,  // partials: stats as float, rows as P (float, or T for the grouped pair)
};

template <typename T, typename C>
struct SplitArgs {
  DecodeInputs<T, C> in;
  int sink;
  T* out;  // kSinkOut
  int64_t out_stride[3];
  // kSinkPartial: for query row (b, h, s), split i: stats + b*ss[0] + h*ss[1] +
  // s*ss[2] + 2*i holds {m, l}; part + (same with part_stride) + i*value_head_dim the row.
  float* stats;
  int64_t stats_stride[3];
  void* part;
  int64_t part_stride[3];
  bool part_is_float;
  int group;       // num_heads / kv_heads
  int rows;        // group * seq_length query rows per (batch, key/value head)
  int split_keys;  // keys per split
  int nsplit;
  float scale_log2;  // scale * log2(e)
  bool wide;         // key and value rows 16-byte aligned
};

// Row chunks of kChunkRows per (batch, key/value head) pair.
template <typename T, typename C>
__host__ __device__ inline int chunk_count(const SplitArgs<T, C>& a) {
  return (a.rows + kChunkRows - 1) / kChunkRows;
}

// One launch of the split kernel over grid (pairs x row chunks, nsplit).
template <typename T, typename C, int DK, int DV>
cudaError_t launch_split(const SplitArgs<T, C>& a, cudaStream_t stream);

template <typename T, typename P>
struct CombineArgs {
  const float* stats;
  int64_t stats_stride[3];
  const P* part;
  int64_t part_stride[3];
  T* out;
  int64_t out_stride[3];
  int num_heads, seq_length, rows, nsplit, value_head_dim;
};

// Softmax over the splits of every query row: one warp per row.
template <typename T, typename P>
cudaError_t launch_combine(const CombineArgs<T, P>& a, cudaStream_t stream);

// How finely decode splits the keys: query rows x splits wanted in all, and
// the fewest key blocks per split. Tuning runs change it (decode.h).
struct SplitTuning {
  int64_t row_splits = 2048, min_blocks = 4;
};
SplitTuning& split_tuning();

// Keys per split, in blocks of kDecodeKeyBlock keys: enough splits that
// query rows x splits fills a large GPU, but never fewer than min_blocks
// blocks per split, so that the partials stay small beside the keys and
// values read. A function of the block count and the query rows alone, so
// that the grouped pair's second kernel finds the first kernel's splits.
inline int64_t blocks_per_split(int64_t nblocks, int64_t query_rows) {
  const SplitTuning& tune = split_tuning();
  if (nblocks <= 0) return 1;
  const int64_t want = std::max<int64_t>(1, (tune.row_splits + std::max<int64_t>(query_rows, 1) - 1) /
                                                std::max<int64_t>(query_rows, 1));
  const int64_t splits = std::min(want, std::max<int64_t>(1, nblocks / tune.min_blocks));
  return (nblocks + splits - 1) / splits;
}

inline int64_t split_count(int64_t nblocks, int64_t query_rows) {
  const int64_t per = blocks_per_split(nblocks, query_rows);
  return (nblocks + per - 1) / per;
}

}  // namespace vorta::cuda::decode
