// Launchers shared by the prefill paths: working-copy conversions and the
// attention core, each one kernel launch.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/util/Exception.h>

#include "cpu/attention.h"
#include "ops/dispatch.h"
#include "ops/launch.h"

namespace vorta::prefill {

inline void require_cpu(const Stream& s) {
  TORCH_CHECK(s.is_cpu(), "prefill attention has no kernels for ", s.device.type(), " devices");
}

// Key rows of src into component-major tiles of `block` positions in dst
// ([B, H, lp, d_out]); Src is the element type or the 8-bit code of src.
template <typename Src, typename Dst>
void launch_key_tiles(const at::Tensor& src, const at::Tensor& dst, int d_in, int d_out,
                      int block, const char* name) {
  const int64_t ss[3] = {src.stride(0), src.stride(1), src.stride(2)};
  const int64_t ds[2] = {dst.stride(0), dst.stride(1)};
  const void* in = src.const_data_ptr();
  Dst* out = mut_ptr<Dst>(dst);
  const int64_t B = src.size(0), H = src.size(1), L = src.size(2), lp = dst.size(2);
  submit_kernel(
      [=](const Stream& s) {
        require_cpu(s);
        cpu::transpose_key_tiles<Src, Dst>(in, ss, out, ds, B, H, L, lp, d_in, d_out, block);
      },
      src.device(), name);
}

// Value rows of src into dense rows of dst ([B, H, lp, d_out]).
template <typename Src, typename Dst>
void launch_value_rows(const at::Tensor& src, const at::Tensor& dst, int d_in, int d_out,
                       const char* name) {
  const int64_t ss[3] = {src.stride(0), src.stride(1), src.stride(2)};
  const int64_t ds[2] = {dst.stride(0), dst.stride(1)};
  const void* in = src.const_data_ptr();
  Dst* out = mut_ptr<Dst>(dst);
  const int64_t B = src.size(0), H = src.size(1), L = src.size(2), lp = dst.size(2);
  submit_kernel(
      [=](const Stream& s) {
        require_cpu(s);
        cpu::copy_value_rows<Src, Dst>(in, ss, out, ds, B, H, L, lp, d_in, d_out);
      },
      src.device(), name);
}

inline void strides3(const at::Tensor& t, int64_t out[3]) {
  for (int i = 0; i < 3; ++i) out[i] = t.stride(i);
}

// The query, mask and result side of a problem; the caller fills in keys and values.
template <typename T, typename KV>
cpu::AttentionProblem<T, KV> attention_problem(const at::Tensor& query, const at::Tensor& mask,
                                               const at::Tensor& out, float scale, bool causal) {
  cpu::AttentionProblem<T, KV> p;
  p.query = const_ptr<T>(query);
  strides3(query, p.q_stride);
  if (mask.defined()) {
    p.mask = const_ptr<T>(mask);
    strides3(mask, p.m_stride);
  }
  p.out = mut_ptr<T>(out);
  strides3(out, p.o_stride);
  p.batch = query.size(0);
  p.q_heads = query.size(1);
  p.q_len = query.size(2);
  p.q_dim = int(query.size(3));
  p.o_dim = int(query.size(3));
  p.scale = scale;
  p.causal = causal;
  return p;
}

template <typename T, typename KV>
void launch_attention(const cpu::AttentionProblem<T, KV>& p, const c10::Device& device,
                      const char* name) {
  submit_kernel(
      [p](const Stream& s) {
        require_cpu(s);
        cpu::attention(p);
      },
      device, name);
}

}  // namespace vorta::prefill
