"""Prefill attention (compute-bound: GFLOP/s beside the matmul peak) against the plain
composite, torch.compile of it, and torch's scaled_dot_product_attention in the same dtype
and in float32."""
import math

import torch
import torch.nn.functional as F

import vorta_addons
from bench.runner import Case, dtype_name, fresh, uniform


def attention_composite(q, k, v, scale, causal=False, softcap=None):
    """Grouped-query attention written out: q [b, H, L, D], k/v [b, K, S, D]; the last query
    row sees every key. Products in float32 on the CPU, where half-precision products are slow."""
    b, H, L, D = q.shape
    K, S = k.shape[1], k.shape[2]
    acc = torch.float32 if q.device.type == "cpu" else q.dtype
    qg = q.reshape(b, K, H // K * L, D).to(acc)      # the query heads of one key/value head
    s = torch.matmul(qg, k.to(acc).transpose(-1, -2)) * scale
    if softcap is not None:
        s = softcap * torch.tanh(s / softcap)
    if causal:
        keep = torch.ones(L, S, dtype=torch.bool, device=q.device).tril(S - L)
        s = s.view(b, K, -1, L, S).masked_fill(~keep, float("-inf")).view(b, K, -1, S)
    out = torch.matmul(torch.softmax(s, -1), v.to(acc))
    return out.view(b, H, L, D).to(q.dtype)


def sdpa_baselines(q, k, v, scale, causal):
    """torch's attention in the case's dtype and, for half-precision cases, in float32
    (inputs converted beforehand)."""
    gqa = q.shape[1] != k.shape[1]
    sdpa = lambda q, k, v: F.scaled_dot_product_attention(  # noqa: E731
        q, k, v, is_causal=causal, scale=scale, enable_gqa=gqa)
    out = {f"sdpa {dtype_name(q.dtype)}": lambda: sdpa(q, k, v)}
    if q.dtype != torch.float32:
        q32, k32, v32 = q.float(), k.float(), v.float()
        out["sdpa float32"] = lambda: sdpa(q32, k32, v32)
    return out


def flops(b, h, lq, lk, d, causal):
    return 4.0 * b * h * lq * lk * d * (0.5 if causal else 1.0)


def _with_family(family, fn):
    def call():
        vorta_addons._testing.force_device_family(family)
        try:
            return fn()
        finally:
            vorta_addons._testing.force_device_family(None)
    return call


ROWS = [  # op, batch, heads, tokens, head_dim, dtype, causal, forced device family
    ("sdp_causal", 1, 32, 2048, 128, torch.float32, True, None),
    ("sdp_non_causal", 1, 32, 1024, 128, torch.float32, False, None),
    ("sdp_non_causal", 1, 32, 1024, 128, torch.float16, False, None),
    ("sdp_causal [matrix-engine]", 1, 32, 1024, 128, torch.float32, True, 0),
    ("gemma2_sdp_causal", 1, 16, 1024, 256, torch.float32, True, None),
]


def cases(device):
    for op, b, h, n, d, dtype, causal, family in ROWS:
        q, k, v = (uniform((b, h, n, d), dtype, device, -1.0, 1.0) for _ in range(3))
        scale = 1 / math.sqrt(d)
        softcap = 50.0 if op.startswith("gemma2") else None
        if softcap:
            ours = lambda q=q, k=k, v=v: vorta_addons.gemma2_sdp_causal(q, k, v, None, softcap, scale)
            baselines = {}
        else:
            fn = vorta_addons.sdp_causal if causal else vorta_addons.sdp_non_causal
            ours = lambda q=q, k=k, v=v, fn=fn: fn(q, k, v, None, scale)
            baselines = sdpa_baselines(q, k, v, scale, causal)
        if family is not None:
            ours = _with_family(family, ours)
        yield Case(op, f"[{b}, {h}, {n}, {d}]", dtype_name(dtype), ours,
                   attention_composite, (q, k, v, scale, causal, softcap), [q, k, v], [fresh(q.shape, dtype)],
                   flops=flops(b, h, n, n, d, causal), baselines=baselines)
