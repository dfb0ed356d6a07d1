// Host version of cuda/attention/launch.cuh for the emulation (see ../../../emulate.h).
#pragma once

#include <cstddef>

namespace vorta::cuda::attn {

template <typename... Params, typename... Args>
cudaError_t launch_kernel(void (*kernel)(Params...), dim3 grid, dim3 block, size_t smem, cudaStream_t stream,
                          const Args&... args) {
  emu::launch(kernel, grid, block, smem, stream, args...);
  return emu::last_error;
}

}  // namespace vorta::cuda::attn
