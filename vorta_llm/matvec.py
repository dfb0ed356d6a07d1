"""The decode steps' matrix-vector product, torch.ops.vorta_llm.matvec, from the native module
that the build puts beside vorta_addons (build/vorta_llm_native): `matvec(x, weight, out,
accumulate)` sets or adds out[t, o] = sum_i x[t, i] * weight[o, i] for float32 or float16 CPU
tensors (float32 sums), reading each weight once for all token rows at the speed of the weight stream.

`matvec` is None where the module was not built (an installed wheel carries only vorta_addons):
the decoder then uses torch's matrix product."""
from __future__ import annotations

import torch

try:
    import vorta_llm_native  # noqa: F401  (registers the operator)
except ImportError:
    matvec = None
else:
    matvec = torch.ops.vorta_llm.matvec

    @torch.library.register_fake("vorta_llm::matvec")
    def _matvec_fake(x, weight, out, accumulate):
        return None
