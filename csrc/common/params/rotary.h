// Rotary position embedding over the head rows of query and key, in place.
#pragma once

#include <cstdint>

namespace vorta {

// The rows one launch rotates: query rows [bsz, num_heads, seq_len, *] and
// key rows [bsz, num_kv_heads, seq_len, *], given by the element strides of
// their dims 0-2. The elements of a row are consecutive.
struct RotaryRows {
  int64_t bsz, num_heads, num_kv_heads, seq_len;
  int64_t query_stride[3];
  int64_t key_stride[3];
};

// Angles position * inv_freq[i] in float32 for the head_dim/2 pairs of every
// row; the position of token s of batch row b is
// position_ids[(position_rows == 1 ? 0 : b * position_stride) + s].
// every_two pairs (2i, 2i+1), else (i, i + head_dim/2). For half, cos and sin
// are rounded to half and each product and each sum is rounded to half.
template <typename T>
struct RotaryFreqParams {
  T* query;
  T* key;
  const T* inv_freq;  // [head_dim / 2]
  const int64_t* position_ids;
  int64_t position_rows, position_stride;
  RotaryRows rows;
  int64_t head_dim;
  bool every_two;
};

// Where a pair finds its angle in a cache row of rotary_dim values.
enum class CachePairs {
  half,             // pairs (i, i + rotary_dim/2), angle at i
  two_half_layout,  // pairs (2i, 2i+1), angle at i
  two_interleaved,  // pairs (2i, 2i+1), angle at 2i
};

// cos and sin dense [>= seq_len, rotary_dim]; token s of every batch row uses
// cache row s. Only the first rotary_dim elements of a row are touched. For
// 16-bit types each product and each sum is rounded to T.
template <typename T>
struct RotaryCacheParams {
  T* query;
  T* key;
  const T* cos;
  const T* sin;
  RotaryRows rows;
  int64_t rotary_dim;
  CachePairs pairs;
};

}  // namespace vorta
