"""Where the time of attention calls goes on a CUDA GPU: python -m bench.cuda_profile [NAME ...]

For the decode shapes of bench.cuda_attention (fp16 and 8-bit caches, and torch's SDPA beside
them, batch 1, 8 and 64) and its prefill shapes (4 x 32 heads x 4096 tokens, head 128 and 64,
causal and not), torch's profiler records a few calls: each kernel's device time and launches
per call, printed under the wall time of one call between CUDA events. What the kernels'
times do not add up to is launch gaps; a kernel that should not be there shows by name.
NAMEs (for example "sdp b1") keep only the cases whose names start with one of them, which
is what `ncu` wants around a single call.

--split-sweep instead times decode (CUDA-graph replays, caches rotated past L2) under
several settings of how finely the keys are split (vorta_addons._testing.cuda_decode_split:
query rows x splits wanted, fewest 32-key blocks per split), the default marked.
"""
import sys

import torch
import torch.nn.functional as F
from torch.profiler import ProfilerActivity, profile

import vorta_addons
from bench.cuda_attention import decode_operands, event_ms, graph_ms

SPLITS = [(2048, 4), (1024, 4), (4096, 4), (8192, 4), (2048, 2), (4096, 2), (4096, 1), (8192, 1)]


def decode_cases(heads=32, kv_heads=8, kv_len=4096, d=128):
    for bsz in (1, 8, 64):
        q, half, codes, _ = decode_operands(bsz, heads, kv_heads, kv_len, d)
        (k, v), (k8, v8) = half[0], codes[0]  # one call needs one operand set
        scale = d ** -0.5
        yield f"sdp b{bsz}", lambda: vorta_addons.sdp(q, k, v, None, scale)
        yield f"sdp_fp8 b{bsz}", lambda: vorta_addons.sdp_fp8(q, k8, v8, None, scale)
        yield f"sdpa b{bsz}", lambda: F.scaled_dot_product_attention(q, k, v, enable_gqa=True)


def prefill_cases(bsz=4, heads=32, n=4096):
    for d in (128, 64):
        q, k, v = (torch.randn(bsz, heads, n, d, device="cuda", dtype=torch.float16) for _ in range(3))
        for causal in (False, True):
            op = vorta_addons.sdp_causal if causal else vorta_addons.sdp_non_causal
            yield f"{op.__name__} d{d}", lambda op=op, q=q, k=k, v=v, d=d: op(q, k, v, None, d ** -0.5)


def device_us(event) -> float:
    return getattr(event, "device_time_total", None) or getattr(event, "cuda_time_total", 0.0)


def kernel_table(fn, calls):
    """(name, device us per call, launches per call) of each kernel of fn, longest first."""
    with profile(activities=[ProfilerActivity.CUDA]) as prof:
        for _ in range(calls):
            fn()
        torch.cuda.synchronize()
    rows = [(e.key, device_us(e) / calls, e.count / calls) for e in prof.key_averages() if device_us(e) > 0]
    return sorted(rows, key=lambda r: -r[1])


def split_sweep(heads=32, kv_heads=8, kv_len=4096, d=128):
    print(f"decode us per call ({heads}/{kv_heads} heads of {d}, {kv_len} keys); columns: row splits x fewest blocks")
    print(f"{'':<14}" + "".join(f"{f'{r}x{b}' + ('*' if i == 0 else ''):>11}" for i, (r, b) in enumerate(SPLITS)))
    for bsz in (1, 8, 64):
        q, half, codes, _ = decode_operands(bsz, heads, kv_heads, kv_len, d)
        for name, op, sets in (("sdp", vorta_addons.sdp, half), ("sdp_fp8", vorta_addons.sdp_fp8, codes)):
            times = []
            for rows, blocks in SPLITS:
                vorta_addons._testing.cuda_decode_split(rows, blocks)
                times.append(1e3 * graph_ms([lambda k=k, v=v: op(q, k, v, None, 1.0) for k, v in sets]))
            vorta_addons._testing.cuda_decode_split(0, 0)
            print(f"{f'{name} b{bsz}':<14}" + "".join(f"{t:11.1f}" for t in times))
            sys.stdout.flush()
        del half, codes
        torch.cuda.empty_cache()


def main(argv):
    if argv[:1] == ["--split-sweep"]:
        return split_sweep()
    for cases, calls in ((decode_cases, 50), (prefill_cases, 5)):
        for name, fn in cases():
            if argv and not any(name.startswith(a) for a in argv):
                continue
            for _ in range(3):
                fn()
            wall = 1e3 * event_ms(fn)
            rows = kernel_table(fn, calls)
            print(f"{name}: {wall:.1f} us per call between events, kernels {sum(r[1] for r in rows):.1f} us")
            for kernel, us, n in rows:
                print(f"    {us:9.1f} us  x{n:g}  {kernel[:110]}")
            sys.stdout.flush()


if __name__ == "__main__":
    main(sys.argv[1:])
