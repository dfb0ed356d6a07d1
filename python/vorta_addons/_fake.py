"""Fake implementations of torch.ops.vorta_addons.*, for torch.compile, export and opcheck.

Each returns tensors with exactly the sizes, strides, storage offset, dtype and device that
the operator's kernels produce: compiled code reads the real outputs through these strides.
Sizes may be symbolic. Argument checks stay with the operators, which run them when the
traced program runs.
"""
import torch
from torch.library import register_fake

from . import _C

# Prefill attention on the vector path writes a buffer padded to whole blocks of query rows
# and returns the view of the rows asked for.
_VECTOR_ROW_BLOCK = 256
# The vision-encoder variant computes 72-wide heads at width 80 and returns the first 72.
_SIGLIP_HEAD, _SIGLIP_WIDTH = 72, 80


def _padded_rows(query, width):
    """[bsz, heads, q_len, width] view of a [bsz, heads, q_len rounded up, width] buffer."""
    bsz, heads, q_len = query.shape[:3]
    rows = (q_len + _VECTOR_ROW_BLOCK - 1) // _VECTOR_ROW_BLOCK * _VECTOR_ROW_BLOCK
    return query.new_empty((bsz, heads, rows, width))[:, :, :q_len]


def _decode(query, key, value, mask, scale):
    return query.new_empty((*query.shape[:3], value.shape[3]))


def _prefill(query, key, value, mask, scale):
    # The matrix-engine path returns a compact result; the path depends on the device's
    # family and the head size, which the kernels specialise on anyway.
    if _C._prefill_uses_matrix_engine(query.device, int(query.shape[3])):
        return query.new_empty(query.shape)
    return _padded_rows(query, value.shape[3])


def _siglip(query, key, value, mask):
    return _padded_rows(query, _SIGLIP_WIDTH)[..., :_SIGLIP_HEAD]


def _soft_capped(query, key, value, mask, softcap, scale):
    return query.new_empty(query.shape)


def _rms_norm(weight, input, eps):
    return input.new_empty(input.shape)


def _layer_norm(input, weight, bias, eps):
    return input.new_empty(input.shape)


def _writes_in_place(*args):
    return None


def _moe_softmax_topk(logits, top_k, renormalize):
    shape = (logits.shape[0], top_k)
    return logits.new_empty(shape, dtype=torch.int64), logits.new_empty(shape)


def _moe_group_topk(scores, bias, n_groups, topk_group, unused, top_k, renormalize,
                    renormalize_eps, routed_scaling_factor):
    shape = (scores.shape[0], top_k)
    weight_dtype = torch.float32 if bias is None else bias.dtype
    return scores.new_empty(shape, dtype=torch.int64), scores.new_empty(shape, dtype=weight_dtype)


_FAKES = {
    "sdp": _decode,
    "sdp_fp8": _decode,
    "sdp_causal": _prefill,
    "sdp_fp8_causal": _prefill,
    "sdp_non_causal": _prefill,
    "sdp_fp8_non_causal": _prefill,
    "siglip_sdp_non_causal": _siglip,
    "gemma2_sdp": _soft_capped,
    "gemma2_sdp_causal": _soft_capped,
    "rms_norm": _rms_norm,
    "layer_norm": _layer_norm,
    "rotary_half_inplaced": _writes_in_place,
    "rotary_two_inplaced": _writes_in_place,
    "rotary_half_with_cache_inplaced": _writes_in_place,
    "rotary_two_with_cache_inplaced": _writes_in_place,
    "mlp_silu_mul_inplaced": _writes_in_place,
    "quantize_key_value": _writes_in_place,
    "dequantize_key_value": _writes_in_place,
    "repetition_penalty_logits_process_inplaced": _writes_in_place,
    "attn_softmax_inplaced": _writes_in_place,
    "moe_group_topk": _moe_group_topk,
    "moe_softmax_topk": _moe_softmax_topk,
}

for _name, _impl in _FAKES.items():
    register_fake(f"vorta_addons::{_name}", _impl)
