// The blocked online-softmax attention core; included by the files that
// instantiate it (one per query type, to split the build).
#pragma once

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "cpu/attention.h"
#include "cpu/attention_simd.h"
#include "cpu/parallel.h"

namespace vorta::cpu::attn {

constexpr int kTile = kKeyTile;  // keys per tile
constexpr int kBlockRows = 96;  // query rows per task
constexpr int kMr = 6;          // query rows per micro-kernel call
// The running maximum starts below every score, so that rows whose scores all
// lie far below -65504 (fp32 masks of -1e9 or the type's minimum) still get a
// proper softmax instead of 0 / 0.
constexpr float kInitMax = -std::numeric_limits<float>::infinity();

template <typename F>
inline void with_rows(int rows, F&& f) {
  switch (rows) {
    case 6: return f(std::integral_constant<int, 6>{});
    case 5: return f(std::integral_constant<int, 5>{});
    case 4: return f(std::integral_constant<int, 4>{});
    case 3: return f(std::integral_constant<int, 3>{});
    case 2: return f(std::integral_constant<int, 2>{});
    default: return f(std::integral_constant<int, 1>{});
  }
}

// s[r][0..16) = q[r] . k[:, 0..16) for R query rows; k is component-major with
// stride ldk between components.
template <int R>
inline void score_kernel(const float* q, int ldq, const float* k, int ldk, int kd, float* s,
                         int lds) {
  Vec8 a0[R], a1[R];
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r) a0[r] = a1[r] = Vec8::zero();
  for (int d = 0; d < kd; ++d) {
    const Vec8 k0 = Vec8::load(k + d * ldk), k1 = Vec8::load(k + d * ldk + 8);
#pragma GCC unroll 6
    for (int r = 0; r < R; ++r) {
      const Vec8 qb = Vec8::broadcast(q[r * ldq + d]);
      a0[r] = fmadd(qb, k0, a0[r]);
      a1[r] = fmadd(qb, k1, a1[r]);
    }
  }
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r) {
    a0[r].store(s + r * lds);
    a1[r].store(s + r * lds + 8);
  }
}

// o[r][0..16) = o[r][0..16) * corr[r] + sum_j p[r][j] * v[j][0..16) for R rows.
template <int R>
inline void value_kernel(const float* p, int ldp, const float* v, int64_t ldv, int n, float* o,
                         int ldo, const float* corr) {
  Vec8 a0[R], a1[R];
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r) {
    const Vec8 c = Vec8::broadcast(corr[r]);
    a0[r] = Vec8::load(o + r * ldo) * c;
    a1[r] = Vec8::load(o + r * ldo + 8) * c;
  }
  for (int j = 0; j < n; ++j) {
    const Vec8 v0 = Vec8::load(v + j * ldv), v1 = Vec8::load(v + j * ldv + 8);
#pragma GCC unroll 6
    for (int r = 0; r < R; ++r) {
      const Vec8 pb = Vec8::broadcast(p[r * ldp + j]);
      a0[r] = fmadd(pb, v0, a0[r]);
      a1[r] = fmadd(pb, v1, a1[r]);
    }
  }
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r) {
    a0[r].store(o + r * ldo);
    a1[r].store(o + r * ldo + 8);
  }
}

#if VORTA_ATTN_AVX512
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

// The same two micro-kernels on 16-lane registers, NV registers per row: the
// 32 registers hold 6 rows x 64 keys (or values), halving loads per multiply.
template <int R, int NV>
VORTA_TARGET_AVX512 void score_kernel512(const float* q, int ldq, const float* k, int ldk, int kd,
                                         float* s, int lds) {
  __m512 acc[R][NV];
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r)
#pragma GCC unroll 4
    for (int v = 0; v < NV; ++v) acc[r][v] = _mm512_setzero_ps();
  for (int d = 0; d < kd; ++d) {
    __m512 kv[NV];
#pragma GCC unroll 4
    for (int v = 0; v < NV; ++v) kv[v] = _mm512_loadu_ps(k + d * ldk + 16 * v);
#pragma GCC unroll 6
    for (int r = 0; r < R; ++r) {
      const __m512 qb = _mm512_set1_ps(q[r * ldq + d]);
#pragma GCC unroll 4
      for (int v = 0; v < NV; ++v) acc[r][v] = _mm512_fmadd_ps(qb, kv[v], acc[r][v]);
    }
  }
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r)
#pragma GCC unroll 4
    for (int v = 0; v < NV; ++v) _mm512_storeu_ps(s + r * lds + 16 * v, acc[r][v]);
}

template <int R, int NV>
VORTA_TARGET_AVX512 void value_kernel512(const float* p, int ldp, const float* v, int64_t ldv,
                                         int n, float* o, int ldo, const float* corr) {
  __m512 acc[R][NV];
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r) {
    const __m512 c = _mm512_set1_ps(corr[r]);
#pragma GCC unroll 4
    for (int u = 0; u < NV; ++u)
      acc[r][u] = _mm512_mul_ps(_mm512_loadu_ps(o + r * ldo + 16 * u), c);
  }
  for (int j = 0; j < n; ++j) {
    __m512 vv[NV];
#pragma GCC unroll 4
    for (int u = 0; u < NV; ++u) vv[u] = _mm512_loadu_ps(v + j * ldv + 16 * u);
#pragma GCC unroll 6
    for (int r = 0; r < R; ++r) {
      const __m512 pb = _mm512_set1_ps(p[r * ldp + j]);
#pragma GCC unroll 4
      for (int u = 0; u < NV; ++u) acc[r][u] = _mm512_fmadd_ps(pb, vv[u], acc[r][u]);
    }
  }
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r)
#pragma GCC unroll 4
    for (int u = 0; u < NV; ++u) _mm512_storeu_ps(o + r * ldo + 16 * u, acc[r][u]);
}

// e^x as exp() does it, on 16 lanes.
VORTA_TARGET_AVX512 inline __m512 exp16(__m512 x) {
  const __m512 lo = _mm512_set1_ps(kExpMin);
  const __mmask16 under = _mm512_cmp_ps_mask(x, lo, _CMP_LT_OQ);
  __m512 xv = _mm512_min_ps(_mm512_set1_ps(kExpMax), _mm512_max_ps(lo, x));
  __m512 fx = _mm512_roundscale_ps(_mm512_mul_ps(xv, _mm512_set1_ps(kLog2e)),
                                   _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  __m512 r = _mm512_fnmadd_ps(fx, _mm512_set1_ps(kLn2Hi), xv);
  r = _mm512_fnmadd_ps(fx, _mm512_set1_ps(kLn2Lo), r);
  __m512 y = _mm512_set1_ps(kExpPoly[0]);
  for (int i = 1; i < 6; ++i) y = _mm512_fmadd_ps(y, r, _mm512_set1_ps(kExpPoly[i]));
  y = _mm512_fmadd_ps(y, _mm512_mul_ps(r, r), r);
  y = _mm512_add_ps(y, _mm512_set1_ps(1.0f));
  return _mm512_maskz_mov_ps(_mm512_knot(under), _mm512_scalef_ps(y, fx));
}

VORTA_TARGET_AVX512 inline float reduce_max16(__m512 x) {
  return reduce_max(max(Vec8{_mm512_castps512_ps256(x)}, high_half(x)));
}
VORTA_TARGET_AVX512 inline float reduce_add16(__m512 x) {
  return reduce_add(Vec8{_mm512_castps512_ps256(x)} + high_half(x));
}

// One row of a tile without soft-capping: scores scaled, masked (keys from
// lim on excluded), turned into probabilities against the updated maximum m;
// updates m and l and returns the rescaling of earlier sums.
template <typename T>
VORTA_TARGET_AVX512 float softmax_row512(float* s, int lim, int computed, const T* mask,
                                         float scale, float& m, float& l) {
  const __m512 sc = _mm512_set1_ps(scale);
  const __m512 neg_inf = _mm512_set1_ps(-std::numeric_limits<float>::infinity());
  __m512 mx = neg_inf;
  for (int j = 0; j < computed; j += 16) {
    __m512 x = _mm512_mul_ps(_mm512_loadu_ps(s + j), sc);
    if (mask) x = _mm512_add_ps(x, load16(mask + j));
    const int valid = std::max(0, std::min(16, lim - j));
    x = _mm512_mask_mov_ps(neg_inf, __mmask16((1u << valid) - 1u), x);
    _mm512_storeu_ps(s + j, x);
    mx = _mm512_max_ps(mx, x);
  }
  const float m_new = std::max(m, reduce_max16(mx));
  // Nothing visible yet: keep the zero sums (and no -inf - -inf).
  if (m_new == -std::numeric_limits<float>::infinity()) {
    for (int j = 0; j < computed; j += 16) _mm512_storeu_ps(s + j, _mm512_setzero_ps());
    return 1.0f;
  }
  const float corr = _mm512_cvtss_f32(exp16(_mm512_set1_ps(m - m_new)));
  const __m512 mv = _mm512_set1_ps(m_new);
  __m512 sum = _mm512_setzero_ps();
  for (int j = 0; j < computed; j += 16) {
    const __m512 e = exp16(_mm512_sub_ps(_mm512_loadu_ps(s + j), mv));
    _mm512_storeu_ps(s + j, e);
    sum = _mm512_add_ps(sum, e);
  }
  l = l * corr + reduce_add16(sum);
  m = m_new;
  return corr;
}

#pragma GCC diagnostic pop
#endif

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
#if VORTA_ATTN_AVX512
    wide_ = have_avx512();
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
      scores(key_tile(b, hk, t0), rows, n);
      softmax(b, h, q0, t0, rows, n);
      int64_t ldv = 0;
      const float* vt = value_tile(b, hk, t0, n, ldv);
#if VORTA_ATTN_AVX512
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
            value_kernel<R()>(s_.data() + r * kTile, kTile, vt + c, ldv, n,
                              o_.data() + r * vd_ + c, vd_, corr_.data() + r);
          });
    }
    store(b, h, q0, rows);
  }

 private:
  void load_queries(int64_t b, int64_t h, int64_t q0, int rows) {
    const T* base = p_.query + b * p_.q_stride[0] + h * p_.q_stride[1] + q0 * p_.q_stride[2];
    for (int r = 0; r < rows; ++r) {
      float* dst = q_.data() + size_t(r) * kd_;
      load_row(base + r * p_.q_stride[2], dst, p_.q_dim);
      std::fill(dst + p_.q_dim, dst + kd_, 0.0f);
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

  void scores(const float* kt, int rows, int n) {
#if VORTA_ATTN_AVX512
    if (wide_) {
      // The whole tile in one pass, its first half alone when that is all it holds.
      const int step = n > 32 ? 64 : 32;
      for (int j = 0; j < n; j += step)
        for (int r = 0; r < rows; r += kMr)
          with_rows(std::min(kMr, rows - r), [&](auto R) {
            with_nv(step / 16, [&](auto NV) {
              score_kernel512<R(), NV()>(q_.data() + size_t(r) * kd_, kd_, kt + j, kTile, kd_,
                                         s_.data() + r * kTile + j, kTile);
            });
          });
      return;
    }
#endif
    for (int j = 0; j < n; j += 16)
      for (int r = 0; r < rows; r += kMr)
        with_rows(std::min(kMr, rows - r), [&](auto R) {
          score_kernel<R()>(q_.data() + size_t(r) * kd_, kd_, kt + j, kTile, kd_,
                            s_.data() + r * kTile + j, kTile);
        });
  }

  // Turns the tile's scores into probabilities against the updated running
  // maximum; corr_ receives each row's rescaling of earlier sums.
  void softmax(int64_t b, int64_t h, int64_t q0, int64_t t0, int rows, int n) {
    const Vec8 scale = Vec8::broadcast(p_.scale);
    const Vec8 cap = Vec8::broadcast(p_.softcap);
    const float neg_inf = -std::numeric_limits<float>::infinity();
    const int computed = (n + 15) / 16 * 16;
    for (int r = 0; r < rows; ++r) {
      float* s = s_.data() + r * kTile;
      const int64_t row = q0 + r;
      int lim = n;
      if (p_.causal) lim = int(std::max<int64_t>(0, std::min<int64_t>(n, row - t0 + 1)));
      const T* mask = p_.mask ? p_.mask + b * p_.m_stride[0] + h * p_.m_stride[1] +
                                    row * p_.m_stride[2] + t0
                              : nullptr;
#if VORTA_ATTN_AVX512
      if (wide_ && !(p_.softcap > 0.0f)) {
        corr_[r] = softmax_row512(s, lim, computed, mask, p_.scale, m_[r], l_[r]);
        continue;
      }
#endif
      Vec8 mx = Vec8::broadcast(neg_inf);
      const int vec_end = lim / 8 * 8;
      int j = 0;
      for (; j < vec_end; j += 8) {
        Vec8 x = Vec8::load(s + j) * scale;
        if (p_.softcap > 0.0f) x = cap * tanh8(x / cap);
        if (mask) x = x + Vec8::load(mask + j);
        x.store(s + j);
        mx = max(mx, x);
      }
      float row_max = reduce_max(mx);
      for (; j < lim; ++j) {
        float x = s[j] * p_.scale;
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
        continue;
      }
      const float corr = std::exp(m_[r] - m_new);
      const Vec8 mv = Vec8::broadcast(m_new);
      Vec8 sum = Vec8::zero();
      for (j = 0; j < computed; j += 8) {
        const Vec8 e = exp(Vec8::load(s + j) - mv);
        e.store(s + j);
        sum = sum + e;
      }
      l_[r] = l_[r] * corr + reduce_add(sum);
      m_[r] = m_new;
      corr_[r] = corr;
    }
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
  const int64_t pairs = p.batch * p.q_heads;
  const int64_t tasks = pairs * blocks;
  // Tasks are handed out from a shared counter, longest (last causal blocks)
  // first, to one worker per thread.
  std::atomic<int64_t> next{0};
  parallel_for(0, std::min<int64_t>(num_threads(), tasks), 1, [&](int64_t, int64_t) {
    Worker<T, KV> w(p);
    for (int64_t t = next.fetch_add(1); t < tasks; t = next.fetch_add(1)) {
      const int64_t qb = blocks - 1 - t / pairs, bh = t % pairs;
      const int64_t q0 = qb * kBlockRows;
      w.run(bh / p.q_heads, bh % p.q_heads, q0, std::min(p.q_len, q0 + kBlockRows));
    }
  });
}

}  // namespace vorta::cpu::attn
