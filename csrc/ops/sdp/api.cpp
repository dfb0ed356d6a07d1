// Prefill attention entry points: shape checks, mask preparation and the
// choice between the vector and the matrix-engine path.
#include "ops/sdp/api.h"

#include <ATen/ATen.h>

#include "common/fatal.h"
#include "common/head_sizes.h"
#include "ops/device.h"
#include "ops/dispatch.h"
#include "ops/ops.h"

namespace {
constexpr char kAssertSource[] = "sdp/api";
}  // namespace

namespace vorta {
namespace prefill {

void check_qkv(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value) {
  VORTA_ASSERT(query.size(0) == key.size(0) && key.size(0) == value.size(0));
  VORTA_ASSERT_TEXT(heads_group(query, key, value), kHeadsGroupText);
  VORTA_ASSERT(key.size(2) == value.size(2));
  VORTA_ASSERT(query.size(3) == key.size(3) && key.size(3) == value.size(3));
  VORTA_ASSERT(key.scalar_type() == value.scalar_type());
}

void prepare_mask(std::optional<at::Tensor>& mask, const at::Tensor& query,
                  const at::Tensor& key) {
  const int64_t bsz = query.size(0), num_heads = query.size(1), seq_length = query.size(2);
  const int64_t kv_len = key.size(2);
  const int64_t padded_kv = (kv_len + 127) & ~int64_t(127);
  if (mask) {
    VORTA_ASSERT(mask->size(0) == bsz);
    VORTA_ASSERT(mask->size(1) == num_heads || mask->size(1) == 1);
    VORTA_ASSERT(mask->size(2) == seq_length);
    VORTA_ASSERT(mask->scalar_type() == query.scalar_type());
    if (mask->size(3) != padded_kv) {
      // Only head 0 of a per-head mask is kept: every head reads the padded copy.
      at::Tensor padded = at::empty({bsz, 1, seq_length, padded_kv}, query.options());
      padded.narrow(3, 0, kv_len).copy_(mask->narrow(1, 0, 1).narrow(3, 0, kv_len));
      padded.narrow(3, kv_len, padded_kv - kv_len).fill_(-10000.0);
      mask = std::move(padded);
    }
  } else {
    // Nothing is generated: such a mask would only repeat the key range and
    // the causal limit, which the kernels apply exactly, and its rows,
    // padded_kv wide, would always pass the stride check below.
    return;
  }
  // The kernels read mask rows in aligned pairs.
  VORTA_ASSERT(mask->stride(2) % 2 == 0);
  mask = mask->expand({bsz, num_heads, seq_length, padded_kv});
}

bool use_matrix_engine(const c10::Device& device, int64_t head_dim) {
  return has_matrix_engine(get_device_family(device)) &&
         head_sizes::MatrixEngine::contains(head_dim);
}

namespace {

// The matrix-engine path where the device has the engine and the head size
// suits it; the vector path takes everything else and refuses what it lacks.
at::Tensor route(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                 const at::Tensor& mask, float scale, bool fp8, bool causal) {
  if (use_matrix_engine(query.device(), query.size(3)))
    return matrix_prefill(query, key, value, mask, scale, fp8, causal);
  return vector_prefill(query, key, value, mask, scale, fp8, causal);
}

}  // namespace
}  // namespace prefill

// The prefill operators: the entry sequence (shape check, mask preparation,
// the operator's own checks), then the path, told whether the cache holds the
// 8-bit codes (fp8) and whether row i sees keys 0 .. i alone (causal).

at::Tensor sdp_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                      const OptTensor& attn_mask, float scale) {
  const at::Tensor mask = prefill::checked_mask(query, key, value, attn_mask, [&] {
    VORTA_ASSERT(query.size(2) == key.size(2));
    VORTA_ASSERT(query.scalar_type() == key.scalar_type());
  });
  return prefill::route(query, key, value, mask, scale, false, true);
}

at::Tensor sdp_fp8_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const OptTensor& attn_mask, float scale) {
  const at::Tensor mask = prefill::checked_mask(query, key, value, attn_mask, [&] {
    VORTA_ASSERT(query.size(2) == key.size(2));
    VORTA_ASSERT(key.scalar_type() == at::ScalarType::Byte);
  });
  return prefill::route(query, key, value, mask, scale, true, true);
}

at::Tensor sdp_fp8_non_causal(const at::Tensor& query, const at::Tensor& key,
                              const at::Tensor& value, const OptTensor& attn_mask, float scale) {
  const at::Tensor mask = prefill::checked_mask(query, key, value, attn_mask, [&] {
    VORTA_ASSERT(key.scalar_type() == at::ScalarType::Byte);
  });
  return prefill::route(query, key, value, mask, scale, true, false);
}

at::Tensor sdp_non_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const OptTensor& attn_mask, float scale) {
  const at::Tensor mask = prefill::checked_mask(query, key, value, attn_mask, [&] {
    VORTA_ASSERT(query.scalar_type() == key.scalar_type());
  });
  return prefill::route(query, key, value, mask, scale, false, false);
}

at::Tensor siglip_sdp_non_causal(const at::Tensor& query, const at::Tensor& key,
                                 const at::Tensor& value, const OptTensor& attn_mask) {
  const at::Tensor mask = prefill::checked_mask(query, key, value, attn_mask, [&] {
    VORTA_ASSERT(query.scalar_type() == key.scalar_type());
  });
  return prefill::siglip_prefill(query, key, value, mask);
}

}  // namespace vorta
