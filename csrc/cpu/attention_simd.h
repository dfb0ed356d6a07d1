// Vector helpers of the CPU attention kernels (beside attention_vec.h): tanh
// on eight floats, an 8x8 transpose and element loaders that widen every
// source format (float, half, 8-bit key/value codes) to floats.
#pragma once

#include <cmath>
#include <cstdint>

#include "common/kv_codes.h"
#include "cpu/attention.h"
#include "cpu/attention_vec.h"
#include "cpu/kv_vec.h"
#include "cpu/vec.h"

#if VORTA_AVX2 && defined(__FMA__)
#define VORTA_ATTN_SIMD 1
#endif

// 16-lane kernels are compiled for AVX-512 through a target attribute and
// chosen at run time (have_avx512), so one build serves both kinds of CPU.
#if VORTA_ATTN_SIMD && defined(__GNUC__) && defined(__x86_64__)
#define VORTA_ATTN_AVX512 1
#define VORTA_TARGET_AVX512 __attribute__((target("avx512f,avx512vl,avx2,fma,f16c")))
#endif

namespace vorta::cpu::attn {

// tanh(x): odd polynomial near zero (no cancellation), 1 - 2 / (e^2|x| + 1) elsewhere.
inline Vec8 tanh8(Vec8 x) {
#if VORTA_ATTN_SIMD
  const __m256 sign = _mm256_set1_ps(-0.0f);
  __m256 ax = _mm256_andnot_ps(sign, x.v);
  __m256 z = _mm256_mul_ps(x.v, x.v);
  __m256 p = _mm256_set1_ps(-5.70498872745e-3f);
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(2.06390887954e-2f));
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(-5.37397155531e-2f));
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(1.33314422036e-1f));
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(-3.33332819422e-1f));
  __m256 small = _mm256_fmadd_ps(_mm256_mul_ps(p, z), x.v, x.v);
  __m256 e = exp({_mm256_add_ps(ax, ax)}).v;
  __m256 big = _mm256_sub_ps(
      _mm256_set1_ps(1.0f),
      _mm256_div_ps(_mm256_set1_ps(2.0f), _mm256_add_ps(e, _mm256_set1_ps(1.0f))));
  big = _mm256_or_ps(big, _mm256_and_ps(sign, x.v));
  __m256 is_small = _mm256_cmp_ps(ax, _mm256_set1_ps(0.625f), _CMP_LT_OQ);
  return {_mm256_blendv_ps(big, small, is_small)};
#else
  Vec8 r;
  for (int i = 0; i < 8; ++i) r.v[i] = std::tanh(x.v[i]);
  return r;
#endif
}

// Rows r[0..8) become columns.
inline void transpose8(Vec8 r[8]) {
#if VORTA_ATTN_SIMD
  __m256 t0 = _mm256_unpacklo_ps(r[0].v, r[1].v), t1 = _mm256_unpackhi_ps(r[0].v, r[1].v);
  __m256 t2 = _mm256_unpacklo_ps(r[2].v, r[3].v), t3 = _mm256_unpackhi_ps(r[2].v, r[3].v);
  __m256 t4 = _mm256_unpacklo_ps(r[4].v, r[5].v), t5 = _mm256_unpackhi_ps(r[4].v, r[5].v);
  __m256 t6 = _mm256_unpacklo_ps(r[6].v, r[7].v), t7 = _mm256_unpackhi_ps(r[6].v, r[7].v);
  __m256 s0 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(1, 0, 1, 0));
  __m256 s1 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(3, 2, 3, 2));
  __m256 s2 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(1, 0, 1, 0));
  __m256 s3 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(3, 2, 3, 2));
  __m256 s4 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(1, 0, 1, 0));
  __m256 s5 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(3, 2, 3, 2));
  __m256 s6 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(1, 0, 1, 0));
  __m256 s7 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(3, 2, 3, 2));
  r[0].v = _mm256_permute2f128_ps(s0, s4, 0x20);
  r[1].v = _mm256_permute2f128_ps(s1, s5, 0x20);
  r[2].v = _mm256_permute2f128_ps(s2, s6, 0x20);
  r[3].v = _mm256_permute2f128_ps(s3, s7, 0x20);
  r[4].v = _mm256_permute2f128_ps(s0, s4, 0x31);
  r[5].v = _mm256_permute2f128_ps(s1, s5, 0x31);
  r[6].v = _mm256_permute2f128_ps(s2, s6, 0x31);
  r[7].v = _mm256_permute2f128_ps(s3, s7, 0x31);
#else
  float m[8][8];
  for (int i = 0; i < 8; ++i) r[i].store(m[i]);
  for (int i = 0; i < 8; ++i) {
    float c[8];
    for (int j = 0; j < 8; ++j) c[j] = m[j][i];
    r[i] = Vec8::load(c);
  }
#endif
}

// Eight consecutive source elements as floats. 8-bit codes go through their
// exact fp16 patterns.
template <typename Src>
struct Elem {
  using type = Src;
  static Vec8 load8(const Src* p) { return Vec8::load(p); }
};
template <typename Code>
struct CodeElem {
  using type = uint8_t;
  static Vec8 load8(const uint8_t* p) {
#if VORTA_AVX2
    const __m256i h = decode16<Code>(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    return {_mm256_cvtph_ps(_mm256_castsi256_si128(h))};
#else
    half h[8];
    for (int i = 0; i < 8; ++i) h[i].bits = kv::decode<Code>(p[i]);
    return Vec8::load(h);
#endif
  }
};
template <>
struct Elem<KeyBytes> : CodeElem<kv::KeyCode> {};
template <>
struct Elem<ValueBytes> : CodeElem<kv::ValueCode> {};

#if VORTA_ATTN_AVX512
// GCC 12's AVX-512 intrinsics pass _mm512_undefined_ps() as the unused merge
// source, which its flow analysis reports as uninitialised.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

inline bool have_avx512() {
  static const bool yes = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl");
  return yes;
}

VORTA_TARGET_AVX512 inline Vec8 high_half(__m512 x) {
  return {_mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(x), 1))};
}

// Sixteen consecutive elements as floats.
VORTA_TARGET_AVX512 inline __m512 load16(const float* p) { return _mm512_loadu_ps(p); }
VORTA_TARGET_AVX512 inline __m512 load16(const half* p) {
  return _mm512_cvtph_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
}

#pragma GCC diagnostic pop
#endif

}  // namespace vorta::cpu::attn
