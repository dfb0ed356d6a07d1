"""An independent plain-torch forward of the same decoder, for side-by-side checks.

Written without the fused operators: explicit RMS norm, rotate-half rotary from cos/sin,
repeated key/value heads, a masked softmax, SiLU gating, and a plain top-k routing for
the mixture-of-experts variant. The key/value history is kept in Python lists at full
precision; with `kv8=True` the decode steps attend over the history rounded through the
8-bit cache code (`fake_quant_key`, `fake_quant_value`) while prefill attends over the
exact values, which is what the operator loop computes.
"""
from __future__ import annotations

import math

import torch
import torch.nn.functional as F

from .config import LlamaConfig
from .moe import MoEWeights


def _fake_quant(x: torch.Tensor, lo_bits: int, hi_bits: int) -> torch.Tensor:
    """Rounds x through the one-byte code: fp16, clamp of |x|, keep 3 mantissa bits, midpoint."""
    h = x.to(torch.float16)
    bits = h.view(torch.int16).to(torch.int32) & 0xFFFF
    sign = bits & 0x8000
    mag = bits & 0x7FFF
    mag = mag.clamp(lo_bits, hi_bits)
    mag = (mag & 0x7F80) | 0x40
    out = (sign | mag).to(torch.int32)
    out = torch.where(out >= 0x8000, out - 0x10000, out).to(torch.int16)
    return out.view(torch.float16).to(x.dtype)


def fake_quant_key(x: torch.Tensor) -> torch.Tensor:
    return _fake_quant(x, 0x1840, 0x57C0)


def fake_quant_value(x: torch.Tensor) -> torch.Tensor:
    return _fake_quant(x, 0x0C40, 0x4BC0)


def _rms(x, w, eps):
    x32 = x.float()
    y = x32 * torch.rsqrt(x32.pow(2).mean(-1, keepdim=True) + eps)
    return (w.float() * y).to(x.dtype)


def _rotate_half(x):
    h = x.shape[-1] // 2
    return torch.cat((-x[..., h:], x[..., :h]), dim=-1)


def route_softmax_topk(logits: torch.Tensor, top_k: int, renormalize: bool):
    """Plain softmax routing: probabilities over experts, the k largest, optionally renormalised."""
    p = torch.softmax(logits.float(), dim=-1)
    w, ids = torch.topk(p, top_k, dim=-1)
    if renormalize:
        w = w / w.sum(-1, keepdim=True)
    return ids, w


def route_group_topk(scores: torch.Tensor, bias, n_groups: int, topk_group: int, top_k: int,
                     renormalize: bool, eps: float, scale: float):
    """Grouped routing: groups ranked by the sum of their `topk_group` best biased scores,
    experts of the other groups zeroed, the `top_k` best biased scores chosen, weights taken
    from the unbiased scores."""
    t, e = scores.shape
    biased = scores if bias is None else scores + bias.float()
    per = biased.view(t, n_groups, e // n_groups)
    group_score = per.topk(topk_group, dim=-1).values.sum(-1)
    keep = torch.zeros(t, n_groups, dtype=torch.bool)
    keep.scatter_(1, group_score.topk(topk_group, dim=-1).indices, True)
    masked = torch.where(keep[:, :, None], per, torch.zeros_like(per)).view(t, e)
    ids = masked.topk(top_k, dim=-1).indices
    w = scores.gather(1, ids)
    if renormalize:
        w = w / (w.sum(-1, keepdim=True) + eps)
    return ids, w * scale


def reference_moe(m: MoEWeights, h: torch.Tensor) -> torch.Tensor:
    logits = F.linear(h, m.router.to(h.dtype))
    if m.routing == "softmax":
        ids, w = route_softmax_topk(logits, m.top_k, m.renormalize)
    else:
        ids, w = route_group_topk(torch.sigmoid(logits.float()), m.bias, m.n_groups, m.topk_group,
                                  m.top_k, m.renormalize, m.eps, m.scale)
    out = torch.zeros_like(h, dtype=torch.float32)
    for t in range(h.shape[0]):
        for j in range(m.top_k):
            e = int(ids[t, j])
            x = h[t].float()
            y = F.silu(m.w_gate[e] @ x) * (m.w_up[e] @ x)
            out[t] += float(w[t, j]) * (m.w_down[e] @ y)
    return out.to(h.dtype)


class ReferenceLlama:
    def __init__(self, cfg: LlamaConfig, weights: dict, dtype=torch.float32, kv8=False, moe=None):
        self.cfg, self.dtype, self.kv8 = cfg, dtype, kv8
        self.w = {k: v.to(dtype) for k, v in weights.items()}
        self.moe = moe or {}   # layer index -> MoEWeights
        self.reset()

    def reset(self):
        self.k = [None] * self.cfg.num_layers
        self.v = [None] * self.cfg.num_layers
        self.pos = 0

    def _cos_sin(self, positions):
        c = self.cfg
        inv = 1.0 / (c.rope_theta ** (torch.arange(0, c.head_dim, 2, dtype=torch.float32) / c.head_dim))
        ang = positions.float()[:, None] * inv[None, :]
        emb = torch.cat((ang, ang), dim=-1)
        return emb.cos().to(self.dtype), emb.sin().to(self.dtype)

    def forward(self, tokens: torch.Tensor) -> torch.Tensor:
        """tokens [b, L] appended to the history; logits of the last position [b, vocab], float32."""
        return self.forward_all(tokens)[:, -1]

    @staticmethod
    def penalize(scores: torch.Tensor, history: torch.Tensor, penalty: float) -> torch.Tensor:
        """Repetition penalty: each logit of a token in the history divided by the penalty when
        positive, multiplied by it otherwise (once per token, however often it occurred)."""
        seen = scores.gather(1, history)
        seen = torch.where(seen > 0, seen / penalty, seen * penalty)
        return scores.scatter_(1, history, seen)

    @torch.no_grad()
    def forward_all(self, tokens: torch.Tensor) -> torch.Tensor:
        """tokens [b, L] appended to the history; returns logits [b, L, vocab] in float32."""
        c, w = self.cfg, self.w
        b, L = tokens.shape
        prefill = self.pos == 0
        pos = torch.arange(self.pos, self.pos + L)
        cos, sin = self._cos_sin(pos)
        x = w["embed"][tokens]
        for i in range(c.num_layers):
            p = f"layers.{i}."
            h = _rms(x, w[p + "attn_norm"], c.rms_eps)
            q = (h @ w[p + "wq"].T).view(b, L, c.num_heads, c.head_dim).transpose(1, 2)
            k = (h @ w[p + "wk"].T).view(b, L, c.num_kv_heads, c.head_dim).transpose(1, 2)
            v = (h @ w[p + "wv"].T).view(b, L, c.num_kv_heads, c.head_dim).transpose(1, 2)
            q = q * cos + _rotate_half(q) * sin
            k = k * cos + _rotate_half(k) * sin
            self.k[i] = k if self.k[i] is None else torch.cat((self.k[i], k), dim=2)
            self.v[i] = v if self.v[i] is None else torch.cat((self.v[i], v), dim=2)
            kk, vv = self.k[i], self.v[i]
            if self.kv8 and not prefill:
                kk, vv = fake_quant_key(kk), fake_quant_value(vv)
            kk = kk.repeat_interleave(c.group, dim=1).float()
            vv = vv.repeat_interleave(c.group, dim=1).float()
            s = (q.float() @ kk.transpose(-1, -2)) / math.sqrt(c.head_dim)
            total = kk.shape[2]
            allowed = torch.arange(total)[None, :] <= (total - L + torch.arange(L))[:, None]
            s = s.masked_fill(~allowed, float("-inf"))
            a = (torch.softmax(s, dim=-1) @ vv).to(self.dtype)
            a = a.transpose(1, 2).reshape(b, L, c.num_heads * c.head_dim)
            x = x + a @ w[p + "wo"].T
            h = _rms(x, w[p + "ffn_norm"], c.rms_eps)
            if i in self.moe:
                y = reference_moe(self.moe[i], h.reshape(b * L, -1)).view(b, L, -1)
            else:
                y = (F.silu(h @ w[p + "w_gate"].T) * (h @ w[p + "w_up"].T)) @ w[p + "w_down"].T
            x = x + y
        x = _rms(x, w["norm"], c.rms_eps)
        self.pos += L
        return (x @ w.get("lm_head", w["embed"]).T).float()
