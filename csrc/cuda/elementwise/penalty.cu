// Repetition penalty: one block per sequence gathers the penalised value of
// every id in its history into the working row, waits at the block barrier,
// then scatters them back. A token that occurs several times is penalised
// once: every copy computed the same value from the unpenalised logit.
#include "cuda/common/types.cuh"
#include "cuda/elementwise.h"

namespace vorta::cuda {
namespace {

template <typename T>
__global__ void repetition_penalty_kernel(PenaltyParams<T> p) {
  const int64_t b = blockIdx.x;
  T* scores = p.scores + b * p.scores_stride;
  T* working = p.working + b * p.working_stride;
  const int64_t* ids = p.ids + b * p.ids_stride;
  for (int64_t j = threadIdx.x; j < p.seq_len; j += blockDim.x) {
    const int64_t id = ids[j];
    if (id < 0 || id >= p.vocab) continue;
    const float x = widen(scores[id]);
    working[j] = narrow<T>(x > 0.0f ? x / p.penalty : x * p.penalty);
  }
  __syncthreads();
  for (int64_t j = threadIdx.x; j < p.seq_len; j += blockDim.x) {
    const int64_t id = ids[j];
    if (id >= 0 && id < p.vocab) scores[id] = working[j];
  }
}

}  // namespace

template <typename T>
cudaError_t repetition_penalty(const PenaltyParams<T>& p, cudaStream_t stream) {
  if (p.bsz < 0 || p.seq_len < 0 || p.bsz >= (int64_t(1) << 31)) return cudaErrorInvalidValue;
  if (p.bsz == 0 || p.seq_len == 0) return cudaSuccess;
  const int threads = int(std::min<int64_t>(512, ceil_div(p.seq_len, 32) * 32));
  repetition_penalty_kernel<T><<<unsigned(p.bsz), threads, 0, stream>>>(p);
  return launch_status();
}

template cudaError_t repetition_penalty<float>(const PenaltyParams<float>&, cudaStream_t);
template cudaError_t repetition_penalty<half>(const PenaltyParams<half>&, cudaStream_t);

}  // namespace vorta::cuda
