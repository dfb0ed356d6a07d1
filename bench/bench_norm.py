"""RMS and layer norm over rows of 4096: 16384 rows (256 MiB and more moved) and decode rows."""
import torch

import vorta_addons
from bench.runner import Case, dtype_name, fresh, uniform

HIDDEN = 4096
ROWS = [(16384, "large"), (8, "decode"), (1, "decode")]


def rms_composite(w, x, eps):
    xf = x.float()
    return (xf * torch.rsqrt(xf.pow(2).mean(-1, keepdim=True) + eps) * w.float()).to(x.dtype)


def layer_composite(x, w, b, eps):
    xf = x.float()
    m = xf.mean(-1, keepdim=True)
    y = (xf - m) * torch.rsqrt((xf - m).pow(2).mean(-1, keepdim=True) + eps)
    return (y * w.float() + b.float()).to(x.dtype)


def cases(device):
    for rows, size in ROWS:
        for dtype in (torch.float32, torch.float16):
            x = uniform((rows, HIDDEN), dtype, device)
            w = uniform((HIDDEN,), dtype, device, 0.5, 1.5)
            b = uniform((HIDDEN,), dtype, device)
            out = fresh(x.shape, dtype)
            shape, name = f"[{rows}, {HIDDEN}]", dtype_name(dtype)
            yield Case("rms_norm", shape, name, lambda w=w, x=x: vorta_addons.rms_norm(w, x, 1e-6),
                       rms_composite, (w, x, 1e-6), [x, w], [out], size=size)
            yield Case("layer_norm", shape, name,
                       lambda x=x, w=w, b=b: vorta_addons.layer_norm(x, w, b, 1e-6),
                       layer_composite, (x, w, b, 1e-6), [x, w, b], [out], size=size)
