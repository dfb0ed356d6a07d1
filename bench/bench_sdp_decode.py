"""Decode attention: one new token of 32 query heads against 8 key/value heads of 4096 cached
keys, head size 128, for 1 and 8 sequences. Memory-bound: the limit is a copy of the bytes
read (query, keys and values once) and written. Each row also names its two products (2 flops
per key element and query head for the scores, as many for the weighted values): for one
sequence on a CPU they take longer at the matmul peak than the copy.

`sdp_fp8` reads the 8-bit cache: its "sdp float16" baseline is our own `sdp` over the same
cache in float16, timed in turn with it, so that speed-up is the gain of the 8-bit cache."""
import torch

import vorta_addons
from bench.bench_kv import KEY, VALUE, decode_codes
from bench.bench_sdp_prefill import attention_composite, sdpa_baselines
from bench.runner import Case, dtype_name, fresh, uniform

HEADS, KV_HEADS, KV_LEN, HEAD_DIM = 32, 8, 4096, 128


def fp8_attention_composite(q, k8, v8, scale):
    return attention_composite(q, decode_codes(k8, KEY).to(q.dtype), decode_codes(v8, VALUE).to(q.dtype), scale)


def cases(device):
    scale = HEAD_DIM ** -0.5
    for bsz in (1, 8):
        shape = f"[{bsz}, {HEADS}, 1, {HEAD_DIM}] kv [{KV_HEADS}, {KV_LEN}]"
        flops = 4.0 * bsz * HEADS * KV_LEN * HEAD_DIM
        for dtype in (torch.float16, torch.float32):
            q = uniform((bsz, HEADS, 1, HEAD_DIM), dtype, device)
            k, v = (uniform((bsz, KV_HEADS, KV_LEN, HEAD_DIM), dtype, device) for _ in range(2))
            out = fresh(q.shape, dtype)
            sdp16 = lambda q=q, k=k, v=v: vorta_addons.sdp(q, k, v, None, scale)  # noqa: E731
            yield Case("sdp", shape, dtype_name(dtype), sdp16,
                       attention_composite, (q, k, v, scale), [q, k, v], [out],
                       baselines=sdpa_baselines(q, k, v, scale, False), min_flops=flops, size="decode")
            if dtype != torch.float16:
                continue
            # Any byte is a valid code; random bytes cost as much to decode as real caches.
            k8, v8 = (torch.randint(0, 256, k.shape, dtype=torch.uint8, device=device) for _ in range(2))
            yield Case("sdp_fp8", shape, dtype_name(dtype),
                       lambda q=q, k8=k8, v8=v8: vorta_addons.sdp_fp8(q, k8, v8, None, scale),
                       fp8_attention_composite, (q, k8, v8, scale), [q, k8, v8], [out],
                       rivals={"sdp float16": sdp16}, min_flops=flops, size="decode")
