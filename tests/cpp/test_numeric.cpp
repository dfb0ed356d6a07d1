#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "common/numeric.h"

// The software conversions must agree with the hardware's on every pattern.
#if defined(__F16C__)
#include <immintrin.h>

TEST(Numeric, HalfToFloatAllPatterns) {
  for (uint32_t h = 0; h < 65536; ++h) {
    float hw = _cvtsh_ss(uint16_t(h));
    float sw = vorta::half_bits_to_float(uint16_t(h));
    if (std::isnan(hw)) {
      EXPECT_TRUE(std::isnan(sw));
    } else {
      EXPECT_EQ(vorta::float_bits(hw), vorta::float_bits(sw)) << h;
    }
  }
}

TEST(Numeric, FloatToHalfRoundsLikeHardware) {
  std::mt19937 rng(7);
  auto check = [](uint32_t bits) {
    float f = vorta::bits_float(bits);
    uint16_t hw = _cvtss_sh(f, _MM_FROUND_TO_NEAREST_INT);
    uint16_t sw = vorta::float_to_half_bits(f);
    if (std::isnan(f)) {
      EXPECT_EQ(sw & 0x7c00, 0x7c00);
      EXPECT_NE(sw & 0x3ff, 0);
    } else {
      ASSERT_EQ(hw, sw) << std::hex << bits;
    }
  };
  for (int i = 0; i < 2000000; ++i) check(rng());
  // Every tie and neighbour around the binary16 grid, subnormals included.
  for (uint32_t h = 0; h < 0x7c00; ++h) {
    uint32_t b = vorta::float_bits(vorta::half_bits_to_float(uint16_t(h)));
    for (int d = -1; d <= 1; ++d) check(b + d), check((b + d) | 0x80000000u);
    check(b + 0x1000u);  // halfway to the next normal binary16
  }
}
#endif

TEST(Numeric, Bf16RoundsToNearestEven) {
  EXPECT_EQ(vorta::float_to_bf16_bits(vorta::bits_float(0x3f808000u)), 0x3f80);  // tie, even
  EXPECT_EQ(vorta::float_to_bf16_bits(vorta::bits_float(0x3f818000u)), 0x3f82);  // tie, odd
  EXPECT_EQ(vorta::float_to_bf16_bits(vorta::bits_float(0x3f808001u)), 0x3f81);
  EXPECT_TRUE(std::isnan(vorta::bf16_bits_to_float(vorta::float_to_bf16_bits(NAN))));
}
