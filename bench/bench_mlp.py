import torch
import torch.nn.functional as F

import vorta_addons
from bench.runner import Case


def cases():
    for shape, dtype in [((4096, 4096), torch.float32), ((4096, 8192), torch.float16),
                         ((8, 14336), torch.float16)]:
        g0 = torch.randn(shape).to(dtype)
        g, u = g0.clone(), torch.randn(shape).to(dtype)
        yield Case("mlp_silu_mul_inplaced", str(list(shape)), str(dtype).replace("torch.", ""),
                   lambda g=g, u=u: vorta_addons.mlp_silu_mul_inplaced(g, u),
                   lambda g=g, u=u: g.copy_(F.silu(g) * u), [g, u],
                   setup=lambda g=g, g0=g0: g.copy_(g0))
