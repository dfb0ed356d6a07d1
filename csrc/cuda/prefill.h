// Prefill attention on CUDA GPUs: every query row of a call against its
// visible keys (all of them, or keys 0 .. i for row i under `causal`).
//
// (T, C) is one of (float, float), (half, half), (float, uint8_t) and
// (half, uint8_t). Head sizes 64, 80, 96, 128, 192 and 256 (72 computed as
// 80), and with 8-bit codes also 192-component keys with 128-component
// values. Half queries run on tensor cores; float32 queries keep float32
// arithmetic. Key and value rows are read in place, 8-bit codes widened on
// chip: no workspace is needed.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>

#include "common/numeric.h"
#include "common/params/attention.h"

namespace vorta::cuda {

template <typename T, typename C>
size_t prefill_workspace_bytes(const PrefillParams<T, C>& p);

template <typename T, typename C>
cudaError_t prefill_attention(const PrefillParams<T, C>& p, void* workspace, cudaStream_t stream);

}  // namespace vorta::cuda
