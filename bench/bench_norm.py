import torch

import vorta_addons
from bench.runner import Case


def rms_composite(w, x, eps):
    xf = x.float()
    return (xf * torch.rsqrt(xf.pow(2).mean(-1, keepdim=True) + eps) * w.float()).to(x.dtype)


def layer_composite(x, w, b, eps):
    xf = x.float()
    m = xf.mean(-1, keepdim=True)
    y = (xf - m) * torch.rsqrt((xf - m).pow(2).mean(-1, keepdim=True) + eps)
    return (y * w.float() + b.float()).to(x.dtype)


def cases():
    for rows, hidden in [(4096, 4096), (8, 4096)]:
        for dtype in (torch.float32, torch.float16):
            x = torch.randn(rows, hidden).to(dtype)
            w = torch.rand(hidden).to(dtype)
            b = torch.randn(hidden).to(dtype)
            out = torch.empty_like(x)
            name = str(dtype).replace("torch.", "")
            yield Case("rms_norm", f"[{rows}, {hidden}]", name,
                       lambda w=w, x=x: vorta_addons.rms_norm(w, x, 1e-6),
                       lambda w=w, x=x: rms_composite(w, x, 1e-6), [x, out])
            yield Case("layer_norm", f"[{rows}, {hidden}]", name,
                       lambda x=x, w=w, b=b: vorta_addons.layer_norm(x, w, b, 1e-6),
                       lambda x=x, w=w, b=b: layer_composite(x, w, b, 1e-6), [x, out])
