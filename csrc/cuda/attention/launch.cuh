// The one place the attention kernels are launched from.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>

namespace vorta::cuda::attn {

// Enqueues kernel<<<grid, block, smem, stream>>>(args...) and returns the
// launch error. Shared memory beyond the default 48 KiB needs the kernel's
// limit raised first (per device; cheap and idempotent).
template <typename... Params, typename... Args>
cudaError_t launch_kernel(void (*kernel)(Params...), dim3 grid, dim3 block, size_t smem, cudaStream_t stream,
                          const Args&... args) {
  if (smem > 48 * 1024)
    if (cudaError_t err = cudaFuncSetAttribute(kernel, cudaFuncAttributeMaxDynamicSharedMemorySize, int(smem));
        err != cudaSuccess)
      return err;
  kernel<<<grid, block, smem, stream>>>(args...);
  return cudaGetLastError();
}

}  // namespace vorta::cuda::attn
