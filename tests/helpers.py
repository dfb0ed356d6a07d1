"""Shared test helpers: fatal checks in a child interpreter, canaries, profiler counts."""
import os
import re
import signal
import subprocess
import sys
import textwrap
from concurrent.futures import ThreadPoolExecutor

import torch

_ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# The build the tests import: build/ unless VORTA_BUILD_DIR names another.
BUILD_DIR = os.path.join(_ROOT, os.environ.get("VORTA_BUILD_DIR", "build"))
# Operator groups with CUDA sources in this tree (a build with CUDA has kernels for each).
_CUDA_SRC = os.path.join(_ROOT, "csrc", "cuda")
CUDA_SOURCE_GROUPS = {
    d for d in (os.listdir(_CUDA_SRC) if os.path.isdir(_CUDA_SRC) else [])
    if d != "common" and os.path.isdir(os.path.join(_CUDA_SRC, d))
    and any(f.endswith(".cu") for f in os.listdir(os.path.join(_CUDA_SRC, d)))
}


def run_fatal(code):
    """(returncode, stderr) of `code` run after `import torch, vorta_addons` in a child interpreter."""
    prelude = "import torch\nimport vorta_addons\n"
    env = dict(os.environ)
    env["PYTHONPATH"] = os.pathsep.join(p for p in (BUILD_DIR, env.get("PYTHONPATH")) if p)
    proc = subprocess.run(
        [sys.executable, "-c", prelude + textwrap.dedent(code)],
        capture_output=True, text=True, env=env, timeout=120,
    )
    return proc.returncode, proc.stderr


def assert_fatal(code, expression, source):
    """The child must abort, reporting `expression` from `source` with a line number."""
    rc, err = run_fatal(code)
    assert rc == -signal.SIGABRT, f"expected an abort, got rc={rc}\n{err}"
    pattern = rf"{re.escape(source)}:(\d+): Assertion `{re.escape(expression)}' failed\."
    assert re.search(pattern, err), err
    return err


class FatalBatch:
    """assert_fatal of each (code, expression, source), all started at the first wait, two at a time."""
    _pool = ThreadPoolExecutor(2)

    def __init__(self, cases):
        self.cases, self.runs = list(cases), None

    def wait(self, index):
        if self.runs is None:
            self.runs = [self._pool.submit(assert_fatal, *case) for case in self.cases]
        self.runs[index].result()


def count_records(fn, *names):
    """Calls fn() under the profiler; returns how many records carry each name."""
    with torch.profiler.profile() as prof:
        fn()
    found = [e.name for e in prof.events()]
    return {n: found.count(n) for n in names}


class Canary:
    """A view into a larger buffer; `check()` asserts nothing outside the view changed."""

    def __init__(self, base, view):
        self.base, self.before = base, base.clone()
        index = torch.arange(base.numel(), device=base.device).as_strided(
            view.shape, view.stride(), view.storage_offset() - base.storage_offset())
        inside = torch.zeros(base.numel(), dtype=torch.bool, device=base.device)
        inside[index.flatten()] = True
        self.outside = ~inside.view(base.shape)

    def check(self):
        assert torch.equal(self.base[self.outside], self.before[self.outside]), \
            "memory outside the view was written"


def canary_view(shape, dtype, make_view, fill=-7.0, device="cpu"):
    """Builds a base tensor of `shape` filled with `fill`; returns (view, Canary)."""
    base = torch.full(shape, fill, dtype=dtype, device=device)
    view = make_view(base)
    return view, Canary(base, view)


def kv_round_trip(key, value, pad=0):
    """Codes of [b, h, s, d] key and value into windows of longer caches (rows from element `pad`), then,
    for equal head sizes, back into views of one [b, s, 2h, d + 16 + pad] buffer; nothing around any
    window may change. Returns the codes and, where decoded, the values."""
    import vorta_addons
    (bsz, heads, seq, key_dim), value_dim, device = key.shape, value.shape[3], key.device
    kbase, vbase = (torch.full((bsz, heads, seq + 9, d + pad), 0x5A, dtype=torch.uint8, device=device)
                    for d in (key_dim, value_dim))
    kq, vq = kbase[:, :, 4:4 + seq, pad:], vbase[:, :, 4:4 + seq, pad:]
    canaries = [Canary(kbase, kq), Canary(vbase, vq)]
    vorta_addons.quantize_key_value(key, value, kq, vq)
    out = [kq, vq]
    if key_dim == value_dim:
        cols = slice(8 + pad, 8 + pad + key_dim)
        obase = torch.full((bsz, seq, 2 * heads, key_dim + 16 + pad), -3.0, dtype=key.dtype, device=device)
        out += [obase[:, :, :heads, cols].transpose(1, 2), obase[:, :, heads:, cols].transpose(1, 2)]
        canaries.append(Canary(obase, obase[:, :, :, cols]))
        vorta_addons.dequantize_key_value(kq, vq, *out[2:])
    for c in canaries:
        c.check()
    return out


def every_operator_inputs(seed, device):
    """Inputs of one call of every operator outside attention, small, on `device`."""
    g = torch.Generator().manual_seed(seed)
    r = lambda *shape: torch.randn(*shape, generator=g).to(device)  # noqa: E731
    cos = r(8, 128)
    return {
        "x": r(8, 4096).half(), "w": r(4096).half(), "g": r(8, 1024), "u": r(8, 1024),
        "scores": r(2, 1000), "ids": torch.randint(0, 1000, (2, 50), generator=g).to(device),
        "attn": r(1, 4, 3, 300), "q": r(1, 32, 8, 128).half(), "k": r(1, 8, 8, 128).half(),
        "inv": (1.0 / 10000 ** (torch.arange(0, 128, 2) / 128)).half().to(device),
        "pos": torch.arange(8).view(1, 8).to(device), "cos": cos.half(), "sin": cos.half().flip(0),
        "kq": torch.empty(1, 8, 8, 128, dtype=torch.uint8, device=device),
        "vq": torch.empty(1, 8, 8, 128, dtype=torch.uint8, device=device),
        "logits": r(16, 256), "routing": r(16, 256).sigmoid(),
    }


def every_operator(t):
    """Calls every operator outside attention on every_operator_inputs; returns all results."""
    import vorta_addons as va
    out = [va.rms_norm(t["w"], t["x"], 1e-6), va.layer_norm(t["x"], t["w"], t["w"], 1e-5)]
    va.mlp_silu_mul_inplaced(t["g"], t["u"])
    va.repetition_penalty_logits_process_inplaced(t["scores"], t["ids"], 1.3)
    va.attn_softmax_inplaced(t["attn"])
    va.rotary_half_inplaced(t["inv"], t["pos"], t["q"], t["k"])
    va.rotary_two_with_cache_inplaced(t["q"], t["k"], t["cos"], t["sin"], False)
    va.quantize_key_value(t["k"], t["q"][:, :8], t["kq"], t["vq"])
    k, v = torch.empty_like(t["k"]), torch.empty_like(t["k"])
    va.dequantize_key_value(t["kq"], t["vq"], k, v)
    out += [k, v, *va.moe_softmax_topk(t["logits"], 8, True),
            *va.moe_group_topk(t["routing"], None, 8, 4, 0, 8, True, 1e-20, 2.5)]
    return out + [t[name] for name in ("g", "scores", "attn", "q", "k", "kq", "vq")]


def attention_reference(q, k, v, mask, scale, causal=False, softcap=None):
    """softmax(scale q.k^T (soft-capped) + mask) v in q's dtype; GQA by repeating heads, causal top-left."""
    group = q.shape[1] // k.shape[1]
    k, v = k.to(q.dtype).repeat_interleave(group, 1), v.to(q.dtype).repeat_interleave(group, 1)
    s = scale * (q @ k.transpose(-1, -2))
    if softcap:
        s = softcap * torch.tanh(s / softcap)
    if mask is not None:
        s = s + mask.to(s.dtype)
    if causal:
        lq, lk = s.shape[-2:]
        s = s.masked_fill(torch.ones(lq, lk, dtype=torch.bool, device=s.device).triu(1), float("-inf"))
    return torch.softmax(s, -1) @ v


def kv_code_values(codes, kind):
    """8-bit codes as float64: (-1)^s 2^(e - bias) (1 + m/8 + 1/16), e = bits 6..3, bias 9 / 12 (key / value)."""
    c = codes.to(torch.int64)
    sign = 1.0 - 2.0 * (c >> 7).double()
    return sign * torch.pow(2.0, ((c >> 3) & 15).double() - {"key": 9, "value": 12}[kind]) * (1.0625 + (c & 7).double() / 8)


def assert_as_accurate_as_torch(out, q, k, v, mask, scale, causal=False, softcap=None, kv_half=False):
    """Error against float64 at most twice plain torch's in q's dtype on out's device (float32: or
    within 1e-5 of the largest reference value); kv_half: computed from half copies of key and value."""
    q, k, v, mask = (None if t is None else t.to(out.device) for t in (q, k, v, mask))
    if kv_half:
        k, v = k.half(), v.half()
    ref = attention_reference(q.double(), k.double(), v.double(), mask, scale, causal, softcap)
    dt = q.dtype
    same = attention_reference(q, k.to(dt), v.to(dt), None if mask is None else mask.to(dt), scale, causal, softcap)
    err, torch_err = ((t.double() - ref).abs().max().item() for t in (out, same))
    bound = 1e-5 * max(1.0, ref.abs().max().item()) if dt == torch.float32 else 0.0
    assert err <= max(bound, 2 * torch_err), f"{out.device}: error {err:.3g}, torch {torch_err:.3g}"
    assert out.dtype == dt and out.shape == ref.shape, (out.dtype, out.shape)


def same_with_threads(fn, counts=(1, 2)):
    """fn() under each intra-op thread count must give the same tensor, bit for bit."""
    saved, results = torch.get_num_threads(), []
    try:
        for n in counts:
            torch.set_num_threads(n)
            results.append(fn())
    finally:
        torch.set_num_threads(saved)
    assert all(torch.equal(results[0], r) for r in results[1:])
