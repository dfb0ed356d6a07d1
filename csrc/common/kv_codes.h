// The two 8-bit key/value cache codes.
//
// A code byte is sign (bit 7), 4-bit exponent, 3-bit mantissa. Both codes are
// defined on binary16 bit patterns: encoding clamps |x| to the range of the
// code and keeps the fp16's exponent and top three mantissa bits (truncation,
// never rounding); decoding rebuilds the fp16 pattern with the low mantissa
// bits set to 0x40, the midpoint of the truncated interval. Keys and values
// differ only in their exponent offset and clamp bounds.
//
// Everything here is plain integer arithmetic on 16-bit patterns so that every
// backend and every kernel that reads an 8-bit cache shares one definition.
#pragma once

#include <cstdint>

#if defined(__CUDACC__)
#define VORTA_HD __host__ __device__ __forceinline__
#else
#define VORTA_HD inline
#endif

namespace vorta::kv {

struct KeyCode {
  static constexpr uint16_t kOffset = 0x30;  // added to the 7 magnitude bits on decode
  static constexpr uint16_t kMax = 0x57c0;   // 124.0, the decoded value of 0x7f
  static constexpr uint16_t kMin = 0x1840;   // 2^-9 * 1.0625, the decoded value of 0x00
};

struct ValueCode {
  static constexpr uint16_t kOffset = 0x18;
  static constexpr uint16_t kMax = 0x4bc0;  // 15.5
  static constexpr uint16_t kMin = 0x0c40;  // 2^-12 * 1.0625
};

// fp16 bit pattern -> code byte.
template <class Code>
VORTA_HD uint8_t encode(uint16_t h) {
  uint16_t a = h & 0x7fffu;
  // Positive fp16 patterns order like the numbers, so the clamp is integer min/max.
  // A NaN magnitude compares above kMax and clamps to the largest code.
  if (a > Code::kMax) a = Code::kMax;
  if (a < Code::kMin) a = Code::kMin;
  uint8_t high = uint8_t((a << 1) >> 8);
  return uint8_t(uint8_t(high - Code::kOffset) | ((h >> 8) & 0x80u));
}

// Code byte -> fp16 bit pattern, 16-bit arithmetic with no saturation.
template <class Code>
VORTA_HD uint16_t decode(uint8_t b) {
  return uint16_t((uint16_t(b & 0x80u) << 8) | (uint16_t((b & 0x7fu) + Code::kOffset) << 7) | 0x40u);
}

// What a code's magnitude bits need added to become the binary32 bits of its
// value, once placed at bits 20-26 (the sign at bit 31): the offset, the
// exponent rebias from binary16 to binary32 and the 0x40 midpoint bits.
template <class Code>
constexpr VORTA_HD int32_t float_bits_bias() {
  static_assert(Code::kOffset >= 8 && Code::kOffset + 0x7f < 0xf8,
                "every decoded code must be a normal fp16 number");
  return (int32_t(Code::kOffset) << 20) + ((127 - 15) << 23) + (0x40 << 13);
}

}  // namespace vorta::kv
