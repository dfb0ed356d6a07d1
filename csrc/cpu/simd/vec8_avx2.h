// Vec8 on AVX2, F16C and FMA: one 256-bit register of eight floats.
// Included through simd/vec8.h, which states the interface; vec8_portable.h
// implements the same one lane by lane, with the same results.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <type_traits>

#include "common/kv_codes.h"
#include "common/numeric.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

struct Vec8 {
  __m256 v;

  static Vec8 zero() { return {_mm256_setzero_ps()}; }
  static Vec8 broadcast(float x) { return {_mm256_set1_ps(x)}; }
  static Vec8 load(const float* p) { return {_mm256_loadu_ps(p)}; }
  static Vec8 load(const half* p) {
    return {_mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)))};
  }
  static Vec8 load(const bf16* p) {
    const __m256i w = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
    return {_mm256_castsi256_ps(_mm256_slli_epi32(w, 16))};
  }
  void store(float* p) const { _mm256_storeu_ps(p, v); }
  void store(half* p) const {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm256_cvtps_ph(v, _MM_FROUND_TO_NEAREST_INT));
  }
  void store(bf16* p) const;
  void stream(float* p) const { _mm256_stream_ps(p, v); }
  void stream(half* p) const {
    _mm_stream_si128(reinterpret_cast<__m128i*>(p), _mm256_cvtps_ph(v, _MM_FROUND_TO_NEAREST_INT));
  }
  float operator[](int i) const {
    alignas(32) float tmp[8];
    _mm256_store_ps(tmp, v);
    return tmp[i];
  }

  friend Vec8 operator+(Vec8 a, Vec8 b) { return {_mm256_add_ps(a.v, b.v)}; }
  friend Vec8 operator-(Vec8 a, Vec8 b) { return {_mm256_sub_ps(a.v, b.v)}; }
  friend Vec8 operator*(Vec8 a, Vec8 b) { return {_mm256_mul_ps(a.v, b.v)}; }
  friend Vec8 operator/(Vec8 a, Vec8 b) { return {_mm256_div_ps(a.v, b.v)}; }
  friend Vec8 max(Vec8 a, Vec8 b) { return {_mm256_max_ps(a.v, b.v)}; }
  friend Vec8 min(Vec8 a, Vec8 b) { return {_mm256_min_ps(a.v, b.v)}; }
};

inline void stream_fence() { _mm_sfence(); }

inline Vec8 fmadd(Vec8 a, Vec8 b, Vec8 c) { return {_mm256_fmadd_ps(a.v, b.v, c.v)}; }
inline Vec8 fnmadd(Vec8 a, Vec8 b, Vec8 c) { return {_mm256_fnmadd_ps(a.v, b.v, c.v)}; }
inline Vec8 round_nearest(Vec8 a) {
  return {_mm256_round_ps(a.v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC)};
}
inline Vec8 floor(Vec8 a) { return {_mm256_floor_ps(a.v)}; }

inline Vec8 cmp_lt(Vec8 a, Vec8 b) { return {_mm256_cmp_ps(a.v, b.v, _CMP_LT_OQ)}; }
inline Vec8 cmp_le(Vec8 a, Vec8 b) { return {_mm256_cmp_ps(a.v, b.v, _CMP_LE_OQ)}; }
inline Vec8 cmp_ge(Vec8 a, Vec8 b) { return {_mm256_cmp_ps(a.v, b.v, _CMP_GE_OQ)}; }
inline Vec8 cmp_eq(Vec8 a, Vec8 b) { return {_mm256_cmp_ps(a.v, b.v, _CMP_EQ_OQ)}; }
inline Vec8 bit_and(Vec8 a, Vec8 b) { return {_mm256_and_ps(a.v, b.v)}; }
inline Vec8 bit_or(Vec8 a, Vec8 b) { return {_mm256_or_ps(a.v, b.v)}; }
inline Vec8 bit_xor(Vec8 a, Vec8 b) { return {_mm256_xor_ps(a.v, b.v)}; }
inline Vec8 bit_andnot(Vec8 mask, Vec8 a) { return {_mm256_andnot_ps(mask.v, a.v)}; }
inline Vec8 select(Vec8 mask, Vec8 a, Vec8 b) { return {_mm256_blendv_ps(b.v, a.v, mask.v)}; }
inline unsigned lane_bits(Vec8 mask) { return unsigned(_mm256_movemask_ps(mask.v)); }
inline Vec8 lane_mask(unsigned bits) {
  const __m256i bit = _mm256_setr_epi32(1, 2, 4, 8, 16, 32, 64, 128);
  const __m256i mine = _mm256_and_si256(_mm256_set1_epi32(int(bits)), bit);
  return {_mm256_castsi256_ps(_mm256_cmpeq_epi32(mine, bit))};
}

inline Vec8 pow2(Vec8 n) {
  const __m256i e = _mm256_add_epi32(_mm256_cvtps_epi32(n.v), _mm256_set1_epi32(127));
  return {_mm256_castsi256_ps(_mm256_slli_epi32(e, 23))};
}
inline Vec8 scale_pow2(Vec8 x, Vec8 n) {
  const __m256i e = _mm256_slli_epi32(_mm256_cvtps_epi32(n.v), 23);
  return {_mm256_castsi256_ps(_mm256_add_epi32(_mm256_castps_si256(x.v), e))};
}

inline Vec8 swap_pairs(Vec8 a) { return {_mm256_permute_ps(a.v, 0xb1)}; }

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

inline Vec8 broadcast_max(Vec8 a) {
  __m256 m = _mm256_max_ps(a.v, _mm256_permute2f128_ps(a.v, a.v, 1));
  m = _mm256_max_ps(m, _mm256_shuffle_ps(m, m, _MM_SHUFFLE(1, 0, 3, 2)));
  return {_mm256_max_ps(m, _mm256_shuffle_ps(m, m, _MM_SHUFFLE(2, 3, 0, 1)))};
}

inline Vec8 transpose_add(const Vec8 a[8]) {
  const __m256 t0 = _mm256_hadd_ps(a[0].v, a[1].v), t1 = _mm256_hadd_ps(a[2].v, a[3].v);
  const __m256 t2 = _mm256_hadd_ps(a[4].v, a[5].v), t3 = _mm256_hadd_ps(a[6].v, a[7].v);
  const __m256 u0 = _mm256_hadd_ps(t0, t1), u1 = _mm256_hadd_ps(t2, t3);
  return {_mm256_add_ps(_mm256_permute2f128_ps(u0, u1, 0x20), _mm256_permute2f128_ps(u0, u1, 0x31))};
}

inline void transpose8(Vec8 r[8]) {
  const __m256 t0 = _mm256_unpacklo_ps(r[0].v, r[1].v), t1 = _mm256_unpackhi_ps(r[0].v, r[1].v);
  const __m256 t2 = _mm256_unpacklo_ps(r[2].v, r[3].v), t3 = _mm256_unpackhi_ps(r[2].v, r[3].v);
  const __m256 t4 = _mm256_unpacklo_ps(r[4].v, r[5].v), t5 = _mm256_unpackhi_ps(r[4].v, r[5].v);
  const __m256 t6 = _mm256_unpacklo_ps(r[6].v, r[7].v), t7 = _mm256_unpackhi_ps(r[6].v, r[7].v);
  const __m256 s0 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(1, 0, 1, 0));
  const __m256 s1 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(3, 2, 3, 2));
  const __m256 s2 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(1, 0, 1, 0));
  const __m256 s3 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(3, 2, 3, 2));
  const __m256 s4 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(1, 0, 1, 0));
  const __m256 s5 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(3, 2, 3, 2));
  const __m256 s6 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(1, 0, 1, 0));
  const __m256 s7 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(3, 2, 3, 2));
  r[0].v = _mm256_permute2f128_ps(s0, s4, 0x20);
  r[1].v = _mm256_permute2f128_ps(s1, s5, 0x20);
  r[2].v = _mm256_permute2f128_ps(s2, s6, 0x20);
  r[3].v = _mm256_permute2f128_ps(s3, s7, 0x20);
  r[4].v = _mm256_permute2f128_ps(s0, s4, 0x31);
  r[5].v = _mm256_permute2f128_ps(s1, s5, 0x31);
  r[6].v = _mm256_permute2f128_ps(s2, s6, 0x31);
  r[7].v = _mm256_permute2f128_ps(s3, s7, 0x31);
}

inline void keep_in_register(Vec8& a) {
#if defined(__GNUC__)
  asm("" : "+x"(a.v));
#endif
}

namespace detail {

// bf16 rounding (to nearest, ties to even) of eight floats as float bit
// patterns with the low 16 bits clear; a NaN keeps its high half, quiet.
inline __m256i bf16_round_bits(__m256 v) {
  const __m256i b = _mm256_castps_si256(v);
  const __m256i lsb = _mm256_and_si256(_mm256_srli_epi32(b, 16), _mm256_set1_epi32(1));
  const __m256i r = _mm256_add_epi32(_mm256_add_epi32(b, _mm256_set1_epi32(0x7fff)), lsb);
  const __m256i quiet = _mm256_or_si256(b, _mm256_set1_epi32(0x400000));
  const __m256 nan = _mm256_cmp_ps(v, v, _CMP_UNORD_Q);
  const __m256i rounded = _mm256_castps_si256(
      _mm256_blendv_ps(_mm256_castsi256_ps(r), _mm256_castsi256_ps(quiet), nan));
  return _mm256_and_si256(rounded, _mm256_set1_epi32(int(0xffff0000u)));
}

}  // namespace detail

inline void Vec8::store(bf16* p) const {
  const __m256i r = _mm256_srli_epi32(detail::bf16_round_bits(v), 16);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p),
                   _mm_packus_epi32(_mm256_castsi256_si128(r), _mm256_extracti128_si256(r, 1)));
}

template <typename T>
inline Vec8 round_to(Vec8 a) {
  if constexpr (std::is_same_v<T, half>)
    return {_mm256_cvtph_ps(_mm256_cvtps_ph(a.v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC))};
  else if constexpr (std::is_same_v<T, bf16>)
    return {_mm256_castsi256_ps(detail::bf16_round_bits(a.v))};
  else
    return a;
}

namespace detail {

// The bf16 rounding of a result of arithmetic on bf16 values in the high
// halves (the low halves are left over).
inline __m256i bf16_round_high(__m256 v) {
  const __m256i b = _mm256_castps_si256(v);
  const __m256i lsb = _mm256_and_si256(_mm256_srli_epi32(b, 16), _mm256_set1_epi32(1));
  return _mm256_add_epi32(_mm256_add_epi32(b, _mm256_set1_epi32(0x7fff)), lsb);
}

}  // namespace detail

// round_to<T> and store for the results of arithmetic on T values: their
// NaNs are already quiet with a payload that fits T, so the round to nearest
// keeps them and the NaN fix-up is left out. Same bits as round_to and store.
template <typename T>
inline Vec8 round_arith(Vec8 a) {
  if constexpr (std::is_same_v<T, bf16>)
    return {_mm256_castsi256_ps(_mm256_and_si256(detail::bf16_round_high(a.v), _mm256_set1_epi32(int(0xffff0000u))))};
  else
    return round_to<T>(a);
}

template <typename T>
inline void store_arith(Vec8 a, T* p) {
  if constexpr (std::is_same_v<T, bf16>) {
    const __m256i r = _mm256_srli_epi32(detail::bf16_round_high(a.v), 16);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p),
                     _mm_packus_epi32(_mm256_castsi256_si128(r), _mm256_extracti128_si256(r, 1)));
  } else {
    a.store(p);
  }
}

// Sixteen values as two vectors: a holds the even elements, b the odd ones,
// in order. A bf16 pair shares a 32-bit lane, so each half is a shift or a
// mask away, and a blend puts two rounded halves back.
inline void load_split(const bf16* p, Vec8& a, Vec8& b) {
  const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  a.v = _mm256_castsi256_ps(_mm256_slli_epi32(x, 16));
  b.v = _mm256_castsi256_ps(_mm256_and_si256(x, _mm256_set1_epi32(int(0xffff0000u))));
}
inline void load_split(const float* p, Vec8& a, Vec8& b) {
  const __m256 lo = _mm256_loadu_ps(p), hi = _mm256_loadu_ps(p + 8);
  // shuffle_ps works within 128-bit halves: elements 0 2 8 10 | 4 6 12 14.
  const auto order = [](__m256 v) {
    return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(v), 0xd8));
  };
  a.v = order(_mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(2, 0, 2, 0)));
  b.v = order(_mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 1, 3, 1)));
}

inline void store_split_arith(Vec8 a, Vec8 b, bf16* p) {
  const __m256i even = _mm256_srli_epi32(detail::bf16_round_high(a.v), 16);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(p),
                      _mm256_blend_epi16(even, detail::bf16_round_high(b.v), 0xaa));
}

// The float bits of a decoded code, sign << 31 | (m + kOffset) << 20 |
// 0x40 << 13 plus the exponent rebias, built from the sign-extended byte.
template <class Code>
inline Vec8 widen_codes(const uint8_t* p) {
  const __m256i b = _mm256_cvtepi8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
  const __m256i sign_mag = _mm256_and_si256(_mm256_slli_epi32(b, 20), _mm256_set1_epi32(int32_t(0x87f00000u)));
  return {_mm256_castsi256_ps(_mm256_add_epi32(sign_mag, _mm256_set1_epi32(kv::float_bits_bias<Code>())))};
}

template <class Code>
inline void narrow_codes(Vec8 x, uint8_t* p) {
  const __m128i h = _mm256_cvtps_ph(x.v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  __m128i a = _mm_and_si128(h, _mm_set1_epi16(0x7fff));
  // Magnitudes are below 0x8000, so signed 16-bit min/max order them.
  a = _mm_min_epi16(a, _mm_set1_epi16(short(Code::kMax)));
  a = _mm_max_epi16(a, _mm_set1_epi16(short(Code::kMin)));
  // After the clamp (a >> 7) - kOffset lies in [0, 0x7f]: no wrap, no saturation.
  __m128i r = _mm_sub_epi16(_mm_srli_epi16(a, 7), _mm_set1_epi16(short(Code::kOffset)));
  r = _mm_or_si128(r, _mm_and_si128(_mm_srli_epi16(h, 8), _mm_set1_epi16(0x80)));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(r, r));
}

// Sixteen fp16 values to codes straight from their bit patterns (the clamp
// of the code is integer min/max on magnitudes), past the caches when Stream.
template <class Code, bool Stream>
inline void encode_codes16(const half* src, uint8_t* dst) {
  const __m256i h = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src));
  __m256i a = _mm256_and_si256(h, _mm256_set1_epi16(0x7fff));
  a = _mm256_min_epi16(a, _mm256_set1_epi16(short(Code::kMax)));
  a = _mm256_max_epi16(a, _mm256_set1_epi16(short(Code::kMin)));
  __m256i r = _mm256_sub_epi16(_mm256_srli_epi16(a, 7), _mm256_set1_epi16(short(Code::kOffset)));
  r = _mm256_or_si256(r, _mm256_and_si256(_mm256_srli_epi16(h, 8), _mm256_set1_epi16(0x80)));
  const __m128i bytes = _mm_packus_epi16(_mm256_castsi256_si128(r), _mm256_extracti128_si256(r, 1));
  if constexpr (Stream) {
    _mm_stream_si64(reinterpret_cast<long long*>(dst), _mm_cvtsi128_si64(bytes));
    _mm_stream_si64(reinterpret_cast<long long*>(dst + 8), _mm_extract_epi64(bytes, 1));
  } else {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), bytes);
  }
}

VORTA_ISA_END
}  // namespace vorta::cpu
