// What the two decode operators (sdp/sdp and sdp/sdp_fp8) share: the choice
// between the single-pass and the grouped kernels, the fixed scales, the
// layout checks, the single-pass launcher and the grouped path.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/core/Device.h>

#include <optional>

#include "common/fatal.h"
#include "ops/dispatch.h"

namespace vorta::decode {

// True when a decode call takes the two-pass grouped kernels: one new token,
// at least three query heads per key/value head and a long cache (512 keys
// on KESTREL devices, 2048 on the others).
bool use_grouped_kernels(int64_t seq_length, int64_t kv_len, int64_t group, const c10::Device& device);

// The decode kernels' head sizes: any other raises the attention operators'
// message, before the element type is looked at.
inline void check_head_dim(int64_t head_dim) {
  check_head_size<head_sizes::Attention>(head_dim);
}

// 1/sqrt(head_dim), the float nearest to it: the grouped kernels' fixed scale.
float fixed_scale(int64_t head_dim);

// The decode mask checks, reported under the calling operator's source, then
// the broadcast of the mask to [bsz, num_heads, seq_length, context_length].
template <const char* kAssertSource>
void check_and_broadcast_mask(std::optional<at::Tensor>& mask, const at::Tensor& query, int64_t seq_length,
                              int64_t context_length) {
  if (!mask) return;
  VORTA_ASSERT(mask->size(2) == seq_length);
  VORTA_ASSERT(mask->size(3) == context_length);
  VORTA_ASSERT(query.scalar_type() == mask->scalar_type());
  mask = mask->expand({query.size(0), query.size(1), -1, -1});
}

// What the kernels rely on beyond the operators' assertions: everything on
// the query's device, packed query and mask rows, and key/value rows packed
// within each (batch, head) pair. With fp8, key and value must be uint8.
void check_decode_layout(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                         const std::optional<at::Tensor>& mask, bool fp8);

// One launch of the single-pass kernel over the whole call. T is the query
// type, C the cache element (T, or uint8_t for the 8-bit codes).
template <typename T, typename C>
void launch_single_pass(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                        const std::optional<at::Tensor>& mask, const at::Tensor& result, float scale,
                        const char* name);

// The grouped path: allocates the per-call block temporaries, checks head_dim,
// then dtype, and launches "gqa kernel 1/2" and
// "gqa kernel 2/2". Scores use fixed_scale(head_dim) whatever the caller's.
void run_grouped(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                 const std::optional<at::Tensor>& mask, const at::Tensor& result, bool fp8);

}  // namespace vorta::decode
