// Storage types for 16-bit floats and exact scalar conversions.
//
// Kernels are written against these types rather than torch's so that they
// compile without torch. The layouts match at::Half and at::BFloat16 (the raw
// IEEE binary16 and bfloat16 bit patterns).
#pragma once

#include <cstdint>
#include <cstring>

namespace vorta {

struct half {
  uint16_t bits;
};
struct bf16 {
  uint16_t bits;
};

inline uint32_t float_bits(float f) {
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
}
inline float bits_float(uint32_t u) {
  float f;
  std::memcpy(&f, &u, 4);
  return f;
}

// binary16 -> binary32, exact (subnormals normalised, inf/NaN kept).
inline float half_bits_to_float(uint16_t h) {
  uint32_t sign = uint32_t(h & 0x8000u) << 16;
  uint32_t exp = (h >> 10) & 0x1fu;
  uint32_t man = h & 0x3ffu;
  if (exp == 0x1f) return bits_float(sign | 0x7f800000u | (man << 13));
  if (exp == 0) {
    if (man == 0) return bits_float(sign);
    // Subnormal: value is man * 2^-24, exact in binary32.
    float v = float(man) * 5.9604644775390625e-08f;
    return sign ? -v : v;
  }
  return bits_float(sign | ((exp + 112) << 23) | (man << 13));
}

// binary32 -> binary16, round to nearest, ties to even.
inline uint16_t float_to_half_bits(float f) {
  uint32_t x = float_bits(f);
  uint32_t sign = (x >> 16) & 0x8000u;
  uint32_t abs = x & 0x7fffffffu;
  if (abs >= 0x7f800000u)  // inf or NaN (NaN stays quiet)
    return uint16_t(sign | 0x7c00u | (abs > 0x7f800000u ? 0x200u | ((abs >> 13) & 0x3ffu) : 0u));
  if (abs >= 0x477ff000u) return uint16_t(sign | 0x7c00u);  // rounds past 65504
  if (abs < 0x38800000u) {
    // Result is subnormal or zero: scale to units of 2^-24 and round once.
    float a = bits_float(abs);
    float r = a * 16777216.0f;  // exact power-of-two scaling: units of 2^-24
    uint32_t q = uint32_t(r);
    float frac = r - float(q);
    if (frac > 0.5f || (frac == 0.5f && (q & 1u))) ++q;
    return uint16_t(sign | q);
  }
  uint32_t mant_rest = abs & 0x1fffu;
  uint32_t h = ((abs - 0x38000000u) >> 13);  // rebias exponent, keep 10 mantissa bits
  if (mant_rest > 0x1000u || (mant_rest == 0x1000u && (h & 1u))) ++h;
  return uint16_t(sign | h);
}

inline float bf16_bits_to_float(uint16_t b) { return bits_float(uint32_t(b) << 16); }

// binary32 -> bfloat16 for the result of arithmetic on bfloat16 values: round
// to nearest, ties to even, no NaN fix-up (such NaNs are quiet and fit
// bfloat16; one that came in untouched keeps its bits).
inline uint16_t float_to_bf16_bits_arith(float f) {
  const uint32_t x = float_bits(f);
  return uint16_t((x + 0x7fffu + ((x >> 16) & 1u)) >> 16);
}

// binary32 -> bfloat16, round to nearest, ties to even (NaN stays NaN).
inline uint16_t float_to_bf16_bits(float f) {
  const uint32_t x = float_bits(f);
  if ((x & 0x7fffffffu) > 0x7f800000u) return uint16_t((x >> 16) | 0x40u);
  return float_to_bf16_bits_arith(f);
}

inline float to_float(float v) { return v; }
inline float to_float(half v) { return half_bits_to_float(v.bits); }
inline float to_float(bf16 v) { return bf16_bits_to_float(v.bits); }

template <typename T>
inline T from_float(float v);
template <>
inline float from_float<float>(float v) { return v; }
template <>
inline half from_float<half>(float v) { return half{float_to_half_bits(v)}; }
template <>
inline bf16 from_float<bf16>(float v) { return bf16{float_to_bf16_bits(v)}; }

}  // namespace vorta
