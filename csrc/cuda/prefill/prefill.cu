// Prefill launchers: argument preparation and the head-size dispatch. The
// kernels are instantiated per head size in prefill_d*.cu.
#include <cuda_runtime.h>

#include <cstdint>
#include <type_traits>

#include "cuda/attention/head_sizes.h"
#include "cuda/prefill.h"
#include "cuda/prefill/kernel_args.h"

namespace vorta::cuda {
namespace prefill {
namespace {

constexpr float kLog2e = 1.4426950408889634f;

bool aligned(const void* p, int bytes) { return reinterpret_cast<uintptr_t>(p) % bytes == 0; }

// Rows of `ptr` start on `bytes` boundaries for every batch, head and row.
template <typename E>
bool rows_aligned(const E* ptr, const int64_t (&stride)[3], int bytes) {
  bool ok = aligned(ptr, bytes);
  for (int64_t s : stride) ok = ok && s * int64_t(sizeof(E)) % bytes == 0;
  return ok;
}

// The computed width of a head size: the next multiple of 16 (72 -> 80).
int64_t computed_width(int64_t d) { return (d + 15) / 16 * 16; }

template <typename T, typename C>
cudaError_t launch_for_widths(const KernelArgs<T, C>& a, cudaStream_t stream) {
  return attn::with_head_sizes<std::is_same_v<C, uint8_t>>(
      computed_width(a.p.head_dim), computed_width(a.p.value_head_dim),
      [&](auto dk, auto dv) { return launch_prefill<T, C, decltype(dk)::value, decltype(dv)::value>(a, stream); });
}

}  // namespace
}  // namespace prefill

template <typename T, typename C>
size_t prefill_workspace_bytes(const PrefillParams<T, C>&) {
  return 0;
}

template <typename T, typename C>
cudaError_t prefill_attention(const PrefillParams<T, C>& p, void*, cudaStream_t stream) {
  using namespace prefill;
  if (p.bsz == 0 || p.num_heads == 0 || p.q_len == 0) return cudaSuccess;
  // Rows are copied in 16-byte pieces (8 halves, 16 codes, 4 floats) of which
  // none may straddle the end of a row.
  const int64_t piece_k = 16 / int64_t(sizeof(C)), piece_q = 16 / int64_t(sizeof(T));
  if (p.head_dim % piece_k || p.head_dim % piece_q || p.value_head_dim % piece_k || p.out_dim > p.value_head_dim ||
      p.kv_heads <= 0 || p.num_heads % p.kv_heads)
    return cudaErrorInvalidValue;
  KernelArgs<T, C> a{};
  a.p = p;
  a.group = int(p.num_heads / p.kv_heads);
  a.score_log2 = p.scale * kLog2e;
  if (p.softcap > 0.0f) {
    a.cap_scale = p.scale / p.softcap;
    a.cap_log2 = p.softcap * kLog2e;
  }
  a.wide = rows_aligned(p.query, p.query_stride, 16) && rows_aligned(p.key, p.key_stride, 16) &&
           rows_aligned(p.value, p.value_stride, 16);
  a.mask_pairs = p.mask && rows_aligned(p.mask, p.mask_stride, 2 * int(sizeof(T)));
  a.out_pairs = rows_aligned(p.out, p.out_stride, 2 * int(sizeof(T)));
  return launch_for_widths(a, stream);
}

#define VORTA_INSTANTIATE(T, C)                                                          \
  template size_t prefill_workspace_bytes<T, C>(const PrefillParams<T, C>&);               \
  template cudaError_t prefill_attention<T, C>(const PrefillParams<T, C>&, void*, cudaStream_t);
VORTA_INSTANTIATE(float, float)
VORTA_INSTANTIATE(half, half)
VORTA_INSTANTIATE(float, uint8_t)
VORTA_INSTANTIATE(half, uint8_t)
#undef VORTA_INSTANTIATE

}  // namespace vorta::cuda
