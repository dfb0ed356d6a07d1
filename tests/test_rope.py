"""Rotary embedding, both kinds, against plain torch; exact references use torch's 16-bit arithmetic,
which rounds each product and the difference (checked against a float64 emulation below)."""
import pytest
import torch

import vorta_addons
from helpers import Canary, assert_fatal

GROUP = "rotary"
HALF_DIMS = [256, 128, 96, 80, 64, 40, 32, 20, 16]
TWO_DIMS = [128, 96, 64]
BSZ, SEQ, HEADS, KV_HEADS = 3, 7, 4, 2


def rotate(x, c, s, every_two, rotary_dim):
    """x rotated over its first rotary_dim elements; c, s broadcast over pairs."""
    half, out = rotary_dim // 2, x.clone()
    i, j = (slice(0, 2 * half, 2), slice(1, 2 * half, 2)) if every_two else (slice(0, half), slice(half, 2 * half))
    out[..., i], out[..., j] = x[..., i] * c - x[..., j] * s, x[..., j] * c + x[..., i] * s
    return out


def qk_views(head_dim, dtype, seed, bsz=BSZ, seq=SEQ, heads=HEADS, kv_heads=KV_HEADS, device="cpu"):
    """query/key as [bsz, heads, seq, head_dim] windows (odd offset, padded rows) of projections, with canaries."""
    g = torch.Generator().manual_seed(seed)
    views = []
    for h in (heads, kv_heads):
        base = torch.randn(bsz, seq, h + 1, head_dim + 8, generator=g).to(dtype).to(device)
        view = base[:, :, 1:, 3:3 + head_dim].transpose(1, 2)
        views += [view, Canary(base, view)]
    return views


def test_reference_rounds_each_product_and_difference():
    g = torch.Generator().manual_seed(0)
    a, b, c, d = (torch.randn(4, 100000, generator=g) * 8).half()
    exact = lambda x, y: (x.double() * y.double()).half().double()  # products are exact in float64
    assert torch.equal(a * b - c * d, (exact(a, b) - exact(c, d)).half())
    assert not torch.equal(a * b - c * d, (a.double() * b.double() - c.double() * d.double()).half())


def inv_freq_angles(inv_freq, position_ids):
    """float64 cos/sin of the float32 angles, [rows, 1, seq, head_dim/2]."""
    angle = position_ids.float()[..., None] * inv_freq.float()
    return angle.double().cos()[:, None], angle.double().sin()[:, None]


def check_inv_freq_result(out, x, c64, s64, every_two):
    head_dim = x.shape[-1]
    if x.dtype == torch.float32:
        torch.testing.assert_close(out.double(), rotate(x.double(), c64, s64, every_two, head_dim),
                                   rtol=1e-5, atol=1e-5)
        return
    # fp16: exact emulation, except where cos/sin sit so close to an fp16
    # rounding boundary that float32 sin/cos may fall on either side.
    stable = lambda v: (v * (1 + 1e-6)).half() == (v * (1 - 1e-6)).half()  # float32 sin/cos err is relative
    safe = stable(c64) & stable(s64)
    safe = (safe.repeat_interleave(2, -1) if every_two else safe.repeat(1, 1, 1, 2)).expand_as(x)
    assert safe.float().mean() > 0.95
    assert torch.equal(out[safe], rotate(x, c64.half(), s64.half(), every_two, head_dim)[safe])
    assert ((out.double() - rotate(x.double(), c64, s64, every_two, head_dim)).abs()[~safe] <= 1e-2).all()


@pytest.mark.parametrize("every_two,head_dim", [(False, d) for d in HALF_DIMS] + [(True, d) for d in TWO_DIMS])
@pytest.mark.parametrize("dtype", [torch.float32, torch.float16])
def test_inv_freq_rotation(every_two, head_dim, dtype, device):
    q, qc, k, kc = qk_views(head_dim, dtype, seed=head_dim, device=device)
    inv_freq = (1.0 / 10000 ** (torch.arange(0, head_dim, 2) / head_dim)).to(dtype)
    # One position row shared by the batch for some sizes; per-row, with row stride SEQ + 5, for others.
    positions = torch.randint(0, 1 << 17, (1, SEQ)) if head_dim in (20, 128) else \
        torch.randint(0, 1 << 17, (BSZ, SEQ + 5))[:, 2:2 + SEQ]
    positions[0, 0] = 0
    q0, k0 = q.cpu().clone(), k.cpu().clone()
    op = vorta_addons.rotary_two_inplaced if every_two else vorta_addons.rotary_half_inplaced
    op(inv_freq.to(device), positions.to(device), q, k)
    qc.check(), kc.check()
    q, k = q.cpu(), k.cpu()
    c64, s64 = inv_freq_angles(inv_freq, positions)
    check_inv_freq_result(q, q0, c64, s64, every_two)
    check_inv_freq_result(k, k0, c64, s64, every_two)
    assert torch.equal(q[0, :, 0], q0[0, :, 0])  # position 0: cos 1, sin 0


def test_many_batch_entries_and_huge_angles_as_on_the_cpu(device):
    """70000 entries (past one launch dimension) and angles past 2^31 quarter turns rotate as on the CPU."""
    if device == "cpu":
        pytest.skip("compares another device with the CPU")
    g = torch.Generator().manual_seed(3)
    q, k = torch.randn(70000, 2, 1, 64, generator=g), torch.randn(70000, 1, 1, 64, generator=g)
    positions = torch.randint(0, 1 << 40, (70000, 1), generator=g)
    inv_freq = 1.0 / 10000 ** (torch.arange(0, 64, 2) / 64)
    results = []
    for dev in ("cpu", device):
        qd, kd = q.to(dev), k.to(dev)
        vorta_addons.rotary_half_inplaced(inv_freq.to(dev), positions.to(dev), qd, kd)
        results.append((qd.cpu(), kd.cpu()))
    assert torch.equal(results[0][0], results[1][0]) and torch.equal(results[0][1], results[1][1])


CACHE_KINDS = ["half", "two_half_layout", "two_interleaved"]


def cache_tables(rotary_dim, kind, dtype, g):
    """cos/sin [SEQ, rotary_dim], 3.0 where the kind must not read, and the factors it must use."""
    half = rotary_dim // 2
    angle = torch.rand(SEQ, half, generator=g, dtype=torch.float64) * 100
    c, s = angle.cos().to(dtype), angle.sin().to(dtype)
    cos, sin = torch.full((SEQ, rotary_dim), 3.0, dtype=dtype), torch.full((SEQ, rotary_dim), 3.0, dtype=dtype)
    used = slice(0, 2 * half, 2) if kind == "two_interleaved" else slice(0, half)
    cos[:, used], sin[:, used] = c, s
    return cos, sin, c, s


@pytest.mark.parametrize("rotary_dim", [64, 32, 22, 37, 2])
@pytest.mark.parametrize("kind", CACHE_KINDS)
@pytest.mark.parametrize("dtype", [torch.float32, torch.float16, torch.bfloat16])
def test_cache_rotation_is_exact(rotary_dim, kind, dtype, device):
    g = torch.Generator().manual_seed(rotary_dim)
    q, qc, k, kc = qk_views(64, dtype, seed=rotary_dim, bsz=2, device=device)
    cos, sin, c, s = cache_tables(rotary_dim, kind, dtype, g)
    every_two = kind != "half"
    q_ref, k_ref = (rotate(t.cpu(), c, s, every_two, rotary_dim) for t in (q, k))
    cos, sin = cos.to(device), sin.to(device)
    if every_two:
        vorta_addons.rotary_two_with_cache_inplaced(q, k, cos, sin, kind == "two_half_layout")
    else:
        vorta_addons.rotary_half_with_cache_inplaced(q, k, cos, sin)
    qc.check(), kc.check()
    assert torch.equal(q.cpu(), q_ref)
    assert torch.equal(k.cpu(), k_ref)


@pytest.mark.parametrize("call,message", [
    ("rotary_half_inplaced(f(24), p, x(48), x(48))",
     "unsupported head_dim, only 256, 128, 96, 80, 64, 40, 32, 20 and 16 are supported"),
    ("rotary_half_inplaced(f(24).bfloat16(), p, x(48).bfloat16(), x(48).bfloat16())",
     "unsupported head_dim, only 256, 128, 96, 80, 64, 40, 32, 20 and 16 are supported"),
    ("rotary_two_inplaced(f(8), p, x(16), x(16))", "unsupported head_dim, only 128, 96 and 64 are supported"),
    ("rotary_two_inplaced(f(10), p, x(20), x(20))", "unsupported head_dim, only 128, 96 and 64 are supported"),
    ("rotary_two_inplaced(f(20), p, x(40), x(40))", "unsupported head_dim, only 128, 96 and 64 are supported"),
    ("rotary_half_inplaced(f(32).bfloat16(), p, x(64).bfloat16(), x(64).bfloat16())",
     "unsupported dtype, only fp32 and fp16 are supported"),
    ("rotary_two_inplaced(f(32).bfloat16(), p, x(64).bfloat16(), x(64).bfloat16())",
     "unsupported dtype, only fp32 and fp16 are supported"),
    ("rotary_half_inplaced(f(32), p.int(), x(64), x(64))", "Long"),
    ("rotary_half_with_cache_inplaced(x(64).long(), x(64).long(), c.long(), c.long())",
     "unsupported dtype, only fp32, fp16 and bf16 are supported"),
    ("rotary_two_with_cache_inplaced(x(64), x(64), torch.ones(3, 66), torch.ones(3, 66), True)",
     "rotated width"),
])
def test_rejects(call, message):
    f, p, c = (lambda n: torch.ones(n)), torch.zeros(1, 3, dtype=torch.long), torch.ones(3, 64)
    x = lambda d: torch.ones(1, 2, 3, d)
    with pytest.raises(RuntimeError, match=message):
        eval("vorta_addons." + call, {"vorta_addons": vorta_addons, "torch": torch, "f": f, "p": p, "x": x, "c": c})


ARGS = "torch.zeros(1, 3, dtype=torch.long), torch.ones(1, 2, 3, {d}), torch.ones(1, 1, 3, {d})"


@pytest.mark.parametrize("code,expression", [
    (f"vorta_addons.rotary_half_inplaced(torch.ones(32).half(), {ARGS.format(d=64)})",
     "inv_freq.scalar_type() == query.scalar_type() && inv_freq.scalar_type() == key.scalar_type()"),
    (f"vorta_addons.rotary_half_inplaced(torch.ones(64)[::2], {ARGS.format(d=64)})", "inv_freq.is_contiguous()"),
    # The size check comes before the head size is looked at.
    (f"vorta_addons.rotary_half_inplaced(torch.ones(25), {ARGS.format(d=48)})", "inv_freq.numel() == head_dim / 2"),
    ("vorta_addons.rotary_half_with_cache_inplaced(torch.ones(1, 2, 3, 64), torch.ones(1, 1, 3, 64), "
     "torch.ones(3, 128)[:, ::2], torch.ones(3, 64))", "cos.is_contiguous()"),
    ("vorta_addons.rotary_two_with_cache_inplaced(torch.ones(1, 2, 3, 64).bfloat16(), torch.ones(1, 1, 3, 64).bfloat16(), "
     "torch.ones(3, 64).half(), torch.ones(3, 64).half(), False)", "cos.scalar_type() == query.scalar_type()"),
])
def test_fatal_checks(code, expression):
    assert_fatal(code, expression, "rope")
