// Sixteen-lane AVX-512 pieces of the attention kernels.
//
// They are compiled through a target attribute into builds for any x86-64
// CPU and chosen at run time (have_avx512), so one build serves both kinds of
// CPU: a function that calls them carries VORTA_TARGET_AVX512 itself and is
// reached only when have_avx512() holds (the CPU has it and VORTA_CPU_ISA
// allows it). Kernels use the __m512 registers directly, with these helpers
// for what they share.
#pragma once

#if defined(__AVX2__) && defined(__FMA__) && defined(__GNUC__) && defined(__x86_64__)
#define VORTA_AVX512 1
#define VORTA_TARGET_AVX512 __attribute__((target("avx512f,avx512vl,avx2,fma,f16c")))
#endif

#if VORTA_AVX512

#include <immintrin.h>

#include <cstdint>
#include <type_traits>

#include "common/kv_codes.h"
#include "common/numeric.h"
#include "cpu/simd/exp.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

// GCC 12's AVX-512 intrinsics pass _mm512_undefined_ps() as the unused merge
// source, which its flow analysis reports as uninitialised.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace avx512 {

inline bool have_avx512() {
  return active_isa() == Isa::avx512;
}

VORTA_TARGET_AVX512 inline Vec8 high_half(__m512 x) {
  return {_mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(x), 1))};
}
VORTA_TARGET_AVX512 inline float reduce_max16(__m512 x) {
  return reduce_max(max(Vec8{_mm512_castps512_ps256(x)}, high_half(x)));
}
VORTA_TARGET_AVX512 inline float reduce_add16(__m512 x) {
  return reduce_add(Vec8{_mm512_castps512_ps256(x)} + high_half(x));
}

// Sixteen consecutive elements as floats.
VORTA_TARGET_AVX512 inline __m512 load16(const float* p) { return _mm512_loadu_ps(p); }
VORTA_TARGET_AVX512 inline __m512 load16(const half* p) {
  return _mm512_cvtph_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
}

// What widen16 multiplies the elements of a cache of C by.
template <class Code, typename C>
constexpr float wide_unit() {
  if constexpr (std::is_same_v<C, uint8_t>) return float(1 << (16 - Code::kOffset / 8));
  else return 1.0f;
}

// Sixteen cache elements as floats, 8-bit codes scaled by wide_unit: the bits
// of simd/vec8.h's widen_codes without the exponent bias, which becomes a
// power of two the caller takes back out. sign << 31 | 0x40000000 |
// (magnitude bits) << 20 | 0x40 << 13 is (-1)^s 2^(e + 1) (1 + m / 8 + 1 / 16)
// for the code's 4-bit exponent e and 3-bit mantissa m: three operations
// (sign-extending load, shift, one bitwise select), no addition.
template <class Code>
VORTA_TARGET_AVX512 inline __m512 widen16(const uint8_t* p) {
  static_assert(Code::kOffset % 8 == 0, "the offset must move the exponent alone");
  const __m512i b = _mm512_cvtepi8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
  return _mm512_castsi512_ps(_mm512_ternarylogic_epi32(_mm512_slli_epi32(b, 20), _mm512_set1_epi32(int32_t(0x87f00000u)),
                                                       _mm512_set1_epi32(0x40080000), 0xea));
}
template <class Code, typename C>
VORTA_TARGET_AVX512 inline __m512 widen16(const C* p) {
  return load16(p);
}

// fast_exp of simd/exp.h on sixteen lanes, from its constants.
VORTA_TARGET_AVX512 inline __m512 fast_exp16(__m512 x) {
  using namespace exp_constants;
  const __m512 lo = _mm512_set1_ps(kExpMin);
  const __mmask16 under = _mm512_cmp_ps_mask(x, lo, _CMP_LT_OQ);
  const __m512 xv = _mm512_min_ps(_mm512_set1_ps(kExpMax), _mm512_max_ps(lo, x));
  const __m512 fx = _mm512_roundscale_ps(_mm512_mul_ps(xv, _mm512_set1_ps(kLog2e)),
                                         _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  __m512 r = _mm512_fnmadd_ps(fx, _mm512_set1_ps(kLn2Hi), xv);
  r = _mm512_fnmadd_ps(fx, _mm512_set1_ps(kLn2Lo), r);
  __m512 y = _mm512_set1_ps(kExpPoly[0]);
  for (int i = 1; i < 6; ++i) y = _mm512_fmadd_ps(y, r, _mm512_set1_ps(kExpPoly[i]));
  y = _mm512_fmadd_ps(y, _mm512_mul_ps(r, r), r);
  y = _mm512_add_ps(y, _mm512_set1_ps(1.0f));
  return _mm512_maskz_mov_ps(_mm512_knot(under), _mm512_scalef_ps(y, fx));
}

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

}  // namespace avx512
VORTA_ISA_END
}  // namespace vorta::cpu

#pragma GCC diagnostic pop

#endif  // VORTA_AVX512
