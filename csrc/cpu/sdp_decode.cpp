#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/kv_codes.h"
#include "cpu/attention_simd.h"
#include "cpu/attention_vec.h"
#include "cpu/decode.h"
#include "cpu/parallel.h"
#include "cpu/vec.h"

namespace vorta::cpu {
namespace {

constexpr int kBlock = int(kDecodeKeyBlock);
constexpr int64_t kMaxRows = 64;        // query rows served by one pass over a cache head
constexpr int64_t kTargetUnits = 64;    // work items per call: balances any common thread count
constexpr int64_t kMinChunkKeys = 256;  // shortest key range worth a work item of its own
constexpr int64_t kForkWork = 1 << 16;  // multiply-adds that pay for handing work to another thread
constexpr float kNegInf = -std::numeric_limits<float>::infinity();

std::atomic<bool> g_wide_allowed{true};

int64_t ceil_div(int64_t a, int64_t b) { return (a + b - 1) / b; }

// Items per task for a parallel loop whose items cost `work` multiply-adds
// each: small calls stay on the calling thread.
int64_t grain(int64_t work) { return ceil_div(kForkWork, std::max<int64_t>(work, 1)); }

// Eight cache elements as floats.
template <class Code>
Vec8 widen8(const float* p) { return Vec8::load(p); }
template <class Code>
Vec8 widen8(const half* p) { return Vec8::load(p); }
template <class Code>
Vec8 widen8(const uint8_t* p) { return load_codes<Code>(p); }

template <typename T>
Vec8 load_first(const T* p, int n) {
  if (n == 8) return Vec8::load(p);
  T tmp[8] = {};
  std::copy(p, p + n, tmp);
  return Vec8::load(tmp);
}

#if VORTA_ATTN_AVX512
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
using attn::have_avx512;
using attn::high_half;
using attn::load16;

// Sixteen code bytes as floats, scaled by a power of two that the caller
// takes back out: sign << 31 | 0x40000000 | (magnitude bits) << 20 | 0x40 << 13
// is (-1)^s 2^(e + 1) (1 + m / 8 + 1 / 16) for the code's 4-bit exponent e and
// 3-bit mantissa m, exactly 2^(16 - kOffset / 8) times the decoded value. Three
// operations (sign-extending load, shift, one bitwise select), no addition.
template <class Code>
VORTA_TARGET_AVX512 inline __m512 load16(const uint8_t* p) {
  static_assert(Code::kOffset % 8 == 0, "the offset must move the exponent alone");
  const __m512i b = _mm512_cvtepi8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
  return _mm512_castsi512_ps(_mm512_ternarylogic_epi32(_mm512_slli_epi32(b, 20), _mm512_set1_epi32(int32_t(0x87f00000u)),
                                                       _mm512_set1_epi32(0x40080000), 0xea));
}
template <class Code, typename C>
VORTA_TARGET_AVX512 inline __m512 widen16(const C* p) { return load16(p); }
template <class Code>
VORTA_TARGET_AVX512 inline __m512 widen16(const uint8_t* p) { return load16<Code>(p); }

// Lane 4 (x % 4) + x / 4 of the result is the sum of the lanes of a[x]: a
// tree of 15 additions, each halving the data, and their shuffles.
VORTA_TARGET_AVX512 inline __m512 transpose_add16(const __m512 a[16]) {
  __m512 b[8], c[4];
  for (int p = 0; p < 8; ++p)  // 256-bit half h: a[2p + h] folded to 256 bits
    b[p] = _mm512_add_ps(_mm512_shuffle_f32x4(a[2 * p], a[2 * p + 1], 0x44),
                         _mm512_shuffle_f32x4(a[2 * p], a[2 * p + 1], 0xee));
  for (int p = 0; p < 4; ++p)  // 128-bit lane k: a[4p + k] folded to 128 bits
    c[p] = _mm512_add_ps(_mm512_shuffle_f32x4(b[2 * p], b[2 * p + 1], _MM_SHUFFLE(2, 0, 2, 0)),
                         _mm512_shuffle_f32x4(b[2 * p], b[2 * p + 1], _MM_SHUFFLE(3, 1, 3, 1)));
  const __m512 d0 = _mm512_add_ps(_mm512_unpacklo_ps(c[0], c[1]), _mm512_unpackhi_ps(c[0], c[1]));
  const __m512 d1 = _mm512_add_ps(_mm512_unpacklo_ps(c[2], c[3]), _mm512_unpackhi_ps(c[2], c[3]));
  return _mm512_add_ps(_mm512_shuffle_ps(d0, d1, _MM_SHUFFLE(1, 0, 1, 0)),
                       _mm512_shuffle_ps(d0, d1, _MM_SHUFFLE(3, 2, 3, 2)));
}
#endif

// What widen16 multiplies the cache elements by.
template <class Code, typename C>
constexpr float wide_unit() {
  if constexpr (std::is_same_v<C, uint8_t>) return float(1 << (16 - Code::kOffset / 8));
  else return 1.0f;
}

// Cache levels for prefetch_span.
constexpr int kL1 = 3, kL2 = 2;
// Key blocks between the one being scored and the one the 16-lane tiles prefetch.
constexpr int64_t kAheadBlocks = 2;

// Prefetches the cache lines of elements [first, first + n) of p, which may
// lie past the end of the cache (a prefetch never faults), into level kL1 or kL2.
template <int Level = kL1, typename C>
void prefetch_span(const C* p, int64_t first, int64_t n) {
  const uintptr_t start = reinterpret_cast<uintptr_t>(p) + uintptr_t(first) * sizeof(C);
  for (uintptr_t a = start; a < start + uintptr_t(n) * sizeof(C); a += 64)
    __builtin_prefetch(reinterpret_cast<const void*>(a), 0, Level);
}

// Online-softmax attention of up to kMaxRows query rows that share one
// key/value head, fed one block of at most 32 keys at a time. Keys and values
// are widened in registers, in tiles of R rows (4, 2 or 1) by 8 / R keys or
// value vectors, so every element widened serves R rows.
template <typename T, typename C>
class RowTile {
 public:
  RowTile(const DecodeInputs<T, C>& in, int64_t max_rows)
      : in_(in), d_(in.head_dim), dv_(in.value_head_dim), group_(in.num_heads / in.kv_heads),
        buf_(max_rows * (d_ + dv_ + kBlock + 3)) {
#if VORTA_ATTN_AVX512
    wide_ = g_wide_allowed.load(std::memory_order_relaxed) && have_avx512() && d_ % 16 == 0 && dv_ % 16 == 0;
#endif
    // The 16-lane kernels see the 8-bit codes scaled by powers of two: the
    // score scale and the final division take them back out, exactly.
    scale_ = wide_ ? in.scale / wide_unit<kv::KeyCode, C>() : in.scale;
    value_unit_ = wide_ ? wide_unit<kv::ValueCode, C>() : 1.0f;
    float* next = buf_.data();
    auto take = [&](int64_t n) { return std::exchange(next, next + n); };
    q_ = take(max_rows * d_);
    acc_ = take(max_rows * dv_);
    p_ = take(max_rows * kBlock);
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
    const C* k = key_ + j0 * d_;
    const C* v = value_ + j0 * dv_;
#if VORTA_ATTN_AVX512
    if (wide_) {
      for_row_tiles([&](auto rows, int64_t i) { score_tile512<decltype(rows)::value>(i, k, v, nk); });
      for (int64_t i = 0; i < n_; ++i) softmax_row(i, j0, nk);
      for_row_tiles([&](auto rows, int64_t i) { add_values512<decltype(rows)::value>(i, v, nk); });
      return;
    }
#endif
    for_row_tiles([&](auto rows, int64_t i) { score_tile<decltype(rows)::value>(i, k, v, nk); });
    for (int64_t i = 0; i < n_; ++i) softmax_row(i, j0, nk);
    for_row_tiles([&](auto rows, int64_t i) { add_values<decltype(rows)::value>(i, v, nk); });
  }

  int64_t rows() const { return n_; }
  float max_score(int64_t i) const { return m_[i]; }
  float exp_sum(int64_t i) const { return l_[i]; }

  // Row i of the result so far: the weighted value row divided by its weight.
  template <typename R>
  void store(int64_t i, R* dst) const {
    // One division per row: the grouped pass stores a row per 32 keys, where
    // a vector division per eight values costs a few percent of the call.
    const Vec8 inv = Vec8::broadcast(1.0f / (l_[i] * value_unit_));
    for (int64_t c = 0; c < dv_; c += 8) (Vec8::load(acc_ + i * dv_ + c) * inv).store(dst + c);
  }

 private:
  // Calls f(std::integral_constant<int, R>, i) for row tiles [i, i + R) covering all rows.
  template <typename F>
  void for_row_tiles(F f) {
    int64_t i = 0;
    for (; i + 4 <= n_; i += 4) f(std::integral_constant<int, 4>{}, i);
    if (i + 2 <= n_) f(std::integral_constant<int, 2>{}, i), i += 2;
    if (i < n_) f(std::integral_constant<int, 1>{}, i);
  }

  // p[r][j] = q_r . k_j for rows [i, i + R) and the block's keys. The first
  // tile also prefetches, row by row, the block's values (read next, column
  // by column, which the hardware would not foresee) and the next block's keys.
  template <int R>
  void score_tile(int64_t i, const C* k, const C* v, int nk) {
    constexpr int K = 8 / R;
    for (int j = 0; j < nk; j += K) {
      const C* key[K];
      for (int t = 0; t < K; ++t) key[t] = k + std::min(j + t, nk - 1) * d_;  // a tail repeats its last key
      if (i == 0) {
        const int n = std::min(K, nk - j);
        prefetch_span(v, j * dv_, n * dv_);
        prefetch_span(k, (kBlock + j) * d_, n * d_);
      }
      Vec8 acc[8];
      for (Vec8& a : acc) a = Vec8::zero();
      for (int64_t c = 0; c < d_; c += 8) {
        Vec8 q[R];
        for (int r = 0; r < R; ++r) q[r] = Vec8::load(q_ + (i + r) * d_ + c);
        for (int t = 0; t < K; ++t) {
          Vec8 x = widen8<kv::KeyCode>(key[t] + c);
          if (R > 1) keep_in_register(x);
          for (int r = 0; r < R; ++r) acc[r * K + t] = fmadd(q[r], x, acc[r * K + t]);
        }
      }
      float dots[8];
      transpose_add(acc).store(dots);
      for (int r = 0; r < R; ++r)
        for (int t = 0; t < K && j + t < nk; ++t) p_[(i + r) * kBlock + j + t] = dots[r * K + t];
    }
  }

  // Scales and masks row i's scores, then folds them into its running
  // maximum and sum; p becomes exp(score - new maximum), 0 past nk.
  void softmax_row(int64_t i, int64_t j0, int nk) {
    float* p = p_ + i * kBlock;
    const Vec8 scale = Vec8::broadcast(scale_);
    const int groups = (nk + 7) / 8;
    Vec8 top = Vec8::broadcast(kNegInf);
    for (int t = 0; t < groups; ++t) {
      const int valid = std::min(8, nk - 8 * t);
      Vec8 s = Vec8::load(p + 8 * t) * scale;
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

  // acc = acc * alpha + p . v for rows [i, i + R), in column tiles of
  // 8 * (8 / R) and narrower ones for the rest.
  template <int R>
  void add_values(int64_t i, const C* v, int nk) {
    constexpr int NV = 8 / R;
    int64_t c = 0;
    for (; c + 8 * NV <= dv_; c += 8 * NV) value_tile<R, NV>(i, c, v, nk);
    if constexpr (NV > 4)
      if (dv_ - c >= 32) value_tile<R, 4>(i, c, v, nk), c += 32;
    if constexpr (NV > 2)
      if (dv_ - c >= 16) value_tile<R, 2>(i, c, v, nk), c += 16;
    if constexpr (NV > 1)
      if (dv_ - c >= 8) value_tile<R, 1>(i, c, v, nk);
  }

  template <int R, int NV>
  void value_tile(int64_t i, int64_t c, const C* v, int nk) {
    Vec8 a[R][NV];
    for (int r = 0; r < R; ++r) {
      const Vec8 alpha = Vec8::broadcast(alpha_[i + r]);
      for (int u = 0; u < NV; ++u) a[r][u] = Vec8::load(acc_ + (i + r) * dv_ + c + 8 * u) * alpha;
    }
    for (int j = 0; j < nk; ++j) {
      Vec8 w[R];
      for (int r = 0; r < R; ++r) w[r] = Vec8::broadcast(p_[(i + r) * kBlock + j]);
      for (int u = 0; u < NV; ++u) {
        Vec8 x = widen8<kv::ValueCode>(v + j * dv_ + c + 8 * u);
        if (R > 1) keep_in_register(x);
        for (int r = 0; r < R; ++r) a[r][u] = fmadd(w[r], x, a[r][u]);
      }
    }
    for (int r = 0; r < R; ++r)
      for (int u = 0; u < NV; ++u) a[r][u].store(acc_ + (i + r) * dv_ + c + 8 * u);
  }

#if VORTA_ATTN_AVX512
  // score_tile on 16-lane registers: 16 dot products in flight, R rows by
  // 16 / R keys, each widened key vector serving R rows. These tiles outrun
  // first-level prefetches, whose fetches from memory then stall them, so the
  // rows of the block after next go to the second level, spread over the
  // block's key groups. Accumulator t * R + r
  // (key t, row r) lands in lane 4 r + t of the reduction when R is 4: row r's
  // four scores are one 128-bit store.
  template <int R>
  VORTA_TARGET_AVX512 void score_tile512(int64_t i, const C* k, const C* v, int nk) {
    constexpr int K = 16 / R;
    for (int j = 0; j < nk; j += K) {
      const C* key[K];
      for (int t = 0; t < K; ++t) key[t] = k + std::min(j + t, nk - 1) * d_;
      if (i == 0) {
        const int n = std::min(K, nk - j);
        prefetch_span<kL2>(v, (kAheadBlocks * kBlock + j) * dv_, n * dv_);
        prefetch_span<kL2>(k, (kAheadBlocks * kBlock + j) * d_, n * d_);
      }
      __m512 acc[16];
      for (__m512& a : acc) a = _mm512_setzero_ps();
      for (int64_t c = 0; c < d_; c += 16) {
        __m512 q[R];
        for (int r = 0; r < R; ++r) q[r] = _mm512_loadu_ps(q_ + (i + r) * d_ + c);
        for (int t = 0; t < K; ++t) {
          const __m512 x = widen16<kv::KeyCode>(key[t] + c);
          for (int r = 0; r < R; ++r) acc[t * R + r] = _mm512_fmadd_ps(q[r], x, acc[t * R + r]);
        }
      }
      // Scores past nk land inside the row's 32 slots and are never read.
      const __m512 dots = transpose_add16(acc);
      if constexpr (R == 4) {
        _mm_storeu_ps(p_ + (i + 0) * kBlock + j, _mm512_castps512_ps128(dots));
        _mm_storeu_ps(p_ + (i + 1) * kBlock + j, _mm512_extractf32x4_ps(dots, 1));
        _mm_storeu_ps(p_ + (i + 2) * kBlock + j, _mm512_extractf32x4_ps(dots, 2));
        _mm_storeu_ps(p_ + (i + 3) * kBlock + j, _mm512_extractf32x4_ps(dots, 3));
      } else {
        float lanes[16];
        _mm512_storeu_ps(lanes, dots);
        for (int x = 0; x < 16; ++x) p_[(i + x % R) * kBlock + j + x / R] = lanes[4 * (x % 4) + x / 4];
      }
    }
  }

  template <int R>
  VORTA_TARGET_AVX512 void add_values512(int64_t i, const C* v, int nk) {
    constexpr int NV = R == 4 ? 4 : 8;
    int64_t c = 0;
    for (; c + 16 * NV <= dv_; c += 16 * NV) value_tile512<R, NV>(i, c, v, nk);
    if constexpr (NV > 4)
      if (dv_ - c >= 64) value_tile512<R, 4>(i, c, v, nk), c += 64;
    if (dv_ - c >= 32) value_tile512<R, 2>(i, c, v, nk), c += 32;
    if (dv_ - c >= 16) value_tile512<R, 1>(i, c, v, nk);
  }

  template <int R, int NV>
  VORTA_TARGET_AVX512 void value_tile512(int64_t i, int64_t c, const C* v, int nk) {
    __m512 a[R][NV];
    for (int r = 0; r < R; ++r) {
      const __m512 alpha = _mm512_set1_ps(alpha_[i + r]);
      for (int u = 0; u < NV; ++u) a[r][u] = _mm512_mul_ps(_mm512_loadu_ps(acc_ + (i + r) * dv_ + c + 16 * u), alpha);
    }
    for (int j = 0; j < nk; ++j) {
      __m512 w[R];
      for (int r = 0; r < R; ++r) w[r] = _mm512_set1_ps(p_[(i + r) * kBlock + j]);
      for (int u = 0; u < NV; ++u) {
        const __m512 x = widen16<kv::ValueCode>(v + j * dv_ + c + 16 * u);
        for (int r = 0; r < R; ++r) a[r][u] = _mm512_fmadd_ps(w[r], x, a[r][u]);
      }
    }
    for (int r = 0; r < R; ++r)
      for (int u = 0; u < NV; ++u) _mm512_storeu_ps(acc_ + (i + r) * dv_ + c + 16 * u, a[r][u]);
  }
#endif

  const DecodeInputs<T, C>& in_;
  const int64_t d_, dv_, group_;
  bool wide_ = false;
  float scale_ = 1.0f, value_unit_ = 1.0f;
  std::vector<float> buf_;
  float *q_, *acc_, *p_, *m_, *l_, *alpha_;
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

#if VORTA_ATTN_AVX512
#pragma GCC diagnostic pop
#endif

// With several chunks, each leaves (max, sum, row) per query row in the
// workspace: floats [units, tile, value_head_dim + 2].
inline int64_t part_floats(int64_t value_head_dim) { return value_head_dim + 2; }

template <typename T, typename C>
Split decode_split(const DecodeInputs<T, C>& in) {
  return Split(in.bsz, in.num_heads, in.kv_heads, in.seq_length, in.kv_len, kMinChunkKeys);
}

}  // namespace

void allow_wide_decode(bool allow) { g_wide_allowed.store(allow, std::memory_order_relaxed); }

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
  parallel_for(0, split.units(), grain(split.unit_work(in.head_dim, dv)), [&](int64_t lo, int64_t hi) {
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
  parallel_for(0, rows, grain(split.chunks * dv), [&](int64_t lo, int64_t hi) {
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
  parallel_for(0, split.units(), grain(split.unit_work(in.head_dim, dv)), [&](int64_t lo, int64_t hi) {
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
  parallel_for(0, bsz * num_heads, grain(blocks.nblocks * dv), [&](int64_t lo, int64_t hi) {
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

}  // namespace vorta::cpu
