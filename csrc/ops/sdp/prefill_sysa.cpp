// Matrix-engine prefill path: key and value converted to half-precision
// working copies (component-major key tiles, dense value rows, both padded
// with zeros), then one attention launch. Also the vision-encoder variant.
#include <ATen/ATen.h>

#include <cmath>

#include "common/device_family.h"
#include "ops/device.h"
#include "ops/sdp/api.h"
#include "ops/sdp/prefill_launch.h"

namespace vorta::prefill {
namespace {

constexpr int kKeyBlock = 64;

// Converts key and value into half copies of width d_out and length
// key_r.size(2), then runs the core over them into out (o_dim columns).
template <typename T>
void run_half_copies(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                     const at::Tensor& mask, const at::Tensor& key_r, const at::Tensor& value_r,
                     const at::Tensor& out, float scale, bool fp8, bool causal, int d_in,
                     int d_out) {
  check_layout(query, query, "query");
  check_layout(key, query, "key");
  check_layout(value, query, "value");
  check_layout(mask, query, "mask");
  if (fp8) {
    launch_key_tiles<cpu::KeyBytes, half>(key, key_r, d_in, d_out, kKeyBlock,
                                          "reshape fp8 key cache");
    launch_value_rows<cpu::ValueBytes, half>(value, value_r, d_in, d_out,
                                             "reshape fp8 value cache");
  } else {
    launch_key_tiles<T, half>(key, key_r, d_in, d_out, kKeyBlock, "reshape key cache");
    launch_value_rows<T, half>(value, value_r, d_in, d_out, "reshape value cache");
  }
  auto p = attention_problem<T, half>(query, mask, out, scale, causal);
  read_key_tiles(p, key_r, kKeyBlock, value_r, key.size(2), d_out, d_out);
  p.o_dim = int(out.size(3));
  launch_attention(p, query.device(), "sdp sysa kernel");
}

}  // namespace

at::Tensor matrix_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask, float scale, bool fp8, bool causal) {
  const int64_t B = query.size(0), Hq = query.size(1), Lq = query.size(2), D = query.size(3);
  const int64_t Hkv = key.size(1), L = key.size(2);
  const int64_t L128 = (L + 127) / 128 * 128;
  const auto half_opts = query.options().dtype(at::kHalf);
  at::Tensor key_r = at::empty({B, Hkv, L128, D}, half_opts);
  at::Tensor value_r = at::empty({B, Hkv, L128, D}, half_opts);
  // The device's tiles store whole 512-row blocks here; the CPU core writes
  // the compact result directly and leaves this buffer as allocated.
  at::Tensor padded = at::zeros({B, Hq, (Lq + 511) / 512 * 512, D}, query.options());
  at::Tensor result = at::empty({B, Hq, Lq, D}, query.options());
  const DeviceFamily family = get_device_family(query.device());
  const bool exec16 = family == DeviceFamily::FINCH || family == DeviceFamily::OSPREY;
  TORCH_CHECK(exec16 || family == DeviceFamily::KESTREL || family == DeviceFamily::LARK,
              "unsupported device, only KESTREL, HARRIER, LARK, FINCH and OSPREY are supported");
  dispatch_int<128, 80, 64>(D, "unsupported head_dim, only 128, 80 and 64 are supported",
                            [](auto) {});
  dispatch_float_half(query.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    run_half_copies<T>(query, key, value, mask, key_r, value_r, result, scale, fp8, causal,
                       int(D), int(D));
  });
  return result;
}

at::Tensor siglip_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask) {
  const int64_t B = query.size(0), Hq = query.size(1), Lq = query.size(2), D = query.size(3);
  const int64_t Hkv = key.size(1), L = key.size(2);
  const DeviceFamily family = get_device_family(query.device());
  TORCH_CHECK(family == DeviceFamily::KESTREL || family == DeviceFamily::LARK,
              "unsupported device, only KESTREL, HARRIER, LARK are supported");
  dispatch_int<72>(D, "unsupported head_dim, only 72 is supported", [](auto) {});
  // Computed at the next multiple of 16; the extra components are zero.
  constexpr int kStored = 72, kComputed = 80;
  at::Tensor padded;
  dispatch_float_half(query.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const auto half_opts = query.options().dtype(at::kHalf);
    const int64_t L64 = (L + 63) / 64 * 64;
    at::Tensor key_r = at::empty({B, Hkv, L64, kComputed}, half_opts);
    at::Tensor value_r = at::empty({B, Hkv, L64, kComputed}, half_opts);
    padded = at::zeros({B, Hq, (Lq + 255) / 256 * 256, kComputed}, query.options());
    // The vision encoder's fixed scale, 1 / sqrt(head_dim).
    const float scale = float(1.0 / std::sqrt(double(kStored)));
    run_half_copies<T>(query, key, value, mask, key_r, value_r, padded, scale, false, false,
                       kStored, kComputed);
  });
  return padded.narrow(2, 0, Lq).narrow(3, 0, kStored);
}

}  // namespace vorta::prefill
