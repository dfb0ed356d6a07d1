// launch_split, for the per-head-size sources.
#pragma once

#include <cuda_runtime.h>

#include "cuda/attention/launch.cuh"
#include "cuda/decode/split_kernels.cuh"

namespace vorta::cuda::decode {

template <typename T, typename C, int DK, int DV>
cudaError_t launch_split(const SplitArgs<T, C>& a, cudaStream_t stream) {
  // (batch, key/value head, chunk) on x, chunks of a pair adjacent so that they
  // meet its keys in L2 together; x takes up to 2^31 - 1 blocks.
  const dim3 grid(unsigned(a.in.bsz * a.in.kv_heads * chunk_count(a)), unsigned(a.nsplit));
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
