// Decode split kernels for head size 256.
#include "cuda/decode/split_launch.cuh"

namespace vorta::cuda::decode {
VORTA_DECODE_INSTANTIATE(256)
}  // namespace vorta::cuda::decode
