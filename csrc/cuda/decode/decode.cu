// Decode launchers: the split plan, the head-size dispatch and the combine
// kernel. The split kernels themselves are instantiated per head size in
// decode_d*.cu.
#include <cuda_runtime.h>

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "cuda/attention/head_sizes.h"
#include "cuda/attention/launch.cuh"
#include "cuda/attention/memory.cuh"
#include "cuda/common/mma.cuh"
#include "cuda/decode.h"
#include "cuda/decode/split.h"

namespace vorta::cuda {
namespace decode {
namespace {

constexpr float kLog2e = 1.4426950408889634f;
constexpr int kCombineWarps = 4;
constexpr int kMaxValuePerLane = 8;  // value rows of up to 256 components

template <typename T, typename P>
__global__ void __launch_bounds__(kCombineWarps * 32) combine_kernel(const CombineArgs<T, P> a) {
  const int row = int(blockIdx.x) * kCombineWarps + int(threadIdx.x / 32), lane = threadIdx.x % 32;
  if (row >= a.rows) return;
  const int s = row % a.seq_length, h = (row / a.seq_length) % a.num_heads, b = row / (a.seq_length * a.num_heads);
  const float* st = a.stats + b * a.stats_stride[0] + h * a.stats_stride[1] + s * a.stats_stride[2];
  const P* part = a.part + b * a.part_stride[0] + h * a.part_stride[1] + s * a.part_stride[2];
  float mx = -INFINITY;
  for (int i = lane; i < a.nsplit; i += 32) mx = fmaxf(mx, __ldg(st + 2 * i));
#pragma unroll
  for (int off = 1; off < 32; off *= 2) mx = fmaxf(mx, __shfl_xor_sync(0xffffffffu, mx, off));
  const float ref = mx == -INFINITY ? 0.0f : mx;
  // Lane j weighs split base + j, so the statistics cost one load per lane
  // instead of a chain of dependent loads per split; the rows are then summed
  // in split order (the same arithmetic as one split at a time), their loads
  // free of any dependence so that several splits' rows are in flight at once.
  float sum = 0.0f, acc[kMaxValuePerLane] = {};
  for (int base = 0; base < a.nsplit; base += 32) {
    const int mine = base + lane, n = min(32, a.nsplit - base);
    // An empty split has l = 0 and m = -inf: weight 0 * 0.
    const float w_lane = mine < a.nsplit ? __ldg(st + 2 * mine + 1) * fast_exp2(__ldg(st + 2 * mine) - ref) : 0.0f;
#pragma unroll 4
    for (int j = 0; j < n; ++j) {
      const float w = __shfl_sync(0xffffffffu, w_lane, j);
      sum += w;
      const P* r = part + int64_t(base + j) * a.value_head_dim;
#pragma unroll
      for (int u = 0; u < kMaxValuePerLane; ++u) {
        const int d = lane + 32 * u;
        if (d < a.value_head_dim) acc[u] = fmaf(w, attn::load_float(r + d), acc[u]);
      }
    }
  }
  const float inv = sum > 0.0f ? 1.0f / sum : 0.0f;
  T* out = a.out + b * a.out_stride[0] + h * a.out_stride[1] + s * a.out_stride[2];
#pragma unroll
  for (int u = 0; u < kMaxValuePerLane; ++u) {
    const int d = lane + 32 * u;
    if (d < a.value_head_dim) attn::store_float(out + d, acc[u] * inv);
  }
}

bool aligned16(const void* p) { return reinterpret_cast<uintptr_t>(p) % 16 == 0; }

template <typename T, typename C>
SplitArgs<T, C> split_args(const DecodeInputs<T, C>& in, int64_t blocks_per, int64_t nsplit) {
  SplitArgs<T, C> a{};
  a.in = in;
  a.group = int(in.num_heads / in.kv_heads);
  a.rows = int(a.group * in.seq_length);
  a.split_keys = int(blocks_per * kDecodeKeyBlock);
  a.nsplit = int(nsplit);
  a.scale_log2 = in.scale * kLog2e;
  constexpr int64_t e = sizeof(C);
  a.wide = aligned16(in.key) && aligned16(in.value) && in.key_stride[0] * e % 16 == 0 &&
           in.key_stride[1] * e % 16 == 0 && in.value_stride[0] * e % 16 == 0 &&
           in.value_stride[1] * e % 16 == 0 && in.head_dim * e % 16 == 0 && in.value_head_dim * e % 16 == 0;
  return a;
}

template <typename T, typename C>
cudaError_t launch_for_heads(const SplitArgs<T, C>& a, cudaStream_t stream) {
  return attn::with_head_sizes<std::is_same_v<C, uint8_t>>(
      a.in.head_dim, a.in.value_head_dim,
      [&](auto dk, auto dv) { return launch_split<T, C, decltype(dk)::value, decltype(dv)::value>(a, stream); });
}

int64_t key_blocks(int64_t kv_len) { return (kv_len + kDecodeKeyBlock - 1) / kDecodeKeyBlock; }

template <typename T, typename C>
int64_t query_rows(const DecodeInputs<T, C>& in) {
  return in.bsz * in.num_heads * in.seq_length;
}

}  // namespace

SplitTuning& split_tuning() {
  static SplitTuning tuning;
  return tuning;
}

template <typename T, typename P>
cudaError_t launch_combine(const CombineArgs<T, P>& a, cudaStream_t stream) {
  if (a.value_head_dim > 32 * kMaxValuePerLane) return cudaErrorInvalidValue;
  const unsigned blocks = unsigned((a.rows + kCombineWarps - 1) / kCombineWarps);
  return attn::launch_kernel(combine_kernel<T, P>, dim3(blocks), dim3(kCombineWarps * 32), 0, stream, a);
}

}  // namespace decode

void set_decode_split(int64_t row_splits, int64_t min_blocks) {
  decode::split_tuning() = row_splits > 0 && min_blocks > 0 ? decode::SplitTuning{row_splits, min_blocks}
                                                            : decode::SplitTuning{};
}

template <typename T, typename C>
size_t decode_workspace_bytes(const DecodeInputs<T, C>& in) {
  const int64_t rows = decode::query_rows(in), nblocks = decode::key_blocks(in.kv_len);
  const int64_t nsplit = nblocks ? decode::split_count(nblocks, rows) : 1;
  return nsplit > 1 ? size_t(rows * nsplit * (2 + in.value_head_dim)) * sizeof(float) : 0;
}

template <typename T, typename C>
cudaError_t decode_attention(const DecodeInputs<T, C>& in, const DecodeOutput<T>& out, void* workspace,
                             cudaStream_t stream) {
  using namespace decode;
  const int64_t rows = query_rows(in);
  if (rows == 0) return cudaSuccess;
  const int64_t nblocks = key_blocks(in.kv_len);
  const int64_t per = blocks_per_split(nblocks, rows);
  const int64_t nsplit = nblocks ? (nblocks + per - 1) / per : 1;
  SplitArgs<T, C> a = split_args(in, per, nsplit);
  if (nsplit == 1) {
    a.sink = kSinkOut;
    a.out = out.data;
    for (int i = 0; i < 3; ++i) a.out_stride[i] = out.stride[i];
    return launch_for_heads(a, stream);
  }
  // Partials in the workspace: [rows][nsplit][2] statistics, then [rows][nsplit][dv] rows.
  const int64_t dv = in.value_head_dim, seq = in.seq_length;
  float* stats = static_cast<float*>(workspace);
  float* part = stats + rows * nsplit * 2;
  a.sink = kSinkPartial;
  a.stats = stats;
  a.part = part;
  a.part_is_float = true;
  const int64_t per_row[3] = {in.num_heads * seq * nsplit, seq * nsplit, nsplit};
  for (int i = 0; i < 3; ++i) a.stats_stride[i] = 2 * per_row[i], a.part_stride[i] = dv * per_row[i];
  if (cudaError_t err = launch_for_heads(a, stream); err != cudaSuccess) return err;
  CombineArgs<T, float> c{};
  c.stats = stats;
  c.part = part;
  c.out = out.data;
  for (int i = 0; i < 3; ++i)
    c.stats_stride[i] = a.stats_stride[i], c.part_stride[i] = a.part_stride[i], c.out_stride[i] = out.stride[i];
  c.num_heads = int(in.num_heads);
  c.seq_length = int(seq);
  c.rows = int(rows);
  c.nsplit = int(nsplit);
  c.value_head_dim = int(dv);
  return launch_combine(c, stream);
}

template <typename T, typename C>
cudaError_t decode_attention_blocks(const DecodeInputs<T, C>& in, const DecodeBlocks<T>& blocks,
                                    cudaStream_t stream) {
  using namespace decode;
  if (in.seq_length != 1) return cudaErrorInvalidValue;  // the blocks hold one query token
  const int64_t rows = query_rows(in);
  if (rows == 0 || blocks.nblocks == 0) return cudaSuccess;
  const int64_t per = blocks_per_split(blocks.nblocks, rows);
  SplitArgs<T, C> a = split_args(in, per, (blocks.nblocks + per - 1) / per);
  a.sink = kSinkPartial;
  a.stats = blocks.stats;
  a.part = blocks.rows;
  a.part_is_float = std::is_same_v<T, float>;
  for (int i = 0; i < 2; ++i) a.stats_stride[i] = blocks.stats_stride[i], a.part_stride[i] = blocks.rows_stride[i];
  a.stats_stride[2] = a.part_stride[2] = 0;
  return launch_for_heads(a, stream);
}

template <typename T>
cudaError_t combine_attention_blocks(const DecodeBlocks<T>& blocks, const DecodeOutput<T>& out, int64_t bsz,
                                     int64_t num_heads, int64_t value_head_dim, cudaStream_t stream) {
  using namespace decode;
  const int64_t rows = bsz * num_heads;
  if (rows == 0) return cudaSuccess;
  CombineArgs<T, T> c{};
  c.stats = blocks.stats;
  c.part = blocks.rows;
  c.out = out.data;
  for (int i = 0; i < 2; ++i)
    c.stats_stride[i] = blocks.stats_stride[i], c.part_stride[i] = blocks.rows_stride[i],
    c.out_stride[i] = out.stride[i];
  c.num_heads = int(num_heads);
  c.seq_length = 1;
  c.rows = int(rows);
  c.nsplit = int(blocks.nblocks ? split_count(blocks.nblocks, rows) : 0);
  c.value_head_dim = int(value_head_dim);
  return launch_combine(c, stream);
}

#define VORTA_INSTANTIATE(T, C)                                                                               \
  template size_t decode_workspace_bytes<T, C>(const DecodeInputs<T, C>&);                                     \
  template cudaError_t decode_attention<T, C>(const DecodeInputs<T, C>&, const DecodeOutput<T>&, void*,       \
                                              cudaStream_t);                                                   \
  template cudaError_t decode_attention_blocks<T, C>(const DecodeInputs<T, C>&, const DecodeBlocks<T>&,       \
                                                     cudaStream_t);
VORTA_INSTANTIATE(float, float)
VORTA_INSTANTIATE(half, half)
VORTA_INSTANTIATE(float, uint8_t)
VORTA_INSTANTIATE(half, uint8_t)
#undef VORTA_INSTANTIATE
template cudaError_t combine_attention_blocks<float>(const DecodeBlocks<float>&, const DecodeOutput<float>&,
                                                     int64_t, int64_t, int64_t, cudaStream_t);
template cudaError_t combine_attention_blocks<half>(const DecodeBlocks<half>&, const DecodeOutput<half>&,
                                                    int64_t, int64_t, int64_t, cudaStream_t);

}  // namespace vorta::cuda
