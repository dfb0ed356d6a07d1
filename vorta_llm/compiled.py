"""The decoder through torch.ops.vorta_addons with its decode step under torch.compile.

The prompt runs eagerly through the dispatcher operators; every decode step runs one compiled
graph. On a GPU that graph is a CUDA graph, which replays the same shapes and addresses at
every step: the position is a device tensor, the step's key/value rows enter the cache with
an index, and attention reads the whole preallocated cache under an additive mask that hides
the rows past the position. The mask's -10000.0 becomes an exact zero in the operators'
float32 softmax, so the step computes what the eager loop computes over the rows so far.
Elsewhere the graph takes the eager loop's steps as they are, with the position symbolic.
"""
from __future__ import annotations

import torch

from .model import VortaLlama

MASKED = -10000.0


class CompiledLlama(VortaLlama):
    """VortaLlama on torch.ops.vorta_addons; decode steps compiled whole (fullgraph).

    fixed_shapes: decode steps of one shape over the whole cache (default: on CUDA devices,
    whose compiled steps then replay as CUDA graphs)."""

    def __init__(self, *args, fixed_shapes=None, **kwargs):
        super().__init__(*args, ops=torch.ops.vorta_addons, **kwargs)
        self.fixed_shapes = self.device.type == "cuda" if fixed_shapes is None else fixed_shapes
        self.cuda_graphs = self.fixed_shapes and self.device.type == "cuda"
        # One tensor per layer: a compiled step updates each in place, where rows of one
        # shared tensor would be copied out and back.
        self.k_cache, self.v_cache = ([t.clone() for t in c] for c in (self.k_cache, self.v_cache))
        if self.fixed_shapes:
            self.position = torch.zeros(1, dtype=torch.int64, device=self.device)
            self.decode_mask = torch.full((1, 1, 1, self.max_len), MASKED, dtype=self.dtype, device=self.device)
            # Every tensor the step reads keeps its address: a CUDA graph replays on them in place.
            tensors = [t for t in vars(self).values() if isinstance(t, torch.Tensor)]
            for t in tensors + self.k_cache + self.v_cache + [t for lw in self.layers for t in lw.values()]:
                torch._dynamo.mark_static_address(t)
        # No pattern rewrites: the graph keeps the eager loop's products and adds as they are
        # written, so half precision rounds where the eager loop rounds.
        options = {"pattern_matcher": False, "triton.cudagraphs": self.cuda_graphs}
        self._decode = torch.compile(lambda tokens: VortaLlama._step(self, tokens), fullgraph=True,
                                     options=options)

    def reset(self):
        super().reset()
        if self.fixed_shapes:
            self.decode_mask.fill_(MASKED)

    def _step(self, tokens):
        L = tokens.shape[1]
        if L > 1:
            if self.fixed_shapes:
                self.decode_mask[..., :L] = 0.0
            return super()._step(tokens)
        if self.fixed_shapes:
            self.position.fill_(self.pos)
            self.decode_mask[..., self.pos] = 0.0
        if self.cuda_graphs:
            torch.compiler.cudagraph_mark_step_begin()
            # The graph's output buffer is reused by the next replay.
            return self._decode(tokens).clone()
        return self._decode(tokens)

    def _attention(self, i, h, b, L):
        if L > 1 or not self.fixed_shapes:
            return super()._attention(i, h, b, L)
        c, ops, lw = self.cfg, self.ops, self.layers[i]
        H, D = c.num_heads, c.head_dim
        q, k, v = self._qkv_views(self._linear(h, lw["wqkv"], None), b, 1)
        if self.rope == "cache":
            ops.rotary_half_with_cache_inplaced(q, k, self.cos[self.position], self.sin[self.position])
        else:
            ops.rotary_half_inplaced(self.inv_freq, self.position.view(1, 1), q, k)
        kc, vc = self.k_cache[i], self.v_cache[i]
        if self.kv_cache == "int8":
            k8, v8 = (torch.empty(t.shape, dtype=torch.uint8, device=t.device) for t in (k, v))
            ops.quantize_key_value(k, v, k8, v8)
            k, v = k8, v8
        kc[:, :, self.position] = k
        vc[:, :, self.position] = v
        sdp = ops.sdp if self.kv_cache == "full" else ops.sdp_fp8
        return sdp(q, kc, vc, self.decode_mask, self.scale).view(b, H * D)
