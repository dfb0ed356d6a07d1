import torch

import vorta_addons
from bench.runner import Case

# (clamp low, clamp high, exponent offset) of the key and value codes, on fp16 bit patterns.
KEY, VALUE = (0x1840, 0x57C0, 0x30), (0x0C40, 0x4BC0, 0x18)


def quantize_composite(x, out, code):
    lo, hi, offset = code
    h = x.to(torch.float16).view(torch.int16)
    byte = ((h & 0x7FFF).clamp(lo, hi) >> 7) - offset
    out.copy_(byte | ((h >> 8) & 0x80))


def dequantize_composite(b, out, code):
    offset = code[2]
    b = b.to(torch.int16)
    h = ((b & 0x80) << 8) | (((b & 0x7F) + offset) << 7) | 0x40
    out.copy_(h.view(torch.float16))


def cases():
    for shape, window in [((8, 8, 4096, 128), False), ((8, 8, 4096, 128), True), ((1, 8, 1, 128), False)]:
        bsz, heads, seq, dim = shape
        label = f"[{bsz}, {heads}, {seq}, {dim}]" + (" into cache" if window else "")
        for dtype in (torch.float16, torch.float32):
            name = str(dtype).replace("torch.", "")
            if dtype == torch.float32 and not window and seq > 1:
                shape = (bsz, heads, seq // 2, dim)  # the same bytes as fp16
            key = torch.randn(shape).to(dtype)
            value = torch.randn(shape).to(dtype)
            if window:  # outputs are the first seq positions of a longer cache
                cache = torch.empty(2, bsz, heads, seq + 512, dim, dtype=torch.uint8)
                kq, vq = cache[0, :, :, :seq], cache[1, :, :, :seq]
            else:
                kq, vq = torch.empty(shape, dtype=torch.uint8), torch.empty(shape, dtype=torch.uint8)
            yield Case("quantize_key_value", label, name,
                       lambda k=key, v=value, kq=kq, vq=vq: vorta_addons.quantize_key_value(k, v, kq, vq),
                       lambda k=key, v=value, kq=kq, vq=vq: (quantize_composite(k, kq, KEY),
                                                            quantize_composite(v, vq, VALUE)),
                       [key, value, kq, vq])
            yield Case("dequantize_key_value", label, name,
                       lambda k=key, v=value, kq=kq, vq=vq: vorta_addons.dequantize_key_value(kq, vq, k, v),
                       lambda k=key, v=value, kq=kq, vq=vq: (dequantize_composite(kq, k, KEY),
                                                            dequantize_composite(vq, v, VALUE)),
                       [key, value, kq, vq])
