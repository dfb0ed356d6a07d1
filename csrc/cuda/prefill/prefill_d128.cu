// Prefill attention kernels for head size 128.
#include "cuda/prefill/launch.cuh"

namespace vorta::cuda::prefill {
VORTA_PREFILL_INSTANTIATE(128)
}  // namespace vorta::cuda::prefill
