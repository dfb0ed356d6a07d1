// Decode split kernels for head size 192.
#include "cuda/decode/split_launch.cuh"

namespace vorta::cuda::decode {
VORTA_DECODE_INSTANTIATE(192)
VORTA_DECODE_INSTANTIATE_CODES(192, 128)
}  // namespace vorta::cuda::decode
