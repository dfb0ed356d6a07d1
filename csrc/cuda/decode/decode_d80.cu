// Decode split kernels for head size 80.
#include "cuda/decode/split_launch.cuh"

namespace vorta::cuda::decode {
VORTA_DECODE_INSTANTIATE(80)
}  // namespace vorta::cuda::decode
