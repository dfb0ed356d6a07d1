// Internals shared by the prefill attention operators: the entry layer's
// checks and mask preparation, the path predicate, and the prefill paths.
#pragma once

#include <ATen/core/Tensor.h>

#include <optional>

namespace vorta::prefill {

// Shape and dtype agreement of query, key and value (fatal, "sdp/api").
void check_qkv(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value);

// Brings a supplied mask into the form the kernels read: additive, query
// dtype, [bsz, num_heads, q_len, padded_kv] (padded_kv = kv_len rounded up to
// 128, padding columns at -10000.0), possibly a broadcast view. Without one
// there is nothing to read: the kernels apply the key range and the causal
// limit that a generated mask would only repeat.
void prepare_mask(std::optional<at::Tensor>& mask, const at::Tensor& query, const at::Tensor& key);

// The entry sequence of every prefill operator: shape check, mask
// preparation, then the operator's own checks; returns the mask the kernels
// read, undefined for none.
template <typename OwnChecks>
at::Tensor checked_mask(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                        const std::optional<at::Tensor>& given, OwnChecks own_checks) {
  check_qkv(query, key, value);
  std::optional<at::Tensor> mask = given;
  prepare_mask(mask, query, key);
  own_checks();
  return mask ? *mask : at::Tensor();
}

// True when the device's family has a matrix engine and head_dim is one it takes (64, 80, 128).
bool use_matrix_engine(const c10::Device& device, int64_t head_dim);

// The prefill paths; mask as prepared above, or undefined for none.
at::Tensor vector_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask, float scale, bool fp8, bool causal);
at::Tensor matrix_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask, float scale, bool fp8, bool causal);
// The vision-encoder variant of the matrix-engine path (head_dim 72, no scale).
at::Tensor siglip_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask);

}  // namespace vorta::prefill
