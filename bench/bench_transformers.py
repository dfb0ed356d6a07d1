"""In-place attention softmax over score rows, and the repetition penalty on logits.

Softmax: 32 heads x 2048 query rows of 1024 (float32) or 2048 (float16) keys, and one decode
row of 4096 keys per head for 1 and 8 sequences. Penalty: a 128256-token vocabulary and 2048
previous tokens per sequence; it gathers and scatters at the token ids, so its bytes (ids,
and each touched logit read and written) are a gather's, not a stream's."""
import torch

import vorta_addons
from bench.runner import Case, dtype_name, uniform

SOFTMAX = [((1, 32, 2048, 1024), torch.float32, "large"), ((1, 32, 2048, 2048), torch.float16, "large")]
SOFTMAX += [((b, 32, 1, 4096), dt, "decode") for b in (8, 1) for dt in (torch.float32, torch.float16)]
VOCAB, HISTORY = 128256, 2048
PENALTY = [(64, "large"), (8, "decode"), (1, "decode")]


def softmax_composite(a):
    return a.copy_(torch.softmax(a.float(), -1).to(a.dtype))


def softmax_out_of_place(a):
    # Inductor (torch 2.13, CPU) fails on a softmax written back into its input; this form
    # reads and writes the same bytes into a fresh output.
    return torch.softmax(a.float(), -1).to(a.dtype)


def penalty_composite(scores, ids, penalty):
    x = scores.gather(1, ids)
    scores.scatter_(1, ids, torch.where(x > 0, x / penalty, x * penalty))


def cases(device):
    for shape, dtype, size in SOFTMAX:
        a = uniform(shape, dtype, device, -8.0, 8.0)
        yield Case("attn_softmax_inplaced", str(list(shape)), dtype_name(dtype),
                   lambda a=a: vorta_addons.attn_softmax_inplaced(a),
                   softmax_composite, (a,), [a], [a], restore=[a], size=size,
                   compile_fallback=softmax_out_of_place)
    for bsz, size in PENALTY:
        scores = uniform((bsz, VOCAB), torch.float32, device, -10.0, 10.0)
        ids = torch.randint(0, VOCAB, (bsz, HISTORY), device=device)
        touched = torch.empty(bsz, HISTORY, dtype=scores.dtype, device="meta")
        yield Case("repetition_penalty_logits_process_inplaced", f"[{bsz}, {VOCAB}] ids [{bsz}, {HISTORY}]",
                   "float32",
                   lambda s=scores, i=ids: vorta_addons.repetition_penalty_logits_process_inplaced(s, i, 1.2),
                   penalty_composite, (scores, ids, 1.2), [ids, touched], [touched], restore=[scores],
                   size=size, note="gather/scatter at the ids")
