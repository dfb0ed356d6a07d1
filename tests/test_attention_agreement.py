"""Decode and prefill attention on the CUDA backend beside the CPU backend, each as accurate as
PyTorch's own attention in the query's dtype, at the kernels' edges (key lengths around tile and
split sizes, GQA groups, broadcast masks, fused-projection views, 8-bit caches, both prefill paths).
VORTA_AGREEMENT_DEVICE=cpu runs it CPU beside CPU, checking the test itself without a GPU."""
import math

import pytest
import torch

import vorta_addons
from helpers import assert_as_accurate_as_torch, count_records, kv_code_values
from test_cuda_agreement import OTHER, needs

KESTREL, LARK, OTHER_FAMILY = 0, 5, 7
F32, F16, U8 = torch.float32, torch.float16, torch.uint8


def assert_both_accurate(outs, q, k, v, mask, scale, causal=False, softcap=None, kv_half=False):
    """Each of outs (one per device) as accurate as torch on its device; 8-bit caches as their values."""
    k, v = (kv_code_values(t, kind) if t.dtype == U8 else t for t, kind in ((k, "key"), (v, "value")))
    for out in outs:
        assert_as_accurate_as_torch(out, q, k, v, mask, scale, causal, softcap, kv_half)


def on_both(run):
    """run(device) on the CPU and on the other device."""
    return run("cpu"), run(OTHER)


KERNELS = ("mha kernel", "mha fp8 kernel", "mha unbalanced fp8 kernel", "gqa kernel 1/2", "gqa kernel 2/2",
           "sdp vec kernel", "sdp sysa kernel")


def launched_on_both(op, views, scale, expect):
    """op(*views, scale) on both devices, each call launching the kernels in `expect` once."""
    def run(device):
        out, args = [], views.on(device)
        counts = count_records(lambda: out.append(op(*args, scale)), *KERNELS)
        assert counts == {n: int(n in expect) for n in KERNELS}
        return out[0]
    return on_both(run)


class Views:
    """CPU tensors moved to a device whole and cut into views there: Tensor.to would make a
    non-dense view contiguous, and every device must see the same strides."""

    def __init__(self):
        self.bases, self.cuts = [], []

    def add(self, base, cut=lambda t: t):
        self.bases.append(base)
        self.cuts.append(cut)

    def on(self, device):
        return [None if b is None else c(b.to(device)) for b, c in zip(self.bases, self.cuts)]


def fused(views, b, h_q, h_kv, n, d, dtype, gen, q_len=None):
    """q, k, v as views of one fused [b, n, h_q + 2 h_kv, d] projection; q keeps the last q_len tokens."""
    q_len = q_len or n
    base = torch.randn(b, n, h_q + 2 * h_kv, d, generator=gen).to(dtype)
    views.add(base, lambda t: t[:, n - q_len:, :h_q].transpose(1, 2))
    views.add(base, lambda t: t[:, :, h_q:h_q + h_kv].transpose(1, 2))
    views.add(base, lambda t: t[:, :, h_q + h_kv:].transpose(1, 2))


def cache(views, b, h, n, d, dtype, gen, room=0):
    """A cache view [b, h, n, d] into one with `room` more positions (rows packed per head)."""
    if dtype == U8:
        full = torch.randint(0, 256, (b, h, n + room, d), generator=gen, dtype=U8)
    else:
        full = torch.randn(b, h, n + room, d, generator=gen).to(dtype)
    views.add(full, lambda t: t[:, :, :n])


def mask_like(shape, dtype, gen):
    """Additive mask, about 20% at -10000; key 0 always visible (no row all at -10000 + score)."""
    m = torch.where(torch.rand(shape, generator=gen) < 0.2, torch.tensor(-10000.0),
                    torch.randn(shape, generator=gen) * 2)
    m[..., 0] = 0.0
    return m.to(dtype)


# --- decode ---------------------------------------------------------------------

# dtype, cache dtype, bsz, heads, kv_heads, q_len, kv_len, head_dim, value_dim, mask, family
DECODE = [
    (F16, F16, 1, 8, 8, 1, 1, 64, 64, None, OTHER_FAMILY),
    (F16, F16, 2, 8, 2, 1, 31, 128, 128, "head", OTHER_FAMILY),
    (F32, F32, 1, 8, 1, 1, 32, 80, 80, "bcast", OTHER_FAMILY),
    (F16, F16, 3, 4, 1, 2, 33, 96, 96, "head", OTHER_FAMILY),
    (F32, F32, 2, 4, 4, 3, 127, 192, 192, None, OTHER_FAMILY),
    (F16, F16, 1, 16, 2, 1, 128, 256, 256, "bcast", OTHER_FAMILY),
    (F32, F32, 1, 32, 8, 1, 129, 128, 128, "head", OTHER_FAMILY),
    (F16, F16, 1, 32, 8, 1, 4097, 128, 128, "head", OTHER_FAMILY),
    (F16, F16, 2, 16, 2, 1, 2053, 64, 64, None, KESTREL),  # grouped pair
    (F32, F32, 1, 12, 4, 1, 600, 80, 80, "head", KESTREL),
    (F16, U8, 1, 32, 8, 1, 4097, 128, 128, "head", OTHER_FAMILY),
    (F32, U8, 2, 8, 1, 1, 129, 64, 64, "bcast", OTHER_FAMILY),
    (F16, U8, 1, 8, 8, 4, 33, 96, 96, "head", OTHER_FAMILY),
    (F32, U8, 1, 16, 4, 1, 1000, 256, 256, None, KESTREL),  # grouped pair, fixed scale
    (F16, U8, 1, 8, 2, 1, 127, 192, 128, "head", OTHER_FAMILY),  # unbalanced
    (F32, U8, 1, 8, 2, 1, 2048, 192, 128, None, KESTREL),  # unbalanced stays single-pass
    (F16, U8, 2, 12, 4, 1, 512, 192, 192, "bcast", KESTREL),
]


@pytest.mark.parametrize("dtype,cdtype,bsz,heads,kv_heads,q_len,kv_len,d,dv,mask,fam", DECODE)
def test_decode(family, dtype, cdtype, bsz, heads, kv_heads, q_len, kv_len, d, dv, mask, fam):
    needs("decode")
    family(fam)
    gen = torch.Generator().manual_seed(kv_len * 7 + d)
    views = Views()
    views.add(torch.randn(bsz, q_len, heads, d, generator=gen).to(dtype), lambda t: t.transpose(1, 2))
    cache(views, bsz, kv_heads, kv_len, d, cdtype, gen, room=5)
    cache(views, bsz, kv_heads, kv_len, dv, cdtype, gen, room=3)
    if mask == "bcast":  # one row for every batch and head, read through zero strides
        views.add(mask_like((1, 1, q_len, kv_len), dtype, gen), lambda t: t.expand(bsz, heads, q_len, kv_len))
    else:
        views.add(mask_like((bsz, heads, q_len, kv_len), dtype, gen) if mask else None)
    q, k, v, m = views.on("cpu")
    fp8 = cdtype == U8
    op = vorta_addons.sdp_fp8 if fp8 else vorta_addons.sdp
    grouped = (q_len == 1 and heads // kv_heads >= 3 and kv_len >= 512 and (kv_len >= 2048 or fam == KESTREL)
               and not (fp8 and d != dv))
    # sdp scales by 1/sqrt(head_dim); sdp_fp8 by the caller's scale, except on the grouped pair.
    scale = 1 / math.sqrt(d) if not fp8 or grouped else 0.05
    expect = (("gqa kernel 1/2", "gqa kernel 2/2") if grouped else
              ("mha unbalanced fp8 kernel" if d != dv else "mha fp8 kernel" if fp8 else "mha kernel",))
    assert_both_accurate(launched_on_both(op, views, 0.05, expect), q, k, v, m, scale)


@pytest.mark.skipif(OTHER == "cpu", reason="the CPU backend divides 0 by 0 here")
def test_decode_without_keys_gives_zero_rows():
    needs("decode")
    q = torch.randn(1, 4, 1, 64).half().to(OTHER)
    k = torch.empty(1, 2, 0, 64, dtype=F16, device=OTHER)
    assert torch.equal(vorta_addons.sdp(q, k, k, None, 1.0).cpu(), torch.zeros(1, 4, 1, 64, dtype=F16))


@pytest.mark.parametrize("dtype", [F32, F16])
def test_decode_reads_every_code_exactly(dtype):
    """Token j sees key j alone: its result is value row j exactly, on both devices."""
    needs("decode")
    k = torch.arange(256, dtype=torch.int32).to(U8).view(1, 1, 256, 1).expand(1, 1, 256, 128).contiguous()
    v = k.bitwise_xor(0x5A)
    q = torch.full((1, 1, 256, 128), 1 / 128).to(dtype)
    pick = torch.full((1, 1, 256, 256), -10000.0)
    pick[0, 0, torch.arange(256), torch.arange(256)] = 0.0
    pick = pick.to(dtype)
    for out in on_both(lambda dev: vorta_addons.sdp_fp8(q.to(dev), k.to(dev), v.to(dev), pick.to(dev), 0.1)):
        assert torch.equal(out[0, 0].cpu(), kv_code_values(v[0, 0], "value").to(dtype))


# --- prefill --------------------------------------------------------------------

# dtype, cache dtype, bsz, heads, kv_heads, q_len, kv_len, head_dim, causal, mask, family
PREFILL = [
    (F16, F16, 1, 2, 2, 1, 1, 64, True, None, OTHER_FAMILY),
    (F16, F16, 2, 4, 1, 31, 31, 128, True, None, OTHER_FAMILY),
    (F32, F32, 1, 8, 1, 32, 32, 64, True, "bcast", OTHER_FAMILY),
    (F16, F16, 1, 8, 2, 33, 33, 80, True, "head", OTHER_FAMILY),
    (F32, F32, 2, 4, 4, 127, 127, 96, False, "bcast", OTHER_FAMILY),
    (F16, F16, 1, 4, 1, 128, 128, 192, True, None, OTHER_FAMILY),
    (F16, F16, 1, 2, 2, 129, 129, 256, True, "head", OTHER_FAMILY),
    (F32, F32, 1, 2, 1, 129, 129, 256, True, None, OTHER_FAMILY),
    (F16, F16, 1, 2, 2, 300, 300, 128, True, "bcast", OTHER_FAMILY),  # query blocks of 128
    (F16, F16, 1, 8, 1, 7, 1000, 64, False, "head", OTHER_FAMILY),
    (F16, F16, 2, 4, 2, 257, 257, 64, False, None, OTHER_FAMILY),
    (F32, F32, 1, 4, 1, 83, 200, 192, False, "head", OTHER_FAMILY),
    (F16, U8, 1, 4, 2, 129, 129, 128, True, "bcast", OTHER_FAMILY),
    (F32, U8, 1, 8, 8, 33, 33, 80, True, None, OTHER_FAMILY),
    (F16, U8, 2, 4, 1, 5, 127, 256, False, "head", OTHER_FAMILY),
    (F16, U8, 1, 8, 2, 40, 70, 192, False, "head", OTHER_FAMILY),
    # The matrix-engine path (half copies of key and value).
    (F32, F32, 1, 4, 1, 129, 129, 128, True, "bcast", KESTREL),
    (F16, F16, 2, 4, 2, 65, 65, 64, True, None, LARK),
    (F32, F32, 1, 4, 4, 9, 300, 80, False, "head", KESTREL),
    (F32, U8, 1, 2, 1, 33, 33, 64, True, None, KESTREL),
    (F16, U8, 1, 2, 1, 7, 100, 128, False, "bcast", LARK),
]


def prefill_mask(views, kind, bsz, heads, q_len, kv_len, dtype, gen):
    """Adds a mask padded to a multiple of 128 keys (7.0, never read), per head or broadcast; returns
    the mask the reference applies."""
    if kind is None:
        views.add(None)
        return None
    width = (kv_len + 127) // 128 * 128
    m = torch.full((bsz, heads if kind == "head" else 1, q_len, width), 7.0)
    m[..., :kv_len] = mask_like((bsz, m.shape[1], q_len, kv_len), F32, gen)
    m = m.to(dtype)
    views.add(m)
    return m[..., :kv_len].expand(bsz, heads, q_len, kv_len)


@pytest.mark.parametrize("dtype,cdtype,bsz,heads,kv_heads,q_len,kv_len,d,causal,mask,fam", PREFILL)
def test_prefill(family, dtype, cdtype, bsz, heads, kv_heads, q_len, kv_len, d, causal, mask, fam):
    needs("prefill")
    family(fam)
    gen = torch.Generator().manual_seed(kv_len + d + causal)
    views = Views()
    if cdtype == U8:
        views.add(torch.randn(bsz, q_len, heads, d, generator=gen).to(dtype), lambda t: t.transpose(1, 2))
        cache(views, bsz, kv_heads, kv_len, d, U8, gen, room=3)
        cache(views, bsz, kv_heads, kv_len, d, U8, gen)
    else:
        fused(views, bsz, heads, kv_heads, kv_len, d, dtype, gen, q_len)
    effective = prefill_mask(views, mask, bsz, heads, q_len, kv_len, dtype, gen)
    q, k, v, _ = views.on("cpu")
    fp8 = cdtype == U8
    op = {(False, False): vorta_addons.sdp_non_causal, (False, True): vorta_addons.sdp_causal,
          (True, False): vorta_addons.sdp_fp8_non_causal, (True, True): vorta_addons.sdp_fp8_causal}[fp8, causal]
    matrix = fam in (KESTREL, LARK) and d in (64, 80, 128)
    outs = launched_on_both(op, views, 0.125, ("sdp sysa kernel" if matrix else "sdp vec kernel",))
    assert_both_accurate(outs, q, k, v, effective, 0.125, causal, kv_half=matrix and dtype == F32)


@pytest.mark.parametrize("causal", [False, True])
@pytest.mark.parametrize("dtype", [F32, F16])
@pytest.mark.parametrize("d,lk,group", [(128, 70, 2), (256, 33, 1), (64, 129, 4)])
def test_gemma2_soft_capping(causal, dtype, d, lk, group):
    needs("prefill")
    gen = torch.Generator().manual_seed(d)
    views = Views()
    q_len = lk if causal else 11
    fused(views, 2, 2 * group, 2, lk, d, dtype, gen, q_len)
    effective = prefill_mask(views, "bcast", 2, 2 * group, q_len, lk, dtype, gen)
    q, k, v, _ = views.on("cpu")
    op = vorta_addons.gemma2_sdp_causal if causal else vorta_addons.gemma2_sdp
    outs = on_both(lambda dev: op(*views.on(dev), 20.0, 0.4))
    assert_both_accurate(outs, q, k, v, effective, 0.4, causal, softcap=20.0)


@pytest.mark.parametrize("dtype", [F32, F16])
def test_siglip(family, dtype):
    needs("prefill")
    family(KESTREL)
    gen = torch.Generator().manual_seed(72)
    q, k, v = (torch.randn(2, 3, n, 72, generator=gen).to(dtype) for n in (50, 70, 70))
    m = torch.randn(2, 1, 50, 70, generator=gen).to(dtype)
    outs = on_both(lambda dev: vorta_addons.siglip_sdp_non_causal(q.to(dev), k.to(dev), v.to(dev), m.to(dev)))
    for out in outs:
        assert out.shape == (2, 3, 50, 72) and out.stride() == (3 * 256 * 80, 256 * 80, 80, 1)
    assert_both_accurate(outs, q, k, v, m, 1 / math.sqrt(72), kv_half=True)


def test_prefill_reads_misaligned_views():
    """Rows off the 16-byte grid take the kernels' element-wise copies."""
    needs("prefill")
    gen = torch.Generator().manual_seed(3)
    views = Views()
    for i in range(3):
        views.add(torch.randn(2 * 40 * 64 + 1, generator=gen).half(), lambda t: t[1:].view(1, 2, 40, 64))
    q, k, v = views.on("cpu")
    outs = on_both(lambda dev: vorta_addons.sdp_causal(*views.on(dev), None, 0.125))
    assert_both_accurate(outs, q, k, v, None, 0.125, True)
