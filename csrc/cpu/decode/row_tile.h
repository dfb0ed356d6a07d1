// One row tile of decode attention: online-softmax attention of up to
// kMaxRows query rows that share one key/value head, fed one block of at
// most kBlock keys at a time, through the 8- or the 16-lane tiles.
#pragma once

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/kv_codes.h"
#include "common/params/attention.h"
#include "cpu/decode/tile.h"
#include "cpu/decode/tiles8.h"
#include "cpu/decode/tiles_avx512.h"
#include "cpu/simd/exp.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace decode {

inline constexpr float kNegInf = -std::numeric_limits<float>::infinity();

// Whether tiles may take their 16-lane forms where the CPU has them.
inline std::atomic<bool> g_wide_allowed{true};

// Eight mask values, the first n of p and zeros after them.
template <typename T>
inline Vec8 load_first(const T* p, int n) {
  if (n == 8) return Vec8::load(p);
  T tmp[8] = {};
  std::copy(p, p + n, tmp);
  return Vec8::load(tmp);
}

template <typename T, typename C>
class RowTile {
 public:
  RowTile(const DecodeInputs<T, C>& in, int64_t max_rows)
      : in_(in), group_(in.num_heads / in.kv_heads),
        buf_(max_rows * (in.head_dim + in.value_head_dim + kBlock + 3)) {
    const int64_t d = in.head_dim, dv = in.value_head_dim;
#if VORTA_AVX512
    wide_ = g_wide_allowed.load(std::memory_order_relaxed) && avx512::have_avx512() && d % 16 == 0 &&
            dv % 16 == 0;
    // The 16-lane tiles see the 8-bit codes scaled by powers of two: the
    // score scale and the final division take them back out, exactly.
    if (wide_) {
      scale_ = in.scale / avx512::wide_unit<kv::KeyCode, C>();
      value_unit_ = avx512::wide_unit<kv::ValueCode, C>();
    }
#endif
    float* next = buf_.data();
    auto take = [&](int64_t n) { return std::exchange(next, next + n); };
    float* q = take(max_rows * d);
    float* acc = take(max_rows * dv);
    float* p = take(max_rows * kBlock);
    m_ = take(max_rows);
    l_ = take(max_rows);
    rows_ = {d, dv, q, p, acc, take(max_rows), false};
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
               rows_.q + i * rows_.d, rows_.d);
      mask_[i] = in_.mask ? in_.mask + b * in_.mask_stride[0] + h * in_.mask_stride[1] + s * in_.mask_stride[2]
                          : nullptr;
    }
  }

  // Forgets the keys seen so far.
  void reset() {
    std::fill(m_, m_ + n_, kNegInf);
    std::fill(l_, l_ + n_, 0.0f);
    std::fill(rows_.acc, rows_.acc + n_ * rows_.dv, 0.0f);
    rows_.fresh = true;
  }

  // Adds keys [j0, j0 + nk), 1 <= nk <= kBlock.
  void add_block(int64_t j0, int nk) {
    const C* k = key_ + j0 * rows_.d;
    const C* v = value_ + j0 * rows_.dv;
#if VORTA_AVX512
    if (wide_) {
      for_row_tiles([&](auto r, int64_t i) { score_tile16<decltype(r)::value>(rows_, i, k, v, nk); });
      for (int64_t i = 0; i < n_; ++i) softmax_row(i, j0, nk);
      for_row_tiles([&](auto r, int64_t i) { add_values16<decltype(r)::value>(rows_, i, v, nk); });
      rows_.fresh = false;
      return;
    }
#endif
    for_row_tiles([&](auto r, int64_t i) { score_tile8<decltype(r)::value>(rows_, i, k, v, nk); });
    for (int64_t i = 0; i < n_; ++i) softmax_row(i, j0, nk);
    for_row_tiles([&](auto r, int64_t i) { add_values8<decltype(r)::value>(rows_, i, v, nk); });
    rows_.fresh = false;
  }

  float max_score(int64_t i) const { return m_[i]; }
  float exp_sum(int64_t i) const { return l_[i]; }

  // Row i of the result so far: the weighted value row divided by its weight.
  template <typename R>
  void store(int64_t i, R* dst) const {
    // One division per row: the grouped pass stores a row per 32 keys, where
    // a vector division per eight values costs a few percent of the call.
    const Vec8 inv = Vec8::broadcast(1.0f / (l_[i] * value_unit_));
    const float* acc = rows_.acc + i * rows_.dv;
    for (int64_t c = 0; c < rows_.dv; c += 8) (Vec8::load(acc + c) * inv).store(dst + c);
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

  // Scales and masks row i's scores, then folds them into its running
  // maximum and sum; p becomes exp(score - new maximum), 0 past nk.
  void softmax_row(int64_t i, int64_t j0, int nk) {
    float* p = rows_.p + i * kBlock;
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
    // Once the maximum has settled it rarely moves: exp(0) is 1 without the call.
    rows_.alpha[i] = rows_.fresh ? 0.0f : m == m_[i] ? 1.0f : std::exp(m_[i] - m);
    m_[i] = m;
    Vec8 sum = Vec8::zero();
    for (int t = 0; t < groups; ++t) {
      const Vec8 e = fast_exp(Vec8::load(p + 8 * t) - Vec8::broadcast(m));
      e.store(p + 8 * t);
      sum = sum + e;
    }
    l_[i] = l_[i] * rows_.alpha[i] + reduce_add(sum);
  }

  const DecodeInputs<T, C>& in_;
  const int64_t group_;
  bool wide_ = false;
  float scale_ = in_.scale, value_unit_ = 1.0f;
  std::vector<float> buf_;
  TileRows rows_;
  float *m_, *l_;
  const C* key_ = nullptr;
  const C* value_ = nullptr;
  const T* mask_[kMaxRows] = {};
  int64_t n_ = 0;
};

}  // namespace decode
VORTA_ISA_END
}  // namespace vorta::cpu
