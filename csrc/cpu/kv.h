// Conversion of key/value cache rows to and from the 8-bit codes of common/kv_codes.h.
#pragma once

#include <cstdint>

namespace vorta::cpu {

// The rows of one conversion: [bsz, num_heads, seq_len, *] for all four
// tensors, given by the element strides of their dims 0-2. The elements of a
// row are consecutive.
struct KvRows {
  int64_t bsz, num_heads, seq_len;
  int64_t key_stride[3], value_stride[3], key_out_stride[3], value_out_stride[3];
};

// Key rows of key_dim elements with the key code, value rows of value_dim
// elements with the value code. T = float (rounded to half first) or half.
template <typename T>
void quantize_key_value(const T* key, const T* value, uint8_t* key_out, uint8_t* value_out,
                        const KvRows& rows, int64_t key_dim, int64_t value_dim);

// T = half, or float (the exact widening of the decoded half).
template <typename T>
void dequantize_key_value(const uint8_t* key, const uint8_t* value, T* key_out, T* value_out,
                          const KvRows& rows, int64_t head_dim);

}  // namespace vorta::cpu
