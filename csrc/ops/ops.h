// The operators of the module, grouped by source. Shapes are [dim0, dim1, ...].
// Attention tensors: query [bsz, num_heads, q_len, head_dim], key/value
// [bsz, kv_heads, kv_len, head_dim], mask [bsz, num_heads or 1, q_len, kv]
// (additive, query dtype). Every operator launches through `launch` and
// never waits for the device.
#pragma once

#include <ATen/core/Tensor.h>

#include <optional>
#include <tuple>

namespace vorta {

using OptTensor = std::optional<at::Tensor>;

// sdp/sdp: decode over a full-precision cache; scales by 1/sqrt(head_dim), the float is unused.
at::Tensor sdp(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
               const OptTensor& mask, float scale);
// sdp/sdp_fp8: decode over an 8-bit (uint8) cache.
at::Tensor sdp_fp8(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                   const OptTensor& mask, float scale);
// sdp/api: prefill entry points.
at::Tensor sdp_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                      const OptTensor& mask, float scale);
at::Tensor sdp_fp8_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const OptTensor& mask, float scale);
at::Tensor sdp_non_causal(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                          const OptTensor& mask, float scale);
at::Tensor sdp_fp8_non_causal(const at::Tensor& query, const at::Tensor& key,
                              const at::Tensor& value, const OptTensor& mask, float scale);
// Vision-encoder attention, head_dim 72, no scale argument.
at::Tensor siglip_sdp_non_causal(const at::Tensor& query, const at::Tensor& key,
                                 const at::Tensor& value, const OptTensor& mask);
// gemma2: softcap * tanh(scale * q.k / softcap) + mask, softmax, times V.
at::Tensor gemma2_sdp(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                      const OptTensor& mask, float softcap, float scale);
at::Tensor gemma2_sdp_causal(const at::Tensor& query, const at::Tensor& key,
                             const at::Tensor& value, const OptTensor& mask, float softcap,
                             float scale);

// norm: weight [hidden], input [tokens, hidden] -> [tokens, hidden]
at::Tensor rms_norm(const at::Tensor& weight, const at::Tensor& input, float eps);
// norm: input [tokens, hidden], weight/bias [hidden] or None -> [tokens, hidden]
at::Tensor layer_norm(const at::Tensor& input, const OptTensor& weight, const OptTensor& bias,
                      float eps);

// rope: inv_freq [head_dim/2], position_ids [bsz or 1, seq_len] int64; query/key rotated in place.
void rotary_half_inplaced(const at::Tensor& inv_freq, const at::Tensor& position_ids,
                          const at::Tensor& query, const at::Tensor& key);
void rotary_two_inplaced(const at::Tensor& inv_freq, const at::Tensor& position_ids,
                         const at::Tensor& query, const at::Tensor& key);
// rope: cos/sin [seq_len, rotary_dim]; only the first rotary_dim elements of each head rotate.
void rotary_half_with_cache_inplaced(const at::Tensor& query, const at::Tensor& key,
                                     const at::Tensor& cos, const at::Tensor& sin);
void rotary_two_with_cache_inplaced(const at::Tensor& query, const at::Tensor& key,
                                    const at::Tensor& cos, const at::Tensor& sin,
                                    bool half_layout_cache);

// mlp: gate <- silu(gate) * up, any shape, numel % 128 == 0.
void mlp_silu_mul_inplaced(const at::Tensor& gate, const at::Tensor& up);

// kv: [bsz, heads, seq, head_dim] full precision <-> uint8 codes, into caller tensors.
void quantize_key_value(const at::Tensor& key, const at::Tensor& value,
                        const at::Tensor& key_output, const at::Tensor& value_output);
void dequantize_key_value(const at::Tensor& key, const at::Tensor& value,
                          const at::Tensor& key_output, const at::Tensor& value_output);

// transformers: scores [bsz, vocab], input_ids [bsz, seq_len] int64.
void repetition_penalty_logits_process_inplaced(const at::Tensor& scores,
                                                const at::Tensor& input_ids, float penalty);
// transformers: attn [..., rows, n] contiguous, softmax over the last dimension in float32.
void attn_softmax_inplaced(const at::Tensor& attn);

// moe: scores [tokens, experts] float32 -> (ids int64 [tokens, top_k], weights [tokens, top_k]).
std::tuple<at::Tensor, at::Tensor> moe_group_topk(const at::Tensor& scores, const OptTensor& bias,
                                                  int64_t n_groups, int64_t topk_group,
                                                  int64_t unused, int64_t top_k, bool renormalize,
                                                  float renormalize_eps,
                                                  float routed_scaling_factor);
// moe: logits [tokens, experts] -> (ids int64, weights in the logits' dtype).
std::tuple<at::Tensor, at::Tensor> moe_softmax_topk(const at::Tensor& logits, int64_t top_k,
                                                    bool renormalize);

}  // namespace vorta
