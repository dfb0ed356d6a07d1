"""Rotary embedding in place on query and key, as strided views of a fused QKV projection
(32 query and 8 key/value heads of 128): 8 x 2048 prompt tokens, and decode steps of 1 and 8
sequences at position 4095."""
import torch

import vorta_addons
from bench.runner import Case, dtype_name, uniform

HEADS, KV_HEADS, HEAD_DIM = 32, 8, 128
SIZES = [(8, 2048, "large"), (8, 1, "decode"), (1, 1, "decode")]
DECODE_POS = 4095


def rotate_half(x):
    half = x.shape[-1] // 2
    return torch.cat((-x[..., half:], x[..., :half]), dim=-1)


def rotate_every_two(x):
    return torch.stack((-x[..., 1::2], x[..., ::2]), dim=-1).flatten(-2)


def inv_freq_composite(inv_freq, position_ids, q, k, every_two):
    # What a model's rotary module does: angles, cos/sin tables, then the rotation written back.
    freqs = position_ids[:, None, :, None].float() * inv_freq.float()
    emb = freqs.repeat_interleave(2, dim=-1) if every_two else torch.cat((freqs, freqs), dim=-1)
    cos, sin = emb.cos().to(q.dtype), emb.sin().to(q.dtype)
    rot = rotate_every_two if every_two else rotate_half
    q.copy_(q * cos + rot(q) * sin)
    k.copy_(k * cos + rot(k) * sin)


def cache_composite(q, k, cos, sin, every_two):
    # cos/sin hold the rotate-half layout (angles repeated in both halves).
    if every_two:
        half = cos.shape[-1] // 2
        cos = cos[..., :half].repeat_interleave(2, dim=-1)
        sin = sin[..., :half].repeat_interleave(2, dim=-1)
    rot = rotate_every_two if every_two else rotate_half
    q.copy_(q * cos + rot(q) * sin)
    k.copy_(k * cos + rot(k) * sin)


def projections(bsz, seq, dtype, device):
    """query and key as [bsz, heads, seq, head_dim] views of a fused QKV projection."""
    qkv = uniform((bsz, seq, HEADS + 2 * KV_HEADS, HEAD_DIM), dtype, device)
    return qkv[:, :, :HEADS].transpose(1, 2), qkv[:, :, HEADS:HEADS + KV_HEADS].transpose(1, 2)


def cases(device):
    for bsz, seq, size in SIZES:
        shape = f"[{bsz}, {HEADS}/{KV_HEADS}, {seq}, {HEAD_DIM}]"
        start = 0 if seq > 1 else DECODE_POS
        inv64 = 1.0 / 10000 ** (torch.arange(0, HEAD_DIM, 2, dtype=torch.float64) / HEAD_DIM)
        for dtype in (torch.float16, torch.float32):
            q, k = projections(bsz, seq, dtype, device)
            inv_freq = inv64.to(device=device, dtype=dtype)
            pos = torch.arange(start, start + seq, device=device).repeat(bsz, 1)
            for op, two in (("rotary_half_inplaced", False), ("rotary_two_inplaced", True)):
                fn = getattr(vorta_addons, op)
                yield Case(op, shape, dtype_name(dtype),
                           lambda fn=fn, q=q, k=k, f=inv_freq, p=pos: fn(f, p, q, k),
                           inv_freq_composite, (inv_freq, pos, q, k, two),
                           [q, k, inv_freq, pos], [q, k], restore=[q, k], size=size)
        for dtype in (torch.float16, torch.bfloat16):
            q, k = projections(bsz, seq, dtype, device)
            angle = torch.arange(start, start + seq, dtype=torch.float64)[:, None] * inv64
            angle = torch.cat((angle, angle), dim=-1)
            cos, sin = angle.cos().to(device, dtype), angle.sin().to(device, dtype)
            common = dict(reads=[q, k, cos, sin], writes=[q, k], restore=[q, k], size=size)
            yield Case("rotary_half_with_cache_inplaced", shape, dtype_name(dtype),
                       lambda q=q, k=k, c=cos, s=sin: vorta_addons.rotary_half_with_cache_inplaced(q, k, c, s),
                       cache_composite, (q, k, cos, sin, False), **common)
            yield Case("rotary_two_with_cache_inplaced", shape, dtype_name(dtype),
                       lambda q=q, k=k, c=cos, s=sin: vorta_addons.rotary_two_with_cache_inplaced(q, k, c, s, True),
                       cache_composite, (q, k, cos, sin, True), **common)
