#include "cpu/sdp_decode.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/kv_codes.h"
#include "cpu/attention_vec.h"
#include "cpu/parallel.h"
#include "cpu/vec.h"

namespace vorta::cpu {
namespace {

constexpr int kBlock = int(kDecodeKeyBlock);
constexpr int64_t kMaxRows = 64;        // query rows served by one pass over a cache head
constexpr int64_t kTargetUnits = 64;    // work items per call: balances any common thread count
constexpr int64_t kMinChunkKeys = 256;  // shortest key range worth a work item of its own
constexpr float kNegInf = -std::numeric_limits<float>::infinity();

int64_t ceil_div(int64_t a, int64_t b) { return (a + b - 1) / b; }

// n packed cache rows of d elements as float rows. With pad, the rows are
// zero-extended to a multiple of 8 so that keys can be scored eight at a time.
// Float rows are used in place where no padding is needed.
template <class Code, typename C>
const float* rows_as_float(const C* src, int n, int64_t d, float* buf, bool pad) {
  const int64_t count = n * d, padded = (pad ? (n + 7) / 8 * 8 : n) * d;
  if constexpr (std::is_same_v<C, float>) {
    if (padded == count) return src;
    std::copy(src, src + count, buf);
  } else if constexpr (std::is_same_v<C, half>) {
    for (int64_t i = 0; i < count; i += 8) Vec8::load(src + i).store(buf + i);
  } else {
    static_assert(std::is_same_v<C, uint8_t>, "cache elements are float, half or 8-bit codes");
    for (int64_t i = 0; i < count; i += 8) load_codes<Code>(src + i).store(buf + i);
  }
  std::fill(buf + count, buf + padded, 0.0f);
  return buf;
}

template <typename T>
Vec8 load_first(const T* p, int n) {
  if (n == 8) return Vec8::load(p);
  T tmp[8] = {};
  std::copy(p, p + n, tmp);
  return Vec8::load(tmp);
}

// The dot products of q with the 8 rows k, k + d, ..., k + 7d.
inline Vec8 dot8(const float* q, const float* k, int64_t d) {
  Vec8 acc[8];
  for (Vec8& a : acc) a = Vec8::zero();
  for (int64_t i = 0; i < d; i += 8) {
    const Vec8 qv = Vec8::load(q + i);
    for (int t = 0; t < 8; ++t) acc[t] = fmadd(qv, Vec8::load(k + t * d + i), acc[t]);
  }
  return transpose_add(acc);
}

// Online-softmax attention of up to kMaxRows query rows that share one
// key/value head, fed one block of at most 32 keys at a time. Each block's
// keys and values are widened to float once and used for all rows.
template <typename T, typename C>
class RowTile {
 public:
  RowTile(const DecodeInputs<T, C>& in, int64_t max_rows)
      : in_(in), d_(in.head_dim), dv_(in.value_head_dim), group_(in.num_heads / in.kv_heads),
        buf_(max_rows * (d_ + dv_ + kBlock + 3) + kBlock * (d_ + dv_)) {
    float* next = buf_.data();
    auto take = [&](int64_t n) { return std::exchange(next, next + n); };
    q_ = take(max_rows * d_);
    acc_ = take(max_rows * dv_);
    p_ = take(max_rows * kBlock);
    kbuf_ = take(kBlock * d_);
    vbuf_ = take(kBlock * dv_);
    m_ = take(max_rows);
    l_ = take(max_rows);
    alpha_ = take(max_rows);
  }

  // Serves rows [row0, row0 + n) of key/value head g of batch entry b. Rows
  // count query heads first, then tokens: row r is query head
  // g * group + r / seq_length, token r % seq_length.
  void bind(int64_t b, int64_t g, int64_t row0, int64_t n) {
    n_ = n;
    key_ = in_.key + b * in_.key_stride[0] + g * in_.key_stride[1];
    value_ = in_.value + b * in_.value_stride[0] + g * in_.value_stride[1];
    for (int64_t i = 0; i < n; ++i) {
      const int64_t h = g * group_ + (row0 + i) / in_.seq_length, s = (row0 + i) % in_.seq_length;
      load_row(in_.query + b * in_.query_stride[0] + h * in_.query_stride[1] + s * in_.query_stride[2],
               q_ + i * d_, d_);
      mask_[i] = in_.mask ? in_.mask + b * in_.mask_stride[0] + h * in_.mask_stride[1] + s * in_.mask_stride[2]
                          : nullptr;
    }
  }

  // Forgets the keys seen so far.
  void reset() {
    std::fill(m_, m_ + n_, kNegInf);
    std::fill(l_, l_ + n_, 0.0f);
    std::fill(acc_, acc_ + n_ * dv_, 0.0f);
  }

  // Adds keys [j0, j0 + nk), 1 <= nk <= 32.
  void add_block(int64_t j0, int nk) {
    const float* k = rows_as_float<kv::KeyCode>(key_ + j0 * d_, nk, d_, kbuf_, true);
    const Vec8 scale = Vec8::broadcast(in_.scale);
    const int groups = (nk + 7) / 8;
    for (int64_t i = 0; i < n_; ++i) {
      float* p = p_ + i * kBlock;
      Vec8 top = Vec8::broadcast(kNegInf);
      for (int t = 0; t < groups; ++t) {
        const int valid = std::min(8, nk - 8 * t);
        Vec8 s = dot8(q_ + i * d_, k + 8 * t * d_, d_) * scale;
        if (mask_[i]) s = s + load_first(mask_[i] + j0 + 8 * t, valid);
        s.store(p + 8 * t);
        std::fill(p + 8 * t + valid, p + 8 * t + 8, kNegInf);
        top = max(top, Vec8::load(p + 8 * t));
      }
      const float m = std::max(m_[i], reduce_max(top));
      alpha_[i] = std::exp(m_[i] - m);  // 0 on the first block
      m_[i] = m;
      Vec8 sum = Vec8::zero();
      for (int t = 0; t < groups; ++t) {
        const Vec8 e = exp(Vec8::load(p + 8 * t) - Vec8::broadcast(m));
        e.store(p + 8 * t);
        sum = sum + e;
      }
      l_[i] = l_[i] * alpha_[i] + reduce_add(sum);
    }
    const float* v = rows_as_float<kv::ValueCode>(value_ + j0 * dv_, nk, dv_, vbuf_, false);
    int64_t i = 0;
    for (; i + 2 <= n_; i += 2) add_values<2>(i, v, nk);
    if (i < n_) add_values<1>(i, v, nk);
  }

  int64_t rows() const { return n_; }
  float max_score(int64_t i) const { return m_[i]; }
  float exp_sum(int64_t i) const { return l_[i]; }

  // Row i of the result so far: the weighted value row divided by its weight.
  template <typename R>
  void store(int64_t i, R* dst) const {
    const Vec8 l = Vec8::broadcast(l_[i]);
    for (int64_t c = 0; c < dv_; c += 8) (Vec8::load(acc_ + i * dv_ + c) / l).store(dst + c);
  }

 private:
  // acc = acc * alpha + p . v for rows [i, i + NH): register tiles of NH rows
  // by 8 * NV columns, so each value vector loaded serves NH rows.
  template <int NH>
  void add_values(int64_t i, const float* v, int nk) {
    constexpr int64_t kWidth = NH == 2 ? 32 : 64;
    int64_t c = 0;
    for (; c + kWidth <= dv_; c += kWidth) value_tile<NH, kWidth / 8>(i, c, v, nk);
    if (dv_ - c >= 32) value_tile<NH, 4>(i, c, v, nk), c += 32;
    if (dv_ - c >= 16) value_tile<NH, 2>(i, c, v, nk), c += 16;
    if (dv_ - c >= 8) value_tile<NH, 1>(i, c, v, nk);
  }

  template <int NH, int NV>
  void value_tile(int64_t i, int64_t c, const float* v, int nk) {
    Vec8 a[NH][NV];
    for (int h = 0; h < NH; ++h) {
      const Vec8 alpha = Vec8::broadcast(alpha_[i + h]);
      for (int u = 0; u < NV; ++u) a[h][u] = Vec8::load(acc_ + (i + h) * dv_ + c + 8 * u) * alpha;
    }
    for (int j = 0; j < nk; ++j) {
      Vec8 w[NH];
      for (int h = 0; h < NH; ++h) w[h] = Vec8::broadcast(p_[(i + h) * kBlock + j]);
      for (int u = 0; u < NV; ++u) {
        const Vec8 x = Vec8::load(v + j * dv_ + c + 8 * u);
        for (int h = 0; h < NH; ++h) a[h][u] = fmadd(w[h], x, a[h][u]);
      }
    }
    for (int h = 0; h < NH; ++h)
      for (int u = 0; u < NV; ++u) a[h][u].store(acc_ + (i + h) * dv_ + c + 8 * u);
  }

  const DecodeInputs<T, C>& in_;
  const int64_t d_, dv_, group_;
  std::vector<float> buf_;
  float *q_, *acc_, *p_, *m_, *l_, *alpha_, *kbuf_, *vbuf_;
  const C* key_ = nullptr;
  const C* value_ = nullptr;
  const T* mask_[kMaxRows] = {};
  int64_t n_ = 0;
};

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
    per_chunk = std::max<int64_t>(1, ceil_div(nblocks, chunks));
    chunks = std::max<int64_t>(1, ceil_div(nblocks, per_chunk));
  }

  int64_t units() const { return pairs * chunks; }

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

// Combines parts of one row, each the softmax over its own keys: part c has
// maximum stats[c * step], exp sum stats[c * step + 1] and result row
// rows + c * rows_step. out = sum_c w_c row_c / sum_c w_c, w_c = sum_c * exp(max_c - M).
template <typename R, typename T>
void combine_row(int64_t parts, const float* stats, int64_t step, const R* rows, int64_t rows_step,
                 int64_t dv, T* out, std::vector<float>& acc) {
  float top = kNegInf;
  for (int64_t c = 0; c < parts; ++c) top = std::max(top, stats[c * step]);
  acc.assign(dv, 0.0f);
  float total = 0.0f;
  for (int64_t c = 0; c < parts; ++c) {
    const float w = stats[c * step + 1] * std::exp(stats[c * step] - top);
    total += w;
    const Vec8 wv = Vec8::broadcast(w);
    for (int64_t i = 0; i < dv; i += 8)
      fmadd(wv, Vec8::load(rows + c * rows_step + i), Vec8::load(&acc[i])).store(&acc[i]);
  }
  const Vec8 t = Vec8::broadcast(total);
  for (int64_t i = 0; i < dv; i += 8) (Vec8::load(&acc[i]) / t).store(out + i);
}

}  // namespace

template <typename T, typename C>
void decode_attention(const DecodeInputs<T, C>& in, const DecodeOutput<T>& out) {
  const Split split(in.bsz, in.num_heads, in.kv_heads, in.seq_length, in.kv_len, kMinChunkKeys);
  const int64_t dv = in.value_head_dim, part_size = dv + 2;
  auto out_row = [&](int64_t bg, int64_t r) {
    const int64_t b = bg / in.kv_heads, h = (bg % in.kv_heads) * split.group + r / in.seq_length;
    return out.data + b * out.stride[0] + h * out.stride[1] + (r % in.seq_length) * out.stride[2];
  };
  // With several chunks each one leaves (max, sum, row) per query row here.
  std::vector<float> parts(split.chunks > 1 ? split.units() * split.tile * part_size : 0);
  parallel_for(0, split.units(), 1, [&](int64_t lo, int64_t hi) {
    RowTile<T, C> tile(in, split.tile);
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
  parallel_for(0, rows, 1, [&](int64_t lo, int64_t hi) {
    std::vector<float> acc;
    for (int64_t x = lo; x < hi; ++x) {
      const int64_t pair = x / split.tile, i = x % split.tile, row0 = (pair % split.tiles) * split.tile;
      if (row0 + i >= split.rows) continue;  // past the end of the last tile
      const float* first = &parts[(pair * split.chunks * split.tile + i) * part_size];
      const int64_t step = split.tile * part_size;
      combine_row(split.chunks, first, step, first + 2, step, dv, out_row(pair / split.tiles, row0 + i), acc);
    }
  });
}

template <typename T, typename C>
void decode_attention_blocks(const DecodeInputs<T, C>& in, const DecodeBlocks<T>& blocks) {
  const Split split(in.bsz, in.num_heads, in.kv_heads, 1, in.kv_len, kBlock);
  const int64_t dv = in.value_head_dim;
  parallel_for(0, split.units(), 1, [&](int64_t lo, int64_t hi) {
    RowTile<T, C> tile(in, split.tile);
    for (int64_t u = lo; u < hi; ++u) {
      const Split::Unit w = split.unit(u);
      const int64_t b = w.bg / in.kv_heads, h0 = (w.bg % in.kv_heads) * split.group + w.row0;
      tile.bind(b, w.bg % in.kv_heads, w.row0, w.n);
      for (int64_t blk = w.blk0; blk < w.blk1; ++blk) {
        tile.reset();
        tile.add_block(blk * kBlock, int(std::min<int64_t>(kBlock, in.kv_len - blk * kBlock)));
        for (int64_t i = 0; i < w.n; ++i) {
          float* stats = blocks.stats + b * blocks.stats_stride[0] + (h0 + i) * blocks.stats_stride[1];
          stats[2 * blk] = tile.max_score(i);
          stats[2 * blk + 1] = tile.exp_sum(i);
          tile.store(i, blocks.rows + b * blocks.rows_stride[0] + (h0 + i) * blocks.rows_stride[1] + blk * dv);
        }
      }
    }
  });
}

template <typename T>
void combine_attention_blocks(const DecodeBlocks<T>& blocks, const DecodeOutput<T>& out, int64_t bsz,
                              int64_t num_heads, int64_t dv) {
  parallel_for(0, bsz * num_heads, 1, [&](int64_t lo, int64_t hi) {
    std::vector<float> acc;
    for (int64_t x = lo; x < hi; ++x) {
      const int64_t b = x / num_heads, h = x % num_heads;
      combine_row(blocks.nblocks, blocks.stats + b * blocks.stats_stride[0] + h * blocks.stats_stride[1], 2,
                  blocks.rows + b * blocks.rows_stride[0] + h * blocks.rows_stride[1], dv, dv,
                  out.data + b * out.stride[0] + h * out.stride[1], acc);
    }
  });
}

#define VORTA_INSTANTIATE(T, C)                                                          \
  template void decode_attention<T, C>(const DecodeInputs<T, C>&, const DecodeOutput<T>&); \
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

}  // namespace vorta::cpu
