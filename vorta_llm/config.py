from __future__ import annotations

"""Model shape of a Llama-architecture decoder (grouped-query attention, rotate-half rotary)."""
from dataclasses import dataclass


@dataclass(frozen=True)
class LlamaConfig:
    vocab_size: int
    hidden_size: int
    intermediate_size: int
    num_layers: int
    num_heads: int
    num_kv_heads: int
    head_dim: int
    rope_theta: float = 10000.0
    rms_eps: float = 1e-5
    max_position: int = 2048
    bos_token_id: int | None = None
    eos_token_id: int | None = None
    name: str = "llama"

    @property
    def group(self) -> int:
        return self.num_heads // self.num_kv_heads

    def __post_init__(self):
        if self.num_heads % self.num_kv_heads:
            raise ValueError("num_heads must be a multiple of num_kv_heads")
        if self.head_dim % 2:
            raise ValueError("head_dim must be even")
