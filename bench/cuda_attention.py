"""Attention on a CUDA GPU: python -m bench.cuda_attention [decode] [prefill]

Decode (one new token, 32 query / 8 key-value heads of 128, 4096 cached
keys, batch 1, 8 and 64): sdp and sdp_fp8 in GB/s of the cache read once,
beside torch's scaled_dot_product_attention(enable_gqa=True) on the same
fp16 inputs and a device-to-device copy of the fp16 K and V (GB/s counting
bytes read plus written). Caches rotate through enough copies that no call
finds its keys in L2.

Prefill (4 x 32 heads x 4096 tokens, head 128 and 64, causal and not):
sdp_causal / sdp_non_causal in TFLOP/s beside torch's flash-attention backend.

Times are medians of CUDA-event intervals after warm-up; decode calls are
captured in a CUDA graph (one call per operand set) and timed as replays, as
engines run decode; the same calls launched back to back from Python are
recorded beside them (eager_us: the host's launch cost included). Rows go to
$VORTA_BENCH_RESULTS_DIR (else bench/results/) as attention-<gpu>-<date>.json;
a table is printed last.
"""
import datetime
import json
import math
import os
import re
import sys

import torch
import torch.nn.functional as F

import vorta_addons
from bench.runner import cuda_graph_median, cuda_median

L2_ROTATION_BYTES = 512 << 20  # operand sets cycled per measurement, well past any L2


def event_ms(fn):
    """Median milliseconds of fn() between two CUDA events (the benchmark runner's timer)."""
    return cuda_median(fn) * 1e3


def graph_ms(calls):
    """Per-call milliseconds of the given calls (each on its own operands) captured once in
    a CUDA graph and replayed: the host's launch overhead stays out of small decode calls."""
    return cuda_graph_median(calls) * 1e3


def eager_ms(calls):
    """Per-call milliseconds of the given calls launched back to back from the host."""
    return event_ms(lambda: [call() for call in calls]) / len(calls)


def operand_sets(make, nbytes):
    """Enough independent operand sets that cycling through them defeats L2."""
    return [make() for _ in range(max(1, math.ceil(L2_ROTATION_BYTES / nbytes)))]


def decode_operands(bsz, heads=32, kv_heads=8, kv_len=4096, d=128):
    """One fp16 query, and fp16 and 8-bit (key, value) caches in rotating sets; the fp16 bytes."""
    q = torch.randn(bsz, heads, 1, d, device="cuda", dtype=torch.float16)
    shape = (bsz, kv_heads, kv_len, d)
    kv_bytes = 2 * bsz * kv_heads * kv_len * d * 2
    half = operand_sets(lambda: [torch.randn(shape, device="cuda", dtype=torch.float16) for _ in range(2)],
                        kv_bytes)
    codes = operand_sets(lambda: [torch.randint(0, 256, shape, device="cuda", dtype=torch.uint8)
                                  for _ in range(2)], kv_bytes // 2)
    return q, half, codes, kv_bytes


def decode_rows(heads=32, kv_heads=8, kv_len=4096, d=128):
    for bsz in (1, 8, 64):
        q, half, codes, kv_bytes = decode_operands(bsz, heads, kv_heads, kv_len, d)
        copies = operand_sets(lambda: [torch.empty(kv_bytes, device="cuda", dtype=torch.uint8) for _ in range(2)],
                              2 * kv_bytes)
        scale = d ** -0.5
        calls = {
            "sdp": [lambda k=k, v=v: vorta_addons.sdp(q, k, v, None, scale) for k, v in half],
            "sdp_fp8": [lambda k=k, v=v: vorta_addons.sdp_fp8(q, k, v, None, scale) for k, v in codes],
            "sdpa": [lambda k=k, v=v: F.scaled_dot_product_attention(q, k, v, enable_gqa=True) for k, v in half],
            "copy": [lambda a=a, b=b: b.copy_(a) for a, b in copies],
        }
        t_sdp, t_fp8, t_sdpa, t_copy = (graph_ms(calls[n]) for n in ("sdp", "sdp_fp8", "sdpa", "copy"))
        eager = {n: 1e3 * eager_ms(c) for n, c in calls.items()}
        copy_gbs = 2 * kv_bytes / t_copy / 1e6
        yield {"op": "sdp (decode)", "shape": f"b{bsz} h{heads}/{kv_heads} L{kv_len} d{d}", "dtype": "fp16",
               "ours_us": 1e3 * t_sdp, "sdpa_us": 1e3 * t_sdpa, "copy_us": 1e3 * t_copy,
               "GB/s": kv_bytes / t_sdp / 1e6, "copy GB/s": copy_gbs,
               "of_copy": kv_bytes / t_sdp / 1e6 / copy_gbs, "vs_sdpa": t_sdpa / t_sdp,
               "eager_us": {n: eager[n] for n in ("sdp", "sdpa", "copy")}}
        yield {"op": "sdp_fp8 (decode)", "shape": f"b{bsz} h{heads}/{kv_heads} L{kv_len} d{d}", "dtype": "fp16/u8",
               "ours_us": 1e3 * t_fp8, "sdp_fp16_us": 1e3 * t_sdp,
               "GB/s": kv_bytes / 2 / t_fp8 / 1e6, "copy GB/s": copy_gbs,
               "of_copy": kv_bytes / 2 / t_fp8 / 1e6 / copy_gbs, "vs_sdp_fp16": t_sdp / t_fp8,
               "eager_us": {n: eager[n] for n in ("sdp_fp8", "sdp")}}
        del half, codes, copies
        torch.cuda.empty_cache()


def prefill_rows(bsz=4, heads=32, n=4096):
    from torch.nn.attention import SDPBackend, sdpa_kernel
    for d in (128, 64):
        q, k, v = (torch.randn(bsz, heads, n, d, device="cuda", dtype=torch.float16) for _ in range(3))
        scale = d ** -0.5
        for causal in (False, True):
            flops = 4.0 * bsz * heads * n * n * d * (0.5 if causal else 1.0)
            op = vorta_addons.sdp_causal if causal else vorta_addons.sdp_non_causal
            t_ours = event_ms(lambda: op(q, k, v, None, scale))

            def flash():
                with sdpa_kernel(SDPBackend.FLASH_ATTENTION):
                    return F.scaled_dot_product_attention(q, k, v, is_causal=causal, scale=scale)
            t_flash = event_ms(flash)
            yield {"op": "sdp_causal" if causal else "sdp_non_causal", "shape": f"{bsz}x{heads}x{n} d{d}",
                   "dtype": "fp16", "ours_us": 1e3 * t_ours, "flash_us": 1e3 * t_flash,
                   "TFLOP/s": flops / t_ours / 1e9, "flash TFLOP/s": flops / t_flash / 1e9,
                   "vs_flash": t_flash / t_ours}
    # float32 keeps float32 arithmetic (CUDA cores): for the record, beside torch's own.
    q, k, v = (torch.randn(1, 32, 2048, 128, device="cuda") for _ in range(3))
    flops = 4.0 * 32 * 2048 * 2048 * 128
    t_ours = event_ms(lambda: vorta_addons.sdp_non_causal(q, k, v, None, 128 ** -0.5))
    t_torch = event_ms(lambda: F.scaled_dot_product_attention(q, k, v))
    yield {"op": "sdp_non_causal", "shape": "1x32x2048 d128", "dtype": "fp32", "ours_us": 1e3 * t_ours,
           "sdpa_us": 1e3 * t_torch, "TFLOP/s": flops / t_ours / 1e9, "sdpa TFLOP/s": flops / t_torch / 1e9,
           "vs_sdpa": t_torch / t_ours}


def fmt(row):
    main = (f"{row['GB/s']:8.0f} GB/s ({100 * row['of_copy']:5.1f}% of copy)" if "GB/s" in row
            else f"{row['TFLOP/s']:8.1f} TFLOP/s")
    ratio = ", ".join(f"{k} {v:.2f}x" for k, v in row.items() if k.startswith("vs_"))
    eager = ("  eager: " + ", ".join(f"{n} {us:.1f} us" for n, us in row["eager_us"].items())
             if "eager_us" in row else "")
    return f"{row['op']:<18} {row['shape']:<24} {row['dtype']:<8} {row['ours_us']:10.1f} us {main}  {ratio}{eager}"


def main(argv):
    parts = argv or ["decode", "prefill"]
    gpu = torch.cuda.get_device_name()
    day = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d")
    folder = os.environ.get("VORTA_BENCH_RESULTS_DIR") or os.path.join(os.path.dirname(__file__), "results")
    os.makedirs(folder, exist_ok=True)
    path = os.path.join(folder, f"attention-{re.sub(r'[^a-z0-9]+', '-', gpu.lower()).strip('-')}-{day}.json")
    info = {"gpu": gpu, "torch": torch.__version__, "cuda": torch.version.cuda,
            "multiprocessors": torch.cuda.get_device_properties(0).multi_processor_count}
    rows = []
    for part in parts:
        for row in {"decode": decode_rows, "prefill": prefill_rows}[part]():
            rows.append(row)
            print(fmt(row), flush=True)
            with open(path, "w") as f:
                json.dump({"run": info, "rows": rows}, f, indent=1)
    print(f"wrote {len(rows)} rows to {path}")


if __name__ == "__main__":
    main(sys.argv[1:])
