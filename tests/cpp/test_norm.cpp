// rms_norm and layer_norm called directly, against double-precision references.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "common/numeric.h"
#include "cpu/norm.h"

namespace {

using vorta::half;

template <typename T>
std::vector<T> random_row(size_t n, unsigned seed, float scale) {
  std::mt19937 gen(seed);
  std::normal_distribution<float> d(0.0f, scale);
  std::vector<T> v(n);
  for (T& x : v) x = vorta::from_float<T>(d(gen));
  return v;
}

// Enough rows to split over threads; widths from the smallest to a block short of the largest.
template <typename T>
void expect_norms_match(int64_t rows, int64_t hidden, double tolerance) {
  const auto x = random_row<T>(size_t(rows * hidden), 1, 3.0f);
  const auto w = random_row<T>(size_t(hidden), 2, 1.0f), b = random_row<T>(size_t(hidden), 3, 1.0f);
  std::vector<T> rms(x.size()), ln(x.size());
  vorta::cpu::rms_norm(vorta::NormParams<T>{x.data(), w.data(), nullptr, rms.data(), rows, hidden, 1e-5f});
  vorta::cpu::layer_norm(vorta::NormParams<T>{x.data(), w.data(), b.data(), ln.data(), rows, hidden, 1e-5f});
  auto f = [](T v) { return double(vorta::to_float(v)); };
  for (int64_t r = 0; r < rows; ++r) {
    const T* row = &x[size_t(r * hidden)];
    double sq = 0, sum = 0;
    for (int64_t i = 0; i < hidden; ++i) sq += f(row[i]) * f(row[i]), sum += f(row[i]);
    const double mean = sum / hidden;
    double var = 0;
    for (int64_t i = 0; i < hidden; ++i) var += (f(row[i]) - mean) * (f(row[i]) - mean);
    const double rs = 1 / std::sqrt(sq / hidden + 1e-5), ls = 1 / std::sqrt(var / hidden + 1e-5);
    for (int64_t i = 0; i < hidden; ++i) {
      const size_t k = size_t(r * hidden + i);
      const double want_rms = f(row[i]) * rs * f(w[i]);
      const double want_ln = (f(row[i]) - mean) * ls * f(w[i]) + f(b[i]);
      ASSERT_NEAR(f(rms[k]), want_rms, tolerance * (1 + std::fabs(want_rms))) << r << " " << i;
      ASSERT_NEAR(f(ln[k]), want_ln, tolerance * (1 + std::fabs(want_ln))) << r << " " << i;
    }
  }
}

TEST(Norm, FloatRowsMatchTheReference) {
  expect_norms_match<float>(37, 32, 2e-6);
  expect_norms_match<float>(300, 8160, 2e-6);
}

TEST(Norm, HalfRowsAreTheReferenceRoundedOnce) {
  // One rounding to half (2^-11 relative) over a float computation.
  expect_norms_match<half>(300, 4096, 1.0 / 1024);
}

}  // namespace
