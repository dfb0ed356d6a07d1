"""quantize_key_value / dequantize_key_value against codes defined by value: code k (sign apart) is
[2^(e - bias) (1 + m/8), next code), e = k >> 3, m = k & 7; it decodes to the interval's midpoint."""
import pytest
import torch

import vorta_addons
from helpers import Canary, assert_fatal, kv_round_trip

GROUP = "kv_cache"
BIAS = {"key": 9, "value": 12}
DTYPES = [torch.float32, torch.float16]


def code_grid(code, offset):
    k = torch.arange(128, dtype=torch.float64)
    return torch.exp2(torch.div(k, 8, rounding_mode="floor") - BIAS[code]) * (1 + (k % 8) / 8 + offset)


def ref_encode(x, code):
    x16 = x.to(torch.float16)  # torch's own round-to-nearest-even
    k = torch.searchsorted(code_grid(code, 0.0), x16.double().abs().flatten(), right=True) - 1
    return (k.clamp(0, 127).view(x.shape) + 128 * torch.signbit(x16).long()).to(torch.uint8)


def ref_decode(b, code):
    mid = code_grid(code, 1 / 16)[b.long() & 0x7F]
    return torch.where(b.long() >= 128, -mid, mid)


def quantize(key, value, device="cpu"):
    """The codes of CPU tensors key and value, converted on `device`."""
    key, value = key.to(device), value.to(device)
    kq = torch.empty(key.shape, dtype=torch.uint8, device=device)
    vq = torch.empty(value.shape, dtype=torch.uint8, device=device)
    vorta_addons.quantize_key_value(key, value, kq, vq)
    return kq.cpu(), vq.cpu()


def dequantize(kq, vq, dtype, device="cpu"):
    kq, vq = kq.to(device), vq.to(device)
    k, v = torch.empty(kq.shape, dtype=dtype, device=device), torch.empty(vq.shape, dtype=dtype, device=device)
    vorta_addons.dequantize_key_value(kq, vq, k, v)
    return k.cpu(), v.cpu()


def test_encode_every_fp16_pattern(device):
    x = torch.arange(-32768, 32768, dtype=torch.int32).to(torch.int16).view(torch.float16).view(1, 4, 128, 128)
    kq, vq = quantize(x, x.flip(-1), device)
    ok = ~torch.isnan(x)  # NaN codes are not defined
    assert torch.equal(kq[ok], ref_encode(x, "key")[ok])
    assert torch.equal(vq.flip(-1)[ok], ref_encode(x, "value")[ok])


def test_encode_fp32_rounds_to_fp16_first(device):
    # Midpoints between neighbouring fp16 values (ties go to the even pattern)
    # and their float32 neighbours; truncating float32 directly gets many wrong.
    h = torch.arange(0, 0x7BFF, dtype=torch.int32).to(torch.int16).view(torch.float16).double()
    mid = ((h[:-1] + h[1:]) / 2).float()
    vals = torch.cat([mid, torch.nextafter(mid, torch.tensor(0.0)), torch.nextafter(mid, torch.tensor(1e9)),
                      torch.tensor([65504.0, 65520.0, 1e30, 1e-30, 0.0, float("inf")])])
    vals = torch.cat([vals, -vals])
    vals = torch.cat([vals, torch.zeros(-vals.numel() % 128)]).view(1, 1, -1, 128)
    kq, vq = quantize(vals, vals, device)
    assert torch.equal(kq, ref_encode(vals, "key"))
    assert torch.equal(vq, ref_encode(vals, "value"))


@pytest.mark.parametrize("dtype", DTYPES)
def test_decode_every_byte(dtype, device):
    b = torch.arange(256, dtype=torch.uint8).view(1, 1, 2, 128)
    k, v = dequantize(b, b.flip(-2), dtype, device)
    assert torch.equal(k.double(), ref_decode(b, "key"))
    assert torch.equal(v.double(), ref_decode(b.flip(-2), "value"))


def test_documented_values(device):
    # Also pins the reference: 1.0 is 0x48 as a key but 0x60 as a value.
    x = torch.tensor([0.0, -0.0, 1000.0, -20.0, 1.0, 1.0625, 1.12] + [0.0] * 57).view(1, 1, 1, 64)
    kq, vq = quantize(x, x, device)
    assert kq[0, 0, 0, :7].tolist() == [0x00, 0x80, 0x7F, 0xEA, 0x48, 0x48, 0x48]
    assert vq[0, 0, 0, :4].tolist() == [0x00, 0x80, 0x7F, 0xFF] and vq[0, 0, 0, 4] == 0x60
    k, v = dequantize(kq, vq, torch.float32, device)
    assert k[0, 0, 0, :5].tolist() == [0.0020751953125, -0.0020751953125, 124.0, -21.0, 1.0625]
    assert v[0, 0, 0, :4].tolist() == [0.0002593994140625, -0.0002593994140625, 15.5, -15.5]


@pytest.mark.parametrize("key_dim,value_dim", [(64, 64), (80, 80), (96, 96), (128, 128), (192, 192), (192, 128)])
@pytest.mark.parametrize("dtype", DTYPES)
def test_round_trip_on_strided_caches(key_dim, value_dim, dtype, device):
    # [b, s, h, d] projections seen as [b, h, s, d]
    g = torch.Generator().manual_seed(key_dim + value_dim)
    key = (torch.randn(2, 5, 3, key_dim, generator=g) * 20).to(dtype).to(device).transpose(1, 2)
    value = (torch.randn(2, 5, 3, value_dim, generator=g) * 2).to(dtype).to(device).transpose(1, 2)
    out = [t.cpu() for t in kv_round_trip(key, value)]
    assert torch.equal(out[0], ref_encode(key.cpu(), "key")) and torch.equal(out[1], ref_encode(value.cpu(), "value"))
    if key_dim == value_dim:
        assert torch.equal(out[2].double(), ref_decode(out[0], "key"))
        assert torch.equal(out[3].double(), ref_decode(out[1], "value"))


@pytest.mark.parametrize("shape", [(70000, 1, 1, 64), (1, 70000, 1, 64)])
def test_more_than_65535_entries_or_heads(shape, device):
    """A paged cache or a step's new tokens can hold many entries in a dimension of the launch."""
    x = torch.randn(shape, generator=torch.Generator().manual_seed(5))
    kq, vq = quantize(x, -x, device)
    assert torch.equal(kq, ref_encode(x, "key")) and torch.equal(vq, ref_encode(-x, "value"))
    k, _ = dequantize(kq, vq, torch.float32, device)
    assert torch.equal(k.double(), ref_decode(kq, "key"))


def test_nan_keeps_its_sign_from_fp32_as_from_fp16(device):
    x = torch.tensor([float("nan"), -float("nan")]).view(1, 1, 1, 2).repeat(1, 1, 1, 32)
    assert torch.equal(torch.cat(quantize(x, x, device)), torch.cat(quantize(x.half(), x.half(), device)))


@pytest.mark.parametrize("shift", [0, 1])
def test_large_quantize_into_a_cache_window(shift, device):
    # More codes than the caches keep (stores past the caches where the rows
    # start on 8 bytes; shift 1 puts every row off that).
    g = torch.Generator().manual_seed(11 + shift)
    heads, seq, dim, cap = 8, 4500, 128, 4600
    key = (torch.randn(1, heads, seq, dim, generator=g) * 20).half()
    value = (torch.randn(1, heads, seq, dim, generator=g) * 2).half()
    key[0, 3, 7, :4] = torch.tensor([float("inf"), -float("inf"), -0.0, 1e-7])
    key, value = key.to(device), value.to(device)
    n = heads * cap * dim
    kflat = torch.full((n + 1,), 0x5A, dtype=torch.uint8, device=device)
    vflat = torch.full((n + 1,), 0x5A, dtype=torch.uint8, device=device)
    kbase, vbase = (f[shift:shift + n].view(1, heads, cap, dim) for f in (kflat, vflat))
    kq, vq = kbase[:, :, 50:50 + seq], vbase[:, :, 50:50 + seq]
    canaries = [Canary(kflat, kq), Canary(vflat, vq)]
    vorta_addons.quantize_key_value(key, value, kq, vq)
    assert torch.equal(kq.cpu(), ref_encode(key.cpu(), "key"))
    assert torch.equal(vq.cpu(), ref_encode(value.cpu(), "value"))
    for c in canaries:
        c.check()


@pytest.mark.parametrize("op,key_dim,value_dim,dtype,message", [
    ("q", 192, 64, torch.float16, "unsupported value head_dim, only 128 are supported"),
    ("q", 256, 128, torch.float16, "unsupported key head_dim, only 192 are supported"),
    ("q", 256, 64, torch.float16, "unsupported key head_dim, only 192 are supported"),
    ("q", 192, 128, torch.bfloat16, "unsupported dtype, only fp32 and fp16 are supported"),
    ("q", 100, 100, torch.bfloat16, "unsupported head_dim, only 192, 128, 96, 80 and 64 are supported"),
    ("q", 128, 128, torch.float64, "unsupported dtype, only fp32 and fp16 are supported"),
    ("d", 100, 100, torch.bfloat16, "unsupported head_dim, only 192, 128, 96, 80 and 64 are supported"),
    ("d", 64, 64, torch.bfloat16, "unsupported dtype, only fp32 and fp16 are supported"),
    ("d", 64, 64, torch.int8, "Byte"),  # int8 codes: torch's own dtype check
])
def test_rejects(op, key_dim, value_dim, dtype, message):
    key, value = torch.zeros(1, 1, 2, key_dim, dtype=dtype), torch.zeros(1, 1, 2, value_dim, dtype=dtype)
    with pytest.raises(RuntimeError, match=message):
        if op == "q":
            quantize(key, value)
        elif dtype == torch.int8:
            vorta_addons.dequantize_key_value(key, value, key.half(), value.half())
        else:
            dequantize(key.byte(), value.byte(), dtype)


@pytest.mark.parametrize("code,expression", [
    ("vorta_addons.quantize_key_value(torch.ones(1, 1, 2, 64), torch.ones(1, 1, 2, 64).half(), "
     "torch.zeros(1, 1, 2, 64, dtype=torch.uint8), torch.zeros(1, 1, 2, 64, dtype=torch.uint8))",
     "key.scalar_type() == value.scalar_type()"),
    ("vorta_addons.quantize_key_value(torch.ones(1, 2, 2, 64), torch.ones(1, 2, 2, 64), "
     "torch.zeros(1, 2, 2, 64, dtype=torch.uint8), torch.zeros(1, 3, 2, 64, dtype=torch.uint8))",
     "value.size(1) == num_heads && key_output.size(1) == num_heads && value_output.size(1) == num_heads"),
    ("vorta_addons.dequantize_key_value(torch.zeros(1, 1, 2, 64, dtype=torch.uint8), "
     "torch.zeros(1, 1, 2, 64, dtype=torch.uint8), torch.ones(1, 1, 2, 64), torch.ones(1, 1, 2, 64).half())",
     "key_output.scalar_type() == value_output.scalar_type()"),
    ("vorta_addons.dequantize_key_value(torch.zeros(1, 1, 2, 192, dtype=torch.uint8), "
     "torch.zeros(1, 1, 2, 128, dtype=torch.uint8), torch.ones(1, 1, 2, 192), torch.ones(1, 1, 2, 128))",
     "value.size(3) == head_dim && key_output.size(3) == head_dim && value_output.size(3) == head_dim"),
])
def test_fatal_checks(code, expression):
    assert_fatal(code, expression, "kv")
