// Shared pieces of the decode operators and the grouped two-pass path.
#include "ops/sdp/decode.h"

#include <ATen/ops/empty.h>

#include <cmath>
#include <type_traits>

#include "common/params/attention.h"
#include "cpu/decode.h"
#include "ops/device.h"
#include "ops/launch.h"

#if VORTA_CUDA_DECODE
#include "cuda/decode.h"
#endif

namespace vorta::decode {
namespace {

// The operator a launch serves, as the CUDA boundary names it.
template <typename C>
constexpr const char* op_name() {
  return std::is_same_v<C, uint8_t> ? "sdp_fp8" : "sdp";
}

template <typename T, typename C>
DecodeInputs<T, C> decode_inputs(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                                 const std::optional<at::Tensor>& mask, float scale) {
  DecodeInputs<T, C> in{};
  in.query = const_ptr<T>(query);
  in.key = const_ptr<C>(key);
  in.value = const_ptr<C>(value);
  in.mask = mask ? const_ptr<T>(*mask) : nullptr;
  for (int d = 0; d < 3; ++d) {
    in.query_stride[d] = query.stride(d);
    in.mask_stride[d] = mask ? mask->stride(d) : 0;
  }
  for (int d = 0; d < 2; ++d) {
    in.key_stride[d] = key.stride(d);
    in.value_stride[d] = value.stride(d);
  }
  in.bsz = query.size(0);
  in.num_heads = query.size(1);
  in.kv_heads = key.size(1);
  in.seq_length = query.size(2);
  in.kv_len = key.size(2);
  in.head_dim = key.size(3);
  in.value_head_dim = value.size(3);
  in.scale = scale;
  return in;
}

template <typename T>
DecodeOutput<T> decode_output(const at::Tensor& t) {
  return {mut_ptr<T>(t), {t.stride(0), t.stride(1), t.stride(2)}};
}

// Pass 1: per 32-key block and query head, the block's statistics and its
// normalised value row.
template <typename T, typename C>
void gqa_1_launcher(const DecodeInputs<T, C>& in, const DecodeBlocks<T>& blocks,
                    const c10::Device& device) {
  launch(device, "gqa kernel 1/2", [&] { cpu::decode_attention_blocks(in, blocks); },
         VORTA_CUDA_LAUNCHER(DECODE, op_name<C>(), [&](cudaStream_t s) {
           return cuda::decode_attention_blocks(in, blocks, s);
         }));
}

// Pass 2: combines the blocks into the result rows.
template <typename T>
void gqa_2_launcher(const DecodeBlocks<T>& blocks, const DecodeOutput<T>& out, int64_t bsz,
                    int64_t num_heads, int64_t head_dim, const char* op, const c10::Device& device) {
  launch(device, "gqa kernel 2/2",
         [&] { cpu::combine_attention_blocks(blocks, out, bsz, num_heads, head_dim); },
         VORTA_CUDA_LAUNCHER(DECODE, op, [&](cudaStream_t s) {
           return cuda::combine_attention_blocks(blocks, out, bsz, num_heads, head_dim, s);
         }));
}

template <typename T, typename C>
void run_grouped(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                 const std::optional<at::Tensor>& mask, const at::Tensor& result,
                 const at::Tensor& stats, const at::Tensor& block_rows) {
  const int64_t head_dim = key.size(3);
  const DecodeBlocks<T> blocks{mut_ptr<float>(stats), {stats.stride(0), stats.stride(1)},
                               mut_ptr<T>(block_rows), {block_rows.stride(0), block_rows.stride(1)},
                               stats.size(3) / 2};
  gqa_1_launcher(decode_inputs<T, C>(query, key, value, mask, fixed_scale(head_dim)), blocks,
                 query.device());
  gqa_2_launcher(blocks, decode_output<T>(result), query.size(0), query.size(1), head_dim,
                 op_name<C>(), query.device());
}

void check_rows_packed(const at::Tensor& t, const char* what) {
  TORCH_CHECK(t.stride(3) == 1 && (t.size(2) <= 1 || t.stride(2) == t.size(3)), what,
              " rows must be packed within each (batch, head) pair: stride(3) == 1 and stride(2) == size(3)");
}

}  // namespace

bool use_grouped_kernels(int64_t seq_length, int64_t kv_len, int64_t group, const c10::Device& device) {
  return seq_length == 1 && group >= 3 && kv_len >= 512 &&
         (kv_len >= 2048 || get_device_family(device) == DeviceFamily::KESTREL);
}

// Rounded once from double; for every size of the list this is the nearest float.
float fixed_scale(int64_t head_dim) { return float(1.0 / std::sqrt(double(head_dim))); }

void check_decode_layout(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                         const std::optional<at::Tensor>& mask, bool fp8) {
  TORCH_CHECK(key.device() == query.device() && value.device() == query.device() &&
                  (!mask || mask->device() == query.device()),
              "key, value and mask must be on the query's device");
  if (fp8)
    TORCH_CHECK(key.scalar_type() == at::kByte && value.scalar_type() == at::kByte,
                "the key and value caches must be uint8 (8-bit codes)");
  TORCH_CHECK(query.stride(3) == 1, "query rows must be packed: stride(3) == 1");
  TORCH_CHECK(!mask || mask->size(3) <= 1 || mask->stride(3) == 1, "mask rows must be packed: stride(3) == 1");
  check_rows_packed(key, "key");
  check_rows_packed(value, "value");
}

template <typename T, typename C>
void launch_single_pass(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                        const std::optional<at::Tensor>& mask, const at::Tensor& result, float scale,
                        const char* name) {
  if (key.size(2) == 0) {
    // No keys: the weighted sum over an empty set is zero (torch's attention
    // agrees), where the kernels' normalisation would divide by zero.
    result.zero_();
    return;
  }
  const DecodeInputs<T, C> in = decode_inputs<T, C>(query, key, value, mask, scale);
  const DecodeOutput<T> out = decode_output<T>(result);
  const size_t bytes = ask_backend(query.device(), [&] { return cpu::decode_workspace_bytes(in); },
                                   VORTA_CUDA_QUERY(DECODE, op_name<C>(), [&] {
                                     return cuda::decode_workspace_bytes(in);
                                   }));
  at::Tensor workspace = at::empty({int64_t(bytes)}, query.options().dtype(at::kByte));
  void* ws = workspace.data_ptr();
  launch(query.device(), name, [&] { cpu::decode_attention(in, out, ws); },
         VORTA_CUDA_LAUNCHER(DECODE, op_name<C>(), [&](cudaStream_t s) {
           return cuda::decode_attention(in, out, ws, s);
         }));
}

#define VORTA_INSTANTIATE(T, C)                                                                          \
  template void launch_single_pass<T, C>(const at::Tensor&, const at::Tensor&, const at::Tensor&,            \
                                         const std::optional<at::Tensor>&, const at::Tensor&, float, const char*);
VORTA_INSTANTIATE(float, float)
VORTA_INSTANTIATE(half, half)
VORTA_INSTANTIATE(float, uint8_t)
VORTA_INSTANTIATE(half, uint8_t)
#undef VORTA_INSTANTIATE

void run_grouped(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                 const std::optional<at::Tensor>& mask, const at::Tensor& result, bool fp8) {
  const int64_t bsz = query.size(0), num_heads = query.size(1), kv_len = key.size(2), head_dim = key.size(3);
  const int64_t nblocks = (kv_len + kDecodeKeyBlock - 1) / kDecodeKeyBlock;
  at::Tensor stats = at::empty({bsz, num_heads, 1, 2 * nblocks}, query.options().dtype(at::kFloat));
  at::Tensor block_rows = at::empty({bsz, num_heads, 1, nblocks * head_dim}, query.options());
  check_head_dim(head_dim);
  dispatch_float_half(query.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    check_decode_layout(query, key, value, mask, fp8);
    if (fp8)
      run_grouped<T, uint8_t>(query, key, value, mask, result, stats, block_rows);
    else
      run_grouped<T, T>(query, key, value, mask, result, stats, block_rows);
  });
}

}  // namespace vorta::decode
