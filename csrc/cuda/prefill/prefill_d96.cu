// Prefill attention kernels for head size 96.
#include "cuda/prefill/attention_kernels.cuh"

namespace vorta::cuda::prefill {
VORTA_PREFILL_INSTANTIATE(96)
}  // namespace vorta::cuda::prefill
