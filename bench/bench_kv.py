"""The 8-bit key/value cache code: quantize_key_value and dequantize_key_value over 8 heads of
128, for 8 x 8192 positions (dense, or into a window of a longer cache) and for one decode
position of 1 and 8 sequences written into a cache."""
import torch

from bench.runner import Case, dtype_name, uniform
import vorta_addons

# (clamp low, clamp high, exponent offset) of the key and value codes, on fp16 bit patterns.
KEY, VALUE = (0x1840, 0x57C0, 0x30), (0x0C40, 0x4BC0, 0x18)
KV_HEADS, HEAD_DIM, DECODE_POS, SPARE = 8, 128, 4095, 512
# (batch, positions, dtypes, outputs in a cache window, size)
SIZES = [(8, 8192, (torch.float16, torch.float32), False, "large"),
         (8, 8192, (torch.float16,), True, "large"),
         (8, 1, (torch.float16, torch.float32), True, "decode"),
         (1, 1, (torch.float16, torch.float32), True, "decode")]


def quantize_composite(x, out, code):
    lo, hi, offset = code
    h = x.to(torch.float16).view(torch.int16)
    byte = ((h & 0x7FFF).clamp(lo, hi) >> 7) - offset
    out.copy_(byte | ((h >> 8) & 0x80))


def decode_codes(b, code):
    """The float16 values of one-byte codes (the midpoint of each code's range)."""
    b = b.to(torch.int16)
    return (((b & 0x80) << 8) | (((b & 0x7F) + code[2]) << 7) | 0x40).view(torch.float16)


def dequantize_composite(b, out, code):
    out.copy_(decode_codes(b, code))


def quantize_pair(k, v, kq, vq):
    quantize_composite(k, kq, KEY)
    quantize_composite(v, vq, VALUE)


def dequantize_pair(kq, vq, k, v):
    dequantize_composite(kq, k, KEY)
    dequantize_composite(vq, v, VALUE)


def cases(device):
    for bsz, seq, dtypes, window, size in SIZES:
        shape = (bsz, KV_HEADS, seq, HEAD_DIM)
        label = str(list(shape)) + (" in cache" if window else "")
        if window:  # the positions [start, start + seq) of a longer cache
            start = 0 if seq > 1 else DECODE_POS
            cache = torch.zeros(2, bsz, KV_HEADS, start + seq + SPARE, HEAD_DIM, dtype=torch.uint8,
                                device=device)
            kq, vq = cache[0, :, :, start:start + seq], cache[1, :, :, start:start + seq]
        else:
            kq = torch.zeros(shape, dtype=torch.uint8, device=device)
            vq = torch.zeros(shape, dtype=torch.uint8, device=device)
        for dtype in dtypes:
            k, v = uniform(shape, dtype, device), uniform(shape, dtype, device)
            yield Case("quantize_key_value", label, dtype_name(dtype),
                       lambda k=k, v=v, kq=kq, vq=vq: vorta_addons.quantize_key_value(k, v, kq, vq),
                       quantize_pair, (k, v, kq, vq), [k, v], [kq, vq], size=size)
            yield Case("dequantize_key_value", label, dtype_name(dtype),
                       lambda k=k, v=v, kq=kq, vq=vq: vorta_addons.dequantize_key_value(kq, vq, k, v),
                       dequantize_pair, (kq, vq, k, v), [kq, vq], [k, v], size=size)
