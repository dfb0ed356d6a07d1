// Key/value caches to and from the 8-bit codes: checks and launch.
#include "common/fatal.h"
#include "cpu/kv_cache.h"
#include "ops/dispatch.h"
#include "ops/launch.h"
#include "ops/ops.h"

#if VORTA_CUDA_KV_CACHE
#include "cuda/kv_cache.h"
#endif

namespace vorta {
namespace {

constexpr char kAssertSource[] = "kv";

constexpr char kHeadDims[] = "unsupported head_dim, only 192, 128, 96, 80 and 64 are supported";

KvRows kv_rows(const at::Tensor& key, const at::Tensor& value, const at::Tensor& key_output,
               const at::Tensor& value_output) {
  auto strides = [](const at::Tensor& t, int64_t* out) {
    for (int d = 0; d < 3; ++d) out[d] = t.stride(d);
  };
  KvRows rows{key.size(0), key.size(1), key.size(2), {}, {}, {}, {}};
  strides(key, rows.key_stride);
  strides(value, rows.value_stride);
  strides(key_output, rows.key_out_stride);
  strides(value_output, rows.value_out_stride);
  return rows;
}

// Every row is read or written as consecutive elements of the right count,
// all on one device: a mismatch would reach outside the tensors.
void check_rows(const at::Tensor& key, const at::Tensor& value, const at::Tensor& key_output,
                const at::Tensor& value_output) {
  for (const at::Tensor* t : {&key, &value, &key_output, &value_output}) {
    TORCH_CHECK(t->dim() == 4, "key, value and the outputs must be 4-D [bsz, heads, seq_len, head_dim]");
    TORCH_CHECK(t->size(3) <= 1 || t->stride(3) == 1,
                "the last dimension of key, value and the outputs must have unit stride");
    TORCH_CHECK(t->device() == key.device(), "key, value and the outputs must be on one device");
  }
  TORCH_CHECK(key_output.size(3) == key.size(3) && value_output.size(3) == value.size(3),
              "the outputs must have the head sizes of key and value");
}

// The other three tensors have the key's [bsz, num_heads, seq_len] rows.
void check_row_grid(const at::Tensor& value, const at::Tensor& key_output,
                    const at::Tensor& value_output, int64_t bsz, int64_t num_heads,
                    int64_t seq_len) {
  VORTA_ASSERT(value.size(0) == bsz && key_output.size(0) == bsz && value_output.size(0) == bsz);
  VORTA_ASSERT(value.size(1) == num_heads && key_output.size(1) == num_heads && value_output.size(1) == num_heads);
  VORTA_ASSERT(value.size(2) == seq_len && key_output.size(2) == seq_len && value_output.size(2) == seq_len);
}

// The conversion of one call; Src and Dst are T and uint8_t one way or the
// other (the byte tensors' pointers are taken first: torch rejects other dtypes).
template <typename Src, typename Dst>
KvConvertParams<Src, Dst> kv_convert_params(const at::Tensor& key, const at::Tensor& value,
                                            const at::Tensor& key_output,
                                            const at::Tensor& value_output) {
  KvConvertParams<Src, Dst> p{};
  p.key = const_ptr<Src>(key);
  p.value = const_ptr<Src>(value);
  p.key_out = mut_ptr<Dst>(key_output);
  p.value_out = mut_ptr<Dst>(value_output);
  check_rows(key, value, key_output, value_output);
  p.rows = kv_rows(key, value, key_output, value_output);
  p.key_dim = key.size(3);
  p.value_dim = value.size(3);
  return p;
}

template <typename T>
void quantize_key_value_launcher(const KvConvertParams<T, uint8_t>& p, const c10::Device& device) {
  launch(device, "quantize kv cache", [&] { cpu::quantize_key_value(p); },
         VORTA_CUDA_LAUNCHER(KV_CACHE, "quantize_key_value",
                             [&](cudaStream_t s) { return cuda::quantize_key_value(p, s); }));
}

template <typename T>
void dequantize_key_value_launcher(const KvConvertParams<uint8_t, T>& p, const c10::Device& device) {
  launch(device, "dequantize kv cache", [&] { cpu::dequantize_key_value(p); },
         VORTA_CUDA_LAUNCHER(KV_CACHE, "dequantize_key_value",
                             [&](cudaStream_t s) { return cuda::dequantize_key_value(p, s); }));
}

}  // namespace

void quantize_key_value(const at::Tensor& key, const at::Tensor& value,
                        const at::Tensor& key_output, const at::Tensor& value_output) {
  const int64_t bsz = key.size(0), num_heads = key.size(1), seq_len = key.size(2),
                head_dim = key.size(3);
  VORTA_ASSERT(key.scalar_type() == value.scalar_type());
  check_row_grid(value, key_output, value_output, bsz, num_heads, seq_len);
  if (key.size(3) != value.size(3)) {
    // The one unbalanced pairing: 192-wide keys with 128-wide values.
    dispatch_int<192>(key.size(3), "unsupported key head_dim, only 192 are supported", [](auto) {});
    dispatch_int<128>(value.size(3), "unsupported value head_dim, only 128 are supported", [](auto) {});
  } else {
    dispatch_int<192, 128, 96, 80, 64>(head_dim, kHeadDims, [](auto) {});
  }
  dispatch_float_half(key.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    quantize_key_value_launcher(kv_convert_params<T, uint8_t>(key, value, key_output, value_output),
                                key.device());
  });
}

void dequantize_key_value(const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& key_output, const at::Tensor& value_output) {
  const int64_t bsz = key.size(0), num_heads = key.size(1), seq_len = key.size(2),
                head_dim = key.size(3);
  VORTA_ASSERT(key_output.scalar_type() == value_output.scalar_type());
  check_row_grid(value, key_output, value_output, bsz, num_heads, seq_len);
  VORTA_ASSERT(value.size(3) == head_dim && key_output.size(3) == head_dim && value_output.size(3) == head_dim);
  dispatch_int<192, 128, 96, 80, 64>(head_dim, kHeadDims, [](auto) {});
  dispatch_float_half(key_output.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    dequantize_key_value_launcher(kv_convert_params<uint8_t, T>(key, value, key_output, value_output),
                                  key.device());
  });
}

}  // namespace vorta
