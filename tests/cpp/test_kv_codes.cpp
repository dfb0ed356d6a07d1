#include <gtest/gtest.h>

#include <cmath>

#include "common/kv_codes.h"
#include "common/numeric.h"
#include "cpu/kv_vec.h"

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

TEST(KvCodes, ClampBoundsAreTheExtremeCodes) {
  EXPECT_EQ(vorta::kv::decode<KeyCode>(0x7f), KeyCode::kMax);
  EXPECT_EQ(vorta::kv::decode<KeyCode>(0x00), KeyCode::kMin);
  EXPECT_EQ(vorta::kv::decode<ValueCode>(0x7f), ValueCode::kMax);
  EXPECT_EQ(vorta::kv::decode<ValueCode>(0x00), ValueCode::kMin);
}

#if VORTA_AVX2
template <class Code>
void check_vector_forms() {
  alignas(32) uint16_t in[16];
  alignas(16) uint8_t out[16];
  for (uint32_t base = 0; base < 65536; base += 16) {
    for (int i = 0; i < 16; ++i) in[i] = uint16_t(base + i);
    _mm_store_si128(reinterpret_cast<__m128i*>(out),
                    vorta::cpu::encode16<Code>(_mm256_load_si256(reinterpret_cast<const __m256i*>(in))));
    for (int i = 0; i < 16; ++i) ASSERT_EQ(out[i], vorta::kv::encode<Code>(in[i])) << base + i;
  }
  for (int base = 0; base < 256; base += 16) {
    for (int i = 0; i < 16; ++i) out[i] = uint8_t(base + i);
    _mm256_store_si256(reinterpret_cast<__m256i*>(in),
                       vorta::cpu::decode16<Code>(_mm_load_si128(reinterpret_cast<const __m128i*>(out))));
    for (int i = 0; i < 16; ++i) ASSERT_EQ(in[i], vorta::kv::decode<Code>(out[i])) << base + i;
  }
}

TEST(KvCodes, VectorFormsMatchScalarOnEveryInput) {
  check_vector_forms<KeyCode>();
  check_vector_forms<ValueCode>();
}
#endif

}  // namespace
