// The sixteen-lane (AVX-512) micro-kernels of prefill attention and their
// softmax row, chosen at run time where the CPU has them.
#pragma once

#include "cpu/simd/vec16_avx512.h"

#if VORTA_AVX512

#include <algorithm>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "cpu/isa.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace prefill {

// The micro-kernels of micro_kernels.h on 16-lane registers, NV registers per
// row: the 32 registers hold 6 rows x 64 keys (or values), halving loads per
// multiply.
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

// One row of a tile without soft-capping: scores (scaled already) masked (keys from
// lim on excluded), turned into probabilities against the updated maximum m;
// updates m and l and returns the rescaling of earlier sums.
template <typename T>
VORTA_TARGET_AVX512 float softmax_row512(float* s, int lim, int computed, const T* mask,
                                         float& m, float& l) {
  const __m512 neg_inf = _mm512_set1_ps(-std::numeric_limits<float>::infinity());
  __m512 mx = neg_inf;
  for (int j = 0; j < computed; j += 16) {
    __m512 x = _mm512_loadu_ps(s + j);
    if (mask) x = _mm512_add_ps(x, avx512::load16(mask + j));
    const int valid = std::max(0, std::min(16, lim - j));
    x = _mm512_mask_mov_ps(neg_inf, __mmask16((1u << valid) - 1u), x);
    _mm512_storeu_ps(s + j, x);
    mx = _mm512_max_ps(mx, x);
  }
  const float m_new = std::max(m, avx512::reduce_max16(mx));
  // Nothing visible yet: keep the zero sums (and no -inf - -inf).
  if (m_new == -std::numeric_limits<float>::infinity()) {
    for (int j = 0; j < computed; j += 16) _mm512_storeu_ps(s + j, _mm512_setzero_ps());
    return 1.0f;
  }
  const float corr = _mm512_cvtss_f32(avx512::fast_exp16(_mm512_set1_ps(m - m_new)));
  const __m512 mv = _mm512_set1_ps(m_new);
  __m512 sum = _mm512_setzero_ps();
  for (int j = 0; j < computed; j += 16) {
    const __m512 e = avx512::fast_exp16(_mm512_sub_ps(_mm512_loadu_ps(s + j), mv));
    _mm512_storeu_ps(s + j, e);
    sum = _mm512_add_ps(sum, e);
  }
  l = l * corr + avx512::reduce_add16(sum);
  m = m_new;
  return corr;
}

}  // namespace prefill
VORTA_ISA_END
}  // namespace vorta::cpu

#pragma GCC diagnostic pop

#endif  // VORTA_AVX512
