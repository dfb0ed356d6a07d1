// The entry points of decode attention on the CPU: the work split over the
// thread pool, a row tile per worker, and the combination of the parts.
#include <algorithm>
#include <vector>

#include "cpu/decode.h"
#include "cpu/decode/row_tile.h"
#include "cpu/decode/split.h"
#include "cpu/parallel.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

using decode::grain;
using decode::kBlock;
using decode::RowTile;
using decode::Split;

namespace {

// The grouped first pass folds runs of this many keys into one online
// softmax and leaves one part per run in the first slots of the block
// temporaries: 256 keys keep both threads of a one-sequence call busy, and
// the second pass reads an eighth of what a part per block would leave.
constexpr int64_t kGroupedRunKeys = 256;
static_assert(kGroupedRunKeys % kBlock == 0 && kGroupedRunKeys % kDecodeKeyBlock == 0,
              "a run is whole steps of a row tile and whole blocks of the temporaries");

// With several chunks, each leaves (max, sum, row) per query row in the
// workspace: floats [units, tile, value_head_dim + 2].
inline int64_t part_floats(int64_t value_head_dim) { return value_head_dim + 2; }

// Runs body(tile, lo, hi) over the split's units, a row tile per thread;
// runs of about a thirty-second of the units at a time go to whichever
// thread is free.
template <typename T, typename C, typename Body>
void run_units(const DecodeInputs<T, C>& in, const Split& split, Body&& body) {
  const int64_t units = split.units();
  parallel_dynamic(units, std::max<int64_t>(1, units / 32), grain(split.unit_work(in.head_dim, in.value_head_dim)),
                   [&] { return RowTile<T, C>(in, split.tile); }, body);
}

template <typename T, typename C>
Split decode_split(const DecodeInputs<T, C>& in) {
  return Split(in.bsz, in.num_heads, in.kv_heads, in.seq_length, in.kv_len, decode::kMinChunkKeys);
}

}  // namespace

void allow_wide_decode(bool allow) { decode::g_wide_allowed.store(allow, std::memory_order_relaxed); }

template <typename T, typename C>
size_t decode_workspace_bytes(const DecodeInputs<T, C>& in) {
  const Split split = decode_split(in);
  if (split.chunks == 1) return 0;
  return size_t(split.units() * split.tile * part_floats(in.value_head_dim)) * sizeof(float);
}

template <typename T, typename C>
void decode_attention(const DecodeInputs<T, C>& in, const DecodeOutput<T>& out, void* workspace) {
  const Split split = decode_split(in);
  const int64_t dv = in.value_head_dim, part_size = part_floats(dv);
  auto out_row = [&](int64_t bg, int64_t r) {
    const int64_t b = bg / in.kv_heads, h = (bg % in.kv_heads) * split.group + r / in.seq_length;
    return out.data + b * out.stride[0] + h * out.stride[1] + (r % in.seq_length) * out.stride[2];
  };
  float* parts = static_cast<float*>(workspace);
  run_units(in, split, [&](RowTile<T, C>& tile, int64_t lo, int64_t hi) {
    for (int64_t u = lo; u < hi; ++u) {
      const Split::Unit w = split.unit(u);
      tile.bind(w.bg / in.kv_heads, w.bg % in.kv_heads, w.row0, w.n);
      tile.reset();
      for (int64_t blk = w.blk0; blk < w.blk1; ++blk)
        tile.add_block(blk * kBlock, int(std::min<int64_t>(kBlock, in.kv_len - blk * kBlock)));
      for (int64_t i = 0; i < w.n; ++i) {
        if (split.chunks == 1) {
          tile.store(i, out_row(w.bg, w.row0 + i));
          continue;
        }
        float* part = &parts[(u * split.tile + i) * part_size];
        part[0] = tile.max_score(i);
        part[1] = tile.exp_sum(i);
        tile.store(i, part + 2);
      }
    }
  });
  if (split.chunks == 1) return;
  const int64_t rows = split.pairs * split.tile;
  parallel_for(0, rows, grain(split.chunks * dv), [&](int64_t lo, int64_t hi) {
    std::vector<float> weights;
    for (int64_t x = lo; x < hi; ++x) {
      const int64_t pair = x / split.tile, i = x % split.tile, row0 = (pair % split.tiles) * split.tile;
      if (row0 + i >= split.rows) continue;  // past the end of the last tile
      const float* first = &parts[(pair * split.chunks * split.tile + i) * part_size];
      const int64_t step = split.tile * part_size;
      decode::combine_row(split.chunks, first, step, first + 2, step, dv, out_row(pair / split.tiles, row0 + i), weights);
    }
  });
}

template <typename T, typename C>
void decode_attention_blocks(const DecodeInputs<T, C>& in, const DecodeBlocks<T>& blocks) {
  const Split split =
      Split::with_chunk_blocks(in.bsz, in.num_heads, in.kv_heads, in.kv_len, kGroupedRunKeys / kBlock);
  const int64_t dv = in.value_head_dim;
  run_units(in, split, [&](RowTile<T, C>& tile, int64_t lo, int64_t hi) {
    for (int64_t u = lo; u < hi; ++u) {
      const Split::Unit w = split.unit(u);
      const int64_t b = w.bg / in.kv_heads, h0 = (w.bg % in.kv_heads) * split.group + w.row0;
      const int64_t run = u % split.chunks;
      tile.bind(b, w.bg % in.kv_heads, w.row0, w.n);
      tile.reset();
      for (int64_t blk = w.blk0; blk < w.blk1; ++blk)
        tile.add_block(blk * kBlock, int(std::min<int64_t>(kBlock, in.kv_len - blk * kBlock)));
      for (int64_t i = 0; i < w.n; ++i) {
        float* stats = blocks.stats + b * blocks.stats_stride[0] + (h0 + i) * blocks.stats_stride[1];
        stats[2 * run] = tile.max_score(i);
        stats[2 * run + 1] = tile.exp_sum(i);
        tile.store(i, blocks.rows + b * blocks.rows_stride[0] + (h0 + i) * blocks.rows_stride[1] + run * dv);
      }
    }
  });
}

template <typename T>
void combine_attention_blocks(const DecodeBlocks<T>& blocks, const DecodeOutput<T>& out, int64_t bsz,
                              int64_t num_heads, int64_t dv) {
  const int64_t runs = decode::ceil_div(blocks.nblocks, kGroupedRunKeys / kDecodeKeyBlock);
  parallel_for(0, bsz * num_heads, grain(runs * dv), [&](int64_t lo, int64_t hi) {
    std::vector<float> weights;
    for (int64_t x = lo; x < hi; ++x) {
      const int64_t b = x / num_heads, h = x % num_heads;
      decode::combine_row(runs, blocks.stats + b * blocks.stats_stride[0] + h * blocks.stats_stride[1], 2,
                  blocks.rows + b * blocks.rows_stride[0] + h * blocks.rows_stride[1], dv, dv,
                  out.data + b * out.stride[0] + h * out.stride[1], weights);
    }
  });
}

#define VORTA_INSTANTIATE(T, C)                                                          \
  template size_t decode_workspace_bytes<T, C>(const DecodeInputs<T, C>&);                  \
  template void decode_attention<T, C>(const DecodeInputs<T, C>&, const DecodeOutput<T>&, void*); \
  template void decode_attention_blocks<T, C>(const DecodeInputs<T, C>&, const DecodeBlocks<T>&);
VORTA_INSTANTIATE(float, float)
VORTA_INSTANTIATE(half, half)
VORTA_INSTANTIATE(float, uint8_t)
VORTA_INSTANTIATE(half, uint8_t)
#undef VORTA_INSTANTIATE
template void combine_attention_blocks<float>(const DecodeBlocks<float>&, const DecodeOutput<float>&, int64_t,
                                              int64_t, int64_t);
template void combine_attention_blocks<half>(const DecodeBlocks<half>&, const DecodeOutput<half>&, int64_t,
                                             int64_t, int64_t);

VORTA_ISA_END
}  // namespace vorta::cpu
