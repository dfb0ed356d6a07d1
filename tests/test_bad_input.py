"""Every operator under hostile arguments (empty dimensions, NaN/Inf, out-of-range ids, mismatched
shapes, wrong dtypes, meta tensors), each with its exact error, fatal report or result."""
import math
from collections import Counter

import pytest
import torch

import vorta_addons as va
from helpers import FatalBatch, attention_reference, canary_view

FLOAT_HALF = "unsupported dtype, only fp32 and fp16 are supported"
SIGLIP_DEVICE = "unsupported device, only KESTREL, HARRIER, LARK are supported"
META_DATA = "The tensor has a non-zero number of elements, but its data is not allocated yet."
META = "vorta_addons was built without kernels for meta devices"
FP8 = {"sdp_fp8", "sdp_fp8_causal", "sdp_fp8_non_causal"}
CAUSAL = {"sdp_causal", "sdp_fp8_causal", "gemma2_sdp_causal"}


def run(code):
    ns = {"torch": torch, "va": va, "nan": math.nan, "inf": math.inf}
    exec(code, ns)
    return ns


# ---- result checks: ns is the case's namespace after the call --------------------------------

def empty_like_query(ns):
    q, out = ns["q"], ns["out"]
    assert out.shape == q.shape[:3] + (ns["v"].shape[3] if ns["v"].dtype != torch.uint8 else q.shape[3],)
    assert out.dtype == q.dtype and out.numel() == 0


def zeros_result(ns):
    out = ns["out"]
    assert out.shape == ns["q"].shape and torch.equal(out, torch.zeros_like(out))


def nan_row_only(op):
    def check(ns):
        q, out = ns["q"], ns["out"]
        assert out.shape == q.shape
        assert out[0, 1, 0].isnan().all()
        rest = torch.ones(out.shape[:3], dtype=torch.bool)
        rest[0, 1, 0] = False
        assert not out[rest].isnan().any()
        if op not in FP8:
            k, v = ns["k"], ns["v"]
            scale = 0.125 if op != "siglip_sdp_non_causal" else 72 ** -0.5
            softcap = 50.0 if op.startswith("gemma2") else None
            ref = attention_reference(q.double(), k.double(), v.double(), None, scale, op in CAUSAL, softcap)
            torch.testing.assert_close(out[rest].double(), ref[rest], rtol=1e-4, atol=1e-5)
    return check


def rms_reference(ns):
    x, w = ns["x"].double(), ns["w"].double()
    ref = x * torch.rsqrt((x * x).mean(-1, keepdim=True) + 1e-6) * w
    torch.testing.assert_close(ns["out"].double(), ref, rtol=1e-5, atol=1e-6, equal_nan=True)
    # A NaN spoils its row; an Inf only its own place (the others scale by 1/inf = 0).
    assert ns["out"][0].isnan().all() and ns["out"][1].isnan().sum() == 1 and not ns["out"][2].isnan().any()


def layer_reference(ns):
    x = ns["x"].double()
    ref = torch.nn.functional.layer_norm(x, (x.shape[1],), ns["w"].double(), ns["b"].double(), 1e-6)
    torch.testing.assert_close(ns["out"].double(), ref, rtol=1e-5, atol=1e-5, equal_nan=True)
    assert ns["out"][:2].isnan().all() and not ns["out"][2].isnan().any()


def empty_rows(ns):
    assert ns["out"].shape == ns["x"].shape and ns["out"].numel() == 0


def unchanged(*names):
    """In-place operators on empty tensors: nothing returned, nothing to write."""
    def check(ns):
        assert ns["out"] is None
        for n in names:
            assert ns[n].numel() == 0
    return check


def rotated_finite_positions(ns):
    # Positions are only multiplied by the frequencies: any int64 is a defined (if useless) angle.
    assert ns["out"] is None
    assert not ns["q"].isnan().any() and not ns["k"].isnan().any()


def rotation_spreads_nan(ns):
    q = ns["q"]
    assert ns["out"] is None
    # NaN/Inf stay within the pairs that hold them: a pair partner of element 0 / 1.
    bad = q.isnan() | q.isinf()
    assert bad[0, 0, 0].any() and bad[1, 1, 1].any()
    others = torch.ones(q.shape[:3], dtype=torch.bool)
    others[0, 0, 0] = others[1, 1, 1] = False
    assert not bad[others].any()


def cache_rows_spread(ns):
    q, k = ns["q"], ns["k"]
    for t in (q, k):
        bad = (t.isnan() | t.isinf()).any(-1)  # per [b, h, position]
        assert bad[:, :, 0].all() and not bad[:, :, 2].any()


def silu_reference(ns):
    g0 = ns["g0"].double()
    ref = g0 / (1 + torch.exp(-g0)) * ns["u"].double()
    torch.testing.assert_close(ns["g"].double(), ref, rtol=1e-5, atol=1e-6, equal_nan=True)


def codes_round_trip(ns):
    # Every code decodes to a number (NaN-free formats), and re-encoding gives the code back.
    ko, vo = ns["ko"], ns["vo"]
    assert not ko.isnan().any() and not vo.isnan().any()
    k2, v2 = torch.empty_like(ns["k"]), torch.empty_like(ns["v"])
    va.quantize_key_value(ko, vo, k2, v2)
    assert torch.equal(va_codes_canonical(k2, ko), va_codes_canonical(ns["k"], ko))


def va_codes_canonical(codes, values):
    # +0 and -0 (codes 0x00 and 0x80) decode alike: compare the values they stand for.
    out = torch.empty_like(values)
    va.dequantize_key_value(codes, codes, out, out.clone())
    return out


def quantized_nan_inf(ns):
    ko, vo = ns["ko"], ns["vo"]
    kd, vd = torch.empty(ko.shape), torch.empty(vo.shape)
    va.dequantize_key_value(ko, vo, kd, vd)
    # Saturating codes: +-Inf go to the largest magnitudes, NaN to a finite code too.
    assert not kd.isnan().any() and not kd.isinf().any() and not vd.isnan().any() and not vd.isinf().any()
    assert kd[0, 0, 0, 1] == kd.max() and kd[0, 0, 0, 2] == kd.min()
    assert vd[0, 1, 2, 1] == vd.max() and vd[0, 1, 2, 2] == vd.min()


def penalty_untouched(ns):
    assert torch.equal(ns["s"], ns["s0"])


def penalty_nan_inf(ns):
    s, s0 = ns["s"], ns["s0"]
    assert s[0, 0].isnan() and s[0, 1] == math.inf and s[0, 2] == -math.inf and s[0, 3] == 0.0
    x = s0[1, :4]
    torch.testing.assert_close(s[1, :4], torch.where(x > 0, x / 1.5, x * 1.5))
    assert torch.equal(s[:, 4:], s0[:, 4:])


def softmax_nan_inf(ns):
    a, a0 = ns["a"], ns["a0"]
    ref = torch.softmax(a0.double(), -1)
    torch.testing.assert_close(a.double(), ref, rtol=1e-5, atol=1e-7, equal_nan=True)
    assert a[0, 0].isnan().all() and a[0, 1].isnan().all() and a[0, 2].isnan().all()
    assert (a[1, 0, ::2] == 0).all()


def topk_shape(shape, dtype=torch.float32):
    def check(ns):
        ids, w = ns["out"]
        assert ids.shape == w.shape == shape and ids.dtype == torch.int64 and w.dtype == dtype
    return check


def softmax_topk_inf(ns):
    ids, w = ns["out"]
    # +inf - +inf and -inf - -inf are NaN: such rows are NaN rows (expert 0, NaN weights), as
    # torch's softmax of them is NaN.
    assert ids[:2].tolist() == [[0] * 16] * 2 and w[:2].isnan().all()
    assert sorted(ids[2].tolist()) == list(range(16)) and ids[2, -1] == 3 and w[2, -1] == 0


def group_true_top(k):
    def check(ns):
        ids, w = ns["out"]
        x = ns["x"] + (0 if ns["b"] is None else ns["b"])
        for row, xr, wr, sr in zip(ids.tolist(), x, w, ns["x"]):
            assert len(set(row)) == len(row)  # never the same expert twice
            ref = torch.sort(xr, descending=True, stable=True).indices[:k].tolist()
            assert row == ref
            assert torch.equal(wr, sr[row])
    return check


def group_minus_inf(ns):
    ids, _ = ns["out"]
    for row, x in zip(ids.tolist(), ns["x"]):  # the five finite ones, then -inf ties in order
        assert row == torch.sort(x[:5], descending=True, stable=True).indices.tolist() + [5, 6, 7]


# ---- the cases: (op, label, source leaving its result in `out`, expected outcome) ---------------

OPS = [
    "sdp", "sdp_fp8", "sdp_causal", "sdp_fp8_causal", "sdp_non_causal", "sdp_fp8_non_causal",
    "siglip_sdp_non_causal", "gemma2_sdp", "gemma2_sdp_causal", "rms_norm", "layer_norm",
    "rotary_half_inplaced", "rotary_two_inplaced", "rotary_half_with_cache_inplaced",
    "rotary_two_with_cache_inplaced", "mlp_silu_mul_inplaced", "quantize_key_value",
    "dequantize_key_value", "repetition_penalty_logits_process_inplaced", "attn_softmax_inplaced",
    "moe_group_topk", "moe_softmax_topk",
]
CASES = []


def c(op, label, code, outcome):
    CASES.append((op, label, code, outcome))


def attn_call(op, q, k, v, m="None"):
    tail = {"sdp": "1.0", "siglip_sdp_non_causal": None, "gemma2_sdp": "50.0, 0.125",
            "gemma2_sdp_causal": "50.0, 0.125"}.get(op, "0.125")
    return f"out = va.{op}({q}, {k}, {v}, {m}{', ' + tail if tail else ''})"


def qkv(op, bsz=1, heads=4, kv_heads=2, q_len=3, kv_len=3, d=None, kd=None, dtype="torch.float32"):
    """Setup source for q, k, v of `op` (uint8 codes for the fp8 operators)."""
    d = d or (72 if op == "siglip_sdp_non_causal" else 64)
    kd = kd or d
    if op in FP8:
        cache = f"torch.full(({bsz}, {kv_heads}, {kv_len}, {kd}), 0x30, dtype=torch.uint8)"
    else:
        cache = f"torch.randn({bsz}, {kv_heads}, {kv_len}, {kd}, dtype={dtype})"
    return (f"q = torch.randn({bsz}, {heads}, {q_len}, {d}, dtype={dtype})\n"
            f"k = {cache}\nv = {cache}\n")


for op in OPS[:9]:
    src = {"sdp": "sdp/sdp", "sdp_fp8": "sdp/sdp_fp8"}.get(op, "sdp/api")
    call = attn_call(op, "q", "k", "v")
    # No device of this build has siglip's kernel: whatever reaches it is refused.
    dev = (lambda outcome: (RuntimeError, SIGLIP_DEVICE)) if op == "siglip_sdp_non_causal" else (lambda o: o)
    heads = ("query.size(1) % key.size(1) == 0 && key.size(1) == value.size(1)", src)
    c(op, "zero_kv_heads", qkv(op, kv_heads=0) + call, heads)
    c(op, "heads_not_multiple", qkv(op, heads=3) + call, heads)
    c(op, "batch_mismatch", qkv(op, bsz=2) + "q = q[:1].repeat(2, 1, 1, 1)\nk = k[:1]\n" + call,
      ("query.size(0) == key.size(0) && key.size(0) == value.size(0)", src))
    c(op, "head_dim_mismatch", qkv(op, kd=80) + call, ("query.size(3) == key.size(3)" if op == "sdp_fp8" else
                                                       "query.size(3) == key.size(3) && key.size(3) == value.size(3)", src))
    c(op, "value_len_mismatch", qkv(op) + "v = v[:, :, :2]\n" + call, ("key.size(2) == value.size(2)", src))
    c(op, "query_3d", qkv(op) + "q = q.flatten(2)\n" + call,
      (IndexError, "Dimension out of range (expected to be in range of [-3, 2], but got 3)"))
    c(op, "float64", qkv(op, dtype="torch.float64") + ("k, v = k.double(), v.double()\n" if op not in FP8 else "")
      + call, dev((RuntimeError, FLOAT_HALF)))
    c(op, "meta", qkv(op) + "q, k, v = q.to('meta'), k.to('meta'), v.to('meta')\n" + call,
      dev((RuntimeError, META_DATA if op in FP8 else META)))
    c(op, "empty_batch", qkv(op, bsz=0) + call, dev(empty_like_query))
    c(op, "nan_query_row", qkv(op) + "q[0, 1, 0] = nan\n" + call, dev(nan_row_only(op)))
    c(op, "mask_wrong_dtype", qkv(op) + attn_call(op, "q", "k", "v", "torch.zeros(1, 1, 3, 3, dtype=torch.float16)"),
      ("query.scalar_type() == mask->scalar_type()", src) if op in ("sdp", "sdp_fp8") else
      ("mask->scalar_type() == query.scalar_type()", src))
    if op not in CAUSAL:
        c(op, "empty_query_len", qkv(op, q_len=0) + call, dev(empty_like_query))
        c(op, "zero_kv_len", qkv(op, kv_len=0) + call, dev(zeros_result))

# Normalisation: weight [hidden], input [tokens, hidden].
rn = "out = va.rms_norm(w, x, 1e-6)"
c("rms_norm", "empty_tokens", "w = torch.ones(64)\nx = torch.ones(0, 64)\n" + rn, empty_rows)
c("rms_norm", "nan_inf_rows", "w = torch.randn(64)\nx = torch.randn(3, 64)\nx[0, 5] = nan\nx[1, 7] = inf\n" + rn,
  rms_reference)
c("rms_norm", "float64", "w = torch.ones(64).double()\nx = torch.ones(2, 64).double()\n" + rn,
  (RuntimeError, FLOAT_HALF))
c("rms_norm", "meta", "w = torch.ones(64, device='meta')\nx = torch.ones(2, 64, device='meta')\n" + rn,
  (RuntimeError, META))
c("rms_norm", "hidden_zero", "w = torch.ones(0)\nx = torch.ones(2, 0)\n" + rn, empty_rows)
ln = "out = va.layer_norm(x, w, b, 1e-6)"
c("layer_norm", "empty_tokens", "x = torch.ones(0, 64)\nw = b = None\n" + ln, empty_rows)
c("layer_norm", "nan_inf_rows", "x = torch.randn(3, 64)\nx[0, 5] = nan\nx[1, 7] = inf\nw = torch.randn(64)\n"
  "b = torch.randn(64)\n" + ln, layer_reference)
c("layer_norm", "float64", "x = torch.ones(2, 64).double()\nw = b = None\n" + ln, (RuntimeError, FLOAT_HALF))
c("layer_norm", "meta", "x = torch.ones(2, 64, device='meta')\nw = b = None\n" + ln, (RuntimeError, META))
c("layer_norm", "hidden_zero", "x = torch.ones(2, 0)\nw = b = None\n" + ln, empty_rows)

# Rotary embedding: query [bsz, heads, seq, d] and key [bsz, kv_heads, seq, d].
BAD_POSITIONS = (RuntimeError, "position_ids must be [bsz, seq_len] or [1, seq_len]")
for op in ("rotary_half_inplaced", "rotary_two_inplaced"):
    pre = "inv = 1.0 / 10000 ** (torch.arange(0, 64, 2) / 64)\nq = torch.randn(2, 4, 3, 64)\nk = torch.randn(2, 2, 3, 64)\n"
    call = f"out = va.{op}(inv, pos, q, k)"
    c(op, "huge_positions", pre + "pos = torch.tensor([[2**40, -2**40, 7]] * 2)\n" + call, rotated_finite_positions)
    c(op, "int32_positions", pre + "pos = torch.zeros(2, 3, dtype=torch.int32)\n" + call,
      (RuntimeError, "expected scalar type Long but found Int"))
    c(op, "positions_too_short", pre + "pos = torch.zeros(2, 2, dtype=torch.long)\n" + call, BAD_POSITIONS)
    c(op, "positions_batch_mismatch", pre + "pos = torch.zeros(3, 3, dtype=torch.long)\n" + call, BAD_POSITIONS)
    c(op, "nan_inf_query", pre + "pos = torch.ones(2, 3, dtype=torch.long)\nq[0, 0, 0, 0] = nan\n"
      "q[1, 1, 1, 1] = inf\n" + call, rotation_spreads_nan)
    c(op, "empty_seq", pre.replace(", 3, 64)", ", 0, 64)") + "pos = torch.zeros(2, 0, dtype=torch.long)\n" + call,
      unchanged("q", "k"))
    c(op, "meta", pre + "pos = torch.zeros(2, 3, dtype=torch.long)\n"
      "inv, pos, q, k = inv.to('meta'), pos.to('meta'), q.to('meta'), k.to('meta')\n" + call,
      ("inv_freq.device().is_xpu()", "rope"))
for op in ("rotary_half_with_cache_inplaced", "rotary_two_with_cache_inplaced"):
    pre = "q = torch.randn(2, 4, 3, 64)\nk = torch.randn(2, 2, 3, 64)\ncs = torch.randn(3, 64)\n"
    extra = ", False" if op.startswith("rotary_two") else ""
    call = f"out = va.{op}(q, k, cs, cs{extra})"
    c(op, "cache_too_short", pre + "cs = cs[:2]\n" + call, (RuntimeError, "cos and sin must hold a row of "
                                                            "rotary_dim values for each of the seq_len positions"))
    c(op, "cache_too_wide", pre + "cs = torch.randn(3, 128)\n" + call,
      (RuntimeError, "rotated width 128 exceeds the head size of query (64) or key (64)"))
    c(op, "float64", pre + "q, k, cs = q.double(), k.double(), cs.double()\n" + call,
      (RuntimeError, "unsupported dtype, only fp32, fp16 and bf16 are supported"))
    c(op, "nan_inf_cache", pre + "cs[0, 0] = nan\ncs[1, 1] = inf\n" + call, cache_rows_spread)
    c(op, "empty_seq", pre.replace(", 3, 64)", ", 0, 64)").replace("randn(3, 64)", "randn(0, 64)") + call,
      unchanged("q", "k"))
    c(op, "meta", pre + "q, k, cs = q.to('meta'), k.to('meta'), cs.to('meta')\n" + call, ("cos.device().is_xpu()", "rope"))

# Gated SiLU: gate <- silu(gate) * up, in place.
op, mlp = "mlp_silu_mul_inplaced", "out = va.mlp_silu_mul_inplaced(g, u)"
c(op, "empty", "g = torch.ones(0)\nu = torch.ones(0)\n" + mlp, unchanged("g", "u"))
c(op, "nan_inf", "g = torch.randn(128)\nu = torch.randn(128)\ng[:4] = torch.tensor([nan, inf, -inf, 1.0])\n"
  "u[4:8] = torch.tensor([nan, inf, -inf, 0.0])\n" + mlp, silu_reference)
c(op, "float64", "g = torch.ones(128).double()\nu = torch.ones(128).double()\n" + mlp, (RuntimeError, FLOAT_HALF))
c(op, "meta", "g = torch.ones(128, device='meta')\nu = torch.ones(128, device='meta')\n" + mlp, (RuntimeError, META))
c(op, "length_mismatch", "g = torch.ones(128)\nu = torch.ones(256)\n" + mlp, ("gate.numel() == up.numel()", "mlp"))
c(op, "int32", "g = torch.ones(128, dtype=torch.int32)\nu = g.clone()\n" + mlp, (RuntimeError, FLOAT_HALF))

# Eight-bit caches: [bsz, heads, seq, d] into caller tensors.
SEQ_LEN = ("value.size(2) == seq_len && key_output.size(2) == seq_len && value_output.size(2) == seq_len", "kv")
op, qkv_ = "quantize_key_value", "out = va.quantize_key_value(k, v, ko, vo)"
pre = ("k = torch.randn(1, 2, 3, 64)\nv = torch.randn(1, 2, 3, 64)\n"
       "ko = torch.zeros(1, 2, 3, 64, dtype=torch.uint8)\nvo = torch.zeros(1, 2, 3, 64, dtype=torch.uint8)\n")
c(op, "nan_inf", pre + "k[0, 0, 0, :3] = torch.tensor([nan, inf, -inf])\nv[0, 1, 2, :3] = torch.tensor([nan, inf, -inf])\n"
  + qkv_, quantized_nan_inf)
c(op, "output_float", pre + "ko = ko.float()\n" + qkv_, (RuntimeError, "expected scalar type Byte but found Float"))
c(op, "float64", pre + "k, v = k.double(), v.double()\n" + qkv_, (RuntimeError, FLOAT_HALF))
quantize_pre = pre
op, dq = "dequantize_key_value", "out = va.dequantize_key_value(k, v, ko, vo)"
pre = ("k = torch.randint(0, 256, (1, 2, 3, 64), dtype=torch.uint8)\nv = torch.randint(0, 256, (1, 2, 3, 64), "
       "dtype=torch.uint8)\nko = torch.zeros(1, 2, 3, 64)\nvo = torch.zeros(1, 2, 3, 64)\n")
c(op, "every_code", pre + dq, codes_round_trip)
c(op, "input_float", pre + "k = k.float()\n" + dq, (RuntimeError, "expected scalar type Byte but found Float"))
c(op, "output_float64", pre + "ko, vo = ko.double(), vo.double()\n" + dq, (RuntimeError, FLOAT_HALF))
for op, pre, call in (("quantize_key_value", quantize_pre, qkv_), ("dequantize_key_value", pre, dq)):
    c(op, "empty_seq", pre.replace(", 3, 64", ", 0, 64") + call, unchanged("ko", "vo"))
    c(op, "output_too_short", pre + "vo = vo[:, :, :2]\n" + call, SEQ_LEN)
    c(op, "meta", pre + "k, v, ko, vo = (t.to('meta') for t in (k, v, ko, vo))\n" + call, (RuntimeError, META_DATA))

# Repetition penalty: scores [bsz, vocab], ids [bsz, seq_len] int64.
op, rp = "repetition_penalty_logits_process_inplaced", "out = va.repetition_penalty_logits_process_inplaced(s, ids, 1.5)"
pre = "s = torch.randn(2, 50)\nids = torch.randint(0, 50, (2, 4))\n"
for label, bad in (("id_minus_one", -1), ("id_equal_vocab", 50), ("id_2_pow_40", 2 ** 40),
                   ("id_most_negative", -2 ** 63)):
    c(op, label, pre + f"ids[1, 2] = {bad}\n" + rp, (RuntimeError, f"input_ids must lie in [0, vocab) = [0, 50), got {bad}"))
c(op, "empty_history", pre + "ids = ids[:, :0]\n" + rp, penalty_untouched)
c(op, "empty_vocab", "s = torch.randn(2, 0)\nids = torch.zeros(2, 1, dtype=torch.long)\n" + rp,
  (RuntimeError, "input_ids must lie in [0, vocab) = [0, 0), got 0"))
c(op, "nan_inf_scores", pre + "ids = torch.tensor([[0, 1, 2, 3]] * 2)\ns[0, :4] = torch.tensor([nan, inf, -inf, 0.0])\n"
  + rp, penalty_nan_inf)
c(op, "int32_ids", pre + "ids = ids.int()\n" + rp, ("input_ids.scalar_type() == AT::Long", "transformers"))
c(op, "rows_mismatch", pre + "ids = ids[:1]\n" + rp, (RuntimeError, "input_ids and scores must have the same number of rows"))
c(op, "float64", pre + "s = s.double()\n" + rp, (RuntimeError, FLOAT_HALF))
c(op, "meta", pre + "s, ids = s.to('meta'), ids.to('meta')\n" + rp,
  ("scores.device().is_xpu() && input_ids.device().is_xpu()", "transformers"))

# Softmax in place over the last dimension of a 3-D or 4-D contiguous tensor.
op, sm = "attn_softmax_inplaced", "out = va.attn_softmax_inplaced(a)"
c(op, "empty_rows", "a = torch.randn(2, 0, 5)\n" + sm, unchanged("a"))
c(op, "empty_last_dim", "a = torch.randn(2, 3, 0)\n" + sm, unchanged("a"))
c(op, "nan_inf", "a = torch.randn(2, 3, 40)\na[0, 0, 3] = nan\na[0, 1, 5] = inf\na[0, 2, :] = -inf\n"
  "a[1, 0, ::2] = -inf\n" + sm, softmax_nan_inf)
c(op, "two_dims", "a = torch.randn(3, 40)\n" + sm, ("attn.dim() == 4 || attn.dim() == 3", "transformers"))
c(op, "float64", "a = torch.randn(2, 3, 40).double()\n" + sm, (RuntimeError, FLOAT_HALF))
c(op, "meta", "a = torch.randn(2, 3, 40, device='meta')\n" + sm, (RuntimeError, META))

# Expert routing.
op, st = "moe_softmax_topk", "out = va.moe_softmax_topk(x, {k}, True)"
ABOVE = "top_k must not exceed the number of experts (16), got "
NO_EXPERTS = (RuntimeError, "the router needs at least one expert (n_experts = size(1)), got 0")
c(op, "top_k_above_experts", "x = torch.randn(2, 16)\n" + st.format(k=17), (RuntimeError, ABOVE + "17"))
c(op, "zero_experts", "x = torch.randn(2, 0)\n" + st.format(k=1), NO_EXPERTS)
c(op, "negative_top_k", "x = torch.randn(2, 16)\n" + st.format(k=-1),
  (RuntimeError, "Trying to create tensor with negative dimension -1: [2, -1]"))
c(op, "zero_top_k", "x = torch.randn(2, 16)\n" + st.format(k=0), topk_shape((2, 0)))
c(op, "zero_tokens", "x = torch.randn(0, 16)\n" + st.format(k=2), topk_shape((0, 2)))
c(op, "inf_logits", "x = torch.randn(3, 16)\nx[0, 4] = inf\nx[1, :] = -inf\nx[2, 3] = -inf\n" + st.format(k=16),
  softmax_topk_inf)
c(op, "float64", "x = torch.randn(2, 16).double()\n" + st.format(k=2), (RuntimeError, FLOAT_HALF))
c(op, "meta", "x = torch.randn(2, 16, device='meta')\n" + st.format(k=2), (RuntimeError, META))
op, gt = "moe_group_topk", "out = va.moe_group_topk(x, b, {g}, {tg}, 0, {k}, False, 0.0, 1.0)"
c(op, "scores_below_minus_one", "x = torch.rand(4, 64)\nb = torch.full((64,), -3.0)\n" + gt.format(g=4, tg=4, k=6),
  group_true_top(6))
c(op, "minus_inf_scores", "x = torch.rand(2, 32)\nx[:, 5:] = -inf\nb = None\n" + gt.format(g=2, tg=2, k=8),
  group_minus_inf)
c(op, "top_k_above_experts", "x = torch.rand(2, 16)\nb = None\n" + gt.format(g=1, tg=1, k=20),
  (RuntimeError, ABOVE + "20"))
c(op, "zero_experts", "x = torch.rand(2, 0)\nb = None\n" + gt.format(g=1, tg=1, k=1), NO_EXPERTS)
c(op, "zero_groups", "x = torch.rand(2, 64)\nb = None\n" + gt.format(g=0, tg=1, k=2),
  (RuntimeError, "n_groups must divide the number of experts"))
c(op, "topk_group_above_group", "x = torch.rand(2, 64)\nb = None\n" + gt.format(g=4, tg=17, k=2),
  (RuntimeError, "topk_group must not exceed the experts per group (16), got 17"))
c(op, "zero_tokens", "x = torch.rand(0, 64)\nb = None\n" + gt.format(g=4, tg=2, k=2), topk_shape((0, 2)))
c(op, "bias_wrong_size", "x = torch.rand(2, 64)\nb = torch.zeros(32)\n" + gt.format(g=4, tg=2, k=2),
  (RuntimeError, "bias must be a contiguous vector of n_experts values on the scores' device"))
c(op, "float64_bias", "x = torch.rand(2, 64)\nb = torch.zeros(64).double()\n" + gt.format(g=4, tg=2, k=2),
  (RuntimeError, FLOAT_HALF))
c(op, "meta", "x = torch.rand(2, 64, device='meta')\nb = None\n" + gt.format(g=4, tg=2, k=2), (RuntimeError, META))

PARAMS = [pytest.param(code, outcome, id=f"{op}-{label}") for op, label, code, outcome in CASES]
FATAL = [p for p in PARAMS if isinstance(p.values[1], tuple) and isinstance(p.values[1][0], str)]
ERRORS = [p for p in PARAMS if isinstance(p.values[1], tuple) and isinstance(p.values[1][0], type)]
RESULTS = [p for p in PARAMS if callable(p.values[1])]


def test_every_operator_is_covered():
    assert set(op for op, _, _, _ in CASES) == set(OPS) and len(OPS) == 22
    assert min(Counter(op for op, _, _, _ in CASES).values()) >= 5


@pytest.mark.parametrize("code,outcome", ERRORS)
def test_raises(code, outcome):
    kind, text = outcome
    with pytest.raises(kind) as e:
        run(code)
    assert e.type is kind and str(e.value).splitlines()[0] == text


# Copies of the inputs that in-place operators overwrite, taken just before the call.
SNAPSHOT = "".join(f"\n{n}0 = {n}.clone() if '{n}' in globals() else None" for n in "gsa") + "\nout = "


@pytest.mark.parametrize("code,outcome", RESULTS)
def test_result(code, outcome):
    outcome(run(code.replace("\nout = ", SNAPSHOT, 1)))


PRELUDE = "va = vorta_addons\nnan, inf = float('nan'), float('inf')\n"
FATAL_RUNS = FatalBatch((PRELUDE + p.values[0], *p.values[1]) for p in FATAL)


@pytest.mark.parametrize("index", range(len(FATAL)), ids=[p.id for p in FATAL])
def test_fatal(index):
    FATAL_RUNS.wait(index)


# ---- in-place operators write inside their views only, whatever the values ------------------

def test_silu_mul_stays_in_its_slice():
    gate, canary = canary_view((3 * 128,), torch.float32, lambda t: t[128:256], fill=3.0)
    gate.copy_(torch.randn(128))
    gate[:3] = torch.tensor([math.nan, math.inf, -math.inf])
    va.mlp_silu_mul_inplaced(gate, torch.randn(128))
    canary.check()
    assert gate[0].isnan() and not gate[3:].isnan().any()


@pytest.mark.parametrize("bad", [None, -1, 50, 2 ** 40])
def test_penalty_writes_only_named_logits(bad):
    scores, canary = canary_view((3, 64), torch.float32, lambda t: t[:2, 7:57], fill=3.0)  # vocab 50, row stride 64
    scores.copy_(torch.randn(2, 50))
    ids = torch.tensor([[0, 49, 49, 3], [49, 0, 5, 0]])
    if bad is not None:
        ids[1, 3] = bad
        before = canary.base.clone()
        with pytest.raises(RuntimeError, match=r"^input_ids must lie in \[0, vocab\) = \[0, 50\), got "):
            va.repetition_penalty_logits_process_inplaced(scores, ids, 1.5)
        assert torch.equal(canary.base, before)  # refused before anything was written
        return
    expected = scores.clone()
    for b, cols in enumerate(([0, 3, 49], [0, 5, 49])):
        x = expected[b, cols]
        expected[b, cols] = torch.where(x > 0, x / 1.5, x * 1.5)
    va.repetition_penalty_logits_process_inplaced(scores, ids, 1.5)
    canary.check()
    assert torch.equal(scores, expected)


def test_softmax_stays_in_its_slice():
    attn, canary = canary_view((4, 3, 40), torch.float32, lambda t: t[1:3], fill=3.0)
    attn.copy_(torch.randn(2, 3, 40))
    attn[0, 0, 0] = math.nan
    va.attn_softmax_inplaced(attn)
    canary.check()
    assert attn[0, 0].isnan().all() and not attn[0, 1:].isnan().any()

