import torch

import vorta_addons
from bench.runner import Case

BSZ, SEQ, HEADS, KV_HEADS, HEAD_DIM = 8, 1024, 32, 8, 128


def rotate_half(x):
    half = x.shape[-1] // 2
    return torch.cat((-x[..., half:], x[..., :half]), dim=-1)


def rotate_every_two(x):
    return torch.stack((-x[..., 1::2], x[..., ::2]), dim=-1).flatten(-2)


def inv_freq_composite(inv_freq, position_ids, q, k, every_two):
    # What a model's rotary module does: angles, cos/sin tables, then the rotation written back.
    freqs = position_ids[:, None, :, None].float() * inv_freq.float()
    if every_two:
        emb = freqs.repeat_interleave(2, dim=-1)
    else:
        emb = torch.cat((freqs, freqs), dim=-1)
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


def projections(bsz, seq, dtype):
    """query and key as [bsz, heads, seq, head_dim] views of a fused QKV projection."""
    qkv = torch.randn(bsz, seq, HEADS + 2 * KV_HEADS, HEAD_DIM).to(dtype)
    q = qkv[:, :, :HEADS].transpose(1, 2)
    k = qkv[:, :, HEADS:HEADS + KV_HEADS].transpose(1, 2)
    return q, k


def cases():
    for bsz, seq in [(BSZ, SEQ), (1, 1)]:
        shape = f"[{bsz}, {HEADS}/{KV_HEADS}, {seq}, {HEAD_DIM}]"
        for dtype in (torch.float16, torch.float32):
            name = str(dtype).replace("torch.", "")
            q, k = projections(bsz, seq, dtype)
            inv_freq = (1.0 / 10000 ** (torch.arange(0, HEAD_DIM, 2) / HEAD_DIM)).to(dtype)
            pos = torch.arange(seq).repeat(bsz, 1)
            for op, two in (("rotary_half_inplaced", False), ("rotary_two_inplaced", True)):
                fn = getattr(vorta_addons, op)
                yield Case(op, shape, name,
                           lambda fn=fn, q=q, k=k, f=inv_freq, p=pos: fn(f, p, q, k),
                           lambda q=q, k=k, f=inv_freq, p=pos, two=two: inv_freq_composite(f, p, q, k, two),
                           [q, k])
        for dtype in (torch.float16, torch.bfloat16):
            name = str(dtype).replace("torch.", "")
            q, k = projections(bsz, seq, dtype)
            angle = torch.arange(seq)[:, None].float() / 10000 ** (torch.arange(0, HEAD_DIM, 2) / HEAD_DIM)
            angle = torch.cat((angle, angle), dim=-1)
            cos, sin = angle.cos().to(dtype), angle.sin().to(dtype)
            yield Case("rotary_half_with_cache_inplaced", shape, name,
                       lambda q=q, k=k, c=cos, s=sin: vorta_addons.rotary_half_with_cache_inplaced(q, k, c, s),
                       lambda q=q, k=k, c=cos, s=sin: cache_composite(q, k, c, s, False), [q, k])
            yield Case("rotary_two_with_cache_inplaced", shape, name,
                       lambda q=q, k=k, c=cos, s=sin: vorta_addons.rotary_two_with_cache_inplaced(q, k, c, s, True),
                       lambda q=q, k=k, c=cos, s=sin: cache_composite(q, k, c, s, True), [q, k])
