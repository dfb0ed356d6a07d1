// Expert selection, one warp per token: the token's (at most 256) experts sit
// in registers, eight per lane, and each of the top_k choices is one
// warp-wide maximum followed by a warp-wide minimum over the expert numbers
// holding it (ties go to the lowest expert). The chosen expert's value is
// overwritten with NaN, which no maximum equals, so no expert is chosen twice
// whatever the scores. The arithmetic is the
// CPU backend's, in the same order: results agree bit for bit.
#include <cuda/std/limits>

#include "cuda/common/approx.cuh"
#include "cuda/common/reduce.cuh"
#include "cuda/common/types.cuh"
#include "cuda/moe.h"

namespace vorta::cuda {
namespace {

constexpr int kWarps = 4;  // tokens per block
constexpr int kSlots = 8;  // experts per lane
constexpr int kMaxExperts = 32 * kSlots;
constexpr int kMaxTopK = 32;
constexpr float kInf = ::cuda::std::numeric_limits<float>::infinity();
constexpr float kNaN = ::cuda::std::numeric_limits<float>::quiet_NaN();
constexpr unsigned kNone = 0xffffffffu;

// Slot k of the first slots holding `m` (kSlots when none): the lowest.
__device__ __forceinline__ int first_slot(const float (&v)[kSlots], float m) {
  int first = kSlots;
#pragma unroll
  for (int k = kSlots - 1; k >= 0; --k)
    if (v[k] == m) first = k;
  return first;
}

// Overwrites slot k (a run-time index) with NaN, which fmaxf skips and no
// maximum equals, without moving v to local memory.
__device__ __forceinline__ void mark_taken(float (&v)[kSlots], int k) {
#pragma unroll
  for (int j = 0; j < kSlots; ++j)
    if (j == k) v[j] = kNaN;
}

__device__ __forceinline__ float slot_max(const float (&v)[kSlots]) {
  float m = -kInf;
#pragma unroll
  for (int k = 0; k < kSlots; ++k) m = fmaxf(m, v[k]);
  return m;
}

// Takes the largest value among the lanes' slots, the lowest expert on ties;
// `expert(lane, slot)` numbers them. Returns the expert (kNone when every
// value is NaN, taken or padding) and its value.
template <typename Expert>
__device__ __forceinline__ unsigned take_max(float (&v)[kSlots], float& value, Expert expert) {
  const int lane = threadIdx.x % 32;
  value = warp_max(slot_max(v));
  const int k = first_slot(v, value);
  const unsigned winner = __reduce_min_sync(kFullWarp, k < kSlots ? expert(lane, k) : kNone);
  if (winner != kNone && k < kSlots && expert(lane, k) == winner) mark_taken(v, k);
  return winner;
}

// Lane `k` ends up holding choice k: its expert and weight.
struct Choice {
  int64_t id = 0;
  float weight = 0.0f;
};

template <typename T>
__device__ __forceinline__ void store_choices(const Choice& c, int64_t token, int64_t top_k, int64_t* ids,
                                              T* weights) {
  const int lane = threadIdx.x % 32;
  if (lane < top_k) {
    ids[token * top_k + lane] = c.id;
    weights[token * top_k + lane] = narrow<T>(c.weight);
  }
}

// Sum of the top_k weights (lanes past top_k hold 0), folded by halves.
__device__ __forceinline__ float weight_sum(const Choice& c, int64_t top_k) {
  return warp_fold_sum(threadIdx.x % 32 < top_k ? c.weight : 0.0f);
}

// Softmax over the row, then top_k. Lane l holds experts l + 32k, so that
// the 256-lane halving-fold sum pairs slots within a lane before lanes.
template <typename T>
__global__ void __launch_bounds__(32 * kWarps) moe_softmax_topk_kernel(MoeSoftmaxParams<T> p) {
  const int lane = threadIdx.x % 32;
  const int64_t token = int64_t(blockIdx.x) * kWarps + threadIdx.x / 32;
  if (token >= p.num_tokens) return;
  const int n = int(p.n_experts);
  const T* row = p.logits + token * p.n_experts;
  float v[kSlots];
#pragma unroll
  for (int k = 0; k < kSlots; ++k) v[k] = lane + 32 * k < n ? widen(row[lane + 32 * k]) : -kInf;
  const float m = warp_max(slot_max(v));
#pragma unroll
  for (int k = 0; k < kSlots; ++k)
    v[k] = lane + 32 * k < n ? exp2_poly((v[k] - m) * 1.4426950216293335f) : 0.0f;
  float half[kSlots / 2];
#pragma unroll
  for (int k = 0; k < kSlots / 2; ++k) half[k] = v[k] + v[k + kSlots / 2];
  const float sum = warp_fold_sum((half[0] + half[2]) + (half[1] + half[3]));

  Choice c;
  if (!(sum > 0.0f)) {
    c.weight = kNaN;  // a NaN row: no value equals its maximum; every choice is expert 0
  } else {
#pragma unroll
    for (int k = 0; k < kSlots; ++k)
      if (lane + 32 * k < n) v[k] = v[k] / sum;
    // top_k <= n (checked by the operator): padding past n (0.0) comes after
    // every real expert and is never reached.
    for (int k = 0; k < p.top_k; ++k) {
      float value;
      const unsigned e = take_max(v, value, [](int l, int slot) { return unsigned(l + 32 * slot); });
      if (lane == k) c.id = e, c.weight = value;
    }
  }
  if (p.renormalize) c.weight = c.weight / weight_sum(c, p.top_k);
  store_choices(c, token, p.top_k, p.ids, p.weights);
}

// Eight experts 8l .. 8l + 7 of lane l as floats (NaN past n: never chosen).
template <typename T>
__device__ __forceinline__ void load_slots(const T* row, int n, bool vector, float (&v)[kSlots]) {
  const int lane = threadIdx.x % 32, e = lane * kSlots;
  if (vector && e < n) {
    constexpr int kN = Chunk<T>::kN;
#pragma unroll
    for (int q = 0; q < kSlots / kN; ++q) {
      const Chunk<T> c = load_chunk(row + e + q * kN, true);
#pragma unroll
      for (int j = 0; j < kN; ++j) v[q * kN + j] = widen(c.v[j]);
    }
  } else {
#pragma unroll
    for (int j = 0; j < kSlots; ++j) v[j] = e + j < n ? widen(row[e + j]) : kNaN;
  }
}

// Groups are runs of n / n_groups experts, so each group is a run of whole
// lanes: `lanes` of them from `first`.
struct LaneGroup {
  int first, lanes;
  __device__ unsigned mask() const {
    return (lanes >= 32 ? kFullWarp : ((1u << lanes) - 1u)) << first;
  }
};

// The largest value of each lane's group, in every lane of it.
__device__ __forceinline__ float group_max(float v, const LaneGroup& g) {
  const int lane = threadIdx.x % 32;
#pragma unroll
  for (int off = 1; off < 32; off *= 2) {
    const float other = __shfl_down_sync(kFullWarp, v, off);
    if (lane + off < g.first + g.lanes) v = fmaxf(v, other);
  }
  return __shfl_sync(kFullWarp, v, g.first);
}

template <typename T>
__global__ void __launch_bounds__(32 * kWarps) moe_group_topk_kernel(MoeGroupParams<T> p, bool vector) {
  const int lane = threadIdx.x % 32;
  const int64_t token = int64_t(blockIdx.x) * kWarps + threadIdx.x / 32;
  if (token >= p.num_tokens) return;
  const int n = int(p.n_experts), groups = int(p.n_groups);
  const int per_lane_group = n / groups / kSlots;
  const float* row = p.scores + token * p.n_experts;
  float v[kSlots];
  load_slots(row, n, vector, v);
  if (p.bias) {
    float b[kSlots];
    load_slots(p.bias, n, vector, b);
#pragma unroll
    for (int j = 0; j < kSlots; ++j) v[j] = v[j] + b[j];
  }

  // Group scores: the sum of each group's topk_group largest values, taken
  // one after another like the experts below. Lanes past n are in no group.
  const bool grouped = lane * kSlots < n;
  const int group = grouped ? lane / per_lane_group : groups;
  const LaneGroup g = grouped ? LaneGroup{group * per_lane_group, per_lane_group} : LaneGroup{lane, 1};
  float work[kSlots];
#pragma unroll
  for (int j = 0; j < kSlots; ++j) work[j] = v[j];
  float score = 0.0f;
  for (int t = 0; t < p.topk_group; ++t) {
    const float m = group_max(slot_max(work), g);
    const int k = first_slot(work, m);
    const unsigned holders = __ballot_sync(kFullWarp, grouped && k < kSlots) & g.mask();
    if (holders != 0 && lane == __ffs(holders) - 1) mark_taken(work, k);
    score = score + (holders != 0 ? m : kNaN);
  }

  // Groups outside the best topk_group (ties to the lower group) count as 0.0.
  const float mine = __shfl_sync(kFullWarp, score, lane < groups ? lane * per_lane_group : 0);
  int rank = 0;
  for (int j = 0; j < groups; ++j) {
    const float other = __shfl_sync(kFullWarp, mine, j);
    rank += other > mine || (other == mine && j < lane);
  }
  const bool dropped = __shfl_sync(kFullWarp, rank >= p.topk_group, grouped ? group : 0);
  if (grouped && dropped)
#pragma unroll
    for (int j = 0; j < kSlots; ++j) v[j] = 0.0f;

  Choice c;
  for (int k = 0; k < p.top_k; ++k) {
    float value;
    const unsigned e = take_max(v, value, [](int l, int slot) { return unsigned(l * kSlots + slot); });
    if (lane == k) c.id = e == kNone ? 0 : e;  // nothing but NaN left: expert 0
  }
  // Weights are the unbiased scores of the chosen experts.
  if (lane < p.top_k) c.weight = row[c.id];
  if (p.renormalize) c.weight = c.weight / (weight_sum(c, p.top_k) + p.eps);
  c.weight = c.weight * p.scaling;
  store_choices(c, token, p.top_k, p.ids, p.weights);
}

unsigned token_blocks(int64_t num_tokens) { return unsigned(ceil_div(num_tokens, kWarps)); }

}  // namespace

template <typename T>
cudaError_t moe_softmax_topk(const MoeSoftmaxParams<T>& p, cudaStream_t stream) {
  if (p.n_experts <= 0 || p.n_experts > kMaxExperts || p.top_k < 0 || p.top_k > kMaxTopK ||
      p.top_k > p.n_experts || p.num_tokens < 0 || p.num_tokens >= (int64_t(1) << 32))
    return cudaErrorInvalidValue;
  if (p.num_tokens == 0) return cudaSuccess;
  moe_softmax_topk_kernel<T><<<token_blocks(p.num_tokens), 32 * kWarps, 0, stream>>>(p);
  return launch_status();
}

template <typename T>
cudaError_t moe_group_topk(const MoeGroupParams<T>& p, cudaStream_t stream) {
  // Every group must be whole lanes of experts.
  if (p.n_experts <= 0 || p.n_experts > kMaxExperts || p.n_groups <= 0 ||
      p.n_experts % (p.n_groups * kSlots) != 0 || p.top_k < 0 || p.top_k > kMaxTopK ||
      p.top_k > p.n_experts || p.topk_group > p.n_experts / p.n_groups || p.num_tokens < 0 ||
      p.num_tokens >= (int64_t(1) << 32))
    return cudaErrorInvalidValue;
  if (p.num_tokens == 0) return cudaSuccess;
  const bool vector = aligned16(p.scores) && aligned16(p.bias) && p.n_experts % kSlots == 0 &&
                      (p.n_experts * int64_t(sizeof(float))) % 16 == 0;
  moe_group_topk_kernel<T><<<token_blocks(p.num_tokens), 32 * kWarps, 0, stream>>>(p, vector);
  return launch_status();
}

template cudaError_t moe_softmax_topk<float>(const MoeSoftmaxParams<float>&, cudaStream_t);
template cudaError_t moe_softmax_topk<half>(const MoeSoftmaxParams<half>&, cudaStream_t);
template cudaError_t moe_group_topk<float>(const MoeGroupParams<float>&, cudaStream_t);
template cudaError_t moe_group_topk<half>(const MoeGroupParams<half>&, cudaStream_t);

}  // namespace vorta::cuda
