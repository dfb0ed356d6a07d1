#include "cpu/norm.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "cpu/parallel.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace {

constexpr int64_t kLanes = 32;  // partial sums per row
constexpr int64_t kBlock = 32;  // elements per block

// Folds 32 lane values by halves (0-15 + 16-31, then 0-7 + 8-15, ...). This
// order fixes the rounding of every sum, so results do not depend on how rows
// are spread over threads. The lanes arrive as four vectors of eight; the
// last three halvings are reduce_add's.
inline float fold32(Vec8 a0, Vec8 a1, Vec8 a2, Vec8 a3) { return reduce_add((a0 + a2) + (a1 + a3)); }

// Mean of f(x) over a row: the row's blocks are dealt to 32 lanes in
// contiguous runs (the first hidden/32 % 32 lanes take one extra block); each
// lane sums its blocks element-wise into 32 accumulators, folds them and
// divides by hidden; the 32 lane results are folded again. 16-bit rows are
// converted as they are read.
template <typename T, typename F>
float lane_mean(const T* x, int64_t hidden, F f) {
  const int64_t blocks = hidden / kBlock;
  const int64_t per_lane = blocks / kLanes, extra = blocks % kLanes;
  alignas(32) float partial[kLanes];
  for (int64_t t = 0; t < kLanes; ++t) {
    const int64_t first = t * per_lane + std::min(t, extra);
    const int64_t last = first + per_lane + (t < extra ? 1 : 0);
    Vec8 a0 = Vec8::zero(), a1 = a0, a2 = a0, a3 = a0;
    for (int64_t b = first; b < last; ++b) {
      const T* blk = x + b * kBlock;
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

template <typename T>
std::vector<float> to_float_vector(const T* p, int64_t n) {
  std::vector<float> v(p ? n : 0);
  if (p) load_row(p, v.data(), n);
  return v;
}

// Outputs larger than this go past the caches: they would be evicted before a
// reader came, and a cached store first reads the line it fills.
constexpr int64_t kStreamBytes = int64_t(8) << 20;

// Where a row's results go: to out, past the caches when stream. next is the
// input row to fetch into L2 meanwhile: the hardware's prefetcher alone does
// not run far enough ahead of the arithmetic to hide memory behind it.
template <typename T>
struct RowOut {
  T* out;
  bool stream;
  const T* next;
};

template <bool kStream, typename T, typename F>
inline void write_lines(T* out, const T* next, int64_t n, F y) {
  constexpr int64_t kLine = 64 / sizeof(T);  // elements per cache line; n is a multiple
  for (int64_t i = 0; i < n; i += kLine) {
    __builtin_prefetch(next + i, 0, 2);
    for (int64_t j = i; j < i + kLine; j += 8) {
      if constexpr (kStream)
        y(j).stream(out + j);
      else
        y(j).store(out + j);
    }
  }
}

// Writes out[i..i+8) = y(i) for the row, rounding once to T. y captures by
// value: the stores could otherwise alias what it reads through references.
template <typename T, typename F>
inline void write_row(const RowOut<T>& o, int64_t n, F y) {
  if (o.stream)
    write_lines<true>(o.out, o.next, n, y);
  else
    write_lines<false>(o.out, o.next, n, y);
}

// Runs row(out, x) for every row in parallel. Rows are whole vectors of T, so
// an aligned output keeps every row aligned for stream().
template <typename T, typename F>
void for_each_row(const T* input, T* output, int64_t num_tokens, int64_t hidden, F row) {
  const int64_t bytes = num_tokens * hidden * int64_t(sizeof(T));
  const bool stream = bytes > kStreamBytes && reinterpret_cast<uintptr_t>(output) % (8 * sizeof(T)) == 0;
  parallel_for(0, num_tokens, grain_for(hidden * 2 * int64_t(sizeof(T))), [&](int64_t lo, int64_t hi) {
    for (int64_t r = lo; r < hi; ++r) {
      const T* x = input + r * hidden;
      row(RowOut<T>{output + r * hidden, stream, r + 1 < hi ? x + hidden : x}, x);
    }
    if (stream) stream_fence();
  });
}

}  // namespace

template <typename T>
void rms_norm(const NormParams<T>& p) {
  const int64_t hidden = p.hidden;
  const float eps = p.eps;
  const std::vector<float> weight = to_float_vector(p.weight, hidden);
  const float* w = weight.data();
  for_each_row(p.input, p.output, p.rows, hidden, [&](const RowOut<T>& out, const T* x) {
    const float ms = lane_mean(x, hidden, [](Vec8 v) { return v * v; });
    const Vec8 s = Vec8::broadcast(1.0f / std::sqrt(ms + eps));
    write_row(out, hidden, [=](int64_t i) { return (Vec8::load(x + i) * s) * Vec8::load(w + i); });
  });
}

template <typename T>
void layer_norm(const NormParams<T>& p) {
  const int64_t hidden = p.hidden;
  const float eps = p.eps;
  const std::vector<float> weight = to_float_vector(p.weight, hidden);
  const std::vector<float> bias = to_float_vector(p.bias, hidden);
  const float* w = p.weight ? weight.data() : nullptr;
  const float* b = p.bias ? bias.data() : nullptr;
  for_each_row(p.input, p.output, p.rows, hidden, [&](const RowOut<T>& out, const T* x) {
    const Vec8 m = Vec8::broadcast(lane_mean(x, hidden, [](Vec8 v) { return v; }));
    const float var = lane_mean(x, hidden, [m](Vec8 v) { return (v - m) * (v - m); });
    const Vec8 s = Vec8::broadcast(1.0f / std::sqrt(var + eps));
    write_row(out, hidden, [=](int64_t i) {
      Vec8 y = (Vec8::load(x + i) - m) * s;
      if (w) y = y * Vec8::load(w + i);
      if (b) y = y + Vec8::load(b + i);
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
