"""moe_softmax_topk and moe_group_topk against plain-torch / plain-Python references."""
import re

import pytest
import torch

import vorta_addons
from helpers import assert_fatal, count_records


def ref_softmax_topk(x, top_k, renormalize):
    p = torch.softmax(x.double(), -1)
    p = torch.nn.functional.pad(p, (0, 256 - p.shape[1]))  # 256 lanes, the unused ones 0.0
    w, ids = torch.sort(p, dim=-1, descending=True, stable=True)  # ties: lowest expert first
    w, ids = w[:, :top_k], ids[:, :top_k]
    return ids, (w / w.sum(-1, keepdim=True) if renormalize else w)


@pytest.mark.parametrize("dtype", [torch.float32, torch.float16])
@pytest.mark.parametrize("n_experts,top_k", [(256, 8), (64, 6), (16, 20), (256, 32), (128, 1)])
@pytest.mark.parametrize("renormalize", [False, True])
def test_softmax_topk_matches_reference(dtype, n_experts, top_k, renormalize):
    x = (torch.randn(97, n_experts) * 3).to(dtype)
    ids, w = vorta_addons.moe_softmax_topk(x, top_k, renormalize)
    ref_ids, ref_w = ref_softmax_topk(x, top_k, renormalize)
    assert ids.dtype == torch.int64 and w.dtype == dtype and ids.shape == w.shape == (97, top_k)
    assert torch.equal(ids, ref_ids)
    tol = 2e-6 if dtype == torch.float32 else 1e-3
    torch.testing.assert_close(w.double(), ref_w, rtol=tol, atol=1e-7)


def test_softmax_topk_ties_go_to_the_lowest_expert():
    x = torch.randn(3, 32) * 0.1
    x[:, [3, 7, 30]] = 4.0
    x[2, 1] = 4.0
    ids, w = vorta_addons.moe_softmax_topk(x, 4, False)
    assert ids[:2, :3].tolist() == [[3, 7, 30]] * 2 and ids[2, :4].tolist() == [1, 3, 7, 30]
    assert (w[:, :3] == w[:, :1]).all()


def test_softmax_topk_nan_row_gives_expert_zero():
    x = torch.randn(2, 64)
    x[1, 5] = float("nan")
    ids, _ = vorta_addons.moe_softmax_topk(x, 4, True)
    assert ids[1].tolist() == [0, 0, 0, 0] and len(set(ids[0].tolist())) == 4


def fold(v):
    """Sum by halving folds in float32 (lane i + lane i + w/2, ...)."""
    v = v.clone()
    w = v.numel() // 2
    while w >= 1:
        v[:w] = v[:w] + v[w:2 * w]
        w //= 2
    return v[0]


def take_max(lanes):
    """Largest lane, lowest index on ties; the lane becomes -1.0."""
    m = max(lanes)
    i = lanes.index(m)
    lanes[i] = -1.0
    return i, m


def ref_group_topk(scores, bias, n_groups, topk_group, top_k, renormalize, eps, scale):
    tokens, n = scores.shape
    per = n // n_groups
    ids = torch.zeros(tokens, top_k, dtype=torch.long)
    weights = torch.zeros(tokens, top_k)
    for t in range(tokens):
        v = scores[t].clone() if bias is None else scores[t] + bias.float()
        group_scores = []
        for g in range(n_groups):
            lanes, s = v[g * per:(g + 1) * per].tolist(), torch.zeros(())
            for _ in range(topk_group):
                s = s + take_max(lanes)[1]
            group_scores.append(s.item())
        for g, s in enumerate(group_scores):
            rank = sum(o > s or (o == s and j < g) for j, o in enumerate(group_scores))
            if rank >= topk_group:
                v[g * per:(g + 1) * per] = 0.0
        lanes = v.tolist()
        ids[t] = torch.tensor([take_max(lanes)[0] for _ in range(top_k)])
        w = scores[t, ids[t]]
        if renormalize:
            w = w / (fold(torch.nn.functional.pad(w, (0, 32 - top_k))) + eps)
        weights[t] = w * scale
    return ids, weights


@pytest.mark.parametrize("n_experts,n_groups,topk_group,top_k", [
    (256, 8, 4, 8), (64, 4, 2, 6), (160, 5, 2, 32), (16, 1, 3, 3)])
@pytest.mark.parametrize("bias_kind,shift", [
    ("none", 0.0), ("float", 0.0), ("half", 0.0),
    ("float", -0.9),  # kept scores negative: masked experts (0.0) come first
    ("half", -3.0),   # below -1.0: taken lanes (-1.0) win again
])
@pytest.mark.parametrize("renormalize", [False, True])
def test_group_topk_matches_reference(n_experts, n_groups, topk_group, top_k, bias_kind, shift,
                                      renormalize):
    g = torch.Generator().manual_seed(n_experts + top_k)
    scores = torch.rand(24, n_experts, generator=g)
    bias = None if bias_kind == "none" else \
        (torch.randn(n_experts, generator=g) * 0.1 + shift).to(
            torch.float16 if bias_kind == "half" else torch.float32)
    ids, w = vorta_addons.moe_group_topk(scores, bias, n_groups, topk_group, 123, top_k,
                                         renormalize, 0.25, 2.5)
    ref_ids, ref_w = ref_group_topk(scores, bias, n_groups, topk_group, top_k, renormalize, 0.25, 2.5)
    assert ids.dtype == torch.int64
    assert w.dtype == (torch.float32 if bias is None else bias.dtype)
    assert torch.equal(ids, ref_ids)
    assert torch.equal(w, ref_w.to(w.dtype))


def test_group_ties_rank_the_lower_group_first():
    scores = torch.full((1, 64), 0.0625)
    scores[0, [0, 1]] = 0.875                 # group 0: 1.75
    scores[0, [16, 17]] = torch.tensor([0.75, 0.25])  # group 1: 1.0
    scores[0, [32, 33]] = 0.5                 # group 2: 1.0, ranked after group 1
    ids, _ = vorta_addons.moe_group_topk(scores, None, 4, 2, 0, 4, False, 0.0, 1.0)
    assert ids.tolist() == [[0, 1, 16, 17]]


def test_masked_groups_hold_zero_not_minus_infinity():
    scores = torch.full((1, 32), 0.5)
    bias = torch.full((32,), -0.9)  # kept experts score -0.4 < 0.0
    ids, w = vorta_addons.moe_group_topk(scores, bias, 2, 1, 0, 2, True, 0.0, 3.0)
    assert ids.tolist() == [[16, 17]]  # group 1 is masked; its experts win
    assert w.tolist() == [[1.5, 1.5]]  # unbiased weights, renormalised, scaled


def test_group_topk_nan_row_gives_expert_zero():
    scores = torch.rand(2, 64)
    scores[1] = float("nan")
    ids, _ = vorta_addons.moe_group_topk(scores, None, 4, 2, 0, 3, False, 0.0, 1.0)
    assert ids[1].tolist() == [0, 0, 0]


def test_argument_errors():
    with pytest.raises(RuntimeError, match=re.escape("Expected logits.dim() == 2 to be true, but got false.")):
        vorta_addons.moe_softmax_topk(torch.rand(2, 3, 16), 2, True)
    with pytest.raises(RuntimeError, match="unsupported dtype, only fp32 and fp16 are supported"):
        vorta_addons.moe_softmax_topk(torch.rand(2, 16).double(), 2, True)
    with pytest.raises(RuntimeError, match=re.escape("Expected scores.dim() == 2 to be true, but got false.")):
        vorta_addons.moe_group_topk(torch.rand(64), None, 4, 2, 0, 2, True, 0.0, 1.0)
    with pytest.raises(RuntimeError, match=re.escape(
            "Expected scores.scalar_type() == torch::kFloat32 to be true, but got false.")):
        vorta_addons.moe_group_topk(torch.rand(2, 64).half(), torch.rand(64).half(), 4, 2, 0, 2,
                                    True, 0.0, 1.0)
    with pytest.raises(RuntimeError, match="unsupported dtype, only fp32 and fp16 are supported"):
        vorta_addons.moe_group_topk(torch.rand(2, 64), torch.rand(64).bfloat16(), 4, 2, 0, 2,
                                    True, 0.0, 1.0)


def test_one_record_per_call():
    x = torch.rand(4, 64)
    assert count_records(lambda: vorta_addons.moe_softmax_topk(x, 2, True),
                         "moe softmax topk") == {"moe softmax topk": 1}
    assert count_records(lambda: vorta_addons.moe_group_topk(x, None, 4, 2, 0, 2, True, 0.0, 1.0),
                         "moe group topk") == {"moe group topk": 1}


@pytest.mark.parametrize("code,expression", [
    ("vorta_addons.moe_softmax_topk(torch.rand(2, 8), 2, True)", "n_experts % ES == 0"),
    ("vorta_addons.moe_softmax_topk(torch.rand(2, 272), 2, True)", "n_experts <= 256"),
    ("vorta_addons.moe_softmax_topk(torch.rand(2, 256), 33, True)", "top_k <= 32"),
    ("vorta_addons.moe_group_topk(torch.rand(2, 64), None, 8, 2, 0, 4, True, 0.0, 1.0)",
     "experts_per_group % ES == 0"),
    ("vorta_addons.moe_group_topk(torch.rand(2, 272), None, 17, 2, 0, 4, True, 0.0, 1.0)",
     "n_experts <= 256"),
    ("vorta_addons.moe_group_topk(torch.rand(2, 256), None, 8, 2, 0, 33, True, 0.0, 1.0)", "top_k <= 32"),
])
def test_fatal_checks(code, expression):
    assert_fatal(code, expression, "moe")
