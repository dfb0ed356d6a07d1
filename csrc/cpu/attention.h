// Prefill attention on the CPU: one blocked online-softmax core for every
// prefill operator, and the kernels that build its key/value working copies.
//
// The core streams 64-key tiles through each block of query rows; scores and
// the softmax statistics are float32, the result is rounded once on store.
// Key tiles are read either from component-major working copies (component d
// of `key_block` consecutive positions is contiguous) or straight from
// row-major key rows; values are row-major. Working copies may be in the query
// type or in half precision.
#pragma once

#include <cstdint>

#include "common/numeric.h"

namespace vorta::cpu {

enum class KeyLayout {
  kTiles,  // component-major tiles of key_block positions, tile after tile, zero padded
  kRows,   // row-major [kv_len, k_dim] rows with a row stride
};

// Strides are in elements: [0] batch, [1] head, [2] row.
template <typename T, typename KV>
struct AttentionProblem {
  const T* query = nullptr;
  int64_t q_stride[3] = {};
  const KV* key = nullptr;
  int64_t k_stride[3] = {};  // row stride used by kRows only
  KeyLayout key_layout = KeyLayout::kTiles;
  int key_block = 64;  // kTiles: 32 or 64
  const KV* value = nullptr;
  int64_t v_stride[3] = {};
  const T* mask = nullptr;  // additive, key axis dense; null for none
  int64_t m_stride[3] = {};
  T* out = nullptr;
  int64_t o_stride[3] = {};
  int64_t batch = 0, q_heads = 0, kv_heads = 0, q_len = 0, kv_len = 0;
  int q_dim = 0;  // stored query width
  int k_dim = 0;  // key width as read; components past q_dim must be zero in the key
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
// component-major tiles of `block` positions with d_out components (zeros past
// d_in) and lp positions (zeros past L), dst strides for batch and head.
// Src: float, half, KeyBytes; Dst: float, half.
template <typename Src, typename Dst>
void transpose_key_tiles(const void* src, const int64_t src_stride[3], Dst* dst,
                         const int64_t dst_stride[2], int64_t B, int64_t H, int64_t L,
                         int64_t lp, int d_in, int d_out, int block);

// Copies [B, H, L, d_in] rows into dense rows of d_out components (zeros past
// d_in), with rows L .. lp-1 zero. Src: float, half, ValueBytes; Dst: float, half.
template <typename Src, typename Dst>
void copy_value_rows(const void* src, const int64_t src_stride[3], Dst* dst,
                     const int64_t dst_stride[2], int64_t B, int64_t H, int64_t L, int64_t lp,
                     int d_in, int d_out);

}  // namespace vorta::cpu
