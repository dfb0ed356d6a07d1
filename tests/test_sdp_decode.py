"""Decode attention (sdp, sdp_fp8) against float64 references in plain torch."""
import math

import pytest
import torch

import vorta_addons
from helpers import FatalBatch, count_records, kv_code_values, same_with_threads
from helpers import assert_as_accurate_as_torch as assert_accurate

GROUP = "decode"
KESTREL, FINCH, OTHER = 0, 3, 7
KERNELS = ("mha kernel", "gqa kernel 1/2", "gqa kernel 2/2", "mha fp8 kernel", "mha unbalanced fp8 kernel")
MHA = {"mha kernel": 1}
GQA = {"gqa kernel 1/2": 1, "gqa kernel 2/2": 1}


@pytest.fixture(params=[16, 8], ids=["16-lane", "8-lane"])
def lanes(request):
    """Runs a test on the 16-lane (AVX-512) kernels, where the CPU has them, and on the 8-lane ones."""
    vorta_addons._testing.allow_wide_decode(request.param == 16)
    yield request.param
    vorta_addons._testing.allow_wide_decode(True)


@pytest.fixture
def on(device, lanes):
    """The device a test runs on: the CPU with both vector widths, other devices once."""
    if device != "cpu" and lanes != 16:
        pytest.skip("the CPU's vector width does not apply")
    return device


def make_inputs(dtype, bsz, heads, kv_heads, q_len, kv_len, head_dim, mask, strided, seed=0,
                value_dim=None, fp8=False, device="cpu"):
    """Drawn on the CPU; whole buffers go to `device` and are cut into views there."""
    g = torch.Generator().manual_seed(seed)
    value_dim = value_dim or head_dim
    q = torch.randn(bsz, q_len, heads, head_dim, generator=g).to(dtype)
    room = kv_len + (37 if strided else 0)  # views into a larger preallocated cache
    if fp8:
        k = torch.randint(0, 256, (bsz, kv_heads, room, head_dim), generator=g, dtype=torch.uint8)
        v = torch.randint(0, 256, (bsz, kv_heads, room, value_dim), generator=g, dtype=torch.uint8)
    else:
        k = torch.randn(bsz, kv_heads, room, head_dim, generator=g).to(dtype)
        v = torch.randn(bsz, kv_heads, room, value_dim, generator=g).to(dtype)
    q = q.to(device).transpose(1, 2)  # strided query
    k, v = k.to(device)[:, :, :kv_len], v.to(device)[:, :, :kv_len]
    m = None
    if mask is not None:
        shape = {"head": (bsz, heads, q_len, kv_len), "bcast": (1, 1, q_len, kv_len)}[mask]
        m = torch.where(torch.rand(shape, generator=g) < 0.2, -10000.0, torch.randn(shape, generator=g))
        m[..., 0] = 0.0  # every row keeps a key
        m = m.to(dtype).to(device)
    return q, k, v, m


# dtype, bsz, heads, kv_heads, q_len, kv_len, head_dim, mask, strided, family, kernels
SDP_CASES = [
    (torch.float32, 1, 8, 8, 1, 1, 64, None, False, OTHER, MHA),
    (torch.float16, 2, 6, 2, 1, 31, 80, "head", True, OTHER, MHA),
    (torch.float16, 1, 4, 1, 2, 32, 96, "bcast", False, OTHER, MHA),
    (torch.float32, 2, 8, 1, 1, 33, 128, "head", True, OTHER, MHA),
    (torch.float16, 1, 4, 4, 3, 127, 192, None, True, OTHER, MHA),
    (torch.float32, 1, 2, 2, 1, 128, 256, "bcast", False, OTHER, MHA),
    (torch.float16, 3, 4, 4, 1, 129, 128, "head", False, OTHER, MHA),
    (torch.float32, 1, 8, 1, 9, 100, 64, "head", True, OTHER, MHA),  # 72 rows per key/value head
    (torch.float32, 1, 8, 2, 4, 1000, 192, "head", True, KESTREL, MHA),
    (torch.float16, 1, 4, 4, 1, 2053, 256, "bcast", True, OTHER, MHA),
    (torch.float16, 1, 12, 4, 1, 1000, 128, "head", True, KESTREL, GQA),
    (torch.float32, 1, 12, 4, 1, 1000, 64, "bcast", False, KESTREL, GQA),
    (torch.float16, 2, 16, 2, 1, 2053, 80, None, True, FINCH, GQA),
    (torch.float32, 1, 3, 1, 1, 2048, 96, "head", False, OTHER, GQA),
    (torch.float16, 1, 12, 4, 1, 600, 192, None, False, KESTREL, GQA),
    (torch.float16, 1, 32, 8, 1, 4097, 128, "head", True, OTHER, GQA),
]


# Single pass with the caller's scale; grouped with 1/sqrt(head_dim).
FP8_CASES = [
    (torch.float16, 1, 8, 8, 1, 1, 64, None, False, OTHER, {"mha fp8 kernel": 1}),
    (torch.float32, 2, 6, 2, 2, 33, 80, "head", True, OTHER, {"mha fp8 kernel": 1}),
    (torch.float16, 1, 8, 1, 1, 129, 96, "bcast", True, OTHER, {"mha fp8 kernel": 1}),
    (torch.float32, 1, 4, 4, 1, 1000, 256, "head", False, KESTREL, {"mha fp8 kernel": 1}),
    (torch.float16, 1, 12, 4, 1, 1000, 128, "head", True, KESTREL, GQA),
    (torch.float32, 2, 16, 2, 1, 2053, 192, None, False, OTHER, GQA),
    (torch.float16, 1, 32, 8, 1, 4097, 128, "head", True, OTHER, GQA),
]


def fp8_case(dtype, bsz, heads, kv_heads, q_len, kv_len, head_dim, mask, strided, value_dim=None, device="cpu"):
    q, k, v, m = make_inputs(dtype, bsz, heads, kv_heads, q_len, kv_len, head_dim, mask, strided,
                             value_dim=value_dim, fp8=True, device=device)
    return q, k, v, m, kv_code_values(k, "key").to(dtype), kv_code_values(v, "value").to(dtype)


@pytest.mark.parametrize("fp8,dtype,bsz,heads,kv_heads,q_len,kv_len,head_dim,mask,strided,fam,kernels",
                         [(False, *c) for c in SDP_CASES] + [(True, *c) for c in FP8_CASES])
def test_decode(fp8, dtype, bsz, heads, kv_heads, q_len, kv_len, head_dim, mask, strided, fam, kernels, family, on):
    family(fam)
    q, k, v, m = make_inputs(dtype, bsz, heads, kv_heads, q_len, kv_len, head_dim, mask, strided, fp8=fp8, device=on)
    before, out = [t.clone() for t in (q, k, v)], []
    op = vorta_addons.sdp_fp8 if fp8 else vorta_addons.sdp  # sdp ignores the scale argument
    assert count_records(lambda: out.append(op(q, k, v, m, 0.07 if fp8 else 7.0)), *KERNELS) == \
        {n: kernels.get(n, 0) for n in KERNELS}
    kd, vd = (kv_code_values(k, "key").to(dtype), kv_code_values(v, "value").to(dtype)) if fp8 else (k, v)
    assert_accurate(out[0], q, kd, vd, m, 0.07 if fp8 and kernels is not GQA else 1 / math.sqrt(head_dim))
    assert out[0].is_contiguous()
    assert all(torch.equal(a, b) for a, b in zip(before, (q, k, v)))


def test_every_code_decodes_exactly(on):
    # Key row j and value row j hold code j (and j ^ 0x5a) in every column; row 256 is a reference key.
    k = torch.cat([torch.arange(256), torch.tensor([0x38])]).to(torch.uint8).view(1, 1, 257, 1)
    k = k.expand(1, 1, 257, 64).contiguous().to(on)
    v = k.bitwise_xor(0x5A)
    q = torch.full((1, 1, 256, 64), 1 / 64, device=on)  # q . k_j is exactly the value of key code j
    pick = torch.full((1, 1, 256, 257), -10000.0, device=on)
    pick[0, 0, torch.arange(256), torch.arange(256)] = 0.0
    # Token j sees key j alone: its result is value row j, exactly.
    alone = vorta_addons.sdp_fp8(q, k, v, pick, 0.1)
    assert torch.equal(alone[0, 0], kv_code_values(v[0, 0, :256], "value").float())
    # Beside the reference key, the two weights depend on key code j.
    pick[..., 256] = 0.0
    pair = vorta_addons.sdp_fp8(q, k, v, pick, 0.1)
    assert_accurate(pair, q, kv_code_values(k, "key").float(), kv_code_values(v, "value").float(), pick, 0.1)


def test_decode_without_keys_gives_zero_rows(device):
    if device == "cpu":
        pytest.skip("the CPU backend divides 0 by 0 here")
    q = torch.randn(1, 4, 1, 64, device=device).half()
    k = torch.empty(1, 2, 0, 64, dtype=torch.float16, device=device)
    assert torch.equal(vorta_addons.sdp(q, k, k, None, 1.0).cpu(), torch.zeros(1, 4, 1, 64, dtype=torch.float16))


def test_unbalanced_fp8_takes_the_single_pass_even_when_grouping_applies(family, on):
    family(KESTREL)
    q, k, v, m, kd, vd = fp8_case(torch.float16, 1, 8, 2, 1, 2048, 192, "head", True, value_dim=128, device=on)
    out = []
    assert count_records(lambda: out.append(vorta_addons.sdp_fp8(q, k, v, m, 0.05)), *KERNELS) == \
        {n: int(n == "mha unbalanced fp8 kernel") for n in KERNELS}
    assert out[0].shape == (1, 8, 1, 128)
    assert_accurate(out[0], q, kd, vd, m, 0.05)


@pytest.mark.parametrize("q_len,group,kv_len,fam,grouped", [
    (1, 4, 1024, KESTREL, True), (1, 4, 1024, FINCH, False), (1, 4, 2048, FINCH, True),
    (1, 4, 2048, KESTREL, True), (1, 2, 4096, KESTREL, False), (1, 3, 512, KESTREL, True),
    (1, 3, 511, KESTREL, False), (1, 8, 2047, OTHER, False), (2, 4, 4096, KESTREL, False),
])
def test_kernel_choice(q_len, group, kv_len, fam, grouped, family, device):
    family(fam)
    q = torch.randn(1, group, q_len, 64, device=device)
    k, v = torch.randn(1, 1, kv_len, 64, device=device), torch.randn(1, 1, kv_len, 64, device=device)
    k8, v8 = (torch.randint(0, 256, k.shape, dtype=torch.uint8, device=device) for _ in range(2))
    assert count_records(lambda: vorta_addons.sdp(q, k, v, None, 1.0), *KERNELS) == \
        {n: (GQA if grouped else MHA).get(n, 0) for n in KERNELS}
    fp8 = GQA if grouped else {"mha fp8 kernel": 1}
    assert count_records(lambda: vorta_addons.sdp_fp8(q, k8, v8, None, 1.0), *KERNELS) == \
        {n: fp8.get(n, 0) for n in KERNELS}


def test_grouped_fp8_drops_the_callers_scale(device):
    q, k, v, _, kd, vd = fp8_case(torch.float32, 1, 4, 1, 1, 4096, 64, None, False, device=device)
    assert_accurate(vorta_addons.sdp_fp8(q, k, v, None, 1.0), q, kd, vd, None, 0.125)
    q2 = torch.cat([q, q], 2)
    assert_accurate(vorta_addons.sdp_fp8(q2, k, v, None, 1.0), q2, kd, vd, None, 1.0)


def test_sdp_ignores_the_scale_argument(device):
    q, k, v, m = make_inputs(torch.float32, 1, 4, 2, 1, 70, 96, "head", False, device=device)
    assert torch.equal(vorta_addons.sdp(q, k, v, m, 1.0), vorta_addons.sdp(q, k, v, m, 0.01))


@pytest.mark.parametrize("kv_len", [700, 4096])
def test_results_do_not_depend_on_thread_count(kv_len, lanes):
    q, k, v, m = make_inputs(torch.float16, 1, 8, 2, 1, kv_len, 128, "head", False)
    same_with_threads(lambda: vorta_addons.sdp(q, k, v, m, 0.0))


HEAD_DIM_MSG = "unsupported head_dim, only 256, 192, 128, 96, 80 and 64 are supported"
DTYPE_MSG = "unsupported dtype, only fp32 and fp16 are supported"


@pytest.mark.parametrize("fam", [OTHER, KESTREL])
@pytest.mark.parametrize("dtype,head_dim,msg", [
    (torch.float32, 112, HEAD_DIM_MSG), (torch.bfloat16, 64, DTYPE_MSG),
    (torch.bfloat16, 112, HEAD_DIM_MSG), (torch.float64, 128, DTYPE_MSG),
])
def test_argument_errors(dtype, head_dim, msg, fam, family):
    family(fam)  # KESTREL takes the grouped path here
    q = torch.ones(1, 4, 1, head_dim, dtype=dtype)
    k = torch.ones(1, 1, 600, head_dim, dtype=dtype)
    with pytest.raises(RuntimeError, match=msg):
        vorta_addons.sdp(q, k, k, None, 1.0)
    k8 = torch.ones(1, 1, 600, head_dim, dtype=torch.uint8)
    with pytest.raises(RuntimeError, match=msg):
        vorta_addons.sdp_fp8(q, k8, k8, None, 1.0)


@pytest.mark.parametrize("key_dim,value_dim,msg", [
    (128, 64, "unsupported head_dim, only 192 is supported"),
    (192, 64, "unsupported value head_dim, only 128 is supported"),
])
def test_unbalanced_fp8_errors(key_dim, value_dim, msg):
    q = torch.ones(1, 2, 1, key_dim)
    k = torch.ones(1, 2, 8, key_dim, dtype=torch.uint8)
    v = torch.ones(1, 2, 8, value_dim, dtype=torch.uint8)
    with pytest.raises(RuntimeError, match=msg):
        vorta_addons.sdp_fp8(q, k, v, None, 1.0)


def test_layouts_the_kernels_cannot_read_are_refused():
    q = torch.ones(1, 2, 1, 64)
    k = torch.ones(1, 2, 8, 128)[..., ::2]
    with pytest.raises(RuntimeError, match="key rows must be packed"):
        vorta_addons.sdp(q, k, k.contiguous(), None, 1.0)
    with pytest.raises(RuntimeError, match="must be uint8"):
        vorta_addons.sdp_fp8(q, k.contiguous(), k.contiguous(), None, 1.0)
    with pytest.raises(RuntimeError):  # 3 mask heads do not broadcast to 2
        vorta_addons.sdp(q, k.contiguous(), k.contiguous(), torch.zeros(1, 3, 1, 8), 1.0)


# Shape checks that every attention operator makes are in the bad-input tests; these are decode's own.
_SDP = "q, k, v, m = torch.ones(1, 4, 1, 64), torch.ones(1, 2, 8, 64), torch.ones(1, 2, 8, 64), None\n"
_FP8 = _SDP.replace("torch.ones(1, 2, 8, 64)", "torch.ones(1, 2, 8, 64, dtype=torch.uint8)")
FATAL = [
    ("sdp", _SDP + "k = k.half()", "query.scalar_type() == key.scalar_type() && query.scalar_type() == value.scalar_type()"),
    ("sdp", _SDP + "m = torch.zeros(1, 4, 2, 8)", "mask->size(2) == seq_length"),
    ("sdp", _SDP + "m = torch.zeros(1, 1, 1, 9)", "mask->size(3) == context_length"),
    ("sdp_fp8", _FP8 + "m = torch.zeros(1, 4, 3, 8)", "mask->size(2) == seq_length"),
    ("sdp_fp8", _FP8 + "m = torch.zeros(1, 4, 1, 7)", "mask->size(3) == context_length"),
]
FATAL_RUNS = FatalBatch((f"{setup}\nvorta_addons.{op}(q, k, v, m, 1.0)", expression, f"sdp/{op}")
                        for op, setup, expression in FATAL)


@pytest.mark.parametrize("index", range(len(FATAL)), ids=[f"{op}-{e}" for op, _, e in FATAL])
def test_fatal_checks(index):
    FATAL_RUNS.wait(index)


@pytest.mark.parametrize("kernel_family", [OTHER, KESTREL], ids=["single-pass", "two-pass"])
def test_a_head_masked_with_the_float32_minimum_averages_its_values(kernel_family, family, device):
    # The float32 minimum swamps every score, so all keys tie: the head's result is the
    # mean of its values (a scaling of the scores that overflowed would empty it instead).
    family(kernel_family)
    q, k, v, m = make_inputs(torch.float32, 1, 12, 4, 1, 300, 128, "head", False, device=device)
    m[0, 5] = torch.finfo(torch.float32).min
    out = vorta_addons.sdp(q, k, v, m, 1.0)
    assert_accurate(out, q, k, v, m, 1 / math.sqrt(128))
    mean = v[0, 5 // 3].double().mean(0)
    assert torch.allclose(out[0, 5, 0].double(), mean, atol=1e-6)


@pytest.mark.parametrize("kernel_family", [OTHER, KESTREL], ids=["single-pass", "two-pass"])
def test_more_than_65535_batch_and_key_value_head_pairs(kernel_family, family, device):
    # 8200 x 8 pairs: past what one grid dimension but the first may count.
    family(kernel_family)
    q, k, v, _ = make_inputs(torch.float32, 8200, 16, 8, 1, 33, 64, None, False, device=device)
    out = vorta_addons.sdp(q, k, v, None, 1.0)
    pick = torch.tensor([0, 1, 4095, 8191, 8192, 8199] + list(range(7, 8200, 509)), device=device)
    assert_accurate(out[pick], q[pick], k[pick], v[pick], None, 1 / 8)

