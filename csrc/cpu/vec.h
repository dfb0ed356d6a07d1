// Eight-lane float vectors for the CPU kernels.
//
// The kernels compute in float32 and convert 16-bit inputs on load and outputs
// on store. AVX2/F16C is used when the build enables it, plain loops otherwise;
// both give identical results (no fused multiply-add, round-to-nearest-even
// conversions).
#pragma once

#include <cstdint>

#include "common/numeric.h"

#if defined(__AVX2__) && defined(__F16C__)
#include <immintrin.h>
#define VORTA_AVX2 1
#endif

namespace vorta::cpu {

#if VORTA_AVX2

struct Vec8 {
  __m256 v;
  static Vec8 zero() { return {_mm256_setzero_ps()}; }
  static Vec8 broadcast(float x) { return {_mm256_set1_ps(x)}; }
  static Vec8 load(const float* p) { return {_mm256_loadu_ps(p)}; }
  static Vec8 load(const half* p) {
    return {_mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)))};
  }
  static Vec8 load(const bf16* p) {
    __m256i w = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
    return {_mm256_castsi256_ps(_mm256_slli_epi32(w, 16))};
  }
  void store(float* p) const { _mm256_storeu_ps(p, v); }
  void store(half* p) const {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm256_cvtps_ph(v, _MM_FROUND_TO_NEAREST_INT));
  }
  void store(bf16* p) const {
    alignas(32) float tmp[8];
    _mm256_store_ps(tmp, v);
    for (int i = 0; i < 8; ++i) p[i] = from_float<bf16>(tmp[i]);
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

#else

struct Vec8 {
  float v[8];
  static Vec8 zero() { return broadcast(0.0f); }
  static Vec8 broadcast(float x) {
    Vec8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = x;
    return r;
  }
  template <typename T>
  static Vec8 load(const T* p) {
    Vec8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = to_float(p[i]);
    return r;
  }
  template <typename T>
  void store(T* p) const {
    for (int i = 0; i < 8; ++i) p[i] = from_float<T>(v[i]);
  }
  float operator[](int i) const { return v[i]; }
#define VORTA_VEC8_BINARY(NAME, EXPR)        \
  friend Vec8 NAME(Vec8 a, Vec8 b) {         \
    Vec8 r;                                  \
    for (int i = 0; i < 8; ++i) {            \
      float x = a.v[i], y = b.v[i];          \
      r.v[i] = (EXPR);                       \
    }                                        \
    return r;                                \
  }
  VORTA_VEC8_BINARY(operator+, x + y)
  VORTA_VEC8_BINARY(operator-, x - y)
  VORTA_VEC8_BINARY(operator*, x* y)
  VORTA_VEC8_BINARY(operator/, x / y)
  VORTA_VEC8_BINARY(max, x > y ? x : y)
  VORTA_VEC8_BINARY(min, x < y ? x : y)
#undef VORTA_VEC8_BINARY
};

#endif

// Converts n elements (any n) of a 16-bit or float row into floats.
template <typename T>
inline void load_row(const T* src, float* dst, int64_t n) {
  int64_t i = 0;
  for (; i + 8 <= n; i += 8) Vec8::load(src + i).store(dst + i);
  for (; i < n; ++i) dst[i] = to_float(src[i]);
}

// Rounds n floats once to T.
template <typename T>
inline void store_row(const float* src, T* dst, int64_t n) {
  int64_t i = 0;
  for (; i + 8 <= n; i += 8) Vec8::load(src + i).store(dst + i);
  for (; i < n; ++i) dst[i] = from_float<T>(src[i]);
}

}  // namespace vorta::cpu
