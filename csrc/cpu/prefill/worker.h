// The worker of prefill attention: a block of up to kBlockRows query rows of
// one head, streamed against 64-key tiles with an online softmax, through the
// 8- or the 16-lane micro-kernels; and the pool of workers of one call.
#pragma once

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>
#include <type_traits>
#include <vector>

#include "cpu/parallel.h"
#include "cpu/prefetch.h"
#include "cpu/prefill/micro_kernels.h"
#include "cpu/prefill/micro_kernels_avx512.h"
#include "cpu/prefill/problem.h"
#include "cpu/simd/exp.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace prefill {

constexpr int kTile = kKeyTile;  // keys per tile
constexpr int kBlockRows = 96;   // query rows per task
// The running maximum starts below every score, so that rows whose scores all
// lie far below -65504 (fp32 masks of -1e9 or the type's minimum) still get a
// proper softmax instead of 0 / 0.
constexpr float kInitMax = -std::numeric_limits<float>::infinity();

template <typename F>
inline void with_nv(int nv, F&& f) {
  switch (nv) {
    case 4: return f(std::integral_constant<int, 4>{});
    case 2: return f(std::integral_constant<int, 2>{});
    default: return f(std::integral_constant<int, 1>{});
  }
}

template <typename T, typename KV>
class Worker {
 public:
  explicit Worker(const AttentionProblem<T, KV>& p)
      : p_(p),
        kd_(p.k_dim),
        vd_(p.v_dim),
        q_(size_t(kBlockRows) * kd_),
        s_(size_t(kBlockRows) * kTile),
        o_(size_t(kBlockRows) * vd_),
        m_(kBlockRows),
        l_(kBlockRows),
        corr_(kBlockRows),
        k_(std::is_same_v<KV, float> ? 0 : size_t(kd_) * kTile),
        v_(std::is_same_v<KV, float> ? 0 : size_t(kTile) * vd_) {
#if VORTA_AVX512
    wide_ = avx512::have_avx512();
#endif
  }

  // Query rows [q0, q1) of query head h in batch b.
  void run(int64_t b, int64_t h, int64_t q0, int64_t q1) {
    const int rows = int(q1 - q0);
    const int64_t hk = h / (p_.q_heads / p_.kv_heads);
    load_queries(b, h, q0, rows);
    std::fill(o_.begin(), o_.begin() + size_t(rows) * vd_, 0.0f);
    std::fill(m_.begin(), m_.end(), kInitMax);
    std::fill(l_.begin(), l_.end(), 0.0f);
    const int64_t key_end = p_.causal ? std::min(p_.kv_len, q1) : p_.kv_len;
    for (int64_t t0 = 0; t0 < key_end; t0 += kTile) {
      // Keys of this tile that any row of the block may see.
      const int n = int(std::min<int64_t>(kTile, key_end - t0));
      look_ahead(b, hk, t0 + kTile, key_end);
      scores(key_tile(b, hk, t0), q0, t0, rows, n);
      softmax(b, h, q0, t0, rows, n);
      int64_t ldv = 0;
      const float* vt = value_tile(b, hk, t0, n, ldv);
#if VORTA_AVX512
      if (wide_) {
        for (int c = 0; c < vd_;) {
          const int nv = vd_ - c >= 64 ? 4 : vd_ - c >= 32 ? 2 : 1;
          for (int r = 0; r < rows; r += kMr)
            with_rows(std::min(kMr, rows - r), [&](auto R) {
              with_nv(nv, [&](auto NV) {
                value_kernel512<R(), NV()>(s_.data() + r * kTile, kTile, vt + c, ldv, n,
                                           o_.data() + r * vd_ + c, vd_, corr_.data() + r);
              });
            });
          c += 16 * nv;
        }
        continue;
      }
#endif
      for (int c = 0; c < vd_; c += 16)
        for (int r = 0; r < rows; r += kMr)
          with_rows(std::min(kMr, rows - r), [&](auto R) {
            value_kernel<R()>(s_.data() + r * kTile, kTile, vt + c, ldv, visible(q0 + r + R(), t0, n),
                              o_.data() + r * vd_ + c, vd_, corr_.data() + r);
          });
    }
    store(b, h, q0, rows);
  }

 private:
  void load_queries(int64_t b, int64_t h, int64_t q0, int rows) {
    const Vec8 scale = Vec8::broadcast(p_.scale);
    const T* base = p_.query + b * p_.q_stride[0] + h * p_.q_stride[1] + q0 * p_.q_stride[2];
    for (int r = 0; r < rows; ++r) {
      float* dst = q_.data() + size_t(r) * kd_;
      load_row(base + r * p_.q_stride[2], dst, p_.q_dim);
      std::fill(dst + p_.q_dim, dst + kd_, 0.0f);
      // Scaled here, so that the scores come out of the products scaled.
      for (int c = 0; c < kd_; c += 8) (Vec8::load(dst + c) * scale).store(dst + c);
    }
  }

  // The tile's keys as floats, component-major.
  const float* key_tile(int64_t b, int64_t hk, int64_t t0) {
    const KV* tile = p_.key + b * p_.k_stride[0] + hk * p_.k_stride[1] + t0 * kd_;
    if constexpr (std::is_same_v<KV, float>) {
      return tile;
    } else {
      load_row(tile, k_.data(), int64_t(kd_) * kTile);
      return k_.data();
    }
  }

  const float* value_tile(int64_t b, int64_t hk, int64_t t0, int n, int64_t& ldv) {
    const KV* base = p_.value + b * p_.v_stride[0] + hk * p_.v_stride[1] + t0 * p_.v_stride[2];
    if constexpr (std::is_same_v<KV, float>) {
      ldv = p_.v_stride[2];
      return base;
    } else {
      for (int j = 0; j < n; ++j)
        load_row(base + j * p_.v_stride[2], v_.data() + size_t(j) * vd_, vd_);
      ldv = vd_;
      return v_.data();
    }
  }

  // The next tile's keys and values are fetched while this tile's scores are
  // computed, a slice per micro-kernel call (fetch_ahead(i, parts)): left to
  // the hardware's prefetcher, each tile's first kernels wait on L3 or memory.
  void look_ahead(int64_t b, int64_t hk, int64_t t1, int64_t key_end) {
    ahead_rows_ = int(std::clamp<int64_t>(key_end - t1, 0, kTile));
    ahead_k_ = p_.key + b * p_.k_stride[0] + hk * p_.k_stride[1] + t1 * kd_;
    ahead_v_ = p_.value + b * p_.v_stride[0] + hk * p_.v_stride[1] + t1 * p_.v_stride[2];
  }

  void fetch_ahead(int i, int parts) const {
    if (ahead_rows_ == 0) return;
    const int64_t k = int64_t(kd_) * kTile;  // a whole (zero-padded) tile
    prefetch_span(ahead_k_, k * i / parts, k * (i + 1) / parts - k * i / parts);
    for (int j = ahead_rows_ * i / parts; j < ahead_rows_ * (i + 1) / parts; ++j)
      prefetch_span(ahead_v_ + j * p_.v_stride[2], 0, vd_);
  }

  // Keys of the n from t0 that rows before `end` may see: under the causal
  // mask the others weigh exactly 0, and the 8-lane kernels skip them.
  int visible(int64_t end, int64_t t0, int n) const {
    return p_.causal ? int(std::max<int64_t>(0, std::min<int64_t>(n, end - t0))) : n;
  }

  void scores(const float* kt, int64_t q0, int64_t t0, int rows, int n) {
#if VORTA_AVX512
    if (wide_) {
      // The whole tile in one pass, its first half alone when that is all it holds.
      const int step = n > 32 ? 64 : 32;
      const int parts = (n + step - 1) / step * ((rows + kMr - 1) / kMr);
      for (int j = 0, i = 0; j < n; j += step)
        for (int r = 0; r < rows; r += kMr)
          with_rows(std::min(kMr, rows - r), [&](auto R) {
            fetch_ahead(i++, parts);
            with_nv(step / 16, [&](auto NV) {
              score_kernel512<R(), NV()>(q_.data() + size_t(r) * kd_, kd_, kt + j, kTile, kd_,
                                         s_.data() + r * kTile + j, kTile);
            });
          });
      return;
    }
#endif
    // Scores past a row's visible keys are never read: softmax overwrites them.
    const int parts = (n + 15) / 16 * ((rows + kMr - 1) / kMr);
    for (int j = 0, i = 0; j < n; j += 16)
      for (int r = 0; r < rows; r += kMr)
        with_rows(std::min(kMr, rows - r), [&](auto R) {
          fetch_ahead(i++, parts);
          if (j < visible(q0 + r + R(), t0, n))
            score_kernel<R()>(q_.data() + size_t(r) * kd_, kd_, kt + j, kTile, kd_,
                              s_.data() + r * kTile + j, kTile);
        });
  }

  // Turns the tile's scores into probabilities against the updated running
  // maximum; corr_ receives each row's rescaling of earlier sums. Whole rows
  // of a full tile without mask or soft cap go eight at a time.
  void softmax(int64_t b, int64_t h, int64_t q0, int64_t t0, int rows, int n) {
    const bool plain = !wide_ && !p_.mask && !(p_.softcap > 0.0f) && n == kTile;
    for (int r = 0; r < rows;) {
      if (plain && r + 8 <= rows && (!p_.causal || q0 + r - t0 + 1 >= n)) {
        softmax8(r);
        r += 8;
      } else {
        softmax_row(b, h, q0, t0, r++, n);
      }
    }
  }

  // Rows [r, r + 8), their statistics side by side in the lanes of a vector.
  void softmax8(int r) {
    float* s = s_.data() + size_t(r) * kTile;
    Vec8 a[8];
    for (int i = 0; i < 8; ++i) {
      const float* row = s + i * kTile;
      Vec8 m0 = max(Vec8::load(row), Vec8::load(row + 8)), m1 = max(Vec8::load(row + 16), Vec8::load(row + 24));
      m0 = max(m0, max(Vec8::load(row + 32), Vec8::load(row + 40)));
      m1 = max(m1, max(Vec8::load(row + 48), Vec8::load(row + 56)));
      a[i] = max(m0, m1);
    }
    transpose8(a);  // lane i of a[k]: a partial maximum of row i
    Vec8 row_max = a[0];
    for (int k = 1; k < 8; ++k) row_max = max(row_max, a[k]);
    const Vec8 m_old = Vec8::load(m_.data() + r), m_new = max(m_old, row_max);
    // A row with nothing visible yet keeps its zero sums (and no -inf - -inf).
    const Vec8 none = cmp_eq(m_new, Vec8::broadcast(-std::numeric_limits<float>::infinity()));
    const Vec8 m_sub = select(none, Vec8::zero(), m_new);
    const Vec8 corr = select(none, Vec8::broadcast(1.0f), fast_exp(m_old - m_sub));
    for (int i = 0; i < 8; ++i) {
      float* row = s + i * kTile;
      const Vec8 mv = Vec8::broadcast(m_sub[i]);
      Vec8 sum = Vec8::zero();
      for (int j = 0; j < kTile; j += 8) {
        const Vec8 e = fast_exp(Vec8::load(row + j) - mv);
        e.store(row + j);
        sum = sum + e;
      }
      a[i] = sum;
    }
    fmadd(Vec8::load(l_.data() + r), corr, transpose_add(a)).store(l_.data() + r);
    m_new.store(m_.data() + r);
    corr.store(corr_.data() + r);
  }

  void softmax_row(int64_t b, int64_t h, int64_t q0, int64_t t0, int r, int n) {
    const Vec8 cap = Vec8::broadcast(p_.softcap);
    const float neg_inf = -std::numeric_limits<float>::infinity();
    const int computed = (n + 15) / 16 * 16;
    float* s = s_.data() + r * kTile;
    const int64_t row = q0 + r;
    int lim = n;
    if (p_.causal) lim = int(std::max<int64_t>(0, std::min<int64_t>(n, row - t0 + 1)));
    const T* mask = p_.mask ? p_.mask + b * p_.m_stride[0] + h * p_.m_stride[1] + row * p_.m_stride[2] + t0
                            : nullptr;
#if VORTA_AVX512
    if (wide_ && !(p_.softcap > 0.0f)) {
      corr_[r] = softmax_row512(s, lim, computed, mask, m_[r], l_[r]);
      return;
    }
#endif
    Vec8 mx = Vec8::broadcast(neg_inf);
    const int vec_end = lim / 8 * 8;
    int j = 0;
    for (; j < vec_end; j += 8) {
      Vec8 x = Vec8::load(s + j);
      if (p_.softcap > 0.0f) x = cap * tanh(x / cap);
      if (mask) x = x + Vec8::load(mask + j);
      x.store(s + j);
      mx = max(mx, x);
    }
    float row_max = reduce_max(mx);
    for (; j < lim; ++j) {
      float x = s[j];
      if (p_.softcap > 0.0f) x = p_.softcap * std::tanh(x / p_.softcap);
      if (mask) x += to_float(mask[j]);
      s[j] = x;
      row_max = std::max(row_max, x);
    }
    for (; j < computed; ++j) s[j] = neg_inf;
    const float m_new = std::max(m_[r], row_max);
    if (m_new == neg_inf) {
      std::fill(s, s + computed, 0.0f);
      corr_[r] = 1.0f;
      return;
    }
    const float corr = std::exp(m_[r] - m_new);
    const Vec8 mv = Vec8::broadcast(m_new);
    Vec8 sum = Vec8::zero();
    for (j = 0; j < computed; j += 8) {
      const Vec8 e = fast_exp(Vec8::load(s + j) - mv);
      e.store(s + j);
      sum = sum + e;
    }
    l_[r] = l_[r] * corr + reduce_add(sum);
    m_[r] = m_new;
    corr_[r] = corr;
  }

  void store(int64_t b, int64_t h, int64_t q0, int rows) {
    T* base = p_.out + b * p_.o_stride[0] + h * p_.o_stride[1] + q0 * p_.o_stride[2];
    for (int r = 0; r < rows; ++r) {
      float* o = o_.data() + size_t(r) * vd_;
      const Vec8 inv = Vec8::broadcast(1.0f / l_[r]);
      for (int c = 0; c < vd_; c += 8) (Vec8::load(o + c) * inv).store(o + c);
      store_row(o, base + r * p_.o_stride[2], p_.o_dim);
    }
  }

  const AttentionProblem<T, KV>& p_;
  const int kd_, vd_;
  std::vector<float> q_, s_, o_, m_, l_, corr_, k_, v_;
  const KV* ahead_k_ = nullptr;
  const KV* ahead_v_ = nullptr;
  int ahead_rows_ = 0;
  bool wide_ = false;
};

// Zeros for every result row: the value of attention over no keys.
template <typename T, typename KV>
void store_zeros(const AttentionProblem<T, KV>& p) {
  const int64_t rows = p.batch * p.q_heads * p.q_len;
  parallel_for(0, rows, grain_for(int64_t(p.o_dim) * int64_t(sizeof(T))), [&](int64_t lo, int64_t hi) {
    for (int64_t x = lo; x < hi; ++x) {
      const int64_t b = x / (p.q_heads * p.q_len), h = x / p.q_len % p.q_heads, i = x % p.q_len;
      T* row = p.out + b * p.o_stride[0] + h * p.o_stride[1] + i * p.o_stride[2];
      for (int c = 0; c < p.o_dim; ++c) row[c] = from_float<T>(0.0f);
    }
  });
}

template <typename T, typename KV>
void run_attention(const AttentionProblem<T, KV>& p) {
  assert(p.v_dim % 16 == 0 && p.k_dim % 8 == 0 && p.k_dim >= p.q_dim);
  if (p.batch == 0 || p.q_heads == 0 || p.q_len == 0) return;
  if (p.kv_len == 0) return store_zeros(p);
  const int64_t blocks = (p.q_len + kBlockRows - 1) / kBlockRows;
  const int64_t tasks = p.batch * p.q_heads * blocks;
  // One block per task, handed out head after head, so that the threads share
  // one head's keys and values in the caches; within a head the longest (last
  // causal) blocks come first.
  parallel_dynamic(
      tasks, 1, 1, [&] { return Worker<T, KV>(p); },
      [&](Worker<T, KV>& w, int64_t t, int64_t) {
        const int64_t qb = blocks - 1 - t % blocks, bh = t / blocks;
        const int64_t q0 = qb * kBlockRows;
        w.run(bh / p.q_heads, bh % p.q_heads, q0, std::min(p.q_len, q0 + kBlockRows));
      });
}

}  // namespace prefill
VORTA_ISA_END
}  // namespace vorta::cpu
