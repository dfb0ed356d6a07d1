// Conversion of key/value cache rows to and from the 8-bit codes of
// common/kv_codes.h (keys in the key code, values in the value code).
#pragma once

#include <cstdint>

namespace vorta {

// The rows of one conversion: [bsz, num_heads, seq_len, *] for all four
// tensors, given by the element strides of their dims 0-2. The elements of a
// row are consecutive.
struct KvRows {
  int64_t bsz, num_heads, seq_len;
  int64_t key_stride[3], value_stride[3], key_out_stride[3], value_out_stride[3];
};

// Src -> Dst: T -> uint8_t (quantize; float is rounded to half first) or
// uint8_t -> T (dequantize; float is the exact widening of the decoded half).
template <typename Src, typename Dst>
struct KvConvertParams {
  const Src* key;
  const Src* value;
  Dst* key_out;
  Dst* value_out;
  KvRows rows;
  int64_t key_dim, value_dim;
};

}  // namespace vorta
