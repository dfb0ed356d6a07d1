// CUDA launchers: mixture-of-experts routing, one warp per token
// (T = float, half; n_experts <= 256, top_k <= 32).
#pragma once

#include <cuda_runtime_api.h>

#include "common/numeric.h"
#include "common/params/moe.h"

namespace vorta::cuda {

template <typename T>
cudaError_t moe_softmax_topk(const MoeSoftmaxParams<T>& p, cudaStream_t stream);
template <typename T>
cudaError_t moe_group_topk(const MoeGroupParams<T>& p, cudaStream_t stream);

}  // namespace vorta::cuda
