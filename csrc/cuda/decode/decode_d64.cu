// Decode split kernels for head size 64.
#include "cuda/decode/split_launch.cuh"

namespace vorta::cuda::decode {
VORTA_DECODE_INSTANTIATE(64)
}  // namespace vorta::cuda::decode
