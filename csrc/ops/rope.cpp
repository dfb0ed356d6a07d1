// Rotary position embedding of query and key rows, in place: checks and launch.
#include "common/fatal.h"
#include "cpu/rotary.h"
#include "ops/dispatch.h"
#include "ops/launch.h"
#include "ops/ops.h"

#if VORTA_CUDA_ROTARY
#include "cuda/rotary.h"
#endif

namespace vorta {
namespace {

constexpr char kAssertSource[] = "rope";

constexpr char kHalfHeadDims[] =
    "unsupported head_dim, only 256, 128, 96, 80, 64, 40, 32, 20 and 16 are supported";
constexpr char kTwoHeadDims[] = "unsupported head_dim, only 128, 96 and 64 are supported";

RotaryRows rotary_rows(const at::Tensor& query, const at::Tensor& key) {
  return {query.size(0),
          query.size(1),
          key.size(1),
          query.size(2),
          {query.stride(0), query.stride(1), query.stride(2)},
          {key.stride(0), key.stride(1), key.stride(2)}};
}

bool packed_last(const at::Tensor& t) { return t.size(-1) <= 1 || t.stride(-1) == 1; }

// The kernels index rows from the query's sizes: the key's rows must exist
// too, and every row must hold `width` consecutive elements.
void check_rows(const at::Tensor& query, const at::Tensor& key, int64_t width) {
  TORCH_CHECK(query.dim() == 4 && key.dim() == 4,
              "query and key must be 4-D [bsz, heads, seq_len, head_dim]");
  TORCH_CHECK(key.device() == query.device(), "key must be on the query's device");
  TORCH_CHECK(key.size(0) == query.size(0) && key.size(2) == query.size(2),
              "key must have the query's batch size and sequence length");
  TORCH_CHECK(width <= query.size(3) && width <= key.size(3), "rotated width ", width,
              " exceeds the head size of query (", query.size(3), ") or key (", key.size(3), ")");
  TORCH_CHECK(packed_last(query) && packed_last(key),
              "the last dimension of query and key must have unit stride");
}

template <typename T>
void rotary_inv_freq_launcher(const RotaryFreqParams<T>& p, const c10::Device& device) {
  launch(device, p.every_two ? "rotary every two" : "rotary half", [&] { cpu::rotary_inv_freq(p); },
         VORTA_CUDA_LAUNCHER(ROTARY, p.every_two ? "rotary_two_inplaced" : "rotary_half_inplaced",
                             [&](cudaStream_t s) { return cuda::rotary_inv_freq(p, s); }));
}

template <typename T>
void rotary_with_cache_launcher(const RotaryCacheParams<T>& p, const c10::Device& device) {
  const bool split_half = p.pairs == CachePairs::half;
  launch(device, split_half ? "rotary half with cache" : "rotary two with cache",
         [&] { cpu::rotary_with_cache(p); },
         VORTA_CUDA_LAUNCHER(ROTARY,
                             split_half ? "rotary_half_with_cache_inplaced"
                                        : "rotary_two_with_cache_inplaced",
                             [&](cudaStream_t s) { return cuda::rotary_with_cache(p, s); }));
}

template <typename T>
void rotary_inv_freq(const at::Tensor& inv_freq, const at::Tensor& position_ids,
                     const at::Tensor& query, const at::Tensor& key, int64_t head_dim,
                     bool every_two) {
  const int64_t* positions = position_ids.const_data_ptr<int64_t>();
  check_rows(query, key, head_dim);
  TORCH_CHECK(key.size(3) == head_dim, "key must have the query's head size");
  TORCH_CHECK(inv_freq.device() == query.device() && position_ids.device() == query.device(),
              "inv_freq and position_ids must be on the query's device");
  TORCH_CHECK(position_ids.dim() == 2 && position_ids.size(1) == query.size(2) &&
                  (position_ids.size(0) == 1 || position_ids.size(0) == query.size(0)),
              "position_ids must be [bsz, seq_len] or [1, seq_len]");
  TORCH_CHECK(packed_last(position_ids), "position_ids must have unit stride along the sequence");
  const RotaryFreqParams<T> p{mut_ptr<T>(query),
                              mut_ptr<T>(key),
                              const_ptr<T>(inv_freq),
                              positions,
                              position_ids.size(0),
                              position_ids.stride(0),
                              rotary_rows(query, key),
                              head_dim,
                              every_two};
  rotary_inv_freq_launcher(p, query.device());
}

void rotary_inplaced(const at::Tensor& inv_freq, const at::Tensor& position_ids,
                     const at::Tensor& query, const at::Tensor& key, bool every_two) {
  VORTA_ASSERT_TEXT(is_supported_device(inv_freq.device()), "inv_freq.device().is_xpu()");
  VORTA_ASSERT_TEXT(is_supported_device(position_ids.device()), "position_ids.device().is_xpu()");
  VORTA_ASSERT(inv_freq.scalar_type() == query.scalar_type() && inv_freq.scalar_type() == key.scalar_type());
  VORTA_ASSERT(inv_freq.is_contiguous());
  const int64_t head_dim = query.size(3);
  VORTA_ASSERT(inv_freq.numel() == head_dim / 2);
  if (every_two)
    dispatch_int<128, 96, 64>(head_dim, kTwoHeadDims, [](auto) {});
  else
    dispatch_int<256, 128, 96, 80, 64, 40, 32, 20, 16>(head_dim, kHalfHeadDims, [](auto) {});
  dispatch_float_half(key.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    rotary_inv_freq<T>(inv_freq, position_ids, query, key, head_dim, every_two);
  });
}

template <typename T>
void rotary_with_cache(const at::Tensor& query, const at::Tensor& key, const at::Tensor& cos,
                       const at::Tensor& sin, CachePairs pairs) {
  const int64_t rotary_dim = cos.size(-1);
  check_rows(query, key, rotary_dim);
  TORCH_CHECK(key.scalar_type() == query.scalar_type(), "key must have the query's dtype");
  TORCH_CHECK(sin.scalar_type() == cos.scalar_type() && sin.sizes() == cos.sizes() &&
                  sin.is_contiguous(),
              "sin must be a contiguous tensor of the dtype and shape of cos");
  TORCH_CHECK(cos.device() == query.device() && sin.device() == query.device(),
              "cos and sin must be on the query's device");
  TORCH_CHECK(cos.numel() >= query.size(2) * rotary_dim,
              "cos and sin must hold a row of rotary_dim values for each of the seq_len positions");
  const RotaryCacheParams<T> p{mut_ptr<T>(query),       mut_ptr<T>(key), const_ptr<T>(cos),
                               const_ptr<T>(sin),       rotary_rows(query, key),
                               rotary_dim,              pairs};
  rotary_with_cache_launcher(p, query.device());
}

void rotary_with_cache_inplaced(const at::Tensor& query, const at::Tensor& key,
                                const at::Tensor& cos, const at::Tensor& sin,
                                CachePairs pairs) {
  VORTA_ASSERT_TEXT(is_supported_device(cos.device()), "cos.device().is_xpu()");
  VORTA_ASSERT(cos.is_contiguous());
  VORTA_ASSERT(cos.scalar_type() == query.scalar_type());
  dispatch_float_half_bf16(query.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    rotary_with_cache<T>(query, key, cos, sin, pairs);
  });
}

}  // namespace

void rotary_half_inplaced(const at::Tensor& inv_freq, const at::Tensor& position_ids,
                          const at::Tensor& query, const at::Tensor& key) {
  rotary_inplaced(inv_freq, position_ids, query, key, /*every_two=*/false);
}

void rotary_two_inplaced(const at::Tensor& inv_freq, const at::Tensor& position_ids,
                         const at::Tensor& query, const at::Tensor& key) {
  rotary_inplaced(inv_freq, position_ids, query, key, /*every_two=*/true);
}

void rotary_half_with_cache_inplaced(const at::Tensor& query, const at::Tensor& key,
                                     const at::Tensor& cos, const at::Tensor& sin) {
  rotary_with_cache_inplaced(query, key, cos, sin, CachePairs::half);
}

void rotary_two_with_cache_inplaced(const at::Tensor& query, const at::Tensor& key,
                                    const at::Tensor& cos, const at::Tensor& sin,
                                    bool half_layout_cache) {
  rotary_with_cache_inplaced(
      query, key, cos, sin,
      half_layout_cache ? CachePairs::two_half_layout : CachePairs::two_interleaved);
}

}  // namespace vorta
