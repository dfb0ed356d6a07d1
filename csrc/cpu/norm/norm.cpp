#include "cpu/norm.h"

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <vector>

#include "cpu/parallel.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace {

constexpr int64_t kLanes = 32;  // partial sums per row
constexpr int64_t kBlock = 32;  // elements per block
constexpr int64_t kMaxHidden = 8192;

// Folds 32 lane values by halves (0-15 + 16-31, then 0-7 + 8-15, ...). This
// order fixes the rounding of every sum, so results do not depend on how rows
// are spread over threads. The lanes arrive as four vectors of eight.
inline float fold32(Vec8 a0, Vec8 a1, Vec8 a2, Vec8 a3) {
  Vec8 v = (a0 + a2) + (a1 + a3);
  float r[8];
  v.store(r);
  for (int w = 4; w >= 1; w /= 2)
    for (int i = 0; i < w; ++i) r[i] += r[i + w];
  return r[0];
}

// Mean of f(x) over a row: the row's blocks are dealt to 32 lanes in
// contiguous runs (the first hidden/32 % 32 lanes take one extra block); each
// lane sums its blocks element-wise into 32 accumulators, folds them and
// divides by hidden; the 32 lane results are folded again.
template <typename F>
float lane_mean(const float* x, int64_t hidden, F f) {
  const int64_t blocks = hidden / kBlock;
  const int64_t per_lane = blocks / kLanes, extra = blocks % kLanes;
  alignas(32) float partial[kLanes];
  for (int64_t t = 0; t < kLanes; ++t) {
    const int64_t first = t * per_lane + std::min(t, extra);
    const int64_t last = first + per_lane + (t < extra ? 1 : 0);
    Vec8 a0 = Vec8::zero(), a1 = a0, a2 = a0, a3 = a0;
    for (int64_t b = first; b < last; ++b) {
      const float* blk = x + b * kBlock;
      a0 = a0 + f(Vec8::load(blk));
      a1 = a1 + f(Vec8::load(blk + 8));
      a2 = a2 + f(Vec8::load(blk + 16));
      a3 = a3 + f(Vec8::load(blk + 24));
    }
    partial[t] = fold32(a0, a1, a2, a3) / float(hidden);
  }
  return fold32(Vec8::load(partial), Vec8::load(partial + 8), Vec8::load(partial + 16),
                Vec8::load(partial + 24));
}

// The row as floats: the input itself for float rows, else a converted copy.
template <typename T>
const float* row_as_float(const T* row, int64_t n, float* scratch) {
  if constexpr (std::is_same_v<T, float>) {
    return row;
  } else {
    load_row(row, scratch, n);
    return scratch;
  }
}

template <typename T>
std::vector<float> to_float_vector(const T* p, int64_t n) {
  std::vector<float> v(p ? n : 0);
  if (p) load_row(p, v.data(), n);
  return v;
}

// Writes out[i..i+8) = y(i) for the row, rounding once to T. Plain stores:
// the output is freshly allocated, and its pages arrive zeroed in cache.
template <typename T, typename F>
inline void write_row(T* out, int64_t n, F y) {
  for (int64_t i = 0; i < n; i += 8) y(i).store(out + i);
}

// Runs row(r, x) for every row with x the row as floats, in parallel.
template <typename T, typename F>
void for_each_row(const T* input, T* output, int64_t num_tokens, int64_t hidden, F row) {
  parallel_for(0, num_tokens, grain_for(hidden * 2 * int64_t(sizeof(T))), [&](int64_t lo, int64_t hi) {
    alignas(32) float scratch[kMaxHidden];
    for (int64_t r = lo; r < hi; ++r)
      row(output + r * hidden, row_as_float(input + r * hidden, hidden, scratch));
  });
}

}  // namespace

template <typename T>
void rms_norm(const NormParams<T>& p) {
  const int64_t hidden = p.hidden;
  const float eps = p.eps;
  const std::vector<float> w = to_float_vector(p.weight, hidden);
  for_each_row(p.input, p.output, p.rows, hidden, [&](T* out, const float* x) {
    const float ms = lane_mean(x, hidden, [](Vec8 v) { return v * v; });
    const Vec8 s = Vec8::broadcast(1.0f / std::sqrt(ms + eps));
    write_row(out, hidden, [&](int64_t i) { return (Vec8::load(x + i) * s) * Vec8::load(&w[i]); });
  });
}

template <typename T>
void layer_norm(const NormParams<T>& p) {
  const int64_t hidden = p.hidden;
  const float eps = p.eps;
  const bool weight = p.weight != nullptr, bias = p.bias != nullptr;
  const std::vector<float> w = to_float_vector(p.weight, hidden);
  const std::vector<float> b = to_float_vector(p.bias, hidden);
  for_each_row(p.input, p.output, p.rows, hidden, [&](T* out, const float* x) {
    const Vec8 m = Vec8::broadcast(lane_mean(x, hidden, [](Vec8 v) { return v; }));
    const float var = lane_mean(x, hidden, [m](Vec8 v) { return (v - m) * (v - m); });
    const Vec8 s = Vec8::broadcast(1.0f / std::sqrt(var + eps));
    write_row(out, hidden, [&](int64_t i) {
      Vec8 y = (Vec8::load(x + i) - m) * s;
      if (weight) y = y * Vec8::load(&w[i]);
      if (bias) y = y + Vec8::load(&b[i]);
      return y;
    });
  });
}

#define VORTA_INSTANTIATE(T)                                                              \
  template void rms_norm<T>(const NormParams<T>&); \
  template void layer_norm<T>(const NormParams<T>&);
VORTA_INSTANTIATE(float)
VORTA_INSTANTIATE(half)
#undef VORTA_INSTANTIATE

VORTA_ISA_END
}  // namespace vorta::cpu
