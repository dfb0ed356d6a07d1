// Vec8 lane by lane, for CPUs and builds without AVX2: the interface of
// simd/vec8.h with the results of vec8_avx2.h (the same roundings, NaN rules
// and bit constructions).
#pragma once

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "common/kv_codes.h"
#include "common/numeric.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

struct Vec8 {
  float v[8];

  static Vec8 zero() { return broadcast(0.0f); }
  static Vec8 broadcast(float x) {
    Vec8 r;
    for (float& l : r.v) l = x;
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
  template <typename T>
  void stream(T* p) const {
    store(p);
  }
  float operator[](int i) const { return v[i]; }

  // Applies f lane by lane.
  template <typename F>
  static Vec8 map(F f) {
    Vec8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = f(i);
    return r;
  }

  friend Vec8 operator+(Vec8 a, Vec8 b) { return map([&](int i) { return a.v[i] + b.v[i]; }); }
  friend Vec8 operator-(Vec8 a, Vec8 b) { return map([&](int i) { return a.v[i] - b.v[i]; }); }
  friend Vec8 operator*(Vec8 a, Vec8 b) { return map([&](int i) { return a.v[i] * b.v[i]; }); }
  friend Vec8 operator/(Vec8 a, Vec8 b) { return map([&](int i) { return a.v[i] / b.v[i]; }); }
  // The second operand when either is NaN, as the vector instructions do.
  friend Vec8 max(Vec8 a, Vec8 b) {
    return map([&](int i) { return a.v[i] > b.v[i] ? a.v[i] : b.v[i]; });
  }
  friend Vec8 min(Vec8 a, Vec8 b) {
    return map([&](int i) { return a.v[i] < b.v[i] ? a.v[i] : b.v[i]; });
  }
};

namespace detail {

// float -> int32 as the vector conversion does it: nearest, and INT32_MIN for
// NaN and values out of range.
inline int32_t to_int32(float x) {
  if (!(x > -2147483904.0f && x < 2147483648.0f)) return INT32_MIN;
  return int32_t(std::nearbyint(x));
}

inline float mask_of(bool b) { return bits_float(b ? 0xffffffffu : 0u); }

template <typename F>
inline Vec8 bitwise(Vec8 a, Vec8 b, F f) {
  return Vec8::map([&](int i) { return bits_float(f(float_bits(a.v[i]), float_bits(b.v[i]))); });
}

}  // namespace detail

inline void stream_fence() {}

inline Vec8 fmadd(Vec8 a, Vec8 b, Vec8 c) {
  return Vec8::map([&](int i) { return std::fma(a.v[i], b.v[i], c.v[i]); });
}
inline Vec8 fnmadd(Vec8 a, Vec8 b, Vec8 c) {
  return Vec8::map([&](int i) { return std::fma(-a.v[i], b.v[i], c.v[i]); });
}
inline Vec8 round_nearest(Vec8 a) { return Vec8::map([&](int i) { return std::nearbyint(a.v[i]); }); }
inline Vec8 floor(Vec8 a) { return Vec8::map([&](int i) { return std::floor(a.v[i]); }); }

inline Vec8 cmp_lt(Vec8 a, Vec8 b) { return Vec8::map([&](int i) { return detail::mask_of(a.v[i] < b.v[i]); }); }
inline Vec8 cmp_le(Vec8 a, Vec8 b) { return Vec8::map([&](int i) { return detail::mask_of(a.v[i] <= b.v[i]); }); }
inline Vec8 cmp_ge(Vec8 a, Vec8 b) { return Vec8::map([&](int i) { return detail::mask_of(a.v[i] >= b.v[i]); }); }
inline Vec8 cmp_eq(Vec8 a, Vec8 b) { return Vec8::map([&](int i) { return detail::mask_of(a.v[i] == b.v[i]); }); }
inline Vec8 bit_and(Vec8 a, Vec8 b) { return detail::bitwise(a, b, [](uint32_t x, uint32_t y) { return x & y; }); }
inline Vec8 bit_or(Vec8 a, Vec8 b) { return detail::bitwise(a, b, [](uint32_t x, uint32_t y) { return x | y; }); }
inline Vec8 bit_xor(Vec8 a, Vec8 b) { return detail::bitwise(a, b, [](uint32_t x, uint32_t y) { return x ^ y; }); }
inline Vec8 bit_andnot(Vec8 mask, Vec8 a) {
  return detail::bitwise(mask, a, [](uint32_t m, uint32_t x) { return ~m & x; });
}
inline Vec8 select(Vec8 mask, Vec8 a, Vec8 b) {
  return Vec8::map([&](int i) { return float_bits(mask.v[i]) >> 31 ? a.v[i] : b.v[i]; });
}
inline unsigned lane_bits(Vec8 mask) {
  unsigned bits = 0;
  for (int i = 0; i < 8; ++i) bits |= (float_bits(mask.v[i]) >> 31) << i;
  return bits;
}
inline Vec8 lane_mask(unsigned bits) { return Vec8::map([&](int i) { return detail::mask_of(bits >> i & 1u); }); }

inline Vec8 pow2(Vec8 n) {
  return Vec8::map([&](int i) { return bits_float(uint32_t(detail::to_int32(n.v[i]) + 127) << 23); });
}
inline Vec8 scale_pow2(Vec8 x, Vec8 n) {
  return Vec8::map([&](int i) {
    return bits_float(float_bits(x.v[i]) + (uint32_t(detail::to_int32(n.v[i])) << 23));
  });
}

inline Vec8 swap_pairs(Vec8 a) { return Vec8::map([&](int i) { return a.v[i ^ 1]; }); }

// The order of the vector forms' partial sums, so that results agree.
inline float reduce_add(Vec8 a) {
  const float s0 = a.v[0] + a.v[4], s1 = a.v[1] + a.v[5], s2 = a.v[2] + a.v[6], s3 = a.v[3] + a.v[7];
  return (s0 + s2) + (s1 + s3);
}
inline float reduce_max(Vec8 a) {
  float m = a.v[0];
  for (int i = 1; i < 8; ++i) m = a.v[i] > m ? a.v[i] : m;
  return m;
}
inline Vec8 broadcast_max(Vec8 a) { return Vec8::broadcast(reduce_max(a)); }

inline Vec8 transpose_add(const Vec8 a[8]) {
  // The vector form adds neighbours first: ((0+1) + (2+3)) + ((4+5) + (6+7)).
  return Vec8::map([&](int t) {
    const float* x = a[t].v;
    return ((x[0] + x[1]) + (x[2] + x[3])) + ((x[4] + x[5]) + (x[6] + x[7]));
  });
}

inline void transpose8(Vec8 r[8]) {
  Vec8 t[8];
  for (int i = 0; i < 8; ++i)
    for (int j = 0; j < 8; ++j) t[i].v[j] = r[j].v[i];
  for (int i = 0; i < 8; ++i) r[i] = t[i];
}

inline void keep_in_register(Vec8&) {}

template <typename T>
inline Vec8 round_to(Vec8 a) {
  return Vec8::map([&](int i) { return to_float(from_float<T>(a.v[i])); });
}

template <typename T>
inline Vec8 round_arith(Vec8 a) {
  if constexpr (std::is_same_v<T, bf16>)
    return Vec8::map([&](int i) { return bf16_bits_to_float(float_to_bf16_bits_arith(a.v[i])); });
  else
    return round_to<T>(a);
}

template <typename T>
inline void store_arith(Vec8 a, T* p) {
  if constexpr (std::is_same_v<T, bf16>)
    for (int i = 0; i < 8; ++i) p[i].bits = float_to_bf16_bits_arith(a.v[i]);
  else
    a.store(p);
}

namespace detail {

// Element of a block of sixteen in lane i of load_split's first (b = 0) or
// second (b = 1) vector.
inline int split_element(int b, int i) { return 2 * i + b; }

}  // namespace detail

template <typename T>
inline void load_split(const T* p, Vec8& a, Vec8& b) {
  a = Vec8::map([&](int i) { return to_float(p[detail::split_element(0, i)]); });
  b = Vec8::map([&](int i) { return to_float(p[detail::split_element(1, i)]); });
}

inline void store_split_arith(Vec8 a, Vec8 b, bf16* p) {
  for (int i = 0; i < 8; ++i) {
    p[detail::split_element(0, i)].bits = float_to_bf16_bits_arith(a.v[i]);
    p[detail::split_element(1, i)].bits = float_to_bf16_bits_arith(b.v[i]);
  }
}

template <class Code>
inline Vec8 widen_codes(const uint8_t* p) {
  return Vec8::map([&](int i) { return half_bits_to_float(kv::decode<Code>(p[i])); });
}

template <class Code>
inline void narrow_codes(Vec8 x, uint8_t* p) {
  for (int i = 0; i < 8; ++i) p[i] = kv::encode<Code>(float_to_half_bits(x.v[i]));
}

template <class Code, bool Stream>
inline void encode_codes16(const half* src, uint8_t* dst) {
  for (int i = 0; i < 16; ++i) dst[i] = kv::encode<Code>(src[i].bits);
}

VORTA_ISA_END
}  // namespace vorta::cpu
