#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "cpu/exp2.h"

using vorta::bits_float;
using vorta::float_bits;
using vorta::cpu::exp2_scalar;
using vorta::cpu::Vec8;

namespace {

// Error of a float result in units of the float spacing at the exact value.
double ulps(float got, double exact) {
  const double spacing = exact < std::ldexp(1.0, -126) ? std::ldexp(1.0, -149)
                                                       : std::ldexp(1.0, std::ilogb(exact) - 23);
  return std::fabs(double(got) - exact) / spacing;
}

}  // namespace

// Sampled over the whole finite range of results, subnormal ones included;
// the vector and scalar paths agree bit for bit.
TEST(Exp2, WithinOneUlpAndPathsAgree) {
  double worst = 0;
  const uint32_t hi = float_bits(130.0f), lo = float_bits(-152.0f);
  float xs[8];
  int k = 0;
  auto run = [&] {
    float ys[8];
    vorta::cpu::exp2(Vec8::load(xs)).store(ys);
    for (int i = 0; i < 8; ++i) {
      ASSERT_EQ(float_bits(ys[i]), float_bits(exp2_scalar(xs[i]))) << xs[i];
      const double exact = std::exp2(double(xs[i]));
      if (exact < double(std::numeric_limits<float>::max())) worst = std::max(worst, ulps(ys[i], exact));
      else ASSERT_TRUE(std::isinf(ys[i])) << xs[i];
    }
  };
  for (uint64_t b = 0; b <= hi; b += 61) {
    xs[k++] = bits_float(uint32_t(b));
    if (k == 8) run(), k = 0;
  }
  for (uint64_t b = 0x80000000u; b <= lo; b += 61) {
    xs[k++] = bits_float(uint32_t(b));
    if (k == 8) run(), k = 0;
  }
  EXPECT_LE(worst, 1.0);
}

TEST(Exp2, SpecialValues) {
  const float inf = std::numeric_limits<float>::infinity();
  EXPECT_EQ(exp2_scalar(-inf), 0.0f);
  EXPECT_EQ(exp2_scalar(-150.0f), 0.0f);
  EXPECT_EQ(exp2_scalar(-149.0f), std::ldexp(1.0f, -149));
  EXPECT_EQ(exp2_scalar(0.0f), 1.0f);
  EXPECT_EQ(exp2_scalar(10.0f), 1024.0f);
  EXPECT_EQ(exp2_scalar(128.0f), inf);
  EXPECT_EQ(exp2_scalar(inf), inf);
  EXPECT_TRUE(std::isnan(exp2_scalar(std::numeric_limits<float>::quiet_NaN())));
  float ys[8];
  vorta::cpu::exp2(Vec8::broadcast(std::numeric_limits<float>::quiet_NaN())).store(ys);
  EXPECT_TRUE(std::isnan(ys[0]));
}
