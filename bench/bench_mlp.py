"""Gated SiLU in place, gate <- silu(gate) * up, at the intermediate size 14336."""
import torch
import torch.nn.functional as F

import vorta_addons
from bench.runner import Case, dtype_name, uniform

INTER = 14336
ROWS = [(4096, "large"), (8, "decode"), (1, "decode")]


def silu_mul_composite(g, u):
    # In place and without temporaries: the strongest eager form of the same effect.
    return F.silu(g, inplace=True).mul_(u)


def cases(device):
    for rows, size in ROWS:
        for dtype in (torch.float32, torch.float16):
            g, u = uniform((rows, INTER), dtype, device), uniform((rows, INTER), dtype, device)
            yield Case("mlp_silu_mul_inplaced", f"[{rows}, {INTER}]", dtype_name(dtype),
                       lambda g=g, u=u: vorta_addons.mlp_silu_mul_inplaced(g, u),
                       silu_mul_composite, (g, u), [g, u], [g], restore=[g], size=size)
