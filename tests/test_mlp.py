"""mlp_silu_mul_inplaced against float64 and exact float32 references."""
import pytest
import torch

import vorta_addons
from helpers import assert_fatal, count_records

C = torch.tensor(-1.4426950216293335, dtype=torch.float32)  # bits 0xBFB8AA3B


def ref_silu_mul(g, u):
    # The exponent is the float32 product g * c; the rest exact.
    t = (g.float() * C).double()
    return g.double() * u.double() / (1.0 + torch.exp2(t))


@pytest.mark.parametrize("dtype", [torch.float32, torch.float16])
@pytest.mark.parametrize("shape", [(128,), (3, 7, 256), (1024, 1152)])
def test_matches_reference(dtype, shape):
    g = (torch.randn(shape) * 4).to(dtype)
    u = torch.randn(shape).to(dtype)
    ref = ref_silu_mul(g, u)
    u_before, ptr = u.clone(), g.data_ptr()
    vorta_addons.mlp_silu_mul_inplaced(g, u)
    assert torch.equal(u, u_before) and g.data_ptr() == ptr
    if dtype == torch.float32:
        torch.testing.assert_close(g.double(), ref, rtol=4e-7, atol=1e-30)
    else:
        # float-accurate value rounded once: within one half-precision ulp
        ulp = ref.abs().clamp_min(6.1e-5) * 2.0 ** -10
        assert ((g.double() - ref).abs() <= ulp).all()


def test_formula_order_is_product_then_division():
    # Where fl(g * c) is an integer t, 2^t is exact for any exp2; the result
    # must then be fl(fl(g * u) / fl(2^t + 1)) bit for bit.
    cand = (torch.arange(-20, 21, dtype=torch.float32) / C).repeat(64)
    cand = cand + torch.randn(cand.shape) * 1e-6
    t = cand * C
    g = cand[(t == t.round()) & (t.abs() < 30)][:1024]
    assert g.numel() > 128
    g = g[: g.numel() // 128 * 128].contiguous()
    u = torch.randn(g.shape) * 3
    t = g * C
    expected = (g * u) / (torch.exp2(t) + 1.0)
    assert not torch.equal(expected, g * (u / (torch.exp2(t) + 1.0)))
    vorta_addons.mlp_silu_mul_inplaced(g, u)
    assert torch.equal(g, expected)


@pytest.mark.parametrize("dtype", [torch.float32, torch.float16])
def test_saturation(dtype):
    g = torch.tensor([-200.0, -200.0, 100.0, 60.0] * 32).to(dtype)
    u = torch.tensor([3.0, -3.0, 0.5, -2.0] * 32).to(dtype)
    vorta_addons.mlp_silu_mul_inplaced(g, u)
    assert not g.isnan().any()
    # 2^(g*c) = +inf: signed zero of g*u
    assert (g[0::4] == 0).all() and torch.signbit(g[0::4]).all()
    assert (g[1::4] == 0).all() and not torch.signbit(g[1::4]).any()
    assert (g[2::4] == 50.0).all() and (g[3::4] == -120.0).all()


def test_other_dtypes_are_rejected():
    x = torch.ones(128, dtype=torch.bfloat16)
    with pytest.raises(RuntimeError, match="unsupported dtype, only fp32 and fp16 are supported"):
        vorta_addons.mlp_silu_mul_inplaced(x, x.clone())


def test_one_record_per_call():
    g, u = torch.randn(4, 256), torch.randn(4, 256)
    counts = count_records(lambda: vorta_addons.mlp_silu_mul_inplaced(g, u), "mlp silu_mul")
    assert counts == {"mlp silu_mul": 1}


@pytest.mark.parametrize("code,expression", [
    ("vorta_addons.mlp_silu_mul_inplaced(torch.ones(200), torch.ones(200))", "nelem % BS == 0"),
    ("vorta_addons.mlp_silu_mul_inplaced(torch.ones(128), torch.ones(256)[::2])",
     "gate.is_contiguous() && up.is_contiguous()"),
    ("vorta_addons.mlp_silu_mul_inplaced(torch.ones(128), torch.ones(256))", "gate.numel() == up.numel()"),
    ("vorta_addons.mlp_silu_mul_inplaced(torch.ones(128), torch.ones(128).half())",
     "gate.scalar_type() == up.scalar_type()"),
])
def test_fatal_checks(code, expression):
    assert_fatal(code, expression, "mlp")
