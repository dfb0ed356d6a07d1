"""rms_norm and layer_norm against float64 references."""
import pytest
import torch

import vorta_addons
from helpers import assert_fatal, same_with_threads

GROUP = "norm"
HIDDEN = [32, 1056, 4096, 8192]
DTYPES = [torch.float32, torch.float16]


def ref_rms(weight, x, eps):
    x64 = x.double()
    return x64 * torch.rsqrt(x64.pow(2).mean(-1, keepdim=True) + eps) * weight.double()


def ref_layer(x, weight, bias, eps):
    x64 = x.double()
    m = x64.mean(-1, keepdim=True)
    y = (x64 - m) * torch.rsqrt((x64 - m).pow(2).mean(-1, keepdim=True) + eps)
    if weight is not None:
        y = y * weight.double()
    if bias is not None:
        y = y + bias.double()
    return y


def assert_rounded_close(out, ref):
    """Within a couple of float32 rounding steps of the exact result, then one rounding to the dtype."""
    if out.dtype == torch.float32:
        torch.testing.assert_close(out.double(), ref, rtol=4e-6, atol=1e-6)
    else:
        # One final rounding to fp16 of a float32-accurate value: at most one fp16 ulp off.
        exact = ref.to(out.dtype).double()
        ulp = (exact.abs().clamp_min(6.1e-5) * 2.0 ** -10)
        assert ((out.double() - ref).abs() <= ulp).all()


def inputs(rows, hidden, dtype, device, seed=0):
    g = torch.Generator().manual_seed(seed)
    x = (torch.randn(rows, hidden, generator=g) * 3 + 0.5).to(dtype).to(device)
    w = (torch.rand(hidden, generator=g) + 0.5).to(dtype).to(device)
    b = torch.randn(hidden, generator=g).to(dtype).to(device)
    return x, w, b


@pytest.mark.parametrize("hidden", HIDDEN)
@pytest.mark.parametrize("dtype", DTYPES)
def test_rms_norm(hidden, dtype, device):
    x, w, _ = inputs(7, hidden, dtype, device)
    x_before = x.clone()
    out = vorta_addons.rms_norm(w, x, 1e-6)
    assert out.shape == x.shape and out.dtype == dtype and out.is_contiguous()
    assert torch.equal(x, x_before)
    assert_rounded_close(out.cpu(), ref_rms(w.cpu(), x.cpu(), 1e-6))


@pytest.mark.parametrize("hidden", HIDDEN)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("affine", ["none", "weight", "bias", "both"])
def test_layer_norm(hidden, dtype, affine, device):
    x, w, b = inputs(5, hidden, dtype, device, seed=hidden)
    w = w if affine in ("weight", "both") else None
    b = b if affine in ("bias", "both") else None
    out = vorta_addons.layer_norm(x, w, b, 1e-5)
    ref = ref_layer(x.cpu(), None if w is None else w.cpu(), None if b is None else b.cpu(), 1e-5)
    if dtype == torch.float32:
        # The mean is subtracted before rounding: allow for the cancellation near zero outputs.
        torch.testing.assert_close(out.cpu().double(), ref, rtol=4e-6, atol=4e-6)
    else:
        assert_rounded_close(out.cpu(), ref)


@pytest.mark.parametrize("rows,hidden", [(0, 64), (5, 0)])
def test_empty_rows_give_empty_results(rows, hidden, device):
    x, w, b = inputs(rows, hidden, torch.float32, device)
    for out in (vorta_addons.rms_norm(w, x, 1e-6), vorta_addons.layer_norm(x, w, b, 1e-5)):
        assert out.shape == (rows, hidden) and out.device == x.device


def test_large_offsets_use_two_pass_variance():
    # E[x^2] - m^2 would lose everything here; (x - m)^2 keeps it.
    x = (torch.randn(3, 1024, dtype=torch.float64) + 1e4).float()
    out = vorta_addons.layer_norm(x, None, None, 1e-6)
    torch.testing.assert_close(out.double(), ref_layer(x, None, None, 1e-6), rtol=1e-3, atol=1e-3)


@pytest.mark.parametrize("op", ["rms", "layer"])
@pytest.mark.parametrize("dtype", DTYPES)
def test_results_do_not_depend_on_thread_count(op, dtype):
    x, w, b = inputs(64, 4096, dtype, "cpu", seed=3)
    run = (lambda: vorta_addons.rms_norm(w, x, 1e-6)) if op == "rms" else \
          (lambda: vorta_addons.layer_norm(x, w, b, 1e-6))
    same_with_threads(run)


@pytest.mark.parametrize("op", ["rms", "layer"])
@pytest.mark.parametrize("dtype", DTYPES)
def test_outputs_past_the_caches_match_cached_ones(op, dtype):
    # 12 MiB of output is written past the caches; 64-row slices are not.
    rows = (12 << 20) // (4096 * torch.tensor([], dtype=dtype).element_size())
    x, w, b = inputs(rows, 4096, dtype, "cpu", seed=4)
    run = (lambda t: vorta_addons.rms_norm(w, t, 1e-6)) if op == "rms" else \
          (lambda t: vorta_addons.layer_norm(t, w, b, 1e-6))
    assert torch.equal(run(x), torch.cat([run(x[i:i + 64]) for i in range(0, rows, 64)]))


def test_sum_order_is_the_fixed_lane_fold():
    # With 1056 columns lane 0 owns blocks 0-1, lanes 1..31 one block each. Emulate
    # the lane partials and the halving fold exactly in float32 and compare bits.
    x = torch.randn(16, 1056, generator=torch.Generator().manual_seed(5)) * 10
    w = torch.ones(1056)

    def fold(v):
        v = v.clone()
        for width in (16, 8, 4, 2, 1):
            v[..., :width] = v[..., :width] + v[..., width:2 * width]
        return v[..., 0]

    sq = (x * x).view(16, 33, 32)
    lanes = torch.zeros(16, 32, 32)
    lanes[:, 0] = sq[:, 0] + sq[:, 1]
    lanes[:, 1:] = sq[:, 2:]
    # Divide by a full tensor: torch turns division by a scalar into a reciprocal multiply.
    partial = fold(lanes) / torch.full((16, 32), 1056.0)
    # Correctly rounded sqrt and reciprocal (via float64: no double-rounding issue at 24 bits).
    root = (fold(partial) + 1e-6).double().sqrt().float()
    s = (1.0 / root.double()).float()
    expected = (x * s[:, None]) * w
    assert torch.equal(vorta_addons.rms_norm(w, x, 1e-6), expected)


@pytest.mark.parametrize("dtype", [torch.bfloat16, torch.float64, torch.int32])
def test_other_dtypes_are_rejected(dtype):
    x, w = torch.ones(2, 64, dtype=dtype), torch.ones(64, dtype=dtype)
    msg = "unsupported dtype, only fp32 and fp16 are supported"
    with pytest.raises(RuntimeError, match=msg):
        vorta_addons.rms_norm(w, x, 1e-6)
    with pytest.raises(RuntimeError, match=msg):
        vorta_addons.layer_norm(x, w, w, 1e-6)


@pytest.mark.parametrize("code,expression", [
    ("vorta_addons.rms_norm(torch.ones(2, 32), torch.ones(32), 1e-6)", "input.dim() == 2"),
    ("vorta_addons.rms_norm(torch.ones(1, 32), torch.ones(2, 32), 1e-6)", "weight.dim() == 1"),
    ("vorta_addons.rms_norm(torch.ones(64), torch.ones(2, 32), 1e-6)", "weight.size(0) == input.size(1)"),
    ("vorta_addons.rms_norm(torch.ones(32).half(), torch.ones(2, 32), 1e-6)",
     "input.scalar_type() == weight.scalar_type()"),
    ("vorta_addons.rms_norm(torch.ones(100), torch.ones(2, 100), 1e-6)", "hidden_size % 32 == 0"),
    ("vorta_addons.rms_norm(torch.ones(8224), torch.ones(2, 8224), 1e-6)", "hidden_size <= 8 * 1024"),
    ("vorta_addons.layer_norm(torch.ones(2, 32, 1), None, None, 1e-6)", "input.dim() == 2"),
    ("vorta_addons.layer_norm(torch.ones(2, 32), torch.ones(31), None, 1e-6)",
     "!weight || (weight->numel() == hidden_size && weight->scalar_type() == input.scalar_type() "
     "&& weight->is_contiguous())"),
    ("vorta_addons.layer_norm(torch.ones(2, 32), None, torch.ones(64)[::2], 1e-6)",
     "!bias || (bias->numel() == hidden_size && bias->scalar_type() == input.scalar_type() "
     "&& bias->is_contiguous())"),
    ("vorta_addons.layer_norm(torch.ones(2, 8224), None, None, 1e-6)", "hidden_size <= 8 * 1024"),
])
def test_fatal_checks(code, expression):
    assert_fatal(code, expression, "norm")
