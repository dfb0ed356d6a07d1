// How decode attention divides a call: row tiles of the query heads that share
// a key/value head, and key ranges cut into chunks when there are too few
// tiles to keep every thread busy; and how the parts of a row meet again.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "cpu/decode/tile.h"
#include "cpu/simd/exp.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace decode {

inline constexpr int64_t kTargetUnits = 64;    // work items per call: balances any common thread count
inline constexpr int64_t kMinChunkKeys = 256;  // shortest key range worth a work item of its own
inline constexpr int64_t kForkWork = 1 << 16;  // multiply-adds that pay for handing work to another thread

inline int64_t ceil_div(int64_t a, int64_t b) { return (a + b - 1) / b; }

// Items per task for a parallel loop whose items cost `work` multiply-adds
// each: small calls stay on the calling thread.
inline int64_t grain(int64_t work) { return ceil_div(kForkWork, std::max<int64_t>(work, 1)); }

// The work of a call: (batch, key/value head, row tile) triples, each with
// its key range cut into `chunks` runs of whole blocks.
struct Split {
  int64_t group, rows, tile, tiles, pairs, nblocks, per_chunk, chunks;

  Split(int64_t bsz, int64_t num_heads, int64_t kv_heads, int64_t seq_length, int64_t kv_len,
        int64_t min_chunk_keys) {
    group = num_heads / kv_heads;
    rows = group * seq_length;
    tile = std::max<int64_t>(1, std::min(rows, kMaxRows));
    tiles = ceil_div(rows, tile);
    pairs = bsz * kv_heads * tiles;
    nblocks = ceil_div(kv_len, kBlock);
    // Few pairs: cut the keys too, so that one sequence keeps every thread
    // busy. The cut depends on the shapes only, never on the thread count, so
    // results do not change with torch.set_num_threads.
    const int64_t wanted = std::max<int64_t>(1, ceil_div(kTargetUnits, std::max<int64_t>(pairs, 1)));
    chunks = std::min(wanted, std::max<int64_t>(1, ceil_div(kv_len, min_chunk_keys)));
    cut(std::max<int64_t>(1, ceil_div(nblocks, chunks)));
  }

  // Runs of exactly `blocks_per_chunk` blocks (the last one shorter), whatever the shapes.
  static Split with_chunk_blocks(int64_t bsz, int64_t num_heads, int64_t kv_heads, int64_t kv_len,
                                 int64_t blocks_per_chunk) {
    Split s(bsz, num_heads, kv_heads, 1, kv_len, kv_len + 1);
    s.cut(blocks_per_chunk);
    return s;
  }

  int64_t units() const { return pairs * chunks; }

  void cut(int64_t blocks_per_chunk) {
    per_chunk = blocks_per_chunk;
    chunks = std::max<int64_t>(1, ceil_div(nblocks, per_chunk));
  }
  // Multiply-adds of one unit, at most.
  int64_t unit_work(int64_t d, int64_t dv) const { return tile * per_chunk * kBlock * (d + dv); }

  // Unit u: rows [row0, row0 + n) of the tile of (batch, key/value head) pair
  // bg = b * kv_heads + g, over key blocks [blk0, blk1).
  struct Unit {
    int64_t bg, row0, n, blk0, blk1;
  };
  Unit unit(int64_t u) const {
    const int64_t pair = u / chunks, c = u % chunks, row0 = (pair % tiles) * tile;
    return {pair / tiles, row0, std::min(tile, rows - row0), c * per_chunk, std::min(nblocks, (c + 1) * per_chunk)};
  }
};

// out[c, c + 8 NV) = sum_p w[p] rows_p[c, c + 8 NV) / total, accumulated in
// registers, parts in order.
template <int NV, typename R, typename T>
inline void combine_columns(int64_t parts, const float* w, const R* rows, int64_t rows_step, int64_t c,
                            float total, T* out) {
  Vec8 acc[NV];
  for (Vec8& a : acc) a = Vec8::zero();
  for (int64_t p = 0; p < parts; ++p) {
    const Vec8 wv = Vec8::broadcast(w[p]);
    for (int u = 0; u < NV; ++u) acc[u] = fmadd(wv, Vec8::load(rows + p * rows_step + c + 8 * u), acc[u]);
  }
  const Vec8 t = Vec8::broadcast(total);
  for (int u = 0; u < NV; ++u) (acc[u] / t).store(out + c + 8 * u);
}

// Combines parts of one row, each the softmax over its own keys: part c has
// maximum stats[c * step], exp sum stats[c * step + 1] and result row
// rows + c * rows_step. out = sum_c w_c row_c / sum_c w_c, w_c = sum_c * exp(max_c - M).
template <typename R, typename T>
void combine_row(int64_t parts, const float* stats, int64_t step, const R* rows, int64_t rows_step,
                 int64_t dv, T* out, std::vector<float>& w) {
  float top = -INFINITY;
  for (int64_t c = 0; c < parts; ++c) top = std::max(top, stats[c * step]);
  // The weights eight at a time; lanes past the last part weigh nothing.
  w.resize(size_t(parts + 7) / 8 * 8);
  const Vec8 topv = Vec8::broadcast(top);
  for (int64_t c = 0; c < parts; c += 8) {
    alignas(32) float m[8], l[8];
    for (int64_t i = 0; i < 8; ++i) {
      m[i] = c + i < parts ? stats[(c + i) * step] : top;
      l[i] = c + i < parts ? stats[(c + i) * step + 1] : 0.0f;
    }
    (Vec8::load(l) * fast_exp(Vec8::load(m) - topv)).store(&w[c]);
  }
  float total = 0.0f;
  for (int64_t c = 0; c < parts; ++c) total += w[c];
  int64_t c = 0;
  for (; c + 64 <= dv; c += 64) combine_columns<8>(parts, w.data(), rows, rows_step, c, total, out);
  if (dv - c >= 32) combine_columns<4>(parts, w.data(), rows, rows_step, c, total, out), c += 32;
  if (dv - c >= 16) combine_columns<2>(parts, w.data(), rows, rows_step, c, total, out), c += 16;
  if (dv - c >= 8) combine_columns<1>(parts, w.data(), rows, rows_step, c, total, out);
}

}  // namespace decode
VORTA_ISA_END
}  // namespace vorta::cpu
