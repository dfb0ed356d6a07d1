// launch_prefill, for the per-head-size sources.
#pragma once

#include <cuda_runtime.h>

#include <cstdint>
#include <type_traits>

#include "cuda/attention/launch.cuh"
#include "cuda/prefill/attention_kernels.cuh"

namespace vorta::cuda::prefill {

template <typename T, typename C, int DK, int DV>
cudaError_t launch_prefill(const KernelArgs<T, C>& a, cudaStream_t stream) {
  constexpr bool kMma = std::is_same_v<T, half>;
  using Cfg = std::conditional_t<kMma, MmaConfig<C, DK, DV>, SimtConfig<C, DK, DV>>;
  const auto kernel = [] {
    if constexpr (kMma)
      return mma_prefill_kernel<C, DK, DV>;
    else
      return simt_prefill_kernel<C, DK, DV>;
  }();
  const dim3 grid(unsigned(query_blocks<Cfg::kBlockRows>(a.p) * a.p.num_heads * a.p.bsz));
  return attn::launch_kernel(kernel, grid, dim3(kThreads), Cfg::kSmem, stream, a);
}

#define VORTA_PREFILL_INSTANTIATE_CODES(DK, DV)                                                              \
  template cudaError_t launch_prefill<float, uint8_t, DK, DV>(const KernelArgs<float, uint8_t>&, cudaStream_t); \
  template cudaError_t launch_prefill<half, uint8_t, DK, DV>(const KernelArgs<half, uint8_t>&, cudaStream_t);
#define VORTA_PREFILL_INSTANTIATE(D)                                                                     \
  template cudaError_t launch_prefill<float, float, D, D>(const KernelArgs<float, float>&, cudaStream_t);   \
  template cudaError_t launch_prefill<half, half, D, D>(const KernelArgs<half, half>&, cudaStream_t);       \
  VORTA_PREFILL_INSTANTIATE_CODES(D, D)

}  // namespace vorta::cuda::prefill
