// Prefill attention kernels for head size 256.
#include "cuda/prefill/launch.cuh"

namespace vorta::cuda::prefill {
VORTA_PREFILL_INSTANTIATE(256)
}  // namespace vorta::cuda::prefill
