// Prefill attention kernels for head size 64.
#include "cuda/prefill/launch.cuh"

namespace vorta::cuda::prefill {
VORTA_PREFILL_INSTANTIATE(64)
}  // namespace vorta::cuda::prefill
