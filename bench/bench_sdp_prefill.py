"""Prefill attention against torch's scaled_dot_product_attention (compute-bound: GFLOP/s)."""
import math

import torch
import torch.nn.functional as F

import vorta_addons
from bench.runner import Case


def _flops(b, h, lq, lk, d, causal):
    return 4.0 * b * h * lq * lk * d * (0.5 if causal else 1.0)


def _with_family(family, fn):
    def call():
        vorta_addons._testing.force_device_family(family)
        try:
            return fn()
        finally:
            vorta_addons._testing.force_device_family(None)
    return call


def cases():
    rows = [
        ("sdp_causal", 1, 32, 2048, 128, torch.float32, True, None),
        ("sdp_non_causal", 1, 32, 1024, 128, torch.float32, False, None),
        ("sdp_non_causal", 1, 32, 1024, 128, torch.float16, False, None),
        ("sdp_causal [matrix-engine]", 1, 32, 1024, 128, torch.float32, True, 0),
        ("gemma2_sdp_causal", 1, 16, 1024, 256, torch.float32, True, None),
    ]
    for op, b, h, n, d, dtype, causal, family in rows:
        q, k, v = (torch.randn(b, h, n, d).to(dtype) for _ in range(3))
        scale = 1 / math.sqrt(d)
        name = str(dtype).replace("torch.", "")
        if op.startswith("gemma2"):
            ours = lambda q=q, k=k, v=v: vorta_addons.gemma2_sdp_causal(q, k, v, None, 50.0, scale)
        else:
            fn = vorta_addons.sdp_causal if causal else vorta_addons.sdp_non_causal
            ours = lambda q=q, k=k, v=v, fn=fn: fn(q, k, v, None, scale)
        if family is not None:
            ours = _with_family(family, ours)
        base = lambda q=q, k=k, v=v, c=causal: F.scaled_dot_product_attention(q, k, v, is_causal=c)
        yield Case(op, f"[{b}, {h}, {n}, {d}]", name, ours, base, [q, k, v],
                   flops=_flops(b, h, n, n, d, causal), baseline_name="torch sdpa")
