"""vorta_llm's decoder loop on the operators against its plain-torch forward fed the same tokens:
same logits and greedy picks, both cache kinds, both rotary kinds, mixture-of-experts layers."""
import os
import sys

import pytest
import torch

import vorta_addons

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from vorta_llm.config import LlamaConfig  # noqa: E402
from vorta_llm.generate import generate, pick  # noqa: E402
from vorta_llm.matvec import matvec  # noqa: E402
from vorta_llm.model import VortaLlama, missing_ops  # noqa: E402
from vorta_llm.moe import MoEWeights, moe_mlp  # noqa: E402
from vorta_llm.reference import ReferenceLlama, reference_moe  # noqa: E402
from vorta_llm.weights import _unpermute, random_weights  # noqa: E402

# The decoder calls every group's operators; on CUDA it runs where all of them have kernels.
GROUP = ("norm", "elementwise", "rotary", "kv_cache", "moe", "decode", "prefill")
TINY = LlamaConfig(vocab_size=320, hidden_size=128, intermediate_size=256, num_layers=2,
                   num_heads=4, num_kv_heads=2, head_dim=64, max_position=64)


def need(kv_cache="full", rope="cache", moe_routing=(), only=None):
    missing = missing_ops(vorta_addons, kv_cache, rope, moe_routing)
    if only is not None:
        missing = [n for n in missing if n in only]
    if missing:
        pytest.skip(f"operators not registered yet: {', '.join(missing)}")


def prompt_ids(cfg, batch, length, seed=1):
    return torch.randint(0, cfg.vocab_size, (batch, length), generator=torch.Generator().manual_seed(seed))


def side_by_side(cfg, w, device, kv_cache="full", rope="cache", dtype=torch.float32, batch=2,
                 prompt_len=9, steps=6, moe=None, penalty=1.3):
    model = VortaLlama(cfg, w, dtype=dtype, device=device, kv_cache=kv_cache, rope=rope,
                       batch=batch, max_len=prompt_len + steps, moe=moe)
    prompt = prompt_ids(cfg, batch, prompt_len).to(device)
    ours = generate(model, prompt, steps, penalty=penalty, keep_logits=True, device=device)
    plain = ReferenceLlama(cfg, w, dtype=dtype, kv8=kv_cache == "int8", moe=moe)
    ref = generate(plain, prompt.cpu(), steps, penalty=penalty, keep_logits=True, forced=ours.tokens)
    return ours, ref


def assert_same_run(ours, ref, atol):
    assert ours.tokens.shape == ref.tokens.shape
    for step, (a, b) in enumerate(zip(ours.logits, ref.logits)):
        err = float((a - b).abs().max())
        assert err <= atol, f"step {step}: max logit difference {err}"
    assert torch.equal(ours.choices, ref.choices)


@pytest.mark.parametrize("rope", ["cache", "freq"])
@pytest.mark.parametrize("kv_cache", ["full", "int8"])
def test_decode_matches_plain_forward(device, kv_cache, rope):
    need(kv_cache, rope)
    w = random_weights(TINY, seed=3, tied=False)
    ours, ref = side_by_side(TINY, w, device, kv_cache, rope)
    assert_same_run(ours, ref, atol=2e-3)
    assert len(set(ours.tokens[0].tolist())) > 1   # the picks move with the steps


def test_int8_cache_is_what_the_run_reads(device):
    """The 8-bit run is far closer to the 8-bit plain forward than to the exact one."""
    need("int8")
    w = random_weights(TINY, seed=4, tied=False)
    ours, ref8 = side_by_side(TINY, w, device, "int8")
    exact = generate(ReferenceLlama(TINY, w), prompt_ids(TINY, 2, 9), 6, penalty=1.3,
                     keep_logits=True, forced=ours.tokens)
    err8 = max(float((a - b).abs().max()) for a, b in zip(ours.logits[1:], ref8.logits[1:]))
    err_exact = max(float((a - b).abs().max()) for a, b in zip(ours.logits[1:], exact.logits[1:]))
    assert err_exact > 20 * max(err8, 1e-5)


def test_fp16_run_tracks_plain_forward(device):
    need()
    w = random_weights(TINY, seed=5, tied=False)
    ours, ref = side_by_side(TINY, w, device, dtype=torch.float16, penalty=1.0)
    for a, b in zip(ours.logits, ref.logits):
        assert float((a - b).abs().max()) < 0.1 * float(b.abs().max())


@pytest.mark.parametrize("kv_cache", ["full", "int8"])
def test_long_cache_grouped_decode(device, kv_cache):
    """A 2100-token prompt and group 3: decode takes the split-over-keys attention."""
    need(kv_cache)
    cfg = LlamaConfig(vocab_size=320, hidden_size=192, intermediate_size=256, num_layers=2,
                      num_heads=6, num_kv_heads=2, head_dim=64, max_position=2200)
    w = random_weights(cfg, seed=6, tied=False)
    ours, ref = side_by_side(cfg, w, device, kv_cache, batch=1, prompt_len=2100, steps=3)
    assert_same_run(ours, ref, atol=2e-3)


@pytest.mark.skipif(matvec is None, reason="the demo's native module was not built")
@pytest.mark.parametrize("rows, cols", [(1, 1), (7, 15), (9, 16), (13, 33), (576, 1536), (1027, 576)])
@pytest.mark.parametrize("tokens", [1, 3])
@pytest.mark.parametrize("dtype", [torch.float32, torch.float16])
def test_matvec_against_float64(rows, cols, tokens, dtype):
    """32-column steps with 8-column and single tails, several token rows, x with strided rows
    and (transposed) with strided columns, token-column output and accumulation into what out
    held; float16 sums in float32 and rounds once."""
    g = torch.Generator().manual_seed(rows * 31 + cols)
    w = torch.randn(rows, cols, generator=g).to(dtype)
    x = torch.randn(tokens, cols + 5, generator=g).to(dtype)[:, 2:cols + 2]
    want = x.double() @ w.double().t()
    # float32: its sums; float16: one rounding of the result, up to half a unit.
    tol = dict(rtol=1e-5, atol=1e-5 * cols ** 0.5) if dtype == torch.float32 else dict(rtol=2 ** -11, atol=1e-4)
    out = torch.full((tokens, rows), float("nan"), dtype=dtype)
    matvec(x, w, out, False)
    torch.testing.assert_close(out.double(), want, **tol)
    cols_out = torch.randn(rows, tokens, generator=g).to(dtype)
    start = cols_out.double().t() + want
    matvec(x.t().contiguous().t(), w, cols_out.t(), True)
    torch.testing.assert_close(cols_out.t().double(), start, **tol)


MOE_CASES = {
    "softmax": dict(experts=16, top_k=4, kw=dict(routing="softmax", renormalize=True)),
    "group": dict(experts=64, top_k=6, kw=dict(routing="group", renormalize=True, n_groups=4,
                                               topk_group=2, eps=1e-20, scale=2.5)),
}


def make_moe(name, hidden=128, inter=128, seed=7):
    case = MOE_CASES[name]
    kw = dict(case["kw"])
    if name == "group":
        kw["bias"] = torch.randn(case["experts"], generator=torch.Generator().manual_seed(seed + 1)) * 0.1
    return MoEWeights.random(hidden, inter, case["experts"], case["top_k"], seed=seed, **kw)


@pytest.mark.parametrize("routing", ["softmax", "group"])
def test_moe_mlp_matches_plain_routing(device, routing):
    need(moe_routing=(routing,), only=("mlp_silu_mul_inplaced", f"moe_{routing}_topk"))
    m = make_moe(routing)
    h = torch.randn(37, 128, generator=torch.Generator().manual_seed(9))
    got = moe_mlp(vorta_addons, m.to(device=device), h.to(device)).cpu()
    torch.testing.assert_close(got, reference_moe(m, h), rtol=1e-4, atol=1e-5)


@pytest.mark.parametrize("routing", ["softmax", "group"])
def test_moe_layer_in_the_decoder(device, routing):
    need(moe_routing=(routing,))
    w = random_weights(TINY, seed=8, tied=False)
    ours, ref = side_by_side(TINY, w, device, moe={1: make_moe(routing)})
    assert_same_run(ours, ref, atol=2e-3)


def test_gguf_rows_back_to_rotate_half_order():
    """GGUF interleaves each head's Q/K rows (i, i + d/2) -> (2i, 2i + 1); the loader undoes it."""
    heads, d, inp = 3, 8, 5
    w = torch.arange(heads * d * inp, dtype=torch.float32).view(heads * d, inp)
    interleaved = torch.empty_like(w)
    for h in range(heads):
        for i in range(d // 2):
            interleaved[h * d + 2 * i] = w[h * d + i]
            interleaved[h * d + 2 * i + 1] = w[h * d + d // 2 + i]
    assert torch.equal(_unpermute(interleaved, heads), w)


def test_top_k_sampling_stays_in_the_top_k():
    g = torch.Generator().manual_seed(0)
    scores = torch.randn(4, 100, generator=g)
    top = scores.topk(5, dim=-1).indices
    for _ in range(20):
        picked = pick(scores, top_k=5, temperature=0.7, generator=g)
        assert (top == picked[:, None]).any(dim=1).all()
    assert torch.equal(pick(scores), scores.argmax(-1))


@pytest.mark.parametrize("tied", [True, False])
def test_weight_bytes_per_token(tied):
    """One decode step streams every layer matrix and norm (router and top_k experts for a MoE
    layer), the final norm, the output head and one embedding row."""
    w = random_weights(TINY, seed=2, tied=tied)
    m = make_moe("softmax", hidden=TINY.hidden_size, inter=96)
    model = VortaLlama(TINY, w, dtype=torch.float16, moe={1: m}, max_len=8)
    hd, ff = TINY.hidden_size, TINY.intermediate_size
    attn = (TINY.num_heads + 2 * TINY.num_kv_heads) * TINY.head_dim * hd + hd * TINY.num_heads * TINY.head_dim
    dense_layer = attn + 3 * hd * ff + 2 * hd
    moe_layer = attn + 2 * hd + m.router.numel() + m.top_k * 3 * hd * 96
    head = TINY.vocab_size * hd
    want = dense_layer + moe_layer + hd + head + hd
    assert model.weight_bytes_per_token() == 2 * want
