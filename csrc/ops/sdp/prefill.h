// The one launch every prefill operator ends in, and the layout it relies on.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/core/Device.h>

#include "common/params/attention.h"

namespace vorta::prefill {

// The operator that a prefill call with these flags serves.
inline const char* operator_name(bool fp8, bool causal) {
  if (fp8) return causal ? "sdp_fp8_causal" : "sdp_fp8_non_causal";
  return causal ? "sdp_causal" : "sdp_non_causal";
}

// Query, key, value and mask (when given) on the query's device with a dense
// last dimension; checked by the paths after their own argument checks.
void check_layouts(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                   const at::Tensor& mask);

// The operands of one call. C is the cache element: T, or uint8_t for the
// 8-bit codes. mask: as prepared by the entry layer, or undefined for none.
// The result goes to out, out_dim elements per row.
template <typename T, typename C>
PrefillParams<T, C> prefill_params(const at::Tensor& query, const at::Tensor& key,
                                   const at::Tensor& value, const at::Tensor& mask,
                                   const at::Tensor& out, int64_t out_dim, float scale, bool causal);

// One launch under the display name, with the workspace the backend asks for;
// op names the operator in a missing-backend error.
template <typename T, typename C>
void launch_prefill(const PrefillParams<T, C>& p, const c10::Device& device, const char* op,
                    const char* name);

}  // namespace vorta::prefill
