"""Token generation over any runner with `reset()`, `forward(tokens) -> last logits` and
`penalize(scores, history, penalty)`, plus the transformers runner for side-by-side checks."""
from __future__ import annotations

import time
from dataclasses import dataclass, field

import torch

from .config import LlamaConfig


@dataclass
class Generation:
    tokens: torch.Tensor                 # [b, n] the tokens fed back (chosen, or forced)
    choices: torch.Tensor                # [b, n] the runner's own pick at each step
    logits: list = field(default_factory=list)   # raw float32 logits [b, vocab] per step, if kept
    prompt_len: int = 0
    prefill_s: float = 0.0
    decode_s: float = 0.0
    decode_steps: int = 0

    @property
    def prefill_tps(self) -> float:
        return self.prompt_len * self.tokens.shape[0] / self.prefill_s if self.prefill_s else float("nan")

    @property
    def decode_tps(self) -> float:
        return self.decode_steps * self.tokens.shape[0] / self.decode_s if self.decode_s else float("nan")


def _sync(device):
    if torch.device(device).type == "cuda":
        torch.cuda.synchronize()


def copy_bandwidth(device="cpu", nbytes=256 << 20, runs=7) -> float:
    """Bytes read plus written per second by a copy between two preallocated buffers (median
    of `runs` after one untimed copy): the rate at which this machine streams memory."""
    src = torch.ones(nbytes // 4, device=device)
    dst = torch.empty_like(src)
    times = []
    for _ in range(runs + 1):
        _sync(device)
        t0 = time.perf_counter()
        dst.copy_(src)
        _sync(device)
        times.append(time.perf_counter() - t0)
    return 2 * nbytes / sorted(times[1:])[runs // 2]


def pick(scores: torch.Tensor, top_k: int = 0, temperature: float = 1.0, generator=None) -> torch.Tensor:
    """Greedy (top_k == 0) or top-k sampling at a temperature; scores [b, vocab] -> [b]."""
    if top_k <= 0:
        return scores.argmax(dim=-1)
    vals, idx = torch.topk(scores.float() / max(temperature, 1e-6), top_k, dim=-1)
    probs = torch.softmax(vals, dim=-1)
    choice = torch.multinomial(probs.cpu(), 1, generator=generator).to(idx.device)
    return idx.gather(1, choice).squeeze(1)


@torch.no_grad()
def generate(runner, prompt: torch.Tensor, max_new: int, penalty: float = 1.0, top_k: int = 0,
             temperature: float = 1.0, seed: int = 0, eos: int | None = None,
             forced: torch.Tensor | None = None, keep_logits: bool = False, progress=None,
             device="cpu") -> Generation:
    """Prefill the prompt [b, L], then pick max_new tokens one decode step at a time.

    With `forced` [b, n] the runner is fed those tokens instead of its own picks (teacher
    forcing), so that its logits and picks can be compared step by step with another run.
    Generation stops early when every row has picked `eos` (not under forcing)."""
    b, L = prompt.shape
    runner.reset()
    history = torch.empty(b, L + max_new, dtype=torch.int64, device=prompt.device)
    history[:, :L] = prompt
    gen_cpu = torch.Generator().manual_seed(seed)
    out = Generation(tokens=torch.empty(b, 0, dtype=torch.int64), choices=torch.empty(b, 0, dtype=torch.int64),
                     prompt_len=L)
    fed, chosen = [], []
    _sync(device)
    t0 = time.perf_counter()
    logits = runner.forward(prompt)
    _sync(device)
    t1 = time.perf_counter()
    n = L
    limit = max_new if forced is None else min(max_new, forced.shape[1])
    for step in range(limit):
        if keep_logits:
            out.logits.append(logits.float().cpu().clone())
        scores = runner.penalize(logits, history[:, :n], penalty)
        choice = pick(scores, top_k, temperature, gen_cpu)
        token = forced[:, step].to(choice.device) if forced is not None else choice
        history[:, n] = token
        n += 1
        fed.append(token.cpu())
        chosen.append(choice.cpu())
        if progress is not None:
            progress.update(1)
        if step == limit - 1 or (forced is None and eos is not None and bool((token == eos).all())):
            break
        logits = runner.forward(token[:, None])
        out.decode_steps += 1
    _sync(device)
    t2 = time.perf_counter()
    out.tokens, out.choices = torch.stack(fed, 1), torch.stack(chosen, 1)
    out.prefill_s, out.decode_s = t1 - t0, t2 - t1
    return out


class TransformersRunner:
    """The same weights in transformers' LlamaForCausalLM, with its own KV cache and its
    own repetition-penalty processor."""

    name = "transformers"

    def __init__(self, cfg: LlamaConfig, hf_state_dict: dict, dtype=torch.float32, device="cpu"):
        import transformers
        from transformers import LlamaForCausalLM
        from transformers import LlamaConfig as HFLlamaConfig

        tied = torch.equal(hf_state_dict["lm_head.weight"], hf_state_dict["model.embed_tokens.weight"])
        hfc = HFLlamaConfig(
            vocab_size=cfg.vocab_size, hidden_size=cfg.hidden_size,
            intermediate_size=cfg.intermediate_size, num_hidden_layers=cfg.num_layers,
            num_attention_heads=cfg.num_heads, num_key_value_heads=cfg.num_kv_heads,
            head_dim=cfg.head_dim, rms_norm_eps=cfg.rms_eps, max_position_embeddings=cfg.max_position,
            rope_theta=cfg.rope_theta, tie_word_embeddings=tied, attention_bias=False, mlp_bias=False,
        )
        with torch.device("meta"):                # no random init: every weight is assigned below
            model = LlamaForCausalLM(hfc)
        sd = {k: v.to(dtype) for k, v in hf_state_dict.items()}
        if tied:
            sd.pop("lm_head.weight")
        missing, unexpected = model.load_state_dict(sd, strict=False, assign=True)
        if unexpected or [m for m in missing if m != "lm_head.weight"]:
            raise ValueError(f"state dict mismatch: missing {missing}, unexpected {unexpected}")
        if tied:
            model.lm_head.weight = model.model.embed_tokens.weight
        # The rotary buffers were made on the meta device: make them again for real.
        model.model.rotary_emb = type(model.model.rotary_emb)(hfc)
        self.model = model.to(device=device).eval()
        self.version = transformers.__version__
        self.processor = transformers.RepetitionPenaltyLogitsProcessor
        self.cache = None

    def reset(self):
        self.cache = None

    def forward(self, tokens):
        out = self.model(input_ids=tokens, past_key_values=self.cache, use_cache=True)
        self.cache = out.past_key_values
        return out.logits[:, -1].float()

    def penalize(self, scores, history, penalty):
        return self.processor(penalty)(history, scores)
