"""Every operator under hostile arguments: empty and zero-length dimensions, NaN/Inf,
out-of-range ids and positions, mismatched shapes, wrong dtypes, meta tensors and None.
Each case states its exact outcome: the error, the fatal report (in a child interpreter) or
the result. In-place operators are also run on views with canaries around them."""
import math
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

import pytest
import torch

import vorta_addons as va
from bad_input_cases import CASES, CAUSAL, FP8, OPS
from helpers import Canary, assert_fatal, attention_reference

PYBIND = "(): incompatible function arguments. The following argument types are supported:"
FLOAT_HALF = "unsupported dtype, only fp32 and fp16 are supported"
SIGLIP_DEVICE = "unsupported device, only KESTREL, HARRIER, LARK are supported"
META_DATA = "The tensor has a non-zero number of elements, but its data is not allocated yet."
META = "vorta_addons was built without kernels for meta devices"


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


def meta_result(shape):
    def check(ns):
        out = ns["out"]
        outs = out if isinstance(out, tuple) else (out,)
        assert all(t.device.type == "meta" for t in outs)
        assert tuple(outs[0].shape) == shape
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


def rotation_spreads_nan(half):
    def check(ns):
        q = ns["q"]
        assert ns["out"] is None
        # NaN/Inf stay within the pairs that hold them: a pair partner of element 0 / 1.
        bad = q.isnan() | q.isinf()
        assert bad[0, 0, 0].any() and bad[1, 1, 1].any()
        others = torch.ones(q.shape[:3], dtype=torch.bool)
        others[0, 0, 0] = others[1, 1, 1] = False
        assert not bad[others].any()
    return check


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


# ---- expected outcomes, by "op-label" ----------------------------------------------------------

def attention_outcomes():
    out = {}
    for op in OPS[:9]:
        src = {"sdp": "sdp/sdp", "sdp_fp8": "sdp/sdp_fp8"}.get(op, "sdp/api")
        heads = ("query.size(1) % key.size(1) == 0 && key.size(1) == value.size(1)", src)
        out[f"{op}-zero_kv_heads"] = heads
        out[f"{op}-heads_not_multiple"] = heads
        out[f"{op}-batch_mismatch"] = ("query.size(0) == key.size(0) && key.size(0) == value.size(0)", src)
        out[f"{op}-head_dim_mismatch"] = (
            "query.size(3) == key.size(3)" if op == "sdp_fp8" else
            "query.size(3) == key.size(3) && key.size(3) == value.size(3)", src)
        out[f"{op}-value_len_mismatch"] = ("key.size(2) == value.size(2)", src)
        out[f"{op}-none_query"] = (TypeError, op + PYBIND)
        out[f"{op}-none_value"] = (TypeError, op + PYBIND)
        out[f"{op}-query_3d"] = (IndexError, "Dimension out of range (expected to be in range of [-3, 2], but got 3)")
        out[f"{op}-float64"] = (RuntimeError, "unsupported head_dim, only 72 is supported"
                                if op == "siglip_sdp_non_causal" else FLOAT_HALF)
        out[f"{op}-empty_batch"] = empty_like_query
        out[f"{op}-nan_query_row"] = nan_row_only(op)
        out[f"{op}-empty_query_len"] = empty_like_query
        out[f"{op}-meta"] = (RuntimeError, META_DATA if op in FP8 else META)
        out[f"{op}-zero_kv_len"] = zeros_result
        if op == "siglip_sdp_non_causal":  # no device of this build has its kernel
            for label in ("empty_batch", "nan_query_row", "empty_query_len", "zero_kv_len", "float64", "meta"):
                out[f"{op}-{label}"] = (RuntimeError, SIGLIP_DEVICE)
        out[f"{op}-mask_wrong_dtype"] = (
            ("query.scalar_type() == mask->scalar_type()", src) if op in ("sdp", "sdp_fp8") else
            ("mask->scalar_type() == query.scalar_type()", src))
    return out


EXPECTED = attention_outcomes()
EXPECTED.update({
    "rms_norm-empty_tokens": empty_rows,
    "rms_norm-nan_inf_rows": rms_reference,
    "rms_norm-float64": (RuntimeError, FLOAT_HALF),
    "rms_norm-hidden_zero": empty_rows,
    "rms_norm-meta": (RuntimeError, META),
    "layer_norm-hidden_zero": empty_rows,
    "layer_norm-meta": (RuntimeError, META),
    "rms_norm-none_weight": (TypeError, "rms_norm" + PYBIND),
    "layer_norm-empty_tokens": empty_rows,
    "layer_norm-nan_inf_rows": layer_reference,
    "layer_norm-float64": (RuntimeError, FLOAT_HALF),
    "layer_norm-none_input": (TypeError, "layer_norm" + PYBIND),
    **{f"{op}-{label}": outcome for op in ("rotary_half_inplaced", "rotary_two_inplaced") for label, outcome in {
        "huge_positions": rotated_finite_positions,
        "int32_positions": (RuntimeError, "expected scalar type Long but found Int"),
        "positions_too_short": (RuntimeError, "position_ids must be [bsz, seq_len] or [1, seq_len]"),
        "positions_batch_mismatch": (RuntimeError, "position_ids must be [bsz, seq_len] or [1, seq_len]"),
        "nan_inf_query": rotation_spreads_nan,
        "empty_seq": unchanged("q", "k"),
        "none_positions": (TypeError, op + PYBIND),
        "meta": ("inv_freq.device().is_xpu()", "rope"),
    }.items()},
    **{f"{op}-{label}": outcome for op in ("rotary_half_with_cache_inplaced", "rotary_two_with_cache_inplaced")
       for label, outcome in {
        "cache_too_short": (RuntimeError, "cos and sin must hold a row of rotary_dim values for each of the "
                                          "seq_len positions"),
        "cache_too_wide": (RuntimeError, "rotated width 128 exceeds the head size of query (64) or key (64)"),
        "float64": (RuntimeError, "unsupported dtype, only fp32, fp16 and bf16 are supported"),
        "nan_inf_cache": cache_rows_spread,
        "empty_seq": unchanged("q", "k"),
        "none_sin": (TypeError, op + PYBIND),
        "meta": ("cos.device().is_xpu()", "rope"),
    }.items()},
    "mlp_silu_mul_inplaced-empty": unchanged("g", "u"),
    "mlp_silu_mul_inplaced-nan_inf": silu_reference,
    "mlp_silu_mul_inplaced-float64": (RuntimeError, FLOAT_HALF),
    "mlp_silu_mul_inplaced-meta": (RuntimeError, META),
    "mlp_silu_mul_inplaced-length_mismatch": ("gate.numel() == up.numel()", "mlp"),
    "mlp_silu_mul_inplaced-none_up": (TypeError, "mlp_silu_mul_inplaced" + PYBIND),
    "quantize_key_value-nan_inf": quantized_nan_inf,
    "quantize_key_value-empty_seq": unchanged("ko", "vo"),
    "mlp_silu_mul_inplaced-int32": (RuntimeError, FLOAT_HALF),
    "quantize_key_value-output_float": (RuntimeError, "expected scalar type Byte but found Float"),
    "quantize_key_value-output_too_short": (
        "value.size(2) == seq_len && key_output.size(2) == seq_len && value_output.size(2) == seq_len", "kv"),
    "quantize_key_value-float64": (RuntimeError, FLOAT_HALF),
    "quantize_key_value-meta": (RuntimeError, META_DATA),
    "dequantize_key_value-input_float": (RuntimeError, "expected scalar type Byte but found Float"),
    "dequantize_key_value-output_too_short": (
        "value.size(2) == seq_len && key_output.size(2) == seq_len && value_output.size(2) == seq_len", "kv"),
    "dequantize_key_value-output_float64": (RuntimeError, FLOAT_HALF),
    "dequantize_key_value-meta": (RuntimeError, META_DATA),
    "repetition_penalty_logits_process_inplaced-meta": (
        "scores.device().is_xpu() && input_ids.device().is_xpu()", "transformers"),
    "attn_softmax_inplaced-meta": (RuntimeError, META),
    "moe_softmax_topk-negative_top_k": (RuntimeError, "Trying to create tensor with negative dimension -1: [2, -1]"),
    "moe_softmax_topk-meta": (RuntimeError, META),
    "moe_group_topk-meta": (RuntimeError, META),
    "quantize_key_value-none_output": (TypeError, "quantize_key_value" + PYBIND),
    "dequantize_key_value-every_code": codes_round_trip,
    "dequantize_key_value-empty_seq": unchanged("ko", "vo"),
    "dequantize_key_value-none_key": (TypeError, "dequantize_key_value" + PYBIND),
    "repetition_penalty_logits_process_inplaced-id_minus_one":
        (RuntimeError, "input_ids must lie in [0, vocab) = [0, 50), got -1"),
    "repetition_penalty_logits_process_inplaced-id_equal_vocab":
        (RuntimeError, "input_ids must lie in [0, vocab) = [0, 50), got 50"),
    "repetition_penalty_logits_process_inplaced-id_2_pow_40":
        (RuntimeError, "input_ids must lie in [0, vocab) = [0, 50), got 1099511627776"),
    "repetition_penalty_logits_process_inplaced-id_most_negative":
        (RuntimeError, "input_ids must lie in [0, vocab) = [0, 50), got -9223372036854775808"),
    "repetition_penalty_logits_process_inplaced-empty_history": penalty_untouched,
    "repetition_penalty_logits_process_inplaced-empty_vocab":
        (RuntimeError, "input_ids must lie in [0, vocab) = [0, 0), got 0"),
    "repetition_penalty_logits_process_inplaced-nan_inf_scores": penalty_nan_inf,
    "repetition_penalty_logits_process_inplaced-int32_ids": ("input_ids.scalar_type() == AT::Long", "transformers"),
    "repetition_penalty_logits_process_inplaced-rows_mismatch":
        (RuntimeError, "input_ids and scores must have the same number of rows"),
    "repetition_penalty_logits_process_inplaced-float64": (RuntimeError, FLOAT_HALF),
    "repetition_penalty_logits_process_inplaced-none_ids":
        (TypeError, "repetition_penalty_logits_process_inplaced" + PYBIND),
    "attn_softmax_inplaced-empty_rows": unchanged("a"),
    "attn_softmax_inplaced-empty_last_dim": unchanged("a"),
    "attn_softmax_inplaced-nan_inf": softmax_nan_inf,
    "attn_softmax_inplaced-two_dims": ("attn.dim() == 4 || attn.dim() == 3", "transformers"),
    "attn_softmax_inplaced-float64": (RuntimeError, FLOAT_HALF),
    "attn_softmax_inplaced-none": (TypeError, "attn_softmax_inplaced" + PYBIND),
    "moe_softmax_topk-top_k_above_experts":
        (RuntimeError, "top_k must not exceed the number of experts (16), got 17"),
    "moe_softmax_topk-zero_experts":
        (RuntimeError, "the router needs at least one expert (n_experts = size(1)), got 0"),
    "moe_softmax_topk-zero_top_k": topk_shape((2, 0)),
    "moe_softmax_topk-zero_tokens": topk_shape((0, 2)),
    "moe_softmax_topk-inf_logits": softmax_topk_inf,
    "moe_softmax_topk-float64": (RuntimeError, FLOAT_HALF),
    "moe_softmax_topk-none": (TypeError, "moe_softmax_topk" + PYBIND),
    "moe_group_topk-scores_below_minus_one": group_true_top(6),
    "moe_group_topk-minus_inf_scores": group_minus_inf,
    "moe_group_topk-top_k_above_experts":
        (RuntimeError, "top_k must not exceed the number of experts (16), got 20"),
    "moe_group_topk-zero_experts":
        (RuntimeError, "the router needs at least one expert (n_experts = size(1)), got 0"),
    "moe_group_topk-zero_groups": (RuntimeError, "n_groups must divide the number of experts"),
    "moe_group_topk-topk_group_above_group":
        (RuntimeError, "topk_group must not exceed the experts per group (16), got 17"),
    "moe_group_topk-zero_tokens": topk_shape((0, 2)),
    "moe_group_topk-bias_wrong_size":
        (RuntimeError, "bias must be a contiguous vector of n_experts values on the scores' device"),
    "moe_group_topk-float64_bias": (RuntimeError, FLOAT_HALF),
    "moe_group_topk-none": (TypeError, "moe_group_topk" + PYBIND),
})

PARAMS = [pytest.param(code, EXPECTED.get(f"{op}-{label}"), id=f"{op}-{label}") for op, label, code in CASES]
FATAL = [p for p in PARAMS if isinstance(p.values[1], tuple) and isinstance(p.values[1][0], str)]
ERRORS = [p for p in PARAMS if isinstance(p.values[1], tuple) and isinstance(p.values[1][0], type)]
RESULTS = [p for p in PARAMS if callable(p.values[1])]


def test_every_case_has_an_outcome_and_every_operator_is_covered():
    missing = [p.id for p in PARAMS if p.values[1] is None]
    assert not missing, missing
    assert set(op for op, _, _ in CASES) == set(OPS) and len(OPS) == 22
    assert min(Counter(op for op, _, _ in CASES).values()) >= 6


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


_pool = ThreadPoolExecutor(2)
_fatal_runs = {}


@pytest.mark.parametrize("code,outcome", FATAL)
def test_fatal(code, outcome):
    # Every fatal case starts at once, two children at a time; each test waits for its own.
    if not _fatal_runs:
        for p in FATAL:
            _fatal_runs[p.values[0]] = _pool.submit(assert_fatal, "va = vorta_addons\nnan, inf = float('nan'), float('inf')\n"
                                                    + p.values[0], *p.values[1])
    _fatal_runs[code].result()


# ---- in-place operators write inside their views only, whatever the values ------------------

def strided(shape, pad, dtype=torch.float32, fill=3.0):
    """A [b, h, s, d] view of a [b, s, h + 1, d + 2 pad] buffer filled with `fill`
    (odd offsets, padded rows), its canary, and the view filled with random values."""
    b, h, s, d = shape
    base = torch.full((b, s, h + 1, d + 2 * pad), fill, dtype=dtype)
    view = base[:, :, 1:, pad:pad + d].transpose(1, 2)
    canary = Canary(base, view)
    view.copy_(torch.randn(shape))
    return view, canary


@pytest.mark.parametrize("op", ["rotary_half_inplaced", "rotary_two_inplaced",
                                "rotary_half_with_cache_inplaced", "rotary_two_with_cache_inplaced"])
def test_rotary_stays_in_strided_views(op):
    q, cq = strided((2, 4, 3, 64), 3)
    k, ck = strided((2, 2, 3, 64), 5)
    q[0, 0, 0, 0], k[1, 1, 2, 63] = math.nan, math.inf
    if "cache" in op:
        cs = torch.randn(3, 64)
        getattr(va, op)(q, k, cs, cs, *([False] if "two" in op else []))
    else:
        inv = 1.0 / 10000 ** (torch.arange(0, 64, 2) / 64)
        getattr(va, op)(inv, torch.tensor([[0, 2 ** 40, -5]] * 2), q, k)
    cq.check(), ck.check()
    assert not q[0, 0, 1:].isnan().any() and not q[1:].isnan().any()
    assert not k[0].isnan().any() and not k[1, :, :2].isnan().any()


def test_silu_mul_stays_in_its_slice():
    base = torch.full((3 * 128,), 3.0)
    gate, canary = base[128:256], Canary(base, base[128:256])
    gate.copy_(torch.randn(128))
    gate[:3] = torch.tensor([math.nan, math.inf, -math.inf])
    va.mlp_silu_mul_inplaced(gate, torch.randn(128))
    canary.check()
    assert gate[0].isnan() and not gate[3:].isnan().any()


@pytest.mark.parametrize("direction", ["quantize", "dequantize"])
def test_kv_conversion_writes_inside_output_views(direction):
    codes = direction == "dequantize"
    ko, ck = strided((1, 2, 3, 64), 7, torch.float32 if codes else torch.uint8, 3)
    vo, cv = strided((1, 2, 3, 64), 1, torch.float32 if codes else torch.uint8, 3)
    if codes:
        src = [torch.randint(0, 256, (1, 2, 3, 64), dtype=torch.uint8) for _ in range(2)]
        va.dequantize_key_value(*src, ko, vo)
    else:
        src = [torch.randn(1, 2, 3, 64) for _ in range(2)]
        src[0][0, 0, 0, :3] = torch.tensor([math.nan, math.inf, -math.inf])
        va.quantize_key_value(*src, ko, vo)
    ck.check(), cv.check()


@pytest.mark.parametrize("bad", [None, -1, 50, 2 ** 40])
def test_penalty_writes_only_named_logits(bad):
    base = torch.full((3, 64), 3.0)
    scores = base[:2, 7:57]  # vocab 50, row stride 64
    canary = Canary(base, scores)
    scores.copy_(torch.randn(2, 50))
    ids = torch.tensor([[0, 49, 49, 3], [49, 0, 5, 0]])
    if bad is not None:
        ids[1, 3] = bad
        before = base.clone()
        with pytest.raises(RuntimeError, match=r"^input_ids must lie in \[0, vocab\) = \[0, 50\), got "):
            va.repetition_penalty_logits_process_inplaced(scores, ids, 1.5)
        assert torch.equal(base, before)  # refused before anything was written
        return
    expected = scores.clone()
    for b, cols in enumerate(([0, 3, 49], [0, 5, 49])):
        x = expected[b, cols]
        expected[b, cols] = torch.where(x > 0, x / 1.5, x * 1.5)
    va.repetition_penalty_logits_process_inplaced(scores, ids, 1.5)
    canary.check()
    assert torch.equal(scores, expected)


def test_softmax_stays_in_its_slice():
    base = torch.full((4, 3, 40), 3.0)
    attn = base[1:3]
    canary = Canary(base, attn)
    attn.copy_(torch.randn(2, 3, 40))
    attn[0, 0, 0] = math.nan
    va.attn_softmax_inplaced(attn)
    canary.check()
    assert attn[0, 0].isnan().all() and not attn[0, 1:].isnan().any()

