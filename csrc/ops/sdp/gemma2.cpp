// Soft-capped attention (gemma2): softcap * tanh(scale * q.k / softcap) + mask,
// softmax in float32, applied to the values in one launch.
#include <ATen/ops/empty.h>

#include "common/fatal.h"
#include "ops/dispatch.h"
#include "ops/ops.h"
#include "ops/sdp/api.h"
#include "ops/sdp/prefill.h"

namespace {
constexpr char kAssertSource[] = "gemma2";
}  // namespace

namespace vorta {
namespace {

at::Tensor soft_capped(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                       const OptTensor& attn_mask, float softcap, float scale, bool causal) {
  const at::Tensor mask = prefill::checked_mask(query, key, value, attn_mask, [&] {
    if (causal) VORTA_ASSERT(query.size(2) == key.size(2));
    VORTA_ASSERT(query.scalar_type() == key.scalar_type());
  });
  const int64_t D = query.size(3);
  dispatch_int<256, 192, 128, 96, 80, 64>(
      D, "unsupported head_dim, only 256, 192, 128, 96, 80 and 64 are supported", [](auto) {});
  at::Tensor out;
  dispatch_float_half(query.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    TORCH_CHECK(softcap > 0.0f, "softcap must be positive, got ", softcap);
    prefill::check_layouts(query, key, value, mask);
    out = at::empty({query.size(0), query.size(1), query.size(2), D}, query.options());
    auto p = prefill::prefill_params<T, T>(query, key, value, mask, out, D, scale, causal);
    p.softcap = softcap;
    prefill::launch_prefill(p, query.device(), causal ? "gemma2_sdp_causal" : "gemma2_sdp",
                            causal ? "gemma2 sdp causal" : "gemma2 sdp");
  });
  return out;
}

}  // namespace

at::Tensor gemma2_sdp(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                      const OptTensor& mask, float softcap, float scale) {
  return soft_capped(query, key, value, mask, softcap, scale, false);
}

at::Tensor gemma2_sdp_causal(const at::Tensor& query, const at::Tensor& key,
                             const at::Tensor& value, const OptTensor& mask, float softcap,
                             float scale) {
  return soft_capped(query, key, value, mask, softcap, scale, true);
}

}  // namespace vorta
