// Host stand-in for cuda/attention/launch.cuh (see ../../prelude.h).
#pragma once

#include <cstddef>

namespace vorta::cuda::attn {

template <typename... Params, typename... Args>
cudaError_t launch_kernel(void (*kernel)(Params...), dim3 grid, dim3 block, size_t smem, cudaStream_t,
                          const Args&... args) {
  if (smem > 227 * 1024) return cudaErrorInvalidValue;
  emu::run_grid(grid, block, smem, [&] { kernel(args...); });
  return cudaSuccess;
}

}  // namespace vorta::cuda::attn
