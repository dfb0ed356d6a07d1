import torch

import vorta_addons
from bench.runner import Case


def softmax_topk_composite(x, top_k):
    w, ids = torch.topk(torch.softmax(x, -1), top_k, -1)
    return ids, w / w.sum(-1, keepdim=True)


def group_topk_composite(scores, bias, n_groups, topk_group, top_k, scale):
    """DeepSeek-V3 routing: biased scores, groups ranked by their top-2 sums."""
    tokens, n = scores.shape
    biased = scores + bias
    group_scores = biased.view(tokens, n_groups, -1).topk(2, -1)[0].sum(-1)
    keep = torch.zeros_like(group_scores).scatter_(1, group_scores.topk(topk_group, -1)[1], 1.0)
    masked = biased.view(tokens, n_groups, -1).masked_fill(keep[..., None] == 0, 0.0).view(tokens, n)
    ids = masked.topk(top_k, -1)[1]
    w = scores.gather(1, ids)
    return ids, w / (w.sum(-1, keepdim=True) + 1e-20) * scale


def cases():
    for dtype in (torch.float32, torch.float16):
        x = torch.randn(4096, 256).to(dtype)
        yield Case("moe_softmax_topk", "[4096, 256] top 8", str(dtype).replace("torch.", ""),
                   lambda x=x: vorta_addons.moe_softmax_topk(x, 8, True),
                   lambda x=x: softmax_topk_composite(x, 8), [x])
    scores = torch.randn(4096, 256).sigmoid()
    bias = torch.randn(256) * 0.01
    yield Case("moe_group_topk", "[4096, 256] 8 groups top 4/8", "float32",
               lambda: vorta_addons.moe_group_topk(scores, bias, 8, 4, 0, 8, True, 1e-20, 2.5),
               lambda: group_topk_composite(scores, bias, 8, 4, 8, 2.5), [scores])
