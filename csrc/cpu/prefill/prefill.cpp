// The CPU prefill launch: the working copies of one call in its workspace,
// then the attention core over them.
#include <cassert>
#include <type_traits>

#include "cpu/prefill.h"
#include "cpu/prefill/problem.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace {

constexpr size_t kAlign = 64;

constexpr int64_t round_up(int64_t n, int64_t m) { return (n + m - 1) / m * m; }

// The source tag of the keys or values of a cache of element C.
template <typename C, typename Code>
using Source = std::conditional_t<std::is_same_v<C, uint8_t>, Code, C>;

// Where the working copies of a call lie in its workspace. Keys always become
// tiles in KV (half when the call asks for half-precision key/value, else the
// query type); values are copied to dense rows in KV only when the caller's
// cannot be read as they are: another element type, or rows narrower than
// the core's value width (a multiple of 16).
template <typename T, typename C, typename KV>
struct Plan {
  int64_t k_dim, v_dim, padded_len;
  size_t key_bytes, value_bytes;
  bool copy_values;

  explicit Plan(const PrefillParams<T, C>& p)
      : k_dim(p.head_dim),
        v_dim(round_up(p.value_head_dim, 16)),
        padded_len(round_up(p.kv_len, kKeyTile)),
        key_bytes(size_t(p.bsz * p.kv_heads * padded_len * k_dim) * sizeof(KV)),
        value_bytes(size_t(p.bsz * p.kv_heads * p.kv_len * v_dim) * sizeof(KV)),
        copy_values(!std::is_same_v<C, KV> || v_dim != p.value_head_dim) {}

  size_t bytes() const { return round_up(key_bytes, kAlign) + (copy_values ? value_bytes : 0); }
};

template <typename T, typename C, typename KV>
void run(const PrefillParams<T, C>& p, void* workspace) {
  assert(p.head_dim % 8 == 0 && p.value_head_dim % 8 == 0);
  const Plan<T, C, KV> plan(p);
  const int64_t kv_heads = p.kv_heads, L = p.kv_len;
  KV* key_tiles = static_cast<KV*>(workspace);
  const int64_t tile_stride[2] = {kv_heads * plan.padded_len * plan.k_dim, plan.padded_len * plan.k_dim};
  transpose_key_tiles<Source<C, KeyBytes>, KV>(p.key, p.key_stride, key_tiles, tile_stride, p.bsz,
                                               kv_heads, L, plan.padded_len, int(p.head_dim),
                                               int(plan.k_dim));

  AttentionProblem<T, KV> a;
  if (plan.copy_values) {
    KV* rows = reinterpret_cast<KV*>(static_cast<char*>(workspace) + round_up(plan.key_bytes, kAlign));
    const int64_t row_stride[2] = {kv_heads * L * plan.v_dim, L * plan.v_dim};
    copy_value_rows<Source<C, ValueBytes>, KV>(p.value, p.value_stride, rows, row_stride, p.bsz,
                                               kv_heads, L, int(p.value_head_dim), int(plan.v_dim));
    a.value = rows;
    a.v_stride[0] = row_stride[0];
    a.v_stride[1] = row_stride[1];
    a.v_stride[2] = plan.v_dim;
  } else {
    if constexpr (std::is_same_v<C, KV>) a.value = p.value;
    for (int d = 0; d < 3; ++d) a.v_stride[d] = p.value_stride[d];
  }
  a.query = p.query;
  a.key = key_tiles;
  a.k_stride[0] = tile_stride[0];
  a.k_stride[1] = tile_stride[1];
  a.mask = p.mask;
  a.out = p.out;
  for (int d = 0; d < 3; ++d) {
    a.q_stride[d] = p.query_stride[d];
    a.m_stride[d] = p.mask_stride[d];
    a.o_stride[d] = p.out_stride[d];
  }
  a.batch = p.bsz;
  a.q_heads = p.num_heads;
  a.kv_heads = kv_heads;
  a.q_len = p.q_len;
  a.kv_len = L;
  a.q_dim = int(p.head_dim);
  a.k_dim = int(plan.k_dim);
  a.v_dim = int(plan.v_dim);
  a.o_dim = int(p.out_dim);
  a.scale = p.scale;
  a.softcap = p.softcap;
  a.causal = p.causal;
  attention(a);
}

}  // namespace

template <typename T, typename C>
size_t prefill_workspace_bytes(const PrefillParams<T, C>& p) {
  return p.half_kv ? Plan<T, C, half>(p).bytes() : Plan<T, C, T>(p).bytes();
}

template <typename T, typename C>
void prefill_attention(const PrefillParams<T, C>& p, void* workspace) {
  if (p.half_kv)
    run<T, C, half>(p, workspace);
  else
    run<T, C, T>(p, workspace);
}

#define VORTA_INSTANTIATE(T, C)                                                      \
  template size_t prefill_workspace_bytes<T, C>(const PrefillParams<T, C>&);         \
  template void prefill_attention<T, C>(const PrefillParams<T, C>&, void*);
VORTA_INSTANTIATE(float, float)
VORTA_INSTANTIATE(half, half)
VORTA_INSTANTIATE(float, uint8_t)
VORTA_INSTANTIATE(half, uint8_t)
#undef VORTA_INSTANTIATE

VORTA_ISA_END
}  // namespace vorta::cpu
