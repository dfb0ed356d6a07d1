"""mlp_silu_mul_inplaced against float64 and exact float32 references."""
import pytest
import torch

import vorta_addons
from helpers import assert_fatal

GROUP = "elementwise"
C = torch.tensor(-1.4426950216293335, dtype=torch.float32)  # bits 0xBFB8AA3B


@pytest.mark.parametrize("dtype", [torch.float32, torch.float16])
@pytest.mark.parametrize("shape", [(128,), (3, 7, 256), (1024, 1152)])
def test_matches_reference(dtype, shape, device):
    g, u = (torch.randn(shape) * 4).to(dtype), torch.randn(shape).to(dtype)
    # exact but for the exponent, which is the float32 product g * c
    ref = g.double() * u.double() / (1.0 + torch.exp2((g.float() * C).double()))
    g, u = g.to(device), u.to(device)
    u_before, ptr = u.clone(), g.data_ptr()
    vorta_addons.mlp_silu_mul_inplaced(g, u)
    assert torch.equal(u, u_before) and g.data_ptr() == ptr
    g = g.cpu()
    if dtype == torch.float32:
        torch.testing.assert_close(g.double(), ref, rtol=4e-7, atol=1e-30)
    else:  # float-accurate, rounded once: within one fp16 ulp
        assert ((g.double() - ref).abs() <= ref.abs().clamp_min(6.1e-5) * 2.0 ** -10).all()


def test_formula_order_is_product_then_division(device):
    # Where fl(g * c) is an integer t, 2^t is exact for any exp2; the result
    # must then be fl(fl(g * u) / fl(2^t + 1)) bit for bit.
    cand = (torch.arange(-20, 21, dtype=torch.float32) / C).repeat(64)
    cand = cand + torch.randn(cand.shape) * 1e-6
    g = cand[(cand * C) == (cand * C).round()]
    g = g[: g.numel() // 128 * 128].contiguous()
    assert g.numel() >= 128
    # Arguments past either end of exp2's range in some vectors, not in their
    # neighbours: 2^t is then exactly 0 or inf.
    g[5::40], g[21::56] = 200.0, -100.0
    u, d = torch.randn(g.shape) * 3, torch.exp2(g * C) + 1.0
    expected = (g * u) / d
    assert not torch.equal(expected, g * (u / d))
    g = g.to(device)
    vorta_addons.mlp_silu_mul_inplaced(g, u.to(device))
    assert torch.equal(g.cpu(), expected)


@pytest.mark.parametrize("dtype", [torch.float32, torch.float16])
def test_saturation(dtype, device):
    g = torch.tensor([-200.0, -200.0, 100.0, 60.0] * 32).to(dtype).to(device)
    u = torch.tensor([3.0, -3.0, 0.5, -2.0] * 32).to(dtype).to(device)
    vorta_addons.mlp_silu_mul_inplaced(g, u)
    g = g.cpu()
    # 2^(g*c) = +inf gives the signed zero of g*u; 2^(g*c) ~ 0 gives g*u
    assert (g[0::4] == 0).all() and torch.signbit(g[0::4]).all()
    assert (g[1::4] == 0).all() and not torch.signbit(g[1::4]).any()
    assert (g[2::4] == 50.0).all() and (g[3::4] == -120.0).all()


def test_bfloat16_is_refused():
    x = torch.ones(128, dtype=torch.bfloat16)
    with pytest.raises(RuntimeError, match="unsupported dtype, only fp32 and fp16 are supported"):
        vorta_addons.mlp_silu_mul_inplaced(x, x.clone())


@pytest.mark.parametrize("gate,up,expression", [
    ("torch.ones(200)", "torch.ones(200)", "nelem % BS == 0"),
    ("torch.ones(128)", "torch.ones(256)[::2]", "gate.is_contiguous() && up.is_contiguous()"),
    ("torch.ones(128)", "torch.ones(128).half()", "gate.scalar_type() == up.scalar_type()"),
])
def test_fatal_checks(gate, up, expression):
    assert_fatal(f"vorta_addons.mlp_silu_mul_inplaced({gate}, {up})", expression, "mlp")
