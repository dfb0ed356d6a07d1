# Fused PyTorch operators for LLM inference. The operators live in the compiled
# module _C and are registered both here (in their fixed order, positional
# arguments only) and in PyTorch's dispatcher as torch.ops.vorta_addons.*.
# No module docstring: the package shows the compiled module's face.

# _C links against torch's libraries and converts arguments through torch's
# tensor type: torch is imported first, so that neither has to be there already.
import torch

from ._C import *  # noqa: E402,F401,F403  (the operators, in registration order)
from ._C import __version__, _testing  # noqa: E402,F401
from . import _fake  # noqa: E402,F401  (fake implementations for torch.compile)

del torch
