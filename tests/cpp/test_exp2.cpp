#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "cpu/simd/exp.h"

using vorta::bits_float;
using vorta::float_bits;
using vorta::cpu::exp2_scalar;

// Sampled over all results, subnormal ones included: within one ulp of the
// exact value, and the vector path equal bit for bit to the scalar one.
TEST(Exp2, WithinOneUlpAndPathsAgree) {
  double worst = 0;
  for (uint64_t b = 0; b < (uint64_t(1) << 32); b += 1021) {
    float xs[8], ys[8];
    for (int i = 0; i < 8; ++i) xs[i] = bits_float(uint32_t(b + uint64_t(i) * 7));
    vorta::cpu::exp2(vorta::cpu::Vec8::load(xs)).store(ys);
    for (int i = 0; i < 8; ++i) {
      const float x = xs[i];
      if (std::isnan(x) || std::fabs(x) > 160.0f) continue;
      ASSERT_EQ(float_bits(ys[i]), float_bits(exp2_scalar(x))) << x;
      const double exact = std::exp2(double(x));
      if (exact >= std::ldexp(1.0, 128)) {
        ASSERT_TRUE(std::isinf(ys[i])) << x;
        continue;
      }
      const int e = exact < std::ldexp(1.0, -126) ? -149 : std::ilogb(exact) - 23;
      worst = std::max(worst, std::fabs(double(ys[i]) - exact) / std::ldexp(1.0, e));
    }
  }
  EXPECT_LE(worst, 1.0);
}

TEST(Exp2, SpecialValues) {
  const float inf = std::numeric_limits<float>::infinity();
  EXPECT_EQ(exp2_scalar(-inf), 0.0f);
  EXPECT_EQ(exp2_scalar(-149.0f), std::ldexp(1.0f, -149));
  EXPECT_EQ(exp2_scalar(10.0f), 1024.0f);
  EXPECT_EQ(exp2_scalar(128.0f), inf);
  EXPECT_TRUE(std::isnan(exp2_scalar(std::numeric_limits<float>::quiet_NaN())));
}

// The shorter form for values rounded to half next: over the whole range it
// serves, within 3e-6 of the exact value, and exact at whole numbers.
TEST(Exp2, ForHalfWithinItsBound) {
  double worst = 0;
  for (float x0 = -125.0f; x0 < 127.0f; x0 += 0.0625f) {
    float xs[8], ys[8];
    for (int i = 0; i < 8; ++i) xs[i] = std::fmin(x0 + float(i) * 0.0078125f + 0.00048828125f, 127.0f);
    vorta::cpu::exp2_normal_for_half(vorta::cpu::Vec8::load(xs)).store(ys);
    for (int i = 0; i < 8; ++i) worst = std::max(worst, std::fabs(ys[i] / std::exp2(double(xs[i])) - 1.0));
  }
  EXPECT_LE(worst, 3e-6);
  float whole[8] = {-125, -16, -1, 0, 1, 2, 15, 127}, ys[8];
  vorta::cpu::exp2_normal_for_half(vorta::cpu::Vec8::load(whole)).store(ys);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(ys[i], std::ldexp(1.0f, int(whole[i]))) << whole[i];
}
