"""Decode attention: one new token of 32 query heads against 8 key/value heads
of 4096 cached keys, head size 128.

The torch baseline is what a user writes without this library:
torch.nn.functional.scaled_dot_product_attention(q, k, v, enable_gqa=True).
The sdp_fp8 rows take our own sdp over the same shape in fp16 as their
baseline, so their speed-up column is the gain of the 8-bit cache.
"""
import torch
import torch.nn.functional as F

import vorta_addons
from bench.runner import Case

HEADS, KV_HEADS, KV_LEN, HEAD_DIM = 32, 8, 4096, 128


def _codes(shape):
    # Any byte is a valid code; random bytes are as costly to decode as real caches.
    return torch.randint(0, 256, shape, dtype=torch.uint8)


def cases():
    scale = HEAD_DIM ** -0.5
    for bsz in (1, 8):
        shape = f"[{bsz}, {HEADS}, 1, {HEAD_DIM}] kv [{KV_HEADS}, {KV_LEN}]"
        for dtype in (torch.float16, torch.float32):
            q = torch.randn(bsz, HEADS, 1, HEAD_DIM).to(dtype)
            k = torch.randn(bsz, KV_HEADS, KV_LEN, HEAD_DIM).to(dtype)
            v = torch.randn(bsz, KV_HEADS, KV_LEN, HEAD_DIM).to(dtype)
            name = str(dtype).replace("torch.", "")
            yield Case("sdp", shape, name,
                       lambda q=q, k=k, v=v: vorta_addons.sdp(q, k, v, None, scale),
                       lambda q=q, k=k, v=v: F.scaled_dot_product_attention(q, k, v, enable_gqa=True),
                       [k, v], baseline_name="torch sdpa")
            if dtype != torch.float16:
                continue
            k8, v8 = _codes(k.shape), _codes(v.shape)
            yield Case("sdp_fp8 (base: sdp fp16)", shape, name,
                       lambda q=q, k8=k8, v8=v8: vorta_addons.sdp_fp8(q, k8, v8, None, scale),
                       lambda q=q, k=k, v=v: vorta_addons.sdp(q, k, v, None, scale),
                       [k8, v8], baseline_name="sdp fp16")
