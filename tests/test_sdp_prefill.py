"""Prefill attention (vector and matrix-engine paths, siglip, gemma2) against float64 references."""
import math

import pytest
import torch

import vorta_addons
from helpers import assert_as_accurate_as_torch as check, count_records, kv_code_values

GROUP = "prefill"
KESTREL, FINCH, OSPREY, LARK, WREN, OTHER = 0, 3, 4, 5, 2, 7
F32, F16 = torch.float32, torch.float16
# One record per call, the attention kernel's: working copies of key and value
# are the backend's own business inside that launch.
KERNELS = ("sdp vec kernel", "sdp vec unbalanced kernel", "sdp sysa kernel")


def qkv(b, hq, hk, lq, lk, d, dtype, seed=0, device="cpu"):
    g = torch.Generator().manual_seed(seed)
    return [torch.randn(b, h, n, d, generator=g).to(dtype).to(device) for h, n in ((hq, lq), (hk, lk), (hk, lk))]


def fp8_cache(b, h, n, d, seed=0, device="cpu"):
    """8-bit key and value caches written by quantize_key_value, with the values their codes stand for."""
    k, v = torch.randn(2, b, h, n, d, generator=torch.Generator().manual_seed(seed))
    kb, vb = (torch.empty(b, h, n, d, dtype=torch.uint8) for _ in range(2))
    vorta_addons.quantize_key_value(k, v, kb, vb)
    return kb.to(device), vb.to(device), kv_code_values(kb, "key"), kv_code_values(vb, "value")


# (head_dim, kv_len, group) combinations covering awkward lengths and GQA groups.
VEC_SHAPES = [(64, 1, 1), (80, 31, 3), (96, 32, 4), (128, 33, 8), (192, 127, 1), (256, 129, 4),
              (128, 1000, 3), (64, 128, 8)]


@pytest.mark.parametrize("d,lk,group", VEC_SHAPES)
@pytest.mark.parametrize("dtype", [F32, F16])
@pytest.mark.parametrize("causal", [False, True])
def test_vector_path(d, lk, group, dtype, causal, device):
    lq = lk if causal else (lk % 7) + 5
    q, k, v = qkv(2 if lk < 500 else 1, 2 * group, 2, lq, lk, d, dtype, seed=d + lk, device=device)
    op = vorta_addons.sdp_causal if causal else vorta_addons.sdp_non_causal
    counts = count_records(lambda: check(op(q, k, v, None, 1 / math.sqrt(d)), q, k, v, None,
                                         1 / math.sqrt(d), causal), *KERNELS)
    assert counts == {n: int(n == "sdp vec kernel") for n in KERNELS}


@pytest.mark.parametrize("lq", [1, 257])
def test_vector_result_is_a_view_of_a_256_row_buffer(lq, device):
    q, k, v = qkv(1, 2, 1, lq, lq, 128, F32, device=device)
    out = vorta_addons.sdp_causal(q, k, v, None, 0.1)
    rows = (lq + 255) // 256 * 256
    assert out.shape == (1, 2, lq, 128) and out.stride() == (2 * rows * 128, rows * 128, 128, 1)
    assert out.untyped_storage().nbytes() // (out.element_size() * 2 * 128) == rows  # the buffer behind the view
    check(out, q, k, v, None, 0.1, True)


@pytest.mark.parametrize("fam", [KESTREL, FINCH, OSPREY, LARK])
@pytest.mark.parametrize("d,lk,dtype,causal", [(64, 33, F32, True), (80, 129, F16, False),
                                               (128, 127, F32, False), (128, 200, F16, True)])
def test_matrix_engine_path(family, fam, d, lk, dtype, causal, device):
    family(fam)
    lq = lk if causal else 9
    q, k, v = qkv(1, 4, 1, lq, lk, d, dtype, seed=fam, device=device)
    op = vorta_addons.sdp_causal if causal else vorta_addons.sdp_non_causal
    out = []
    counts = count_records(lambda: out.append(op(q, k, v, None, 0.125)), *KERNELS)
    assert counts == {n: int(n == "sdp sysa kernel") for n in KERNELS}
    assert out[0].is_contiguous()
    check(out[0], q, k, v, None, 0.125, causal, kv_half=True)


@pytest.mark.parametrize("fam,causal", [(OTHER, False), (OTHER, True), (KESTREL, True)])
def test_more_than_65535_batch_entries(family, fam, causal, device):
    family(fam)  # past the 65535 blocks a GPU grid's second and third dimensions take
    q, k, v = qkv(70000, 1, 1, 1, 1, 64, F16, device=device)
    op = vorta_addons.sdp_causal if causal else vorta_addons.sdp_non_causal
    # One key per entry: each result row is that entry's value row.
    torch.testing.assert_close(op(q, k, v, None, 0.125), v, rtol=1e-3, atol=1e-3)


@pytest.mark.parametrize("fam,d", [(KESTREL, 96), (WREN, 128), (OTHER, 64), (LARK, 256)])
def test_families_and_head_sizes_without_the_engine_take_the_vector_path(family, fam, d, device):
    family(fam)
    q, k, v = qkv(1, 2, 2, 5, 5, d, F32, device=device)
    counts = count_records(lambda: vorta_addons.sdp_non_causal(q, k, v, None, 0.2),
                           "sdp vec kernel", "sdp sysa kernel")
    assert counts == {"sdp vec kernel": 1, "sdp sysa kernel": 0}


@pytest.mark.parametrize("fam", [OTHER, KESTREL])
@pytest.mark.parametrize("dtype", [F32, F16])
@pytest.mark.parametrize("causal,lq,lk,d,group", [(True, 33, 33, 64, 3), (False, 4, 129, 64, 3),
                                                   (True, 129, 129, 128, 2), (False, 40, 70, 192, 4),
                                                   (False, 5, 127, 96, 1)])
def test_fp8_caches(family, fam, dtype, causal, lq, lk, d, group, device):
    family(fam)
    kb, vb, kf, vf = fp8_cache(1, 2, lk, d, seed=lk, device=device)
    q = torch.randn(1, 2 * group, lq, d).to(dtype).to(device)
    op = vorta_addons.sdp_fp8_causal if causal else vorta_addons.sdp_fp8_non_causal
    out = []
    counts = count_records(lambda: out.append(op(q, kb, vb, None, 0.125)), *KERNELS)
    ran = "sdp sysa kernel" if fam != OTHER and d in (64, 80, 128) else "sdp vec kernel"
    assert counts == {n: int(n == ran) for n in KERNELS}
    check(out[0], q, kf, vf, None, 0.125, causal)


def test_fp8_value_code_zero_is_small_not_zero(device):
    kb = torch.full((1, 1, 3, 64), 0x48, dtype=torch.uint8, device=device)  # key 1.0 everywhere
    vb = torch.zeros(1, 1, 3, 64, dtype=torch.uint8, device=device)
    out = vorta_addons.sdp_fp8_non_causal(torch.ones(1, 1, 2, 64, device=device), kb, vb, None, 0.1)
    assert torch.all(out == 0.0002593994140625)


@pytest.mark.parametrize("dtype", [F32, F16])
@pytest.mark.parametrize("kind", ["per-head", "broadcast", "padded-per-head", "padded-odd-tail"])
@pytest.mark.parametrize("fam", [OTHER, LARK])
def test_masks(family, fam, dtype, kind, device):
    family(fam)
    lq, lk, h = 6, 100, 4
    q, k, v = qkv(2, h, 2, lq, lk, 64, dtype, seed=3, device=device)
    g = torch.Generator().manual_seed(5)
    heads = 1 if kind == "broadcast" else h
    width = 128 if kind.startswith("padded") else lk
    mask = (torch.randn(2, heads, lq, width, generator=g) * 3).to(dtype)
    mask[..., :lk][torch.rand(2, heads, lq, lk, generator=g) < 0.3] = -10000.0
    if kind == "padded-odd-tail":
        mask[..., lk:] = 7.0  # columns past kv_len are never read
    mask = mask.to(device)
    out = vorta_addons.sdp_non_causal(q, k, v, mask, 0.125)
    # A mask of width kv_len is padded keeping head 0 only; a padded one is used as it is.
    effective = mask[:, :1, :, :lk] if width == lk else mask[..., :lk]
    check(out, q, k, v, effective.expand(2, h, lq, lk), 0.125, False, kv_half=fam == LARK)


@pytest.mark.parametrize("fam", [OTHER, KESTREL])
def test_rows_masked_far_below_the_half_range_still_average(family, fam, device):
    family(fam)
    q, k, v = qkv(1, 2, 1, 5, 70, 64, F32, device=device)
    mask = torch.zeros(1, 1, 5, 70, device=device)
    mask[0, 0, 1] = torch.finfo(torch.float32).min
    mask[0, 0, 3, :40] = -1e9
    out = vorta_addons.sdp_non_causal(q, k, v, mask, 0.125)
    assert torch.isfinite(out).all()
    check(out, q, k, v, mask, 0.125, False, kv_half=fam == KESTREL)


def test_causal_with_a_mask_keeps_top_left_alignment(device):
    q, k, v = qkv(1, 2, 1, 40, 40, 80, F32, device=device)
    mask = torch.randn(1, 1, 40, 40).to(device)
    out = vorta_addons.sdp_causal(q, k, v, mask, 0.3)
    check(out, q, k, v, mask, 0.3, True)


@pytest.mark.parametrize("fam", [KESTREL, LARK])
@pytest.mark.parametrize("dtype", [F32, F16])
def test_siglip(family, fam, dtype, device):
    family(fam)
    q, k, v = qkv(2, 3, 3, 50, 70, 72, dtype, seed=7, device=device)
    mask = torch.randn(2, 1, 50, 70).to(dtype).to(device)
    out = []
    counts = count_records(lambda: out.append(vorta_addons.siglip_sdp_non_causal(q, k, v, mask)),
                           *KERNELS)
    assert counts == {n: int(n == "sdp sysa kernel") for n in KERNELS}
    assert out[0].shape == (2, 3, 50, 72) and out[0].stride() == (3 * 256 * 80, 256 * 80, 80, 1)
    check(out[0], q, k, v, mask, 1 / math.sqrt(72), False, kv_half=True)


@pytest.mark.parametrize("causal", [False, True])
@pytest.mark.parametrize("dtype", [F32, F16])
@pytest.mark.parametrize("d,lk,group", [(128, 70, 2), (256, 33, 1), (80, 129, 3)])
def test_gemma2_soft_capping(causal, dtype, d, lk, group, device):
    q, k, v = qkv(2, 2 * group, 2, lk if causal else 11, lk, d, dtype, seed=d, device=device)
    mask = (torch.randn(2, 1, q.shape[2], lk) * 2).to(dtype).to(device)
    op = vorta_addons.gemma2_sdp_causal if causal else vorta_addons.gemma2_sdp
    name = "gemma2 sdp causal" if causal else "gemma2 sdp"
    out = []
    assert count_records(lambda: out.append(op(q, k, v, mask, 5.0, 0.4)), name) == {name: 1}
    assert out[0].is_contiguous()
    check(out[0], q, k, v, mask, 0.4, causal, softcap=5.0)


def test_strided_inputs_are_read_in_place(device):
    # [b, seq, heads, qkv, d], as a fused projection lays it out
    base = torch.randn(1, 40, 4, 3, 64).to(device)
    q, k, v = (base[:, :, :, i].transpose(1, 2) for i in range(3))
    out = vorta_addons.sdp_causal(q, k, v, None, 0.125)
    check(out, q, k, v, None, 0.125, True)
    check(vorta_addons.gemma2_sdp(q, k, v, None, 30.0, 0.125), q, k, v, None, 0.125, False, 30.0)


def test_rows_off_the_16_byte_grid_are_read(device):
    flat = torch.randn(3, 2 * 40 * 64 + 1).half().to(device)
    q, k, v = (t[1:].view(1, 2, 40, 64) for t in flat)
    check(vorta_addons.sdp_causal(q, k, v, None, 0.125), q, k, v, None, 0.125, True)
