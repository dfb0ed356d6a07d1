// Decode attention on the CPU: a few query tokens per sequence against a
// key/value cache held in full precision or in the 8-bit codes.
//
// score = (q . k) * scale + mask, softmax over the keys in float32 with a
// running maximum, weighted sum of the value rows, rounded once to T. The
// query heads that share a key/value head are served together, so every cache
// row is read once per call (per 64 query rows), whatever the group size.
#pragma once

#include <cstdint>

#include "common/numeric.h"

namespace vorta::cpu {

// Keys per block of the grouped first pass.
inline constexpr int64_t kDecodeKeyBlock = 32;

// The inputs of one decode call. T is the query, mask and result type (float
// or half); C the cache element: T itself, or uint8_t for the 8-bit codes
// (keys in the key code, values in the value code). Strides are in elements.
// Query and mask rows are packed, and so are the key and value rows of one
// (batch, key/value head) pair: key row j of pair (b, g) starts at
// key + b * key_stride[0] + g * key_stride[1] + j * head_dim.
// Query head h reads key/value head h / (num_heads / kv_heads).
template <typename T, typename C>
struct DecodeInputs {
  const T* query;  // [bsz, num_heads, seq_length, head_dim]
  int64_t query_stride[3];
  const C* key;  // [bsz, kv_heads, kv_len, head_dim]
  int64_t key_stride[2];
  const C* value;  // [bsz, kv_heads, kv_len, value_head_dim]
  int64_t value_stride[2];
  const T* mask;  // additive, [bsz, num_heads, seq_length, kv_len]; null for none
  int64_t mask_stride[3];
  int64_t bsz, num_heads, kv_heads, seq_length, kv_len;
  int64_t head_dim, value_head_dim;  // multiples of 8
  float scale;
};

// Result rows [bsz, num_heads, seq_length, value_head_dim], packed rows.
template <typename T>
struct DecodeOutput {
  T* data;
  int64_t stride[3];
};

// What the grouped first pass leaves per (batch, query head) and 32-key block:
// stats [bsz, num_heads, 2 * nblocks] holds the block's maximum score and the
// sum of exp(score - maximum); rows [bsz, num_heads, nblocks * value_head_dim]
// the block's exp-weighted value row divided by that sum.
template <typename T>
struct DecodeBlocks {
  float* stats;
  int64_t stats_stride[2];
  T* rows;
  int64_t rows_stride[2];
  int64_t nblocks;
};

// Single pass. Long key ranges are split across threads and recombined
// before it returns.
template <typename T, typename C>
void decode_attention(const DecodeInputs<T, C>& in, const DecodeOutput<T>& out);

// Grouped first pass, for one query token (seq_length 1): every block of
// kDecodeKeyBlock keys on its own.
template <typename T, typename C>
void decode_attention_blocks(const DecodeInputs<T, C>& in, const DecodeBlocks<T>& blocks);

// Grouped second pass: the softmax over all keys from the blocks' results;
// out rows [bsz, num_heads, value_head_dim] (strides of dims 0 and 1).
template <typename T>
void combine_attention_blocks(const DecodeBlocks<T>& blocks, const DecodeOutput<T>& out,
                              int64_t bsz, int64_t num_heads, int64_t value_head_dim);

// Whether the kernels may take their 16-lane (AVX-512) forms where the CPU
// has them; on by default. Off lets tests run the 8-lane forms on any CPU.
void allow_wide_decode(bool allow);

}  // namespace vorta::cpu
