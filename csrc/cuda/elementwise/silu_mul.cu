// Gated SiLU in place: gate <- (g * u) / (2^(g * c) + 1), c = -log2(e) in
// float, with the CPU backend's 2^x: the same bits on both backends.
#include "cuda/common/approx.cuh"
#include "cuda/common/types.cuh"
#include "cuda/elementwise.h"

namespace vorta::cuda {
namespace {

constexpr int kThreads = 256;

__device__ __forceinline__ float silu_mul_value(float g, float u) {
  const float c = -1.4426950216293335f;  // bits 0xBFB8AA3B
  return (g * u) / (exp2_poly(g * c) + 1.0f);
}

template <typename T>
__global__ void __launch_bounds__(kThreads) silu_mul_kernel(SiluMulParams<T> p, bool vector) {
  constexpr int kN = Chunk<T>::kN;
  const int64_t chunks = p.nelem / kN, stride = int64_t(gridDim.x) * kThreads;
  const int64_t first = int64_t(blockIdx.x) * kThreads + threadIdx.x;
  // Two chunks per step, both loaded before either is computed: 64 bytes in
  // flight per thread, so the arithmetic of one step overlaps the loads of
  // the other chunk rather than leaving the memory system idle.
  for (int64_t c = first; c < chunks; c += 2 * stride) {
    const int64_t at[2] = {c, c + stride};
    Chunk<T> g[2], u[2];
#pragma unroll
    for (int i = 0; i < 2; ++i)
      if (at[i] < chunks) g[i] = load_chunk(p.gate + at[i] * kN, vector), u[i] = load_chunk(p.up + at[i] * kN, vector);
#pragma unroll
    for (int i = 0; i < 2; ++i) {
      if (at[i] >= chunks) break;
      Chunk<T> y;
#pragma unroll
      for (int j = 0; j < kN; ++j) y.v[j] = narrow<T>(silu_mul_value(widen(g[i].v[j]), widen(u[i].v[j])));
      store_chunk(p.gate + at[i] * kN, y, vector);
    }
  }
  const int64_t tail = chunks * kN + first;
  if (tail < p.nelem) p.gate[tail] = narrow<T>(silu_mul_value(widen(p.gate[tail]), widen(p.up[tail])));
}

}  // namespace

template <typename T>
cudaError_t silu_mul(const SiluMulParams<T>& p, cudaStream_t stream) {
  if (p.nelem <= 0) return p.nelem == 0 ? cudaSuccess : cudaErrorInvalidValue;
  const int64_t chunks = ceil_div(p.nelem, Chunk<T>::kN);
  // Enough blocks to fill every multiprocessor several times over (two chunks
  // per thread and step); the rest is a grid-stride loop.
  const int64_t blocks = std::min<int64_t>(ceil_div(chunks, 2 * kThreads), int64_t(multiprocessors()) * 16);
  const bool vector = aligned16(p.gate) && aligned16(p.up);
  silu_mul_kernel<T><<<unsigned(blocks), kThreads, 0, stream>>>(p, vector);
  return launch_status();
}

template cudaError_t silu_mul<float>(const SiluMulParams<float>&, cudaStream_t);
template cudaError_t silu_mul<half>(const SiluMulParams<half>&, cudaStream_t);

}  // namespace vorta::cuda
