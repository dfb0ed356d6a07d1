// Decode split kernels for head size 128.
#include "cuda/decode/split_launch.cuh"

namespace vorta::cuda::decode {
VORTA_DECODE_INSTANTIATE(128)
}  // namespace vorta::cuda::decode
