# Type stubs of vorta_addons: the 22 operators in registration order.
#
# Arguments are positional only and all required (None where `| None`). The same operators
# are torch.ops.vorta_addons.<name>, which torch.compile traces; the functions here are not
# traceable. Full reference: docs/operators.md.
#
# Shapes: query [bsz, num_heads, q_len, head_dim]; key, value [bsz, kv_heads, kv_len, head_dim]
# with num_heads a multiple of kv_heads; masks are additive, in the query's dtype, -10000.0
# where masked. dtypes: float32 or float16 unless stated; uint8 caches hold the 8-bit codes
# written by quantize_key_value.
#
# Failures: "raises" is a RuntimeError (unsupported dtype or head size, layout, device);
# "aborts" is a fatal check that prints the expression, the source and the line and ends
# the process (shape relations whose violation would take a kernel out of range).
# Argument type or count errors are TypeErrors.

from torch import Tensor

__version__: str

# Decode attention over a full-precision cache. q_len is usually 1; mask [1 or bsz,
# 1 or num_heads, q_len, kv_len] or None. `scale` is not used: scores are scaled by
# 1/sqrt(head_dim). Returns a new [bsz, num_heads, q_len, head_dim] tensor.
# head_dim 64, 80, 96, 128, 192 or 256. Raises: dtype, head size, devices, query/mask rows
# not packed, key/value rows not packed per (batch, head). Aborts: shape or dtype mismatch
# between query, key, value and mask.
def sdp(query: Tensor, key: Tensor, value: Tensor, mask: Tensor | None, scale: float, /) -> Tensor:
    """sdp"""

# Decode attention over an 8-bit cache: key and value uint8 codes, query float32/float16.
# Scores are scaled by `scale` (by 1/sqrt(head_dim) on the two-pass path for long caches).
# Value rows may be narrower: 192-wide keys with 128-wide values. Returns a new
# [bsz, num_heads, q_len, value head_dim] tensor. Raises and aborts as sdp; raises for
# caches that are not uint8.
def sdp_fp8(query: Tensor, key: Tensor, value: Tensor, mask: Tensor | None, scale: float, /) -> Tensor:
    """fp8 sdp"""

# Causal prefill attention: q_len == kv_len. mask [bsz, 1 or num_heads, q_len, kv_len or
# kv_len rounded up to 128] or None (the causal mask is then applied without one); a mask of
# another width is padded with -10000.0 and only its head 0 is read.
# Returns [bsz, num_heads, q_len, head_dim]: on the vector path (every device of this build)
# a view of a buffer whose q_len is rounded up to 256 rows, so stride(1) is
# rows * head_dim; on the matrix-engine path (head_dim 64, 80 or 128 on a family with one)
# a contiguous tensor. head_dim 64, 80, 96, 128, 192 or 256.
# Raises: dtype, head size, devices, a last dimension that is not dense.
# Aborts: q_len != kv_len, shape or dtype mismatch between query, key, value and mask,
# a mask row stride that is odd.
def sdp_causal(query: Tensor, key: Tensor, value: Tensor, mask: Tensor | None, scale: float, /) -> Tensor:
    """sdp causal"""

# sdp_causal over an 8-bit cache (key and value uint8 codes; aborts otherwise).
def sdp_fp8_causal(query: Tensor, key: Tensor, value: Tensor, mask: Tensor | None, scale: float, /) -> Tensor:
    """sdp fp8 causal"""

# Non-causal prefill attention: any q_len and kv_len; otherwise as sdp_causal.
def sdp_non_causal(query: Tensor, key: Tensor, value: Tensor, mask: Tensor | None, scale: float, /) -> Tensor:
    """sdp non causal"""

# sdp_non_causal over an 8-bit cache (key and value uint8 codes; aborts otherwise).
def sdp_fp8_non_causal(query: Tensor, key: Tensor, value: Tensor, mask: Tensor | None, scale: float, /) -> Tensor:
    """sdp fp8 non causal"""

# Vision-encoder attention: head_dim 72, scale 1/sqrt(72), matrix-engine families only
# (raises on others, which includes CPUs and CUDA GPUs). Returns a [bsz, num_heads, q_len, 72]
# view of a [bsz, num_heads, q_len rounded up to 256, 80] buffer. Aborts as sdp_non_causal.
def siglip_sdp_non_causal(query: Tensor, key: Tensor, value: Tensor, mask: Tensor | None, /) -> Tensor:
    """siglip sdp non causal"""

# Soft-capped attention: softcap * tanh(scale * q.k / softcap) + mask, softmax, times value.
# softcap > 0 (raises otherwise). Returns a new contiguous [bsz, num_heads, q_len, head_dim].
# Raises and aborts as sdp_non_causal.
def gemma2_sdp(query: Tensor, key: Tensor, value: Tensor, mask: Tensor | None, softcap: float, scale: float, /) -> Tensor:
    """gemma2 sdp"""

# gemma2_sdp with the causal limit: q_len == kv_len (aborts otherwise).
def gemma2_sdp_causal(query: Tensor, key: Tensor, value: Tensor, mask: Tensor | None, softcap: float, scale: float, /) -> Tensor:
    """gemma2 sdp causal"""

# RMS norm of the rows of input [tokens, hidden] times weight [hidden]; weight comes first.
# Returns a new contiguous [tokens, hidden]. Raises: dtype, tensors not contiguous or on
# other devices. Aborts: input not 2-D, weight not [hidden], dtypes differ, hidden not a
# multiple of 32 or above 8192.
def rms_norm(weight: Tensor, input: Tensor, eps: float, /) -> Tensor:
    """fused rms norm"""

# Layer norm of input [tokens, hidden], then times weight and plus bias ([hidden] each,
# None for none). Returns a new contiguous [tokens, hidden]. Raises as rms_norm. Aborts:
# input not 2-D, weight or bias not hidden contiguous values of the input's dtype, hidden
# not a multiple of 32 or above 8192.
def layer_norm(input: Tensor, weight: Tensor | None, bias: Tensor | None, eps: float, /) -> Tensor:
    """fused layer norm"""

# Rotary embedding in place on query and key ([bsz, heads, seq_len, head_dim], heads may
# differ), element i paired with i + head_dim/2; angles position * inv_freq with
# inv_freq [head_dim/2] and position_ids int64 [bsz or 1, seq_len]. Writes query and key.
# head_dim 16, 20, 32, 40, 64, 80, 96, 128 or 256. Raises: dtype, head size, devices,
# shapes of key and position_ids, a last dimension that is not dense. Aborts: inv_freq not
# head_dim/2 contiguous values of the query's dtype, inv_freq or position_ids on a device
# without kernels.
def rotary_half_inplaced(inv_freq: Tensor, position_ids: Tensor, query: Tensor, key: Tensor, /) -> None:
    """rotary half inplaced"""

# rotary_half_inplaced pairing element 2i with 2i+1; head_dim 64, 96 or 128.
def rotary_two_inplaced(inv_freq: Tensor, position_ids: Tensor, query: Tensor, key: Tensor, /) -> None:
    """rotary two inplaced"""

# Rotary embedding in place from cos and sin [seq_len or more, rotary_dim] (row s for token
# s, contiguous, the query's dtype: float32, float16 or bfloat16); only the first rotary_dim
# elements of each head rotate, i paired with i + rotary_dim/2. Writes query and key.
# Raises: dtype, shapes, devices, sin unlike cos. Aborts: cos not contiguous, of another
# dtype or on a device without kernels.
def rotary_half_with_cache_inplaced(query: Tensor, key: Tensor, cos: Tensor, sin: Tensor, /) -> None:
    """rotary half with cache inplaced"""

# As rotary_half_with_cache_inplaced pairing 2i with 2i+1, whose angle is at column i of cos
# and sin with half_layout_cache, at column 2i without.
def rotary_two_with_cache_inplaced(query: Tensor, key: Tensor, cos: Tensor, sin: Tensor, half_layout_cache: bool, /) -> None:
    """rotary two with cache inplaced"""

# gate <- silu(gate) * up, elementwise over any shape. Writes gate. Raises: dtype, devices.
# Aborts: either not contiguous, numel or dtypes differ, numel not a multiple of 128.
def mlp_silu_mul_inplaced(gate: Tensor, up: Tensor, /) -> None:
    """mlp silu_mul inplaced"""

# Encodes key and value [bsz, heads, seq_len, head_dim] into the 8-bit key and value codes.
# Writes key_output and value_output (uint8, the same shapes; any strides with dense rows).
# head_dim 64, 80, 96, 128 or 192, or 192-wide keys with 128-wide values. Raises: dtype,
# head sizes, not 4-D, rows not dense, devices. Aborts: key and value dtypes differ, the
# four tensors' [bsz, heads, seq_len] differ.
def quantize_key_value(key: Tensor, value: Tensor, key_output: Tensor, value_output: Tensor, /) -> None:
    """quantize key value"""

# Decodes uint8 key and value codes into key_output and value_output (float32 or float16,
# one dtype). Writes key_output and value_output. head_dim 64, 80, 96, 128 or 192, one for
# all four. Raises as quantize_key_value. Aborts: output dtypes differ, shapes differ.
def dequantize_key_value(key: Tensor, value: Tensor, key_output: Tensor, value_output: Tensor, /) -> None:
    """dequantize key value"""

# Repetition penalty on scores [bsz, vocab] for the int64 ids in input_ids [bsz, seq_len]
# (ids must be in [0, vocab): not checked): a score s becomes s / penalty if s > 0, else
# s * penalty. Writes scores. Raises: dtype, devices, row counts, strided last dimensions.
# Aborts: not 2-D, input_ids not int64, a device without kernels.
def repetition_penalty_logits_process_inplaced(scores: Tensor, input_ids: Tensor, penalty: float, /) -> None:
    """repetition penalty logits process"""

# Softmax over the last dimension of attn ([..., rows, n], 3-D or 4-D), in float32, in
# place. Writes attn. Raises: dtype. Aborts: not 3-D or 4-D, not contiguous.
def attn_softmax_inplaced(attn: Tensor, /) -> None:
    """attention softmax inplaced"""

# Grouped expert choice from float32 scores [tokens, n_experts] (bias [n_experts], float32
# or float16, added for the choice only): the topk_group groups with the largest sums of
# their topk_group best scores, then the top_k experts in them. Returns (ids int64
# [tokens, top_k], weights [tokens, top_k] in the bias's dtype, float32 without one): the
# unbiased scores, divided by their sum + renormalize_eps if renormalize, times
# routed_scaling_factor. `unused` is ignored. Raises: scores not 2-D float32, n_groups not
# dividing n_experts, negative counts, not contiguous, bias shape. Aborts: n_experts > 256,
# n_experts / n_groups > 256 or not a multiple of 16, top_k > 32.
def moe_group_topk(scores: Tensor, bias: Tensor | None, n_groups: int, topk_group: int, unused: int, top_k: int, renormalize: bool, renormalize_eps: float, routed_scaling_factor: float, /) -> tuple[Tensor, Tensor]:
    """moe group topk"""

# Softmax over logits [tokens, n_experts] (float32 or float16), then the top_k experts.
# Returns (ids int64 [tokens, top_k], weights [tokens, top_k] in the logits' dtype),
# weights divided by their sum if renormalize. Raises: not 2-D, dtype, not contiguous.
# Aborts: n_experts > 256 or not a multiple of 16, top_k > 32.
def moe_softmax_topk(logits: Tensor, top_k: int, renormalize: bool, /) -> tuple[Tensor, Tensor]:
    """moe softmax topk"""
