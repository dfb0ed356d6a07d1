// Matrix-engine prefill path: one attention launch that computes from
// half-precision key and value; also the vision-encoder variant.
#include <ATen/ops/empty.h>

#include <cmath>

#include "common/device_family.h"
#include "ops/device.h"
#include "ops/dispatch.h"
#include "ops/sdp/api.h"
#include "ops/sdp/prefill.h"

namespace vorta::prefill {
namespace {

// One launch of "sdp sysa kernel" over key and value rounded to half.
template <typename T>
void launch_sysa(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                 const at::Tensor& mask, const at::Tensor& out, int64_t out_dim, float scale,
                 bool fp8, bool causal, const char* op) {
  check_layouts(query, key, value, mask);
  if (fp8) {
    auto p = prefill_params<T, uint8_t>(query, key, value, mask, out, out_dim, scale, causal);
    p.half_kv = true;
    launch_prefill(p, query.device(), op, "sdp sysa kernel");
  } else {
    auto p = prefill_params<T, T>(query, key, value, mask, out, out_dim, scale, causal);
    p.half_kv = true;
    launch_prefill(p, query.device(), op, "sdp sysa kernel");
  }
}

}  // namespace

at::Tensor matrix_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask, float scale, bool fp8, bool causal) {
  const int64_t B = query.size(0), Hq = query.size(1), Lq = query.size(2), D = query.size(3);
  at::Tensor result = at::empty({B, Hq, Lq, D}, query.options());
  const DeviceFamily family = get_device_family(query.device());
  const bool exec16 = family == DeviceFamily::FINCH || family == DeviceFamily::OSPREY;
  TORCH_CHECK(exec16 || family == DeviceFamily::KESTREL || family == DeviceFamily::LARK,
              "unsupported device, only KESTREL, HARRIER, LARK, FINCH and OSPREY are supported");
  dispatch_int<128, 80, 64>(D, "unsupported head_dim, only 128, 80 and 64 are supported",
                            [](auto) {});
  dispatch_float_half(query.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    launch_sysa<T>(query, key, value, mask, result, D, scale, fp8, causal, operator_name(fp8, causal));
  });
  return result;
}

at::Tensor siglip_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask) {
  const int64_t B = query.size(0), Hq = query.size(1), Lq = query.size(2), D = query.size(3);
  const DeviceFamily family = get_device_family(query.device());
  TORCH_CHECK(family == DeviceFamily::KESTREL || family == DeviceFamily::LARK,
              "unsupported device, only KESTREL, HARRIER, LARK are supported");
  dispatch_int<72>(D, "unsupported head_dim, only 72 is supported", [](auto) {});
  // Result rows are 80 wide (the head size rounded up to 16) in a buffer of
  // whole 256-row blocks; the call returns the view of the stored part.
  constexpr int64_t kStored = 72, kRowWidth = 80;
  at::Tensor padded;
  dispatch_float_half(query.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    padded = at::empty({B, Hq, (Lq + 255) / 256 * 256, kRowWidth}, query.options());
    // The vision encoder's fixed scale, 1 / sqrt(head_dim).
    const float scale = float(1.0 / std::sqrt(double(kStored)));
    launch_sysa<T>(query, key, value, mask, padded, kStored, scale, false, false,
                   "siglip_sdp_non_causal");
  });
  return padded.narrow(2, 0, Lq).narrow(3, 0, kStored);
}

}  // namespace vorta::prefill
