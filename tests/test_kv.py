"""quantize_key_value / dequantize_key_value against the codes defined by value.

The reference never touches bit patterns: a code byte k (sign apart) stands for
the interval [2^(e - bias) * (1 + m/8), next code) with e = k >> 3, m = k & 7;
encoding finds the interval of the fp16 magnitude (clamped to codes 0..127),
decoding returns the interval's midpoint 2^(e - bias) * (1 + m/8 + 1/16).
"""
import pytest
import torch

import vorta_addons
from helpers import Canary, assert_fatal, count_records

BIAS = {"key": 9, "value": 12}
HEAD_DIMS = [64, 80, 96, 128, 192]
DTYPES = [torch.float32, torch.float16]


def code_grid(bias, offset):
    k = torch.arange(128, dtype=torch.float64)
    e, m = torch.div(k, 8, rounding_mode="floor"), k % 8
    return torch.exp2(e - bias) * (1 + m / 8 + offset)


def ref_encode(x, code):
    """Bytes for x (fp16, or fp32 rounded to fp16 by torch first)."""
    x16 = x.to(torch.float16)
    lower = code_grid(BIAS[code], 0.0)
    mag = x16.double().abs().flatten()
    k = (torch.searchsorted(lower, mag, right=True) - 1).clamp(0, 127).view(x.shape)
    return (k + 128 * torch.signbit(x16).long()).to(torch.uint8)


def ref_decode(b, code):
    mid = code_grid(BIAS[code], 1 / 16)[(b.long() & 0x7F)]
    return torch.where(b.long() >= 128, -mid, mid)


def quantize(key, value):
    kq = torch.empty(key.shape, dtype=torch.uint8)
    vq = torch.empty(value.shape, dtype=torch.uint8)
    vorta_addons.quantize_key_value(key, value, kq, vq)
    return kq, vq


def dequantize(kq, vq, dtype):
    k, v = torch.empty(kq.shape, dtype=dtype), torch.empty(vq.shape, dtype=dtype)
    vorta_addons.dequantize_key_value(kq, vq, k, v)
    return k, v


def all_fp16_patterns():
    x = torch.arange(-32768, 32768, dtype=torch.int32).to(torch.int16).view(torch.float16)
    return x.view(1, 4, 128, 128)


def test_encode_every_fp16_pattern():
    x = all_fp16_patterns()
    kq, vq = quantize(x, x.flip(-1))
    ok = ~torch.isnan(x)  # NaN codes are not defined
    assert torch.equal(kq[ok], ref_encode(x, "key")[ok])
    ok = ~torch.isnan(x.flip(-1))
    assert torch.equal(vq[ok], ref_encode(x.flip(-1), "value")[ok])


def test_encode_fp32_rounds_to_fp16_first():
    # Midpoints between neighbouring fp16 values (ties go to the even pattern)
    # and their fp32 neighbours: truncating fp32 directly gets many codes wrong.
    h = torch.arange(0, 0x7BFF, dtype=torch.int32).to(torch.int16).view(torch.float16).double()
    mid = ((h[:-1] + h[1:]) / 2).float()
    vals = torch.cat([mid, torch.nextafter(mid, torch.tensor(0.0)), torch.nextafter(mid, torch.tensor(1e9)),
                      torch.tensor([65504.0, 65520.0, 1e30, 1e-30, 0.0, float("inf")])])
    vals = torch.cat([vals, -vals])
    vals = torch.cat([vals, torch.zeros(-vals.numel() % 128)]).view(1, 1, -1, 128)
    kq, vq = quantize(vals, vals)
    assert torch.equal(kq, ref_encode(vals, "key"))
    assert torch.equal(vq, ref_encode(vals, "value"))


@pytest.mark.parametrize("dtype", DTYPES)
def test_decode_every_byte(dtype):
    b = torch.arange(256, dtype=torch.uint8).view(1, 1, 2, 128)
    k, v = dequantize(b, b.flip(-2), dtype)
    assert torch.equal(k.double(), ref_decode(b, "key"))
    assert torch.equal(v.double(), ref_decode(b.flip(-2), "value"))


@pytest.mark.parametrize("code,x,byte,decoded", [
    ("key", 0.0, 0x00, 0.0020751953125),
    ("key", -0.0, 0x80, -0.0020751953125),
    ("value", 0.0, 0x00, 0.0002593994140625),
    ("key", 1000.0, 0x7F, 124.0),
    ("value", -20.0, 0xFF, -15.5),
    ("key", 1.0, 0x48, 1.0625),
    ("value", 1.0, 0x60, 1.0625),
    ("key", 1.0625, 0x48, 1.0625),
    ("key", 1.12, 0x48, 1.0625),
])
def test_documented_values(code, x, byte, decoded):
    t = torch.full((1, 1, 1, 64), x)
    kq, vq = quantize(t, t)
    q = kq if code == "key" else vq
    assert (q == byte).all()
    k, v = dequantize(kq, vq, torch.float32)
    assert ((k if code == "key" else v) == decoded).all()


@pytest.mark.parametrize("head_dim", HEAD_DIMS)
@pytest.mark.parametrize("dtype", DTYPES)
def test_round_trip_on_strided_caches(head_dim, dtype):
    # Inputs are [b, s, h, d] projections seen as [b, h, s, d]; outputs are a
    # window of a preallocated cache; nothing around either window changes.
    g = torch.Generator().manual_seed(head_dim)
    bsz, heads, seq = 2, 3, 5
    key = (torch.randn(bsz, seq, heads, head_dim, generator=g) * 20).to(dtype).transpose(1, 2)
    value = (torch.randn(bsz, seq, heads, head_dim, generator=g) * 2).to(dtype).transpose(1, 2)
    kbase = torch.full((bsz, heads, 11, head_dim), 0x5A, dtype=torch.uint8)
    vbase = kbase.clone()
    kq, vq = kbase[:, :, 4:4 + seq], vbase[:, :, 4:4 + seq]
    kc, vc = Canary(kbase, kq), Canary(vbase, vq)
    vorta_addons.quantize_key_value(key, value, kq, vq)
    kc.check(), vc.check()
    assert torch.equal(kq, ref_encode(key, "key"))
    assert torch.equal(vq, ref_encode(value, "value"))

    obase = torch.full((bsz, seq, 2 * heads, head_dim + 16), -3.0, dtype=dtype)
    kout = obase[:, :, :heads, 8:8 + head_dim].transpose(1, 2)
    vout = obase[:, :, heads:, 8:8 + head_dim].transpose(1, 2)
    before = obase.clone()
    vorta_addons.dequantize_key_value(kq, vq, kout, vout)
    assert torch.equal(obase[..., :8], before[..., :8]) and torch.equal(obase[..., -8:], before[..., -8:])
    assert torch.equal(kout.double(), ref_decode(kq, "key"))
    assert torch.equal(vout.double(), ref_decode(vq, "value"))


@pytest.mark.parametrize("dtype", DTYPES)
def test_unbalanced_key_192_value_128(dtype):
    key = (torch.randn(1, 2, 3, 192) * 30).to(dtype)
    value = (torch.randn(1, 2, 3, 128) * 3).to(dtype)
    kq, vq = quantize(key, value)
    assert torch.equal(kq, ref_encode(key, "key"))
    assert torch.equal(vq, ref_encode(value, "value"))


@pytest.mark.parametrize("key_dim,value_dim,dtype,message", [
    (192, 64, torch.float16, "unsupported value head_dim, only 128 are supported"),
    (256, 128, torch.float16, "unsupported key head_dim, only 192 are supported"),
    (256, 64, torch.float16, "unsupported key head_dim, only 192 are supported"),
    (192, 128, torch.bfloat16, "unsupported dtype, only fp32 and fp16 are supported"),
    (100, 100, torch.bfloat16, "unsupported head_dim, only 192, 128, 96, 80 and 64 are supported"),
    (128, 128, torch.float64, "unsupported dtype, only fp32 and fp16 are supported"),
])
def test_quantize_rejects(key_dim, value_dim, dtype, message):
    key, value = torch.ones(1, 1, 2, key_dim, dtype=dtype), torch.ones(1, 1, 2, value_dim, dtype=dtype)
    with pytest.raises(RuntimeError, match=message):
        quantize(key, value)


def test_dequantize_rejects():
    b = torch.zeros(1, 1, 2, 100, dtype=torch.uint8)
    with pytest.raises(RuntimeError, match="unsupported head_dim, only 192, 128, 96, 80 and 64 are supported"):
        dequantize(b, b, torch.bfloat16)
    b = torch.zeros(1, 1, 2, 64, dtype=torch.uint8)
    with pytest.raises(RuntimeError, match="unsupported dtype, only fp32 and fp16 are supported"):
        dequantize(b, b, torch.bfloat16)
    with pytest.raises(RuntimeError, match="Byte"):
        dequantize(b.to(torch.int8), b.to(torch.int8), torch.float16)


def test_one_record_per_call():
    x = torch.randn(1, 2, 3, 64)
    kq, vq = quantize(x, x)
    out = torch.empty_like(x), torch.empty_like(x)
    assert count_records(lambda: vorta_addons.quantize_key_value(x, x, kq, vq),
                         "quantize kv cache") == {"quantize kv cache": 1}
    assert count_records(lambda: vorta_addons.dequantize_key_value(kq, vq, *out),
                         "dequantize kv cache") == {"dequantize kv cache": 1}


U8 = "torch.zeros({}, dtype=torch.uint8)"


@pytest.mark.parametrize("code,expression", [
    ("vorta_addons.quantize_key_value(torch.ones(1, 1, 2, 64), torch.ones(1, 1, 2, 64).half(), "
     f"{U8.format('1, 1, 2, 64')}, {U8.format('1, 1, 2, 64')})",
     "key.scalar_type() == value.scalar_type()"),
    ("vorta_addons.quantize_key_value(torch.ones(1, 2, 2, 64), torch.ones(1, 2, 2, 64), "
     f"{U8.format('1, 2, 2, 64')}, {U8.format('1, 3, 2, 64')})",
     "value.size(1) == num_heads && key_output.size(1) == num_heads && value_output.size(1) == num_heads"),
    ("vorta_addons.dequantize_key_value("
     f"{U8.format('1, 1, 2, 64')}, {U8.format('1, 1, 2, 64')}, torch.ones(1, 1, 2, 64), torch.ones(1, 1, 2, 64).half())",
     "key_output.scalar_type() == value_output.scalar_type()"),
    ("vorta_addons.dequantize_key_value("
     f"{U8.format('1, 1, 2, 192')}, {U8.format('1, 1, 2, 128')}, torch.ones(1, 1, 2, 192), torch.ones(1, 1, 2, 128))",
     "value.size(3) == head_dim && key_output.size(3) == head_dim && value_output.size(3) == head_dim"),
])
def test_fatal_checks(code, expression):
    assert_fatal(code, expression, "kv")
