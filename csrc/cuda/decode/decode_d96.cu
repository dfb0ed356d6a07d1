// Decode split kernels for head size 96.
#include "cuda/decode/split_launch.cuh"

namespace vorta::cuda::decode {
VORTA_DECODE_INSTANTIATE(96)
}  // namespace vorta::cuda::decode
