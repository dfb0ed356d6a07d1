"""A small Llama-architecture decoder that runs its layers on vorta_addons.

`model` holds the generation loop on the fused operators, `reference` an
independent plain-torch forward of the same weights, `weights` the loaders
(a GGUF file shipped inside a Python package, or a seeded random init) and
`demo` the command line behind `python -m vorta_llm`.
"""
from .config import LlamaConfig

__all__ = ["LlamaConfig"]
