// Prefill attention kernels for head size 192.
#include "cuda/prefill/launch.cuh"

namespace vorta::cuda::prefill {
VORTA_PREFILL_INSTANTIATE(192)
VORTA_PREFILL_INSTANTIATE_CODES(192, 128)
}  // namespace vorta::cuda::prefill
