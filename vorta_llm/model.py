"""The decoder on vorta_addons: fused norm, rotary, attention, activation and penalty.

Embedding lookups and the projections are plain torch matrix products; everything between
them runs on the module's operators. The key/value cache is preallocated once as
[layers, batch, kv_heads, max_len, head_dim] (float, or uint8 for the 8-bit code) and each
step writes its rows in place into `cache[l][:, :, pos:pos + L]`; the attention operators
read `cache[l][:, :, :pos + L]` as strided views, so the decode loop copies no history.

A decode step streams every weight once, so its speed is set by memory bandwidth: weights keep
the [out, in] layout whose rows the matrix-vector products read contiguously, query/key/value
and gate/up are each one product, the residual adds ride on the output and down products,
and the activations go to buffers made once per token count. The products of a few token rows
run on the matrix-vector kernel of vorta_llm.matvec where it was built (torch's float32
matrix-vector path reads weights at about half the bandwidth on 2 threads, its float16 one at a
third); the prompt's products stay with torch's matrix product, except a short float16 prompt's.
"""
from __future__ import annotations

import math
from types import SimpleNamespace

import torch

from .config import LlamaConfig
from .matvec import matvec
from .moe import MoEWeights, moe_mlp

# Operators the loop calls, per cache kind and rotary kind.
REQUIRED_OPS = {
    "base": ("rms_norm", "sdp_causal", "mlp_silu_mul_inplaced",
             "repetition_penalty_logits_process_inplaced"),
    "full": ("sdp",),
    "int8": ("quantize_key_value", "sdp_fp8"),
    "cache": ("rotary_half_with_cache_inplaced",),
    "freq": ("rotary_half_inplaced",),
}


def missing_ops(ops, kv_cache="full", rope="cache", moe_routing=()):
    names = list(REQUIRED_OPS["base"] + REQUIRED_OPS[kv_cache] + REQUIRED_OPS[rope])
    names += ["moe_softmax_topk" if r == "softmax" else "moe_group_topk" for r in moe_routing]
    return [n for n in names if not hasattr(ops, n)]


# Token rows up to which a product goes to the matrix-vector kernel: each weight row is read
# once and applied to every token row from L1. In float16 a short prompt goes there too: the
# token rows then come from L2, which still beats torch's float16 matrix product on the CPU
# by ten times or more (a few GFLOP/s).
MATVEC_TOKENS = {torch.float32: 4, torch.float16: 64}

# The buffers of a step traced by torch.compile: none (out=None), so that the compiled graph
# plans its own memory, which a CUDA graph then replays in place.
_TRACED = SimpleNamespace(x=None, qkv=None, gate_up=None, logits=None)


class VortaLlama:
    """A Llama-architecture decoder whose layers run on vorta_addons.

    kv_cache: "full" (cache in the model dtype, decode with `sdp`) or "int8" (one-byte
    codes written by `quantize_key_value`, decode with `sdp_fp8`).
    rope: "cache" (`rotary_half_with_cache_inplaced` with cos/sin rows of the positions) or
    "freq" (`rotary_half_inplaced` from inverse frequencies and position ids).
    moe: optional {layer index: MoEWeights} replacing those layers' MLPs.
    """

    def __init__(self, cfg: LlamaConfig, weights: dict, dtype=torch.float32, device="cpu",
                 kv_cache="full", rope="cache", batch=1, max_len=None, moe=None, ops=None):
        if ops is None:
            import vorta_addons as ops
        if kv_cache not in ("full", "int8"):
            raise ValueError("kv_cache must be 'full' or 'int8'")
        if rope not in ("cache", "freq"):
            raise ValueError("rope must be 'cache' or 'freq'")
        self.ops, self.cfg, self.dtype, self.device = ops, cfg, dtype, torch.device(device)
        self.kv_cache, self.rope, self.batch = kv_cache, rope, batch
        self.max_len = max_len or cfg.max_position
        self.scale = 1.0 / math.sqrt(cfg.head_dim)
        conv = lambda t: t.to(device=self.device, dtype=dtype).contiguous()  # noqa: E731
        self.embed = conv(weights["embed"])
        self.lm_head = conv(weights["lm_head"]) if "lm_head" in weights else self.embed
        self.norm = conv(weights["norm"])
        self.layers = []
        for i in range(cfg.num_layers):
            p = f"layers.{i}."
            self.layers.append({
                "attn_norm": conv(weights[p + "attn_norm"]),
                # One product gives q, k and v side by side: [tokens, (heads + 2 kv_heads) * head_dim].
                "wqkv": conv(torch.cat([weights[p + "wq"], weights[p + "wk"], weights[p + "wv"]])),
                "wo": conv(weights[p + "wo"]),
                "ffn_norm": conv(weights[p + "ffn_norm"]),
                # Gate over up: one product gives [2 * inter, tokens], whose two halves are the
                # dense operands the activation needs.
                "w_gate_up": conv(torch.cat([weights[p + "w_gate"], weights[p + "w_up"]])),
                "w_down": conv(weights[p + "w_down"]),
            })
        self.moe = {i: m.to(dtype=dtype, device=self.device) for i, m in (moe or {}).items()}
        # Rotary tables: inverse frequencies and, for the cache kind, cos/sin rows per position
        # (angles in float64, each row holding the head_dim/2 angles twice).
        inv64 = 1.0 / (cfg.rope_theta ** (torch.arange(0, cfg.head_dim, 2, dtype=torch.float64) / cfg.head_dim))
        self.inv_freq = inv64.to(device=self.device, dtype=dtype)
        ang = torch.arange(self.max_len, dtype=torch.float64)[:, None] * inv64.float().double()[None, :]
        ang = torch.cat([ang, ang], dim=1)
        self.cos = ang.cos().to(device=self.device, dtype=dtype)
        self.sin = ang.sin().to(device=self.device, dtype=dtype)
        self.positions = torch.arange(self.max_len, dtype=torch.int64, device=self.device)[None, :]
        shape = (cfg.num_layers, batch, cfg.num_kv_heads, self.max_len, cfg.head_dim)
        cache_dtype = torch.uint8 if kv_cache == "int8" else dtype
        self.k_cache = torch.zeros(shape, dtype=cache_dtype, device=self.device)
        self.v_cache = torch.zeros(shape, dtype=cache_dtype, device=self.device)
        self.pos = 0
        self._work = {}
        self._matvec = matvec if (matvec is not None and self.device.type == "cpu"
                                  and dtype in (torch.float32, torch.float16)) else None

    def reset(self):
        self.pos = 0

    def weight_bytes_per_token(self) -> int:
        """Bytes of weights one decode step reads: every layer's matrices and norms (for a
        mixture-of-experts layer the router and top_k experts), the final norm, the output
        head and one embedding row."""
        size = lambda t: t.numel() * t.element_size()  # noqa: E731
        total = size(self.norm) + size(self.lm_head) + size(self.embed[0])
        for i, lw in enumerate(self.layers):
            if i in self.moe:
                m = self.moe[i]
                lw = {k: v for k, v in lw.items() if k not in ("w_gate_up", "w_down")}
                total += size(m.router) + m.top_k * sum(size(t[0]) for t in (m.w_gate, m.w_up, m.w_down))
            total += sum(size(t) for t in lw.values())
        return total

    def _buffers(self, n):
        """Activations of a step over n token rows and the views the layers take of them, made
        once per n: decode steps reuse them."""
        if torch.compiler.is_compiling():
            return _TRACED
        work = self._work.get(n)
        if work is None:
            c = self.cfg
            H, K, D, inter = c.num_heads, c.num_kv_heads, c.head_dim, c.intermediate_size
            make = lambda *shape: torch.empty(shape, dtype=self.dtype, device=self.device)  # noqa: E731
            work = self._work[n] = SimpleNamespace(
                x=make(n, c.hidden_size), qkv=make(n, (H + 2 * K) * D),
                gate_up=make(2 * inter, n), logits=make(self.batch, c.vocab_size))
            work.q, work.k, work.v = self._qkv_views(work.qkv, self.batch, n // self.batch)
            work.gate, work.up = work.gate_up[:inter], work.gate_up[inter:]
        return work

    def _qkv_views(self, qkv, b, L):
        """q, k, v: [b, heads, L, D] strided views of the query/key/value product [b * L, ...]."""
        c = self.cfg
        H, K = c.num_heads, c.num_kv_heads
        parts = qkv.view(b, L, H + 2 * K, c.head_dim).split([H, K, K], dim=2)
        return tuple(t.transpose(1, 2) for t in parts)

    def _linear(self, x, weight, out, accumulate=False):
        """out = x @ weight.T, or out += x @ weight.T, for x [tokens, in] and weight [out, in]
        (out None: a new tensor, in a traced step)."""
        if out is None:
            out = x.new_empty(x.shape[0], weight.shape[0])
        if self._matvec is not None and x.shape[0] <= MATVEC_TOKENS[x.dtype]:
            self._matvec(x, weight, out, accumulate)
        elif accumulate:
            out.addmm_(x, weight.t())
        elif out.t().is_contiguous() and not out.is_contiguous():
            torch.mm(weight, x.t(), out=out.t())   # token columns: the product's own layout
        else:
            torch.mm(x, weight.t(), out=out)
        return out

    # -- one layer -------------------------------------------------------------------------

    def _attention(self, i, h, b, L):
        c, ops, lw = self.cfg, self.ops, self.layers[i]
        H, D, pos = c.num_heads, c.head_dim, self.pos
        work = self._buffers(b * L)
        if work is _TRACED:   # views of the product the graph allocates
            q, k, v = self._qkv_views(self._linear(h, lw["wqkv"], None), b, L)
        else:
            self._linear(h, lw["wqkv"], work.qkv)
            q, k, v = work.q, work.k, work.v
        if self.rope == "cache":
            ops.rotary_half_with_cache_inplaced(q, k, self.cos[pos:pos + L], self.sin[pos:pos + L])
        else:
            ops.rotary_half_inplaced(self.inv_freq, self.positions[:, pos:pos + L], q, k)
        kc, vc = self.k_cache[i], self.v_cache[i]
        if self.kv_cache == "full":
            kc[:, :, pos:pos + L].copy_(k)
            vc[:, :, pos:pos + L].copy_(v)
        else:
            ops.quantize_key_value(k, v, kc[:, :, pos:pos + L], vc[:, :, pos:pos + L])
        if L > 1:
            if self.kv_cache == "full":
                # The cache rows just written are dense per (batch, head): read them in place.
                kk, vv = kc[:, :, :L], vc[:, :, :L]
            else:
                # Prefill attends over the exact prompt keys and values; the attention reads
                # key rows dense per (batch, head), which the fused qkv views are not.
                kk, vv = k.contiguous(), v.contiguous()
            out = ops.sdp_causal(q, kk, vv, None, self.scale)
        elif self.kv_cache == "full":
            out = ops.sdp(q, kc[:, :, :pos + 1], vc[:, :, :pos + 1], None, self.scale)
        else:
            out = ops.sdp_fp8(q, kc[:, :, :pos + 1], vc[:, :, :pos + 1], None, self.scale)
        # [b, H, L, D] (a view for prefill) -> [b * L, H * D]
        return out.transpose(1, 2).reshape(b * L, H * D)

    def _mlp(self, i, h, x):
        """Adds the layer's MLP of h [tokens, hidden] to x in place."""
        if i in self.moe:
            x += moe_mlp(self.ops, self.moe[i], h)
            return
        lw, inter = self.layers[i], self.cfg.intermediate_size
        # Token columns: gate and up come out as dense [inter, tokens] halves of one product.
        work = self._buffers(h.shape[0])
        if work is _TRACED:
            gate_up = h.new_empty(2 * inter, h.shape[0])
            gate, up = gate_up[:inter], gate_up[inter:]
        else:
            gate_up, gate, up = work.gate_up, work.gate, work.up
        self._linear(h, lw["w_gate_up"], gate_up.t())
        self.ops.mlp_silu_mul_inplaced(gate, up)
        self._linear(gate.t(), lw["w_down"], x, accumulate=True)

    # -- steps -----------------------------------------------------------------------------

    @torch.no_grad()
    def forward(self, tokens: torch.Tensor) -> torch.Tensor:
        """tokens [b, L] at positions pos..pos+L-1 (L > 1 only for the prompt, at pos 0).

        Returns the float32 logits of the last position, [b, vocab]: for a float32 model a
        buffer that the next call overwrites."""
        b, L = tokens.shape
        if b != self.batch:
            raise ValueError(f"batch {b}, model built for {self.batch}")
        if L > 1 and self.pos != 0:
            raise ValueError("a multi-token step is only supported as the prompt (position 0)")
        if self.pos + L > self.max_len:
            raise ValueError(f"sequence would exceed max_len={self.max_len}")
        logits = self._step(tokens)
        self.pos += L
        return logits

    def _step(self, tokens: torch.Tensor) -> torch.Tensor:
        """The layers over tokens [b, L] at positions pos..pos+L-1, without the bookkeeping."""
        b, L = tokens.shape
        c, ops, work = self.cfg, self.ops, self._buffers(b * L)
        x = torch.index_select(self.embed, 0, tokens.reshape(-1), out=work.x)   # [b * L, hidden]
        for i, lw in enumerate(self.layers):
            h = ops.rms_norm(lw["attn_norm"], x, c.rms_eps)
            self._linear(self._attention(i, h, b, L), lw["wo"], x, accumulate=True)
            h = ops.rms_norm(lw["ffn_norm"], x, c.rms_eps)
            self._mlp(i, h, x)
        last = x.view(b, L, -1)[:, -1].contiguous()
        logits = self._linear(ops.rms_norm(self.norm, last, c.rms_eps), self.lm_head, work.logits)
        return logits.float()

    def penalize(self, scores: torch.Tensor, history: torch.Tensor, penalty: float) -> torch.Tensor:
        """Repetition penalty in place on scores [b, vocab] (model dtype) from history [b, n]."""
        self.ops.repetition_penalty_logits_process_inplaced(scores, history, penalty)
        return scores
