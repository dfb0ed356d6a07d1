// Decode attention over a key/value cache of 8-bit codes (uint8).
#include <ATen/ops/empty.h>

#include "common/fatal.h"
#include "ops/dispatch.h"
#include "ops/ops.h"
#include "ops/sdp/decode.h"

namespace vorta {
namespace {

constexpr char kAssertSource[] = "sdp/sdp_fp8";

template <typename T>
void mha_fp8_kernel(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                    const OptTensor& mask, const at::Tensor& result, float scale) {
  decode::launch_single_pass<T, uint8_t>(query, key, value, mask, result, scale, "mha fp8 kernel");
}

// Keys of 192 elements, values and result rows of 128.
template <typename T>
void mha_unbalanced_fp8_kernel(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                               const OptTensor& mask, const at::Tensor& result, float scale) {
  decode::launch_single_pass<T, uint8_t>(query, key, value, mask, result, scale, "mha unbalanced fp8 kernel");
}

}  // namespace

at::Tensor sdp_fp8(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                   const OptTensor& mask_in, float scale) {
  VORTA_ASSERT(query.size(0) == key.size(0) && key.size(0) == value.size(0));
  VORTA_ASSERT_TEXT(heads_group(query, key, value), kHeadsGroupText);
  VORTA_ASSERT(key.size(2) == value.size(2));
  VORTA_ASSERT(query.size(3) == key.size(3));
  const int64_t bsz = query.size(0), num_heads = query.size(1), seq_length = query.size(2);
  const int64_t head_dim = query.size(3), value_head_dim = value.size(3), context_length = key.size(2);
  OptTensor mask = mask_in;
  decode::check_and_broadcast_mask<kAssertSource>(mask, query, seq_length, context_length);
  at::Tensor result = at::empty({bsz, num_heads, seq_length, value_head_dim}, query.options());
  const bool balanced = head_dim == value_head_dim;
  // The grouped kernels know a single head size: an unbalanced cache always takes the single pass.
  if (balanced && decode::use_grouped_kernels(seq_length, context_length, num_heads / key.size(1), query.device())) {
    decode::run_grouped(query, key, value, mask, result, /*fp8=*/true);
    return result;
  }
  if (balanced) {
    decode::check_head_dim(head_dim);
  } else {
    check_head_size<head_sizes::UnbalancedKey>(head_dim);
    check_head_size<head_sizes::UnbalancedValue>(value_head_dim, "value head_dim");
  }
  dispatch_float_half(query.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    decode::check_decode_layout(query, key, value, mask, /*fp8=*/true);
    (balanced ? mha_fp8_kernel<T> : mha_unbalanced_fp8_kernel<T>)(query, key, value, mask, result, scale);
  });
  return result;
}

}  // namespace vorta
