// Vector prefill path: one attention launch over all query rows, into a result
// padded to whole blocks of 256 rows, of which the call returns the first q_len.
#include <ATen/ops/empty.h>

#include "ops/dispatch.h"
#include "ops/sdp/api.h"
#include "ops/sdp/prefill.h"

namespace vorta::prefill {
namespace {

constexpr char kHeadDimMessage[] =
    "unsupported head_dim, only 256, 192, 128, 96, 80 and 64 are supported";

}  // namespace

at::Tensor vector_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask, float scale, bool fp8, bool causal) {
  const int64_t B = query.size(0), Hq = query.size(1), Lq = query.size(2), D = query.size(3);
  const int64_t Dv = value.size(3);
  at::Tensor out = at::empty({B, Hq, (Lq + 255) / 256 * 256, Dv}, query.options());
  const bool unbalanced = fp8 && D != Dv;
  if (unbalanced) {
    dispatch_int<192>(D, "unsupported head_dim, only 192 is supported", [](auto) {});
    dispatch_int<128>(Dv, "unsupported value head_dim, only 128 is supported", [](auto) {});
  } else {
    dispatch_int<256, 192, 128, 96, 80, 64>(D, kHeadDimMessage, [](auto) {});
  }
  dispatch_float_half(query.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    check_layouts(query, key, value, mask);
    const char* name = unbalanced ? "sdp vec unbalanced kernel" : "sdp vec kernel";
    if (fp8)
      launch_prefill(prefill_params<T, uint8_t>(query, key, value, mask, out, Dv, scale, causal),
                     query.device(), operator_name(fp8, causal), name);
    else
      launch_prefill(prefill_params<T, T>(query, key, value, mask, out, Dv, scale, causal),
                     query.device(), operator_name(fp8, causal), name);
  });
  return out.narrow(2, 0, Lq);
}

}  // namespace vorta::prefill
