"""Mixture-of-experts MLP routed by the fused top-k operators.

`MoEWeights` holds a router and per-expert gated MLPs; `moe_mlp` routes a batch of token
rows with `moe_softmax_topk` (softmax over the router logits) or `moe_group_topk`
(sigmoid scores, an optional selection bias, grouped selection), runs each expert on the
rows routed to it with `mlp_silu_mul_inplaced` as the activation, and sums the weighted
expert outputs per token.
"""
from __future__ import annotations

import torch
import torch.nn.functional as F


class MoEWeights:
    """Weights of a mixture-of-experts MLP (shared by the operator loop and the reference)."""

    def __init__(self, router, w_gate, w_up, w_down, top_k, renormalize=True, routing="softmax",
                 bias=None, n_groups=1, topk_group=1, eps=1e-20, scale=1.0):
        self.router = router          # [experts, hidden]
        self.w_gate = w_gate          # [experts, inter, hidden]
        self.w_up = w_up              # [experts, inter, hidden]
        self.w_down = w_down          # [experts, hidden, inter]
        self.top_k, self.renormalize, self.routing = top_k, renormalize, routing
        self.bias, self.n_groups, self.topk_group, self.eps, self.scale = bias, n_groups, topk_group, eps, scale

    @classmethod
    def random(cls, hidden, inter, experts, top_k, seed=0, **kw):
        g = torch.Generator().manual_seed(seed)
        r = lambda *s, std=0.1: torch.randn(*s, generator=g) * std  # noqa: E731
        return cls(r(experts, hidden, std=0.5), r(experts, inter, hidden), r(experts, inter, hidden),
                   r(experts, hidden, inter, std=0.02), top_k, **kw)


    def to(self, dtype=None, device=None):
        conv = lambda t: None if t is None else t.to(device=device, dtype=dtype)  # noqa: E731
        return MoEWeights(conv(self.router), conv(self.w_gate), conv(self.w_up), conv(self.w_down),
                          self.top_k, self.renormalize, self.routing,
                          None if self.bias is None else self.bias.to(device=device),
                          self.n_groups, self.topk_group, self.eps, self.scale)


def moe_mlp(ops, m: MoEWeights, h: torch.Tensor) -> torch.Tensor:
    """h [tokens, hidden] -> [tokens, hidden]; m's tensors in h's dtype and on its device."""
    logits = F.linear(h, m.router)
    if m.routing == "softmax":
        ids, w = ops.moe_softmax_topk(logits, m.top_k, m.renormalize)
    elif m.routing == "group":
        ids, w = ops.moe_group_topk(torch.sigmoid(logits.float()), m.bias, m.n_groups, m.topk_group,
                                    0, m.top_k, m.renormalize, m.eps, m.scale)
    else:
        raise ValueError(f"unknown routing {m.routing!r}")
    out = torch.zeros(h.shape, dtype=torch.float32, device=h.device)
    flat = ids.reshape(-1)
    token_of = torch.arange(h.shape[0], device=h.device).repeat_interleave(m.top_k)
    weight_of = w.reshape(-1).float()
    for e in torch.unique(flat).tolist():
        sel = (flat == e).nonzero().squeeze(1)
        rows = token_of[sel]
        x = h.index_select(0, rows)
        gate = F.linear(x, m.w_gate[e])
        up = F.linear(x, m.w_up[e])
        ops.mlp_silu_mul_inplaced(gate, up)
        y = F.linear(gate, m.w_down[e]).float()
        out.index_add_(0, rows, y * weight_of[sel, None])
    return out.to(h.dtype)
