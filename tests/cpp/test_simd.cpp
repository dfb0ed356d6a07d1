#include <gtest/gtest.h>

#include <cmath>

#include "common/kv_codes.h"
#include "common/numeric.h"
#include "cpu/simd/exp.h"
#include "cpu/simd/vec8.h"

using vorta::cpu::Vec8;

TEST(Simd, FastExpIsWithinTwoUlpAndZeroBelowTheNormalRange) {
  for (float x = -87.3f; x <= 0.0f; x += 0.0137f) {
    const double exact = std::exp(double(x));
    const double ulp = std::ldexp(1.0, std::ilogb(exact) - 23);
    EXPECT_LE(std::fabs(vorta::cpu::fast_exp(Vec8::broadcast(x))[3] - exact), 2 * ulp) << x;
  }
  EXPECT_EQ(vorta::cpu::fast_exp(Vec8::broadcast(0.0f))[0], 1.0f);
  EXPECT_EQ(vorta::cpu::fast_exp(Vec8::broadcast(-90.0f))[5], 0.0f);
  EXPECT_EQ(vorta::cpu::fast_exp(Vec8::broadcast(-INFINITY))[7], 0.0f);
}

template <class Code>
void expect_codes_widen_like_decode() {
  uint8_t bytes[256];
  for (int b = 0; b < 256; ++b) bytes[b] = uint8_t(b);
  for (int b = 0; b < 256; b += 8) {
    const Vec8 v = vorta::cpu::widen_codes<Code>(bytes + b);
    for (int i = 0; i < 8; ++i)
      EXPECT_EQ(v[i], vorta::half_bits_to_float(vorta::kv::decode<Code>(uint8_t(b + i)))) << b + i;
  }
}

TEST(Simd, EveryCodeWidensToItsDecodedValue) {
  expect_codes_widen_like_decode<vorta::kv::KeyCode>();
  expect_codes_widen_like_decode<vorta::kv::ValueCode>();
}

TEST(Simd, TransposeAddSumsEachVector) {
  Vec8 a[8];
  for (int t = 0; t < 8; ++t) a[t] = Vec8::broadcast(float(t + 1));
  const Vec8 s = vorta::cpu::transpose_add(a);
  for (int t = 0; t < 8; ++t) EXPECT_EQ(s[t], 8.0f * float(t + 1));
}

TEST(Simd, EveryBf16PatternSurvivesLoadSplitAndStoreSplit) {
  // NaNs with payloads and signalling ones included: their bits must not move.
  for (uint32_t base = 0; base < 0x10000u; base += 16) {
    vorta::bf16 in[16], out[16];
    for (int i = 0; i < 16; ++i) in[i].bits = uint16_t(base + i);
    Vec8 a, b;
    vorta::cpu::load_split(in, a, b);
    vorta::cpu::store_split_arith(a, b, out);
    for (int i = 0; i < 16; ++i) ASSERT_EQ(out[i].bits, in[i].bits) << base + i;
  }
}

template <class Code, bool Stream>
void expect_every_half_encodes_like_the_code() {
  for (uint32_t base = 0; base < 0x10000u; base += 16) {
    vorta::half in[16];
    alignas(16) uint8_t out[16];
    for (int i = 0; i < 16; ++i) in[i].bits = uint16_t(base + i);
    vorta::cpu::encode_codes16<Code, Stream>(in, out);
    vorta::cpu::stream_fence();
    for (int i = 0; i < 16; ++i) ASSERT_EQ(out[i], vorta::kv::encode<Code>(in[i].bits)) << base + i;
  }
}

TEST(Simd, EncodeCodes16CodesEveryHalfPattern) {
  expect_every_half_encodes_like_the_code<vorta::kv::KeyCode, false>();
  expect_every_half_encodes_like_the_code<vorta::kv::ValueCode, false>();
  expect_every_half_encodes_like_the_code<vorta::kv::KeyCode, true>();
  expect_every_half_encodes_like_the_code<vorta::kv::ValueCode, true>();
}
