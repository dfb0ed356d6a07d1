// RMS and layer normalisation, one block per row.
//
// The sums are those of the CPU backend, bit for bit: the row's 32-element
// blocks are dealt to 32 runs in contiguous stretches (the first
// hidden/32 % 32 runs take one more), each run sums its blocks column by
// column, folds its 32 columns by halves and divides by hidden, and the 32
// run results are folded by halves again. Here a run is a group of threads
// that each load one 16-byte chunk of every block of the run, so a warp's
// loads cover whole 128-byte blocks; the row stays in registers between the
// passes, and the output goes out in the same chunks.
#include "cuda/common/reduce.cuh"
#include "cuda/common/types.cuh"
#include "cuda/norm.h"

namespace vorta::cuda {
namespace {

constexpr int kBlock = 32;   // elements per block
constexpr int kRuns = 32;    // runs per row
// Blocks per run: at most 8 (rows up to 8192). The row is held in registers
// for kMax blocks per run, so rows up to 4096 take kernels built for 4: the
// registers of the four unused chunks would otherwise cost a resident block
// per SM (fp16 layer norm held 95 registers, five 128-thread blocks).
constexpr int kMaxPerRun = 8;
constexpr int kShortRun = 4;

template <typename T>
struct RowLayout {
  static constexpr int kV = Chunk<T>::kN;          // columns per thread
  static constexpr int kGroup = kBlock / kV;       // threads per run
  static constexpr int kThreads = kRuns * kGroup;  // 256 for float, 128 for half
};

// Sum of a run's 32 column sums, folded by halves: column c takes c + 16,
// then c + 8, ... Thread g of the run holds columns g*kV .. g*kV + kV - 1.
template <typename T>
__device__ __forceinline__ float fold_run(float (&acc)[RowLayout<T>::kV]) {
  constexpr int kV = RowLayout<T>::kV, kGroup = RowLayout<T>::kGroup;
#pragma unroll
  for (int w = kBlock / 2; w >= kV; w /= 2) {
#pragma unroll
    for (int j = 0; j < kV; ++j) acc[j] += __shfl_down_sync(kFullWarp, acc[j], w / kV, kGroup);
  }
#pragma unroll
  for (int w = kV / 2; w >= 1; w /= 2) {
#pragma unroll
    for (int j = 0; j < w; ++j) acc[j] += acc[j + w];
  }
  return acc[0];
}

// The row's cached chunks and its mean of f(x), every thread getting the mean.
template <typename T, int kMax>
struct Row {
  static constexpr int kV = RowLayout<T>::kV;
  Chunk<T> x[kMax];
  int first = 0, count = 0;  // this run's blocks
  int column = 0;            // this thread's first column within a block

  template <typename F>
  __device__ float mean(int64_t hidden, float* partial, F f) const {
    float acc[kV];
#pragma unroll
    for (int j = 0; j < kV; ++j) acc[j] = 0.0f;
#pragma unroll
    for (int k = 0; k < kMax; ++k)
      if (k < count)
#pragma unroll
        for (int j = 0; j < kV; ++j) acc[j] = acc[j] + f(widen(x[k].v[j]));
    const float run = fold_run<T>(acc) / float(hidden);
    if (column == 0) partial[threadIdx.x / RowLayout<T>::kGroup] = run;
    __syncthreads();
    return warp_fold_sum(partial[threadIdx.x % 32]);
  }
};

template <typename T, int kMax>
__device__ __forceinline__ Row<T, kMax> load_row(const T* in, int64_t hidden, bool vector) {
  Row<T, kMax> r;
  const int run = threadIdx.x / RowLayout<T>::kGroup;
  const int blocks = int(hidden / kBlock), per_run = blocks / kRuns, extra = blocks % kRuns;
  r.first = run * per_run + min(run, extra);
  r.count = per_run + (run < extra ? 1 : 0);
  r.column = (threadIdx.x % RowLayout<T>::kGroup) * RowLayout<T>::kV;
#pragma unroll
  for (int k = 0; k < kMax; ++k)
    if (k < r.count) r.x[k] = load_chunk(in + (r.first + k) * kBlock + r.column, vector);
  return r;
}

// Writes f(x chunk, its column, y chunk) for the row's cached chunks.
template <typename T, int kMax, typename F>
__device__ __forceinline__ void store_row(const Row<T, kMax>& r, T* out, bool vector, F f) {
#pragma unroll
  for (int k = 0; k < kMax; ++k) {
    if (k < r.count) {
      const int64_t at = (r.first + k) * kBlock + r.column;
      Chunk<T> y;
      f(r.x[k], at, y);
      store_chunk(out + at, y, vector);
    }
  }
}

template <typename T, int kMax>
__global__ void __launch_bounds__(RowLayout<T>::kThreads)
    rms_norm_kernel(NormParams<T> p, bool vector) {
  __shared__ float partial[kRuns];
  const int64_t offset = int64_t(blockIdx.x) * p.hidden;
  const Row<T, kMax> r = load_row<T, kMax>(p.input + offset, p.hidden, vector);
  const float ms = r.mean(p.hidden, partial, [](float x) { return x * x; });
  const float s = 1.0f / sqrtf(ms + p.eps);
  store_row(r, p.output + offset, vector, [&](const Chunk<T>& x, int64_t at, Chunk<T>& y) {
    const Chunk<T> w = load_chunk(p.weight + at, vector);
#pragma unroll
    for (int j = 0; j < Chunk<T>::kN; ++j)
      y.v[j] = narrow<T>((widen(x.v[j]) * s) * widen(w.v[j]));
  });
}

template <typename T, int kMax>
__global__ void __launch_bounds__(RowLayout<T>::kThreads)
    layer_norm_kernel(NormParams<T> p, bool vector) {
  __shared__ float partial[2][kRuns];
  const int64_t offset = int64_t(blockIdx.x) * p.hidden;
  const Row<T, kMax> r = load_row<T, kMax>(p.input + offset, p.hidden, vector);
  const float m = r.mean(p.hidden, partial[0], [](float x) { return x; });
  const float var = r.mean(p.hidden, partial[1], [m](float x) { return (x - m) * (x - m); });
  const float s = 1.0f / sqrtf(var + p.eps);
  store_row(r, p.output + offset, vector, [&](const Chunk<T>& x, int64_t at, Chunk<T>& y) {
    Chunk<T> w, b;
    if (p.weight) w = load_chunk(p.weight + at, vector);
    if (p.bias) b = load_chunk(p.bias + at, vector);
#pragma unroll
    for (int j = 0; j < Chunk<T>::kN; ++j) {
      float v = (widen(x.v[j]) - m) * s;
      if (p.weight) v = v * widen(w.v[j]);
      if (p.bias) v = v + widen(b.v[j]);
      y.v[j] = narrow<T>(v);
    }
  });
}

template <typename T>
bool valid(const NormParams<T>& p) {
  return p.hidden > 0 && p.hidden % kBlock == 0 && p.hidden <= kBlock * kRuns * kMaxPerRun &&
         p.rows < (int64_t(1) << 31);
}

template <typename T>
bool vector_ok(const NormParams<T>& p) {
  // Rows are dense and hidden * sizeof(T) is a multiple of 16: the bases decide.
  return aligned16(p.input) && aligned16(p.output) && aligned16(p.weight) && aligned16(p.bias);
}

bool short_rows(int64_t hidden) { return hidden <= int64_t(kBlock) * kRuns * kShortRun; }

}  // namespace

template <typename T>
cudaError_t rms_norm(const NormParams<T>& p, cudaStream_t stream) {
  if (p.rows == 0 || p.hidden == 0) return cudaSuccess;
  if (!valid(p)) return cudaErrorInvalidValue;
  auto* kernel = short_rows(p.hidden) ? rms_norm_kernel<T, kShortRun> : rms_norm_kernel<T, kMaxPerRun>;
  kernel<<<unsigned(p.rows), RowLayout<T>::kThreads, 0, stream>>>(p, vector_ok(p));
  return launch_status();
}

template <typename T>
cudaError_t layer_norm(const NormParams<T>& p, cudaStream_t stream) {
  if (p.rows == 0 || p.hidden == 0) return cudaSuccess;
  if (!valid(p)) return cudaErrorInvalidValue;
  auto* kernel = short_rows(p.hidden) ? layer_norm_kernel<T, kShortRun> : layer_norm_kernel<T, kMaxPerRun>;
  kernel<<<unsigned(p.rows), RowLayout<T>::kThreads, 0, stream>>>(p, vector_ok(p));
  return launch_status();
}

template cudaError_t rms_norm<float>(const NormParams<float>&, cudaStream_t);
template cudaError_t rms_norm<half>(const NormParams<half>&, cudaStream_t);
template cudaError_t layer_norm<float>(const NormParams<float>&, cudaStream_t);
template cudaError_t layer_norm<half>(const NormParams<half>&, cudaStream_t);

}  // namespace vorta::cuda
