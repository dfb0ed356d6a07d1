// Internals shared by the prefill attention operators: the entry layer's
// checks and mask preparation, the path predicate, and the two prefill paths.
#pragma once

#include <ATen/core/Tensor.h>

#include <optional>

namespace vorta::prefill {

// Shape and dtype agreement of query, key and value (fatal, "sdp/api").
void check_qkv(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value);

// Brings the optional mask into the form the prefill kernels read: additive,
// query dtype, [bsz, num_heads, q_len, padded_kv] (padded_kv = kv_len rounded up
// to 128, padding columns at -10000.0), possibly a broadcast view. Builds the
// causal or the padding-only mask when none is given.
void prepare_mask(std::optional<at::Tensor>& mask, const at::Tensor& query, const at::Tensor& key,
                  bool causal);

// The mask the kernels read: the prepared one when the caller supplied a mask,
// none (undefined) when it was generated, because a generated mask only
// repeats the key range and the causal limit that the kernels apply exactly.
inline at::Tensor kernel_mask(const std::optional<at::Tensor>& given,
                              const std::optional<at::Tensor>& prepared) {
  return given ? *prepared : at::Tensor();
}

// The entry sequence of every prefill operator: shape check, mask
// preparation, then the operator's own checks; returns the mask the kernels read.
template <typename OwnChecks>
at::Tensor checked_mask(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                        const std::optional<at::Tensor>& given, bool causal, OwnChecks own_checks) {
  check_qkv(query, key, value);
  std::optional<at::Tensor> mask = given;
  prepare_mask(mask, query, key, causal);
  own_checks();
  return kernel_mask(given, mask);
}

// True when the device's family has a matrix engine and head_dim is 64, 80 or 128.
bool use_matrix_engine(const c10::Device& device, int64_t head_dim);

// Layout and device the CPU kernels rely on (dense last dimension, the
// query's device); checked by the paths after their own argument checks.
void check_layout(const at::Tensor& t, const at::Tensor& query, const char* name);

// The two prefill paths; mask as prepared above, or undefined for none.
at::Tensor vector_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask, float scale, bool fp8, bool causal);
at::Tensor matrix_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask, float scale, bool fp8, bool causal);
// The vision-encoder variant of the matrix-engine path (head_dim 72, no scale).
at::Tensor siglip_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask);

}  // namespace vorta::prefill
