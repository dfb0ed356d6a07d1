"""moe_softmax_topk and moe_group_topk against plain-torch / plain-Python references."""
import re

import pytest
import torch
import torch.nn.functional as F

import vorta_addons
from helpers import assert_fatal

GROUP = "moe"


@pytest.mark.parametrize("dtype", [torch.float32, torch.float16])
@pytest.mark.parametrize("n_experts,top_k", [(256, 8), (64, 6), (16, 16), (256, 32), (128, 1)])
@pytest.mark.parametrize("renormalize", [False, True])
def test_softmax_topk_matches_reference(dtype, n_experts, top_k, renormalize, device):
    x = (torch.randn(97, n_experts) * 3).to(dtype)
    ids, w = (t.cpu() for t in vorta_addons.moe_softmax_topk(x.to(device), top_k, renormalize))
    # 256 lanes, the unused ones 0.0; ties to the lowest lane
    p = F.pad(torch.softmax(x.double(), -1), (0, 256 - n_experts))
    ref_w, ref_ids = torch.sort(p, dim=-1, descending=True, stable=True)
    ref_w, ref_ids = ref_w[:, :top_k], ref_ids[:, :top_k]
    ref_w = ref_w / ref_w.sum(-1, keepdim=True) if renormalize else ref_w
    assert ids.dtype == torch.int64 and w.dtype == dtype and ids.shape == w.shape == (97, top_k)
    assert torch.equal(ids, ref_ids)
    torch.testing.assert_close(w.double(), ref_w, rtol=2e-6 if dtype == torch.float32 else 1e-3, atol=1e-7)


def test_softmax_topk_ties_go_to_the_lowest_expert(device):
    x = torch.randn(3, 32) * 0.1
    x[:, [3, 7, 30]] = 4.0
    x[2, 1] = 4.0
    ids, w = vorta_addons.moe_softmax_topk(x.to(device), 4, False)
    assert ids[:2, :3].tolist() == [[3, 7, 30]] * 2 and ids[2].tolist() == [1, 3, 7, 30]
    assert (w[:, :3] == w[:, :1]).all()


def take_max(lanes):
    """Largest lane not taken yet, lowest index on ties; the lane is then taken (None)."""
    i = lanes.index(max(x for x in lanes if x is not None))
    value, lanes[i] = lanes[i], None
    return i, value


def ref_group_topk(scores, bias, n_groups, topk_group, top_k, renormalize, eps, scale):
    per = scores.shape[1] // n_groups
    all_ids, all_w = [], []
    for row in scores:
        v = row.clone() if bias is None else row + bias.float()
        group_scores = []
        for g in range(n_groups):
            lanes, s = v[g * per:(g + 1) * per].tolist(), torch.zeros(())
            for _ in range(topk_group):
                s = s + take_max(lanes)[1]  # float32 sum in order
            group_scores.append(s.item())
        for g, s in enumerate(group_scores):
            if sum(o > s or (o == s and j < g) for j, o in enumerate(group_scores)) >= topk_group:
                v[g * per:(g + 1) * per] = 0.0
        lanes = v.tolist()
        ids = torch.tensor([take_max(lanes)[0] for _ in range(top_k)])
        w = row[ids]
        if renormalize:  # halving folds over 32 zero-padded lanes
            s = F.pad(w, (0, 32 - top_k))
            while s.numel() > 1:
                s = s[:s.numel() // 2] + s[s.numel() // 2:]
            w = w / (s[0] + eps)
        all_ids.append(ids)
        all_w.append(w * scale)
    return torch.stack(all_ids), torch.stack(all_w)


@pytest.mark.parametrize("n_experts,n_groups,topk_group,top_k", [
    (256, 8, 4, 8), (64, 4, 2, 6), (160, 5, 2, 32), (16, 1, 3, 3)])
@pytest.mark.parametrize("bias_kind,shift", [
    ("none", 0.0), ("float", 0.0), ("half", 0.0),
    ("float", -0.9),  # kept scores negative: masked experts (0.0) come first
    ("half", -3.0),   # below -1.0: a taken expert must still never come back
])
@pytest.mark.parametrize("renormalize", [False, True])
def test_group_topk_matches_reference(n_experts, n_groups, topk_group, top_k, bias_kind, shift, renormalize,
                                      device):
    scores = torch.rand(24, n_experts)
    bias = None if bias_kind == "none" else (torch.randn(n_experts) * 0.1 + shift).to(
        torch.float16 if bias_kind == "half" else torch.float32)
    # epsilon first, routed_scaling_factor second; the third integer is ignored
    ids, w = (t.cpu() for t in vorta_addons.moe_group_topk(
        scores.to(device), None if bias is None else bias.to(device), n_groups, topk_group, 123, top_k,
        renormalize, 0.25, 2.5))
    ref_ids, ref_w = ref_group_topk(scores, bias, n_groups, topk_group, top_k, renormalize, 0.25, 2.5)
    assert w.dtype == (torch.float32 if bias is None else bias.dtype) and ids.dtype == torch.int64
    assert torch.equal(ids, ref_ids) and torch.equal(w, ref_w.to(w.dtype))


def test_group_ties_rank_the_lower_group_first(device):
    scores = torch.full((1, 64), 0.0625)
    scores[0, [0, 1, 16, 17, 32, 33]] = torch.tensor([0.875, 0.875, 0.75, 0.25, 0.5, 0.5])
    # group sums of the top 2: 1.75, 1.0, 1.0, 0.125: group 1 is kept, group 2 is not
    ids, _ = vorta_addons.moe_group_topk(scores.to(device), None, 4, 2, 0, 4, False, 0.0, 1.0)
    assert ids.tolist() == [[0, 1, 16, 17]]


def test_masked_groups_hold_zero_not_minus_infinity(device):
    bias = torch.full((32,), -0.9, device=device)  # kept experts score -0.4 < 0.0
    ids, w = vorta_addons.moe_group_topk(torch.full((1, 32), 0.5, device=device), bias, 2, 1, 0, 2, True, 0.0, 3.0)
    assert ids.tolist() == [[16, 17]] and w.tolist() == [[1.5, 1.5]]  # unbiased, renormalised, scaled


@pytest.mark.parametrize("op", ["softmax", "group"])
def test_nan_row_gives_expert_zero(op, device):
    x = torch.rand(2, 64, device=device)
    x[1, 5 if op == "softmax" else slice(None)] = float("nan")
    ids, _ = vorta_addons.moe_softmax_topk(x, 3, True) if op == "softmax" else \
        vorta_addons.moe_group_topk(x, None, 4, 2, 0, 3, False, 0.0, 1.0)
    assert ids[1].tolist() == [0, 0, 0] and len(set(ids[0].tolist())) == 3


@pytest.mark.parametrize("call,message", [
    ("moe_softmax_topk(torch.rand(2, 3, 16), 2, True)", "Expected logits.dim() == 2 to be true, but got false."),
    ("moe_softmax_topk(torch.rand(2, 16).double(), 2, True)", "unsupported dtype, only fp32 and fp16 are supported"),
    ("moe_group_topk(torch.rand(64), None, 4, 2, 0, 2, True, 0.0, 1.0)",
     "Expected scores.dim() == 2 to be true, but got false."),
    ("moe_group_topk(torch.rand(2, 64).half(), torch.rand(64).half(), 4, 2, 0, 2, True, 0.0, 1.0)",
     "Expected scores.scalar_type() == torch::kFloat32 to be true, but got false."),
    ("moe_group_topk(torch.rand(2, 64), torch.rand(64).bfloat16(), 4, 2, 0, 2, True, 0.0, 1.0)",
     "unsupported dtype, only fp32 and fp16 are supported"),
])
def test_argument_errors(call, message):
    with pytest.raises(RuntimeError, match=re.escape(message)):
        eval("vorta_addons." + call)


@pytest.mark.parametrize("call,expression", [
    ("moe_softmax_topk(torch.rand(2, 8), 2, True)", "n_experts % ES == 0"),
    ("moe_softmax_topk(torch.rand(2, 272), 2, True)", "n_experts <= 256"),
    ("moe_softmax_topk(torch.rand(2, 256), 33, True)", "top_k <= 32"),
    ("moe_group_topk(torch.rand(2, 64), None, 8, 2, 0, 4, True, 0.0, 1.0)", "experts_per_group % ES == 0"),
    ("moe_group_topk(torch.rand(2, 272), None, 17, 2, 0, 4, True, 0.0, 1.0)", "n_experts <= 256"),
    ("moe_group_topk(torch.rand(2, 256), None, 8, 2, 0, 33, True, 0.0, 1.0)", "top_k <= 32"),
])
def test_fatal_checks(call, expression):
    assert_fatal("vorta_addons." + call, expression, "moe")
