// The public operators in registration order: name, docstring and dispatcher
// schema. The Python module (registry.cpp) and torch.ops.vorta_addons
// (library.cpp) are both generated from this one list. A schema names the
// arguments and marks with (a!) what the operator writes in place; `float`
// arrives as a C++ float in the module and as a double in the dispatcher.
#pragma once

#define VORTA_ATTENTION_ARGS "(Tensor query, Tensor key, Tensor value, Tensor? mask"

#define VORTA_OPERATORS(X)                                                                          \
  X(sdp, "sdp", VORTA_ATTENTION_ARGS ", float scale) -> Tensor")                                    \
  X(sdp_fp8, "fp8 sdp", VORTA_ATTENTION_ARGS ", float scale) -> Tensor")                            \
  X(sdp_causal, "sdp causal", VORTA_ATTENTION_ARGS ", float scale) -> Tensor")                      \
  X(sdp_fp8_causal, "sdp fp8 causal", VORTA_ATTENTION_ARGS ", float scale) -> Tensor")              \
  X(sdp_non_causal, "sdp non causal", VORTA_ATTENTION_ARGS ", float scale) -> Tensor")              \
  X(sdp_fp8_non_causal, "sdp fp8 non causal", VORTA_ATTENTION_ARGS ", float scale) -> Tensor")      \
  X(siglip_sdp_non_causal, "siglip sdp non causal", VORTA_ATTENTION_ARGS ") -> Tensor")             \
  X(gemma2_sdp, "gemma2 sdp", VORTA_ATTENTION_ARGS ", float softcap, float scale) -> Tensor")       \
  X(gemma2_sdp_causal, "gemma2 sdp causal",                                                         \
    VORTA_ATTENTION_ARGS ", float softcap, float scale) -> Tensor")                                 \
  X(rms_norm, "fused rms norm", "(Tensor weight, Tensor input, float eps) -> Tensor")               \
  X(layer_norm, "fused layer norm",                                                                 \
    "(Tensor input, Tensor? weight, Tensor? bias, float eps) -> Tensor")                            \
  X(rotary_half_inplaced, "rotary half inplaced",                                                   \
    "(Tensor inv_freq, Tensor position_ids, Tensor(a!) query, Tensor(b!) key) -> ()")               \
  X(rotary_two_inplaced, "rotary two inplaced",                                                     \
    "(Tensor inv_freq, Tensor position_ids, Tensor(a!) query, Tensor(b!) key) -> ()")               \
  X(rotary_half_with_cache_inplaced, "rotary half with cache inplaced",                             \
    "(Tensor(a!) query, Tensor(b!) key, Tensor cos, Tensor sin) -> ()")                             \
  X(rotary_two_with_cache_inplaced, "rotary two with cache inplaced",                               \
    "(Tensor(a!) query, Tensor(b!) key, Tensor cos, Tensor sin, bool half_layout_cache) -> ()")     \
  X(mlp_silu_mul_inplaced, "mlp silu_mul inplaced", "(Tensor(a!) gate, Tensor up) -> ()")           \
  X(quantize_key_value, "quantize key value",                                                       \
    "(Tensor key, Tensor value, Tensor(a!) key_output, Tensor(b!) value_output) -> ()")             \
  X(dequantize_key_value, "dequantize key value",                                                   \
    "(Tensor key, Tensor value, Tensor(a!) key_output, Tensor(b!) value_output) -> ()")             \
  X(repetition_penalty_logits_process_inplaced, "repetition penalty logits process",                \
    "(Tensor(a!) scores, Tensor input_ids, float penalty) -> ()")                                   \
  X(attn_softmax_inplaced, "attention softmax inplaced", "(Tensor(a!) attn) -> ()")                 \
  X(moe_group_topk, "moe group topk",                                                               \
    "(Tensor scores, Tensor? bias, int n_groups, int topk_group, int unused, int top_k, "           \
    "bool renormalize, float renormalize_eps, float routed_scaling_factor) -> (Tensor, Tensor)")    \
  X(moe_softmax_topk, "moe softmax topk",                                                           \
    "(Tensor logits, int top_k, bool renormalize) -> (Tensor, Tensor)")
