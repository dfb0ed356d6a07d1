// Decode attention over a full-precision (fp32 or fp16) key/value cache.
#include <ATen/ops/empty.h>

#include "common/fatal.h"
#include "ops/dispatch.h"
#include "ops/ops.h"
#include "ops/sdp/decode.h"

namespace vorta {
namespace {

constexpr char kAssertSource[] = "sdp/sdp";

template <typename T>
void mha_kernel(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value, const OptTensor& mask,
                const at::Tensor& result, float scale) {
  decode::launch_single_pass<T, T>(query, key, value, mask, result, scale, "mha kernel");
}

}  // namespace

// The float argument is not used: scores are scaled by 1/sqrt(head_dim).
at::Tensor sdp(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value, const OptTensor& mask_in,
               float) {
  VORTA_ASSERT(query.size(0) == key.size(0) && key.size(0) == value.size(0));
  VORTA_ASSERT_TEXT(heads_group(query, key, value), kHeadsGroupText);
  VORTA_ASSERT(key.size(2) == value.size(2));
  VORTA_ASSERT(query.size(3) == key.size(3) && key.size(3) == value.size(3));
  VORTA_ASSERT(query.scalar_type() == key.scalar_type() && query.scalar_type() == value.scalar_type());
  const int64_t bsz = query.size(0), num_heads = query.size(1), seq_length = query.size(2);
  const int64_t head_dim = query.size(3), context_length = key.size(2);
  OptTensor mask = mask_in;
  decode::check_and_broadcast_mask<kAssertSource>(mask, query, seq_length, context_length);
  at::Tensor result = at::empty({bsz, num_heads, seq_length, head_dim}, query.options());
  if (decode::use_grouped_kernels(seq_length, context_length, num_heads / key.size(1), query.device())) {
    decode::run_grouped(query, key, value, mask, result, /*fp8=*/false);
    return result;
  }
  decode::check_head_dim(head_dim);
  dispatch_float_half(query.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    decode::check_decode_layout(query, key, value, mask, /*fp8=*/false);
    mha_kernel<T>(query, key, value, mask, result, decode::fixed_scale(head_dim));
  });
  return result;
}

}  // namespace vorta
