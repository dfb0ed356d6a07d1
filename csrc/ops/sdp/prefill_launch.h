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

// One launch of a working-copy conversion from src ([B, H, L, ...]) into dst
// ([B, H, lp, ...]): convert(src, src strides, dst, dst strides, B, H, L, lp).
template <typename Dst, typename Convert>
void launch_copy(const at::Tensor& src, const at::Tensor& dst, const char* name, Convert convert) {
  const int64_t ss[3] = {src.stride(0), src.stride(1), src.stride(2)};
  const int64_t ds[2] = {dst.stride(0), dst.stride(1)};
  const void* in = src.const_data_ptr();
  Dst* out = mut_ptr<Dst>(dst);
  const int64_t B = src.size(0), H = src.size(1), L = src.size(2), lp = dst.size(2);
  submit_kernel(
      [=](const Stream& s) {
        require_cpu(s);
        convert(in, ss, out, ds, B, H, L, lp);
      },
      src.device(), name);
}

// Key rows into component-major tiles of `block` positions; Src is the
// element type or the 8-bit code of src.
template <typename Src, typename Dst>
void launch_key_tiles(const at::Tensor& src, const at::Tensor& dst, int d_in, int d_out,
                      int block, const char* name) {
  launch_copy<Dst>(src, dst, name, [=](auto... a) {
    cpu::transpose_key_tiles<Src, Dst>(a..., d_in, d_out, block);
  });
}

// Value rows into dense rows.
template <typename Src, typename Dst>
void launch_value_rows(const at::Tensor& src, const at::Tensor& dst, int d_in, int d_out,
                       const char* name) {
  launch_copy<Dst>(src, dst, name,
                   [=](auto... a) { cpu::copy_value_rows<Src, Dst>(a..., d_in, d_out); });
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

// Keys from component-major tiles of `block` positions, values from rows.
template <typename T, typename KV>
void read_key_tiles(cpu::AttentionProblem<T, KV>& p, const at::Tensor& key_tiles, int block,
                    const at::Tensor& values, int64_t kv_len, int k_dim, int v_dim) {
  p.key = const_ptr<KV>(key_tiles);
  p.k_stride[0] = key_tiles.stride(0);
  p.k_stride[1] = key_tiles.stride(1);
  p.key_layout = cpu::KeyLayout::kTiles;
  p.key_block = block;
  p.value = const_ptr<KV>(values);
  strides3(values, p.v_stride);
  p.kv_heads = key_tiles.size(1);
  p.kv_len = kv_len;
  p.k_dim = k_dim;
  p.v_dim = v_dim;
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
