// rotary_with_cache called directly, against a scalar emulation of its
// roundings: every product and every sum rounded to the element type.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "common/numeric.h"
#include "cpu/rotary.h"

namespace {

using vorta::bf16;
using vorta::CachePairs;
using vorta::half;

template <typename T>
float r(float x) {
  return vorta::to_float(vorta::from_float<T>(x));
}

template <typename T>
uint32_t bits(T v) {
  uint32_t b = 0;
  std::memcpy(&b, &v, sizeof(T));
  return b;
}

// Query [2, 3, 5, 48] and key [2, 1, 5, 48] rows: the first rotary_dim = 24
// elements rotate, the rest of each row must stay as it was.
template <typename T>
void expect_rotation_matches(CachePairs pairs) {
  constexpr int64_t bsz = 2, heads = 3, kv_heads = 1, seq = 5, pitch = 48, rot = 24;
  std::mt19937 gen(7);
  std::normal_distribution<float> d(0.0f, 2.0f);
  auto fill = [&](std::vector<T>& v) {
    for (T& x : v) x = vorta::from_float<T>(d(gen));
  };
  std::vector<T> q(bsz * heads * seq * pitch), k(bsz * kv_heads * seq * pitch), c(seq * rot), s(seq * rot);
  fill(q), fill(k), fill(c), fill(s);
  const std::vector<T> q0 = q, k0 = k;
  const vorta::RotaryRows rows{bsz, heads, kv_heads, seq, {heads * seq * pitch, seq * pitch, pitch},
                               {kv_heads * seq * pitch, seq * pitch, pitch}};
  vorta::cpu::rotary_with_cache(vorta::RotaryCacheParams<T>{q.data(), k.data(), c.data(), s.data(), rows, rot, pairs});

  auto check = [&](const std::vector<T>& before, const std::vector<T>& after) {
    for (size_t row = 0; row < before.size() / pitch; ++row) {
      const int64_t tok = int64_t(row) % seq;
      const T* x = &before[row * pitch];
      const T* y = &after[row * pitch];
      for (int64_t i = 0; i < pitch; ++i) {
        float want = vorta::to_float(x[i]);
        if (i < rot) {
          // Pair partner, the angle's cache index and the sign of the sine term.
          const bool half_split = pairs == CachePairs::half;
          const int64_t pair = half_split ? i % (rot / 2) : i / 2;
          const int64_t partner = half_split ? (i < rot / 2 ? i + rot / 2 : i - rot / 2) : i ^ 1;
          const bool first = half_split ? i < rot / 2 : i % 2 == 0;
          const int64_t at = pairs == CachePairs::two_interleaved ? 2 * pair : pair;
          const float cv = vorta::to_float(c[tok * rot + at]), sv = vorta::to_float(s[tok * rot + at]);
          const float a = vorta::to_float(x[i]), b = vorta::to_float(x[partner]);
          want = first ? r<T>(a * cv) - r<T>(b * sv) : r<T>(a * cv) + r<T>(b * sv);
        }
        ASSERT_EQ(bits(y[i]), bits(vorta::from_float<T>(want))) << "row " << row << " element " << i;
      }
    }
  };
  check(q0, q);
  check(k0, k);
}

TEST(Rotary, WithCacheRoundsLikeItsDefinition) {
  for (CachePairs pairs : {CachePairs::half, CachePairs::two_half_layout, CachePairs::two_interleaved}) {
    expect_rotation_matches<float>(pairs);
    expect_rotation_matches<half>(pairs);
    expect_rotation_matches<bf16>(pairs);
  }
}

}  // namespace
