#include "ops/sdp/prefill.h"

#include <ATen/ops/empty.h>

#include "cpu/prefill.h"
#include "ops/dispatch.h"
#include "ops/launch.h"

#if VORTA_CUDA_PREFILL
#include "cuda/prefill.h"
#endif

namespace vorta::prefill {
namespace {

void check_layout(const at::Tensor& t, const at::Tensor& query, const char* name) {
  if (!t.defined()) return;
  TORCH_CHECK(t.device() == query.device(), name, " must be on the query's device");
  TORCH_CHECK(t.size(3) <= 1 || t.stride(3) == 1, name, " must have a dense last dimension");
}

void strides3(const at::Tensor& t, int64_t out[3]) {
  for (int d = 0; d < 3; ++d) out[d] = t.stride(d);
}

}  // namespace

void check_layouts(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                   const at::Tensor& mask) {
  check_layout(query, query, "query");
  check_layout(key, query, "key");
  check_layout(value, query, "value");
  check_layout(mask, query, "mask");
}

template <typename T, typename C>
PrefillParams<T, C> prefill_params(const at::Tensor& query, const at::Tensor& key,
                                   const at::Tensor& value, const at::Tensor& mask,
                                   const at::Tensor& out, int64_t out_dim, float scale, bool causal) {
  PrefillParams<T, C> p{};
  p.query = const_ptr<T>(query);
  strides3(query, p.query_stride);
  p.key = const_ptr<C>(key);
  strides3(key, p.key_stride);
  p.value = const_ptr<C>(value);
  strides3(value, p.value_stride);
  if (mask.defined()) {
    p.mask = const_ptr<T>(mask);
    strides3(mask, p.mask_stride);
  }
  p.out = mut_ptr<T>(out);
  strides3(out, p.out_stride);
  p.bsz = query.size(0);
  p.num_heads = query.size(1);
  p.kv_heads = key.size(1);
  p.q_len = query.size(2);
  p.kv_len = key.size(2);
  p.head_dim = key.size(3);
  p.value_head_dim = value.size(3);
  p.out_dim = out_dim;
  p.scale = scale;
  p.causal = causal;
  return p;
}

template <typename T, typename C>
void launch_prefill(const PrefillParams<T, C>& p, const c10::Device& device, const char* op,
                    const char* name) {
  const size_t bytes = ask_backend(device, [&] { return cpu::prefill_workspace_bytes(p); },
                                   VORTA_CUDA_QUERY(PREFILL, op, [&] {
                                     return cuda::prefill_workspace_bytes(p);
                                   }));
  at::Tensor workspace = at::empty({int64_t(bytes)}, at::TensorOptions(device).dtype(at::kByte));
  void* ws = workspace.data_ptr();
  launch(device, name, [&] { cpu::prefill_attention(p, ws); },
         VORTA_CUDA_LAUNCHER(PREFILL, op, [&](cudaStream_t s) {
           return cuda::prefill_attention(p, ws, s);
         }));
}

#define VORTA_INSTANTIATE(T, C)                                                                  \
  template PrefillParams<T, C> prefill_params<T, C>(const at::Tensor&, const at::Tensor&,        \
                                                    const at::Tensor&, const at::Tensor&,        \
                                                    const at::Tensor&, int64_t, float, bool);    \
  template void launch_prefill<T, C>(const PrefillParams<T, C>&, const c10::Device&, const char*, \
                                     const char*);
VORTA_INSTANTIATE(float, float)
VORTA_INSTANTIATE(half, half)
VORTA_INSTANTIATE(float, uint8_t)
VORTA_INSTANTIATE(half, uint8_t)
#undef VORTA_INSTANTIATE

}  // namespace vorta::prefill
