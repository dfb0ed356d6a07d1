// Prefill attention kernels for head size 80.
#include "cuda/prefill/launch.cuh"

namespace vorta::cuda::prefill {
VORTA_PREFILL_INSTANTIATE(80)
}  // namespace vorta::cuda::prefill
