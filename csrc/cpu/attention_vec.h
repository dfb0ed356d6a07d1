// Vector pieces of the attention kernels: fused multiply-add, the
// exponential, horizontal reductions and the widening of 8-bit cache codes.
//
// Unlike vec.h these do not promise one rounding per written operation: they
// serve dot products and softmax sums, whose summation order is free anyway.
#pragma once

#include <cmath>
#include <cstdint>

#include "common/kv_codes.h"
#include "cpu/vec.h"

namespace vorta::cpu {

// Below this e^x is not a normal float; exp() returns exactly 0 there (and
// for -inf), so keys scored -inf weigh nothing. Above kExpMax it saturates.
inline constexpr float kExpMin = -87.33654f, kExpMax = 88.0f;
// e^x = 2^n e^r with n = round(x log2 e), r = x - n ln 2 (ln 2 in two parts),
// e^r = 1 + r + r^2 p(r): the constants of every vector exp in the kernels.
inline constexpr float kLog2e = 1.44269504088896341f;
inline constexpr float kLn2Hi = 0.693359375f, kLn2Lo = -2.12194440e-4f;
inline constexpr float kExpPoly[6] = {1.9875691500e-4f, 1.3981999507e-3f, 8.3334519073e-3f,
                                      4.1665795894e-2f, 1.6666665459e-1f, 5.0000001201e-1f};

// Makes the compiler hold v in a register at this point: a widened cache
// vector that feeds several FMAs is then loaded once, not once per FMA.
inline void keep_in_register(Vec8& v) {
#if VORTA_AVX2 && defined(__GNUC__)
  asm("" : "+x"(v.v));
#else
  (void)v;
#endif
}

#if VORTA_AVX2

// a * b + c, rounded once.
inline Vec8 fmadd(Vec8 a, Vec8 b, Vec8 c) { return {_mm256_fmadd_ps(a.v, b.v, c.v)}; }

// e^x lane-wise: within 2 ulp of the exact value; NaN stays NaN.
inline Vec8 exp(Vec8 x) {
  const __m256 lo = _mm256_set1_ps(kExpMin);
  // Constant first: max/min return their second operand when one is NaN.
  const __m256 xc = _mm256_min_ps(_mm256_set1_ps(kExpMax), _mm256_max_ps(lo, x.v));
  const __m256 n = _mm256_round_ps(_mm256_mul_ps(xc, _mm256_set1_ps(kLog2e)),
                                   _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  __m256 r = _mm256_fnmadd_ps(n, _mm256_set1_ps(kLn2Hi), xc);
  r = _mm256_fnmadd_ps(n, _mm256_set1_ps(kLn2Lo), r);
  __m256 p = _mm256_set1_ps(kExpPoly[0]);
  for (int i = 1; i < 6; ++i) p = _mm256_fmadd_ps(p, r, _mm256_set1_ps(kExpPoly[i]));
  const __m256 y = _mm256_add_ps(_mm256_fmadd_ps(p, _mm256_mul_ps(r, r), r), _mm256_set1_ps(1.0f));
  const __m256i e = _mm256_slli_epi32(_mm256_add_epi32(_mm256_cvtps_epi32(n), _mm256_set1_epi32(127)), 23);
  const __m256 scaled = _mm256_mul_ps(y, _mm256_castsi256_ps(e));
  return {_mm256_andnot_ps(_mm256_cmp_ps(x.v, lo, _CMP_LT_OQ), scaled)};
}

inline float reduce_add(Vec8 a) {
  __m128 s = _mm_add_ps(_mm256_castps256_ps128(a.v), _mm256_extractf128_ps(a.v, 1));
  s = _mm_add_ps(s, _mm_movehl_ps(s, s));
  return _mm_cvtss_f32(_mm_add_ss(s, _mm_movehdup_ps(s)));
}

inline float reduce_max(Vec8 a) {
  __m128 s = _mm_max_ps(_mm256_castps256_ps128(a.v), _mm256_extractf128_ps(a.v, 1));
  s = _mm_max_ps(s, _mm_movehl_ps(s, s));
  return _mm_cvtss_f32(_mm_max_ss(s, _mm_movehdup_ps(s)));
}

// Lane t of the result is the sum of the lanes of a[t].
inline Vec8 transpose_add(const Vec8 a[8]) {
  const __m256 t0 = _mm256_hadd_ps(a[0].v, a[1].v), t1 = _mm256_hadd_ps(a[2].v, a[3].v);
  const __m256 t2 = _mm256_hadd_ps(a[4].v, a[5].v), t3 = _mm256_hadd_ps(a[6].v, a[7].v);
  const __m256 u0 = _mm256_hadd_ps(t0, t1), u1 = _mm256_hadd_ps(t2, t3);
  return {_mm256_add_ps(_mm256_permute2f128_ps(u0, u1, 0x20), _mm256_permute2f128_ps(u0, u1, 0x31))};
}

// Eight code bytes as floats: exactly the fp16 values of kv::decode<Code>.
// That pattern, sign << 15 | (m + kOffset) << 7 | 0x40 for the 7 magnitude
// bits m, is a normal fp16; its float bits are sign << 31 | (m + kOffset) << 20
// | 0x40 << 13 plus the exponent rebias (127 - 15) << 23, built here from the
// sign-extended byte without a detour through fp16.
template <class Code>
inline Vec8 load_codes(const uint8_t* p) {
  static_assert(Code::kOffset >= 8 && Code::kOffset + 0x7f < 0xf8,
                "every decoded code must be a normal fp16 number");
  constexpr int32_t bias = (int32_t(Code::kOffset) << 20) + ((127 - 15) << 23) + (0x40 << 13);
  const __m256i b = _mm256_cvtepi8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
  const __m256i sign_mag = _mm256_and_si256(_mm256_slli_epi32(b, 20), _mm256_set1_epi32(int32_t(0x87f00000u)));
  return {_mm256_castsi256_ps(_mm256_add_epi32(sign_mag, _mm256_set1_epi32(bias)))};
}

#else

inline Vec8 fmadd(Vec8 a, Vec8 b, Vec8 c) {
  Vec8 r;
  for (int i = 0; i < 8; ++i) r.v[i] = std::fma(a.v[i], b.v[i], c.v[i]);
  return r;
}

inline Vec8 exp(Vec8 x) {
  Vec8 r;
  for (int i = 0; i < 8; ++i) r.v[i] = x.v[i] < kExpMin ? 0.0f : std::exp(x.v[i]);
  return r;
}

inline float reduce_add(Vec8 a) {
  float s = 0.0f;
  for (int i = 0; i < 8; ++i) s += a.v[i];
  return s;
}

inline float reduce_max(Vec8 a) {
  float m = a.v[0];
  for (int i = 1; i < 8; ++i) m = a.v[i] > m ? a.v[i] : m;
  return m;
}

inline Vec8 transpose_add(const Vec8 a[8]) {
  Vec8 r;
  for (int t = 0; t < 8; ++t) r.v[t] = reduce_add(a[t]);
  return r;
}

template <class Code>
inline Vec8 load_codes(const uint8_t* p) {
  Vec8 r;
  for (int i = 0; i < 8; ++i) r.v[i] = half_bits_to_float(kv::decode<Code>(p[i]));
  return r;
}

#endif

}  // namespace vorta::cpu
