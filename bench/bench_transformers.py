import torch

import vorta_addons
from bench.runner import Case


def penalty_composite(scores, ids, penalty):
    x = scores.gather(1, ids)
    scores.scatter_(1, ids, torch.where(x > 0, x / penalty, x * penalty))


def cases():
    for shape, dtype in [((1, 32, 512, 1024), torch.float32), ((1, 32, 1024, 1024), torch.float16),
                         ((1, 32, 1, 4096), torch.float16)]:
        a = torch.randn(shape).to(dtype)
        yield Case("attn_softmax_inplaced", str(list(shape)), str(dtype).replace("torch.", ""),
                   lambda a=a: vorta_addons.attn_softmax_inplaced(a),
                   lambda a=a: a.copy_(torch.softmax(a.float(), -1).to(a.dtype)), [a])
    scores = torch.randn(64, 128256)
    ids = torch.randint(0, 128256, (64, 2048))
    s0 = scores.clone()
    yield Case("repetition_penalty_logits_process_inplaced", "[64, 128256] ids [64, 2048]", "float32",
               lambda: vorta_addons.repetition_penalty_logits_process_inplaced(scores, ids, 1.2),
               lambda: penalty_composite(scores, ids, 1.2), [ids],
               setup=lambda: scores.copy_(s0))
