// Softmax over dense rows in place, statistics in float32: the row maximum,
// e = 2^((x - max) * log2(e)) with the CPU backend's 2^x, the sum of e, and
// each output e * (1 / sum) rounded once to T.
//
// Rows up to 16384 elements are read once and kept in registers (a warp per
// row up to 1024, else a block of 128 or 512 threads per row); longer rows
// are streamed three times by a block of 1024 threads.
#include <cuda/std/limits>

#include "cuda/common/approx.cuh"
#include "cuda/common/reduce.cuh"
#include "cuda/common/types.cuh"
#include "cuda/elementwise.h"

namespace vorta::cuda {
namespace {

constexpr float kLog2e = 1.4426950216293335f;
constexpr float kNegInf = -::cuda::std::numeric_limits<float>::infinity();
constexpr int kCachedFloats = 32;  // row elements a thread keeps in registers

// Chunk q of a row as floats; elements at or past n read as `fill`.
template <typename T>
__device__ __forceinline__ void load_masked(const T* row, int64_t q, int64_t n, bool vector,
                                            float fill, float (&x)[Chunk<T>::kN]) {
  constexpr int kN = Chunk<T>::kN;
  if (vector) {  // n is a multiple of kN: a chunk is all in or all out
    if (q * kN < n) {
      const Chunk<T> c = load_chunk(row + q * kN, true);
#pragma unroll
      for (int j = 0; j < kN; ++j) x[j] = widen(c.v[j]);
    } else {
#pragma unroll
      for (int j = 0; j < kN; ++j) x[j] = fill;
    }
  } else {
#pragma unroll
    for (int j = 0; j < kN; ++j) x[j] = q * kN + j < n ? widen(row[q * kN + j]) : fill;
  }
}

template <typename T>
__device__ __forceinline__ void store_masked(T* row, int64_t q, int64_t n, bool vector,
                                             const float (&y)[Chunk<T>::kN]) {
  constexpr int kN = Chunk<T>::kN;
  if (vector) {
    if (q * kN < n) {
      Chunk<T> c;
#pragma unroll
      for (int j = 0; j < kN; ++j) c.v[j] = narrow<T>(y[j]);
      store_chunk(row + q * kN, c, true);
    }
  } else {
#pragma unroll
    for (int j = 0; j < kN; ++j)
      if (q * kN + j < n) row[q * kN + j] = narrow<T>(y[j]);
  }
}

template <int kThreadsPerRow, bool kMax>
__device__ __forceinline__ float row_reduce(float v, float* scratch) {
  if constexpr (kThreadsPerRow == 32)
    return kMax ? warp_max(v) : warp_sum(v);
  else
    return block_reduce<kThreadsPerRow / 32, kMax>(v, scratch);
}

// A warp per row runs eight rows to a block; wider rows take the whole block.
template <int kThreadsPerRow>
constexpr int kRowsPerBlock = kThreadsPerRow == 32 ? 8 : 1;

// kThreadsPerRow threads per row, each keeping kCachedFloats elements.
template <typename T, int kThreadsPerRow>
__global__ void __launch_bounds__(kThreadsPerRow * kRowsPerBlock<kThreadsPerRow>)
    softmax_cached_kernel(SoftmaxParams<T> p, bool vector) {
  constexpr int kN = Chunk<T>::kN, kChunks = kCachedFloats / kN;
  __shared__ float scratch[kThreadsPerRow / 32];
  const int t = threadIdx.x % kThreadsPerRow;
  const int64_t r = int64_t(blockIdx.x) * kRowsPerBlock<kThreadsPerRow> + threadIdx.x / kThreadsPerRow;
  if (r >= p.rows) return;  // whole rows only: a warp, or the block's one row
  T* row = p.attn + r * p.n;

  float e[kChunks][kN];
  float m = kNegInf;
#pragma unroll
  for (int k = 0; k < kChunks; ++k) {
    load_masked(row, t + int64_t(k) * kThreadsPerRow, p.n, vector, kNegInf, e[k]);
#pragma unroll
    for (int j = 0; j < kN; ++j) m = fmaxf(m, e[k][j]);
  }
  m = row_reduce<kThreadsPerRow, true>(m, scratch);
  float s = 0.0f;
#pragma unroll
  for (int k = 0; k < kChunks; ++k)
#pragma unroll
    for (int j = 0; j < kN; ++j) {
      // Padding is -inf: 2^-inf is 0 and adds nothing.
      e[k][j] = exp2_poly((e[k][j] - m) * kLog2e);
      s += e[k][j];
    }
  const float inv = 1.0f / row_reduce<kThreadsPerRow, false>(s, scratch);
#pragma unroll
  for (int k = 0; k < kChunks; ++k) {
#pragma unroll
    for (int j = 0; j < kN; ++j) e[k][j] = e[k][j] * inv;
    store_masked(row, t + int64_t(k) * kThreadsPerRow, p.n, vector, e[k]);
  }
}

constexpr int kStreamThreads = 1024;

// Rows too long for registers: maximum, sum and output in three passes.
template <typename T>
__global__ void __launch_bounds__(kStreamThreads) softmax_streamed_kernel(SoftmaxParams<T> p, bool vector) {
  constexpr int kN = Chunk<T>::kN;
  __shared__ float scratch[kStreamThreads / 32];
  T* row = p.attn + int64_t(blockIdx.x) * p.n;
  const int64_t chunks = ceil_div(p.n, kN);
  float x[kN];
  float m = kNegInf;
  for (int64_t q = threadIdx.x; q < chunks; q += kStreamThreads) {
    load_masked(row, q, p.n, vector, kNegInf, x);
#pragma unroll
    for (int j = 0; j < kN; ++j) m = fmaxf(m, x[j]);
  }
  m = block_reduce<kStreamThreads / 32, true>(m, scratch);
  float s = 0.0f;
  for (int64_t q = threadIdx.x; q < chunks; q += kStreamThreads) {
    load_masked(row, q, p.n, vector, kNegInf, x);
#pragma unroll
    for (int j = 0; j < kN; ++j) s += exp2_poly((x[j] - m) * kLog2e);
  }
  const float inv = 1.0f / block_reduce<kStreamThreads / 32, false>(s, scratch);
  for (int64_t q = threadIdx.x; q < chunks; q += kStreamThreads) {
    load_masked(row, q, p.n, vector, kNegInf, x);
#pragma unroll
    for (int j = 0; j < kN; ++j) x[j] = exp2_poly((x[j] - m) * kLog2e) * inv;
    store_masked(row, q, p.n, vector, x);
  }
}

}  // namespace

template <typename T>
cudaError_t attn_softmax(const SoftmaxParams<T>& p, cudaStream_t stream) {
  if (p.rows < 0 || p.n < 0 || p.rows >= (int64_t(1) << 31)) return cudaErrorInvalidValue;
  if (p.rows == 0 || p.n == 0) return cudaSuccess;
  constexpr int kN = Chunk<T>::kN;
  const bool vector = aligned16(p.attn) && p.n % kN == 0;
  const unsigned rows = unsigned(p.rows);
  if (p.n <= 32 * kCachedFloats)
    softmax_cached_kernel<T, 32>
        <<<unsigned(ceil_div(p.rows, kRowsPerBlock<32>)), 32 * kRowsPerBlock<32>, 0, stream>>>(p, vector);
  else if (p.n <= 128 * kCachedFloats)
    softmax_cached_kernel<T, 128><<<rows, 128, 0, stream>>>(p, vector);
  else if (p.n <= 512 * kCachedFloats)
    softmax_cached_kernel<T, 512><<<rows, 512, 0, stream>>>(p, vector);
  else
    softmax_streamed_kernel<T><<<rows, kStreamThreads, 0, stream>>>(p, vector);
  return launch_status();
}

template cudaError_t attn_softmax<float>(const SoftmaxParams<float>&, cudaStream_t);
template cudaError_t attn_softmax<half>(const SoftmaxParams<half>&, cudaStream_t);

}  // namespace vorta::cuda
