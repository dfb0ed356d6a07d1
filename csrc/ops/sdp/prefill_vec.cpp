// Vector prefill path: transposed key tiles (and dequantised fp8 values) in
// the query type, then one attention launch over all query rows.
#include <ATen/ATen.h>

#include "ops/sdp/api.h"
#include "ops/sdp/prefill_launch.h"

namespace vorta::prefill {
namespace {

constexpr char kHeadDimMessage[] =
    "unsupported head_dim, only 256, 192, 128, 96, 80 and 64 are supported";

// Width of the key tiles, shared with the attention launch.
int key_block(int64_t head_dim) { return head_dim == 80 || head_dim >= 192 ? 32 : 64; }

}  // namespace

at::Tensor vector_prefill(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& mask, float scale, bool fp8, bool causal) {
  const int64_t B = query.size(0), Hq = query.size(1), Lq = query.size(2), D = query.size(3);
  const int64_t Hkv = key.size(1), L = key.size(2), Dv = value.size(3);
  const int64_t Lp = (L + 63) / 64 * 64;
  at::Tensor key_t = at::empty({B, Hkv, Lp, D}, query.options());
  at::Tensor value_d = fp8 ? at::empty({B, Hkv, L, Dv}, query.options()) : value;
  at::Tensor out = at::zeros({B, Hq, (Lq + 255) / 256 * 256, Dv}, query.options());
  const bool unbalanced = fp8 && D != Dv;
  if (unbalanced) {
    dispatch_int<192>(D, "unsupported head_dim, only 192 is supported", [](auto) {});
    dispatch_int<128>(Dv, "unsupported value head_dim, only 128 is supported", [](auto) {});
  } else {
    dispatch_int<256, 192, 128, 96, 80, 64>(D, kHeadDimMessage, [](auto) {});
  }
  dispatch_float_half(query.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    check_layout(query, query, "query");
    check_layout(key, query, "key");
    check_layout(value, query, "value");
    check_layout(mask, query, "mask");
    const int block = key_block(D);
    if (fp8) {
      launch_key_tiles<cpu::KeyBytes, T>(key, key_t, int(D), int(D), block,
                                         "transpose fp8 key cache");
      launch_value_rows<cpu::ValueBytes, T>(value, value_d, int(Dv), int(Dv),
                                            "dequantize fp8 value cache");
    } else {
      launch_key_tiles<T, T>(key, key_t, int(D), int(D), block, "transpose key cache");
    }
    auto p = attention_problem<T, T>(query, mask, out, scale, causal);
    read_key_tiles(p, key_t, block, value_d, L, int(D), int(Dv));
    p.o_dim = int(Dv);
    launch_attention(p, query.device(),
                     unbalanced ? "sdp vec unbalanced kernel" : "sdp vec kernel");
  });
  return out.narrow(2, 0, Lq);
}

}  // namespace vorta::prefill
