// Scaled dot-product attention: the operands of one decode or prefill call as
// the caller's tensors hold them. Strides are in elements; the last dimension
// of every tensor is dense. Query head h reads key/value head
// h / (num_heads / kv_heads). Scores are (q . k) * scale [+ mask], softmax in
// float32, weighted sum of the value rows, rounded once to T.
//
// T is the query, mask and result type (float or half); C the cache element:
// T itself, or uint8_t for the 8-bit codes (keys in the key code, values in
// the value code).
#pragma once

#include <cstdint>

namespace vorta {

// Decode: a few query tokens per sequence against a cache whose rows are
// packed within each (batch, key/value head) pair: key row j of pair (b, g)
// starts at key + b * key_stride[0] + g * key_stride[1] + j * head_dim.
template <typename T, typename C>
struct DecodeInputs {
  const T* query;  // [bsz, num_heads, seq_length, head_dim]
  int64_t query_stride[3];
  const C* key;  // [bsz, kv_heads, kv_len, head_dim]
  int64_t key_stride[2];
  const C* value;  // [bsz, kv_heads, kv_len, value_head_dim]
  int64_t value_stride[2];
  const T* mask;  // additive [bsz, num_heads, seq_length, kv_len]; null: none
  int64_t mask_stride[3];
  int64_t bsz, num_heads, kv_heads, seq_length, kv_len;
  int64_t head_dim, value_head_dim;
  float scale;
};

// Result rows [bsz, num_heads, seq_length, value_head_dim].
template <typename T>
struct DecodeOutput {
  T* data;
  int64_t stride[3];
};

// Keys per block of the grouped first pass.
inline constexpr int64_t kDecodeKeyBlock = 32;

// What the grouped first pass leaves per (batch, query head) and key block of
// kDecodeKeyBlock keys: stats [bsz, num_heads, 2 * nblocks] holds the block's
// maximum score and the sum of exp(score - maximum); rows
// [bsz, num_heads, nblocks * value_head_dim] the block's exp-weighted value
// row divided by that sum.
template <typename T>
struct DecodeBlocks {
  float* stats;
  int64_t stats_stride[2];
  T* rows;
  int64_t rows_stride[2];
  int64_t nblocks;
};

// Prefill: every query row of the call against the whole key range, or, when
// causal, query row i against keys 0 .. i (top-left alignment). Key and value
// rows may have any batch, head and row strides.
template <typename T, typename C>
struct PrefillParams {
  const T* query;  // [bsz, num_heads, q_len, head_dim]
  int64_t query_stride[3];
  const C* key;  // [bsz, kv_heads, kv_len, head_dim]
  int64_t key_stride[3];
  const C* value;  // [bsz, kv_heads, kv_len, value_head_dim]
  int64_t value_stride[3];
  // Additive [bsz, num_heads, q_len, >= kv_len], possibly broadcast (zero
  // strides). Null when the caller gave none: a generated mask only repeats
  // the key range and the causal limit, which the kernels apply exactly.
  const T* mask;
  int64_t mask_stride[3];
  T* out;  // [bsz, num_heads, q_len, out_dim]
  int64_t out_stride[3];
  int64_t bsz, num_heads, kv_heads, q_len, kv_len;
  int64_t head_dim, value_head_dim;
  int64_t out_dim;  // stored result width, <= value_head_dim
  float scale;
  float softcap;  // > 0: scores become softcap * tanh(scores / softcap)
  bool causal;
  // The matrix-engine path computes from half-precision copies of key and
  // value: every key and value element is rounded to half before use.
  bool half_kv;
};

}  // namespace vorta
