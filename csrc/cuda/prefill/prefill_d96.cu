// Prefill attention kernels for head size 96.
#include "cuda/prefill/launch.cuh"

namespace vorta::cuda::prefill {
VORTA_PREFILL_INSTANTIATE(96)
}  // namespace vorta::cuda::prefill
