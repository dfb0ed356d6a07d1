// The scalar 8-bit codes that every cache reader shares, checked against their definition by value.
#include <gtest/gtest.h>

#include <cmath>
#include <type_traits>

#include "common/kv_codes.h"
#include "common/numeric.h"

namespace {

using vorta::kv::KeyCode;
using vorta::kv::ValueCode;

template <class Code>
constexpr int kBias = std::is_same_v<Code, KeyCode> ? 9 : 12;

// Magnitude of code k (0..127) from its definition: 2^(e - bias) * (1 + m/8 + extra).
template <class Code>
double code_value(int k, double extra) {
  return std::ldexp(1.0 + (k & 7) / 8.0 + extra, (k >> 3) - kBias<Code>);
}

template <class Code>
void check_decode_all_bytes() {
  for (int b = 0; b < 256; ++b) {
    const double expect = (b & 0x80 ? -1.0 : 1.0) * code_value<Code>(b & 0x7f, 1.0 / 16);
    EXPECT_EQ(double(vorta::half_bits_to_float(vorta::kv::decode<Code>(uint8_t(b)))), expect) << b;
  }
}

// Encoding truncates onto the code grid: the largest code whose lower end is
// at most |x|, clamped to 0..127; the sign is the fp16 sign bit.
template <class Code>
void check_encode_all_patterns() {
  for (uint32_t h = 0; h < 65536; ++h) {
    const float x = vorta::half_bits_to_float(uint16_t(h));
    if (std::isnan(x)) continue;
    int k = 0;
    while (k < 127 && code_value<Code>(k + 1, 0.0) <= std::fabs(x)) ++k;
    const int expect = k | ((h & 0x8000) ? 0x80 : 0);
    ASSERT_EQ(vorta::kv::encode<Code>(uint16_t(h)), expect) << std::hex << h;
  }
}

TEST(KvCodes, DecodeEveryByte) {
  check_decode_all_bytes<KeyCode>();
  check_decode_all_bytes<ValueCode>();
}

TEST(KvCodes, EncodeEveryPattern) {
  check_encode_all_patterns<KeyCode>();
  check_encode_all_patterns<ValueCode>();
}

}  // namespace
