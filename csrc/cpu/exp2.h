// Vectorised base-2 exponential for the CPU kernels.
//
// 2^x = 2^n * 2^f with n = round(x), |f| <= 1/2; 2^f from a degree-6
// polynomial in fused multiply-adds (relative error about 1.5e-7, close to
// one float ulp). The scale 2^n is applied as two normal powers of two so that
// results down in the subnormal range are rounded once instead of flushed:
// x <= -150 gives +0, x >= 128 gives +inf, NaN stays NaN. The AVX2 and scalar paths evaluate the
// same operations in the same order and agree bit for bit.
#pragma once

#include <cmath>
#include <cstdint>

#include "cpu/vec.h"

namespace vorta::cpu {

namespace exp2_detail {
// 2^f ~ 1 + f * (c5 + f * (c4 + ... + f * c0)) on [-1/2, 1/2].
constexpr float kC0 = 1.535336188319500e-4f;
constexpr float kC1 = 1.339887440266574e-3f;
constexpr float kC2 = 9.618437357674640e-3f;
constexpr float kC3 = 5.550332471162809e-2f;
constexpr float kC4 = 2.402264791363012e-1f;
constexpr float kC5 = 6.931472028550421e-1f;
constexpr float kHi = 128.0f;
constexpr float kLo = -150.0f;

inline float pow2i(int32_t e) { return bits_float(uint32_t(e + 127) << 23); }
}  // namespace exp2_detail

inline float exp2_scalar(float x) {
  using namespace exp2_detail;
  x = x < kHi ? x : (x >= kHi ? kHi : x);  // NaN passes through
  x = x > kLo ? x : (x <= kLo ? kLo : x);
  const float n = std::nearbyint(x);
  const float f = x - n;
  float p = kC0;
  p = std::fma(p, f, kC1);
  p = std::fma(p, f, kC2);
  p = std::fma(p, f, kC3);
  p = std::fma(p, f, kC4);
  p = std::fma(p, f, kC5);
  p = std::fma(p, f, 1.0f);
  if (n != n) return p;  // NaN
  const int32_t ni = int32_t(n), a = ni >> 1;
  return (p * pow2i(a)) * pow2i(ni - a);
}

#if VORTA_AVX2 && defined(__FMA__)

inline Vec8 exp2(Vec8 v) {
  using namespace exp2_detail;
  // min/max return their second operand when either is NaN: keep x there.
  __m256 x = _mm256_min_ps(_mm256_set1_ps(kHi), v.v);
  x = _mm256_max_ps(_mm256_set1_ps(kLo), x);
  const __m256 n = _mm256_round_ps(x, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  const __m256 f = _mm256_sub_ps(x, n);
  __m256 p = _mm256_set1_ps(kC0);
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(kC1));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(kC2));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(kC3));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(kC4));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(kC5));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(1.0f));
  // NaN lanes convert to INT_MIN; p is NaN there and stays NaN.
  const __m256i ni = _mm256_cvtps_epi32(n);
  const __m256i a = _mm256_srai_epi32(ni, 1);
  const __m256i b = _mm256_sub_epi32(ni, a);
  const __m256i bias = _mm256_set1_epi32(127);
  const __m256 sa = _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_add_epi32(a, bias), 23));
  const __m256 sb = _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_add_epi32(b, bias), 23));
  return {_mm256_mul_ps(_mm256_mul_ps(p, sa), sb)};
}

#else

inline Vec8 exp2(Vec8 v) {
  Vec8 r;
  for (int i = 0; i < 8; ++i) r.v[i] = exp2_scalar(v.v[i]);
  return r;
}

#endif

}  // namespace vorta::cpu
