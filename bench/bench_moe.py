"""Mixture-of-experts routing: 256 experts, top 8, for 4096 prompt tokens and decode steps of
1 and 8 tokens. Softmax top-k over router logits, and grouped top-k (8 groups, 4 kept) over
sigmoid scores with a selection bias."""
import torch

import vorta_addons
from bench.runner import Case, dtype_name, fresh, uniform

EXPERTS, TOP_K = 256, 8
TOKENS = [(4096, "large"), (8, "decode"), (1, "decode")]


def softmax_topk_composite(x, top_k):
    w, ids = torch.topk(torch.softmax(x.float(), -1), top_k, -1)
    return ids, (w / w.sum(-1, keepdim=True)).to(x.dtype)


def group_topk_composite(scores, bias, n_groups, topk_group, top_k, scale):
    """Biased scores; groups ranked by the sum of their topk_group best; the other groups zeroed."""
    tokens, n = scores.shape
    biased = scores + bias
    group_scores = biased.view(tokens, n_groups, -1).topk(topk_group, -1)[0].sum(-1)
    keep = torch.zeros_like(group_scores).scatter_(1, group_scores.topk(topk_group, -1)[1], 1.0)
    masked = biased.view(tokens, n_groups, -1).masked_fill(keep[..., None] == 0, 0.0).view(tokens, n)
    ids = masked.topk(top_k, -1)[1]
    w = scores.gather(1, ids)
    return ids, w / (w.sum(-1, keepdim=True) + 1e-20) * scale


def cases(device):
    for tokens, size in TOKENS:
        shape = f"[{tokens}, {EXPERTS}] top {TOP_K}"
        ids = fresh((tokens, TOP_K), torch.int64)
        for dtype in (torch.float32, torch.float16):
            x = uniform((tokens, EXPERTS), dtype, device, -4.0, 4.0)
            yield Case("moe_softmax_topk", shape, dtype_name(dtype),
                       lambda x=x: vorta_addons.moe_softmax_topk(x, TOP_K, True),
                       softmax_topk_composite, (x, TOP_K), [x], [ids, fresh((tokens, TOP_K), dtype)],
                       size=size)
        scores = uniform((tokens, EXPERTS), torch.float32, device, 0.0, 1.0)
        bias = uniform((EXPERTS,), torch.float32, device, -0.01, 0.01)
        yield Case("moe_group_topk", f"{shape}, 8 groups keep 4", "float32",
                   lambda s=scores, b=bias: vorta_addons.moe_group_topk(s, b, 8, 4, 0, TOP_K, True, 1e-20, 2.5),
                   group_topk_composite, (scores, bias, 8, 4, TOP_K, 2.5), [scores, bias],
                   [ids, fresh((tokens, TOP_K), torch.float32)], size=size)
