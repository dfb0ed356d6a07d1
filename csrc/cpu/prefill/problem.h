// What the prefill attention core of the CPU backend reads, and the kernels
// that build its working copies (internal to csrc/cpu/prefill).
//
// The core streams 64-key tiles through each block of query rows; scores and
// the softmax statistics are float32, the result is rounded once on store.
// Keys are read from component-major tiles (component d of kTile consecutive
// positions is contiguous), values from rows; both in KV, the query type or
// half.
#pragma once

#include <cstdint>

#include "common/numeric.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

// Keys per tile of the working copy, and per step of the core.
inline constexpr int kKeyTile = 64;

// Strides are in elements: [0] batch, [1] head, [2] row.
template <typename T, typename KV>
struct AttentionProblem {
  const T* query = nullptr;
  int64_t q_stride[3] = {};
  const KV* key = nullptr;  // tiles of kKeyTile positions, tile after tile, zero padded
  int64_t k_stride[2] = {};
  const KV* value = nullptr;
  int64_t v_stride[3] = {};
  const T* mask = nullptr;  // additive, key axis dense; null for none
  int64_t m_stride[3] = {};
  T* out = nullptr;
  int64_t o_stride[3] = {};
  int64_t batch = 0, q_heads = 0, kv_heads = 0, q_len = 0, kv_len = 0;
  int q_dim = 0;  // stored query width
  int k_dim = 0;  // key width of the tiles, a multiple of 8; components past q_dim are zero
  int v_dim = 0;  // value width as read, a multiple of 16
  int o_dim = 0;  // stored result width, <= v_dim
  float scale = 1.0f;
  float softcap = 0.0f;  // > 0: scores become softcap * tanh(scores / softcap)
  bool causal = false;   // row i sees keys 0 .. i
};

// Instantiated for (float, float), (half, half) and (float, half).
template <typename T, typename KV>
void attention(const AttentionProblem<T, KV>& p);

// Source tags for the 8-bit caches: bytes decoded with the key or the value code.
struct KeyBytes {};
struct ValueBytes {};

// Transposes [B, H, L, d_in] rows (row-major, any batch/head/row strides) into
// component-major tiles of kKeyTile positions with d_out components (zeros
// past d_in) and lp positions (zeros past L), dst strides for batch and head.
// Src: float, half, KeyBytes; Dst: float, half.
template <typename Src, typename Dst>
void transpose_key_tiles(const void* src, const int64_t src_stride[3], Dst* dst,
                         const int64_t dst_stride[2], int64_t B, int64_t H, int64_t L,
                         int64_t lp, int d_in, int d_out);

// Copies [B, H, L, d_in] rows into dense rows of d_out components (zeros past
// d_in). Src: float, half, ValueBytes; Dst: float, half.
template <typename Src, typename Dst>
void copy_value_rows(const void* src, const int64_t src_stride[3], Dst* dst,
                     const int64_t dst_stride[2], int64_t B, int64_t H, int64_t L, int d_in,
                     int d_out);

VORTA_ISA_END
}  // namespace vorta::cpu
