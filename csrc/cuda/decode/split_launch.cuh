// launch_split, for the per-head-size sources.
#pragma once

#include <cuda_runtime.h>

#include "cuda/attention/launch.cuh"
#include "cuda/decode/split_kernels.cuh"

namespace vorta::cuda::decode {

template <typename T, typename C, int DK, int DV>
cudaError_t launch_split(const SplitArgs<T, C>& a, cudaStream_t stream) {
  const dim3 grid(unsigned((a.rows + kChunkRows - 1) / kChunkRows), unsigned(a.nsplit),
                  unsigned(a.in.bsz * a.in.kv_heads));
  return attn::launch_kernel(split_kernel<T, C, DK, DV>, grid, dim3(kWarps * 32), 0, stream, a);
}

// The four (query, cache) element pairs of one head size; the 8-bit codes alone
// also serve 192-component keys with 128-component values.
#define VORTA_DECODE_INSTANTIATE_CODES(DK, DV)                                                             \
  template cudaError_t launch_split<float, uint8_t, DK, DV>(const SplitArgs<float, uint8_t>&, cudaStream_t); \
  template cudaError_t launch_split<half, uint8_t, DK, DV>(const SplitArgs<half, uint8_t>&, cudaStream_t);
#define VORTA_DECODE_INSTANTIATE(D)                                                                     \
  template cudaError_t launch_split<float, float, D, D>(const SplitArgs<float, float>&, cudaStream_t);   \
  template cudaError_t launch_split<half, half, D, D>(const SplitArgs<half, half>&, cudaStream_t);       \
  VORTA_DECODE_INSTANTIATE_CODES(D, D)

}  // namespace vorta::cuda::decode
