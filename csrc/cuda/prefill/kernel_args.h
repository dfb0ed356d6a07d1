// Prefill attention kernels: what prefill.cu hands the per-head-size sources.
//
// One CTA computes a block of query rows of one (batch, query head) against
// the whole visible key range with an online softmax; key and value tiles
// stream through shared memory. Half queries use tensor cores, float32
// queries CUDA cores (float32 arithmetic throughout).
#pragma once

#include <cuda_runtime.h>

#include <cstdint>

#include "common/params/attention.h"

namespace vorta::cuda::prefill {

template <typename T, typename C>
struct KernelArgs {
  PrefillParams<T, C> p;
  int group;          // num_heads / kv_heads
  float score_log2;   // scale * log2(e), without softcap
  float cap_scale;    // scale / softcap
  float cap_log2;     // softcap * log2(e)
  bool wide;          // query, key and value rows 16-byte aligned: asynchronous 16-byte copies
  bool mask_pairs;    // mask rows 4-byte aligned: two entries per load
  bool out_pairs;     // result rows 4-byte aligned: two components per store
};

// One launch over all query blocks. DK and DV are the computed widths
// (multiples of 16, >= the call's head sizes; extra components are zero).
template <typename T, typename C, int DK, int DV>
cudaError_t launch_prefill(const KernelArgs<T, C>& a, cudaStream_t stream);

}  // namespace vorta::cuda::prefill
