"""The CUDA backend against the CPU backend, operator by operator, at awkward sizes (1, 7, 83, 769,
block edges +- 1), on strided and misaligned views with canaries: bit for bit where the arithmetic is
fixed, within a few ulp for the softmax. VORTA_AGREEMENT_DEVICE=cpu checks the test itself on the CPU."""
import os

import pytest
import torch

import vorta_addons
from conftest import CUDA_GROUPS, GPU
from helpers import Canary, count_records, every_operator, every_operator_inputs, kv_round_trip

OTHER = os.environ.get("VORTA_AGREEMENT_DEVICE", "cuda")
if OTHER == "cuda" and not GPU:
    pytest.skip("no GPU, or no CUDA backend in this build", allow_module_level=True)

DTYPES = [torch.float32, torch.float16]


def needs(group):
    if OTHER == "cuda" and group not in CUDA_GROUPS:
        pytest.skip(f"this build has no CUDA kernels for {group}")


def same(a, b):
    """Equal bit for bit, NaN payloads aside; on one device."""
    torch.testing.assert_close(a.cpu(), b.cpu(), rtol=0, atol=0, equal_nan=True)


def on_both(make):
    """make(device) built on the CPU and on the other device from the same seed."""
    torch.manual_seed(1234)
    cpu = make("cpu")
    torch.manual_seed(1234)
    return cpu, make(OTHER)


def agree(make):
    """make(device)'s tensor, or tensors, the same on both devices."""
    cpu, other = (out if isinstance(out, (list, tuple)) else [out] for out in on_both(make))
    assert len(cpu) == len(other)
    for a, b in zip(cpu, other):
        same(a, b)


def randn(shape, dtype, device, scale=1.0, shift=0.0):
    """Drawn on the CPU, so both devices see the same values."""
    return (torch.randn(shape) * scale + shift).to(dtype).to(device)


def window(base, offset, shape):
    """A dense `shape` view `offset` elements into a flat base (odd: off the 16-byte grid)."""
    n = 1
    for s in shape:
        n *= s
    return base.view(-1)[offset:offset + n].view(shape)


# --- norms --------------------------------------------------------------------

@pytest.mark.parametrize("rows", [1, 7, 83, 769])
@pytest.mark.parametrize("hidden", [32, 992, 1024, 1056, 4096, 8160, 8192])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("offset", [0, 1])
def test_norms(rows, hidden, dtype, offset):
    needs("norm")

    def run(device):
        base = randn(rows * hidden + 8, dtype, device, 3.0, 0.5)
        x = window(base, offset, (rows, hidden))
        w, b = randn(hidden + 1, dtype, device)[offset:offset + hidden], randn(hidden, dtype, device)
        x0 = x.clone()
        out = (vorta_addons.rms_norm(w, x, 1e-6), vorta_addons.layer_norm(x, w, b, 1e-5),
               vorta_addons.layer_norm(x, None, None, 1e-5))
        assert torch.equal(x, x0)
        return out

    agree(run)


# --- gated SiLU ---------------------------------------------------------------

@pytest.mark.parametrize("blocks", [1, 7, 83, 769])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("offset", [0, 1, 8])
def test_silu_mul(blocks, dtype, offset):
    needs("elementwise")
    n = 128 * blocks

    def run(device):
        base = torch.full((n + 16,), -5.0, dtype=dtype, device=device)
        gate = base[offset:offset + n]
        canary = Canary(base, gate)
        gate.copy_(randn(n, dtype, device, 6.0))
        gate[:8] = torch.tensor([-200.0, 200.0, 0.0, -0.0, 90.0, -90.0, float("inf"), float("nan")])
        up = randn(n, dtype, device)
        vorta_addons.mlp_silu_mul_inplaced(gate, up)
        canary.check()
        return gate

    agree(run)


# --- repetition penalty -------------------------------------------------------

@pytest.mark.parametrize("bsz,vocab,seq_len", [(1, 7, 1), (7, 83, 7), (3, 32000, 769), (2, 129, 2049)])
@pytest.mark.parametrize("dtype", DTYPES)
def test_repetition_penalty(bsz, vocab, seq_len, dtype):
    needs("elementwise")

    def run(device):
        base = torch.full((bsz, vocab + 9), 7.0, dtype=dtype, device=device)
        scores = base[:, 4:4 + vocab]
        canary = Canary(base, scores)
        scores.copy_(randn((bsz, vocab), dtype, device, 4.0))
        scores[:, 0] = 0.0
        ids = torch.randint(0, vocab, (bsz, seq_len + 3))[:, 3:].to(device)  # row stride seq_len + 3
        ids[:, -1] = ids[:, 0]
        vorta_addons.repetition_penalty_logits_process_inplaced(scores, ids, 1.3)
        canary.check()
        return scores

    agree(run)


def test_penalty_skips_ids_outside_the_vocabulary():
    needs("elementwise")
    if OTHER != "cuda":
        pytest.skip("the CPU backend does not check ids")
    scores = torch.full((2, 10), 2.0, device="cuda")
    ids = torch.tensor([[3, -1, 10, 3], [1 << 40, 9, -5, 0]], device="cuda")
    vorta_addons.repetition_penalty_logits_process_inplaced(scores, ids, 2.0)
    expected = torch.full((2, 10), 2.0)
    expected[0, 3] = expected[1, 9] = expected[1, 0] = 1.0
    assert torch.equal(scores.cpu(), expected)


# --- attention softmax --------------------------------------------------------

@pytest.mark.parametrize("n", [1, 7, 83, 769, 1024, 1025, 4096, 4097, 16384, 16385, 40000])
@pytest.mark.parametrize("dtype", DTYPES)
def test_attn_softmax(n, dtype):
    needs("elementwise")
    rows = 3 if n > 4096 else 13

    def run(device):
        a = randn((1, rows, n), dtype, device, 5.0, 100.0)
        a.view(-1, n)[::3, ::2] = -10000.0
        x = a.clone()
        vorta_addons.attn_softmax_inplaced(a)
        return x, a

    (x, cpu), (_, other) = on_both(run)
    other = other.cpu()
    if dtype == torch.float32:
        # The row sums are taken in another order. The CPU's long sequential
        # sums lose up to ~n/8 float32 roundings, so the device is held to the
        # exact softmax instead, and to the CPU within what the CPU loses.
        if OTHER == "cuda":
            torch.testing.assert_close(other.double(), torch.softmax(x.double(), -1), rtol=4e-6, atol=1e-30)
        torch.testing.assert_close(other, cpu, rtol=4e-6 + n * 2e-9, atol=1e-30)
    else:  # one rounding of nearly the same float32 value: at most one fp16 ulp apart
        ulp = cpu.double().abs().clamp_min(2.0 ** -14) * 2.0 ** -10
        assert ((other.double() - cpu.double()).abs() <= ulp).all()


# --- rotary -------------------------------------------------------------------

def projections(bsz, seq, heads, kv_heads, head_dim, dtype, device, pad=16):
    """query/key views pad // 2 elements into [bsz, seq, heads, head_dim + pad] projections, with canaries."""
    views = []
    for h in (heads, kv_heads):
        base = randn((bsz, seq, h, head_dim + pad), dtype, device)
        view = base[..., pad // 2:pad // 2 + head_dim].transpose(1, 2)
        views += [view, Canary(base, view)]
    return views


@pytest.mark.parametrize("every_two,head_dim", [(False, d) for d in (256, 128, 96, 80, 64, 40, 32, 20, 16)]
                         + [(True, d) for d in (128, 96, 64)])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("bsz,seq,pad", [(1, 1, 16), (2, 7, 16), (3, 83, 3)])
def test_rotary_inv_freq(every_two, head_dim, dtype, bsz, seq, pad):
    needs("rotary")
    op = vorta_addons.rotary_two_inplaced if every_two else vorta_addons.rotary_half_inplaced

    def run(device):
        q, qc, k, kc = projections(bsz, seq, 5, 3, head_dim, dtype, device, pad)
        inv_freq = (1.0 / 10000 ** (torch.arange(0, head_dim, 2) / head_dim)).to(dtype).to(device)
        shared = seq == 7
        positions = torch.randint(0, 1 << 17, (1 if shared else bsz, seq + 2))[:, 1:1 + seq].to(device)
        op(inv_freq, positions, q, k)
        qc.check(), kc.check()
        return q, k

    agree(run)


@pytest.mark.parametrize("rotary_dim", [2, 22, 37, 64, 128])
@pytest.mark.parametrize("kind", ["half", "two_half_layout", "two_interleaved"])
@pytest.mark.parametrize("dtype", DTYPES + [torch.bfloat16])
@pytest.mark.parametrize("bsz,seq,pad", [(1, 1, 16), (2, 83, 16), (1, 7, 5)])
def test_rotary_with_cache(rotary_dim, kind, dtype, bsz, seq, pad):
    needs("rotary")

    def run(device):
        q, qc, k, kc = projections(bsz, seq, 4, 1, 128, dtype, device, pad)
        angle = torch.rand(seq + 3, rotary_dim, dtype=torch.float64) * 100
        cos, sin = angle.cos().to(dtype).to(device), angle.sin().to(dtype).to(device)
        if kind == "half":
            vorta_addons.rotary_half_with_cache_inplaced(q, k, cos, sin)
        else:
            vorta_addons.rotary_two_with_cache_inplaced(q, k, cos, sin, kind == "two_half_layout")
        qc.check(), kc.check()
        return q, k

    agree(run)


# --- 8-bit key/value caches ---------------------------------------------------

@pytest.mark.parametrize("key_dim,value_dim", [(64, 64), (80, 80), (96, 96), (128, 128), (192, 192), (192, 128)])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("bsz,heads,seq,pad", [(1, 1, 1, 0), (2, 3, 7, 0), (1, 2, 83, 1)])
def test_kv_round_trip(key_dim, value_dim, dtype, bsz, heads, seq, pad):
    needs("kv_cache")

    def run(device):
        # [b, s, h, d] projections seen as [b, h, s, d]
        key = randn((bsz, seq, heads, key_dim + pad), dtype, device, 40.0)[..., pad:].transpose(1, 2)
        value = randn((bsz, seq, heads, value_dim + pad), dtype, device, 4.0)[..., pad:].transpose(1, 2)
        key[..., :4] = torch.tensor([0.0, -0.0, 1e5 if dtype == torch.float32 else 6e4, 1e-9])
        return kv_round_trip(key, value, pad)

    agree(run)


# --- mixture-of-experts routing -----------------------------------------------

@pytest.mark.parametrize("tokens", [1, 7, 83, 769])
@pytest.mark.parametrize("n_experts,top_k", [(16, 1), (16, 16), (64, 6), (128, 8), (256, 8), (256, 32)])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("renormalize", [False, True])
def test_moe_softmax_topk(tokens, n_experts, top_k, dtype, renormalize):
    needs("moe")

    def run(device):
        logits = randn((tokens, n_experts), dtype, device, 3.0)
        logits[:, 3] = logits[:, 5]  # ties go to the lower expert
        logits[0, :] = 1.0           # all tied
        if tokens > 1:
            logits[1, 2] = float("nan")  # a NaN row: expert 0 everywhere
        return vorta_addons.moe_softmax_topk(logits, top_k, renormalize)

    agree(run)


@pytest.mark.parametrize("tokens", [1, 7, 83, 769])
@pytest.mark.parametrize("n_experts,n_groups,topk_group,top_k", [
    (256, 8, 4, 8), (64, 4, 2, 6), (48, 3, 1, 32), (128, 1, 1, 8), (256, 16, 16, 32)])
@pytest.mark.parametrize("bias", [None, torch.float32, torch.float16])
@pytest.mark.parametrize("renormalize", [False, True])
def test_moe_group_topk(tokens, n_experts, n_groups, topk_group, top_k, bias, renormalize):
    needs("moe")

    def run(device):
        scores = torch.rand(tokens, n_experts).to(device)
        scores[:, 7] = scores[:, 9]
        scores[0, :] = 0.5
        if tokens > 1:
            scores[1, 4] = float("nan")
        b = None if bias is None else (torch.randn(n_experts) * 0.1).to(bias).to(device)
        return vorta_addons.moe_group_topk(scores, b, n_groups, topk_group, 0, top_k, renormalize, 1e-20, 2.5)

    agree(run)


# --- launches -----------------------------------------------------------------

def test_one_record_per_launch_on_the_device():
    needs("elementwise")
    x = torch.randn(2, 3, 40, device=OTHER)
    name = "attention softmax in fp32 inplaced"
    assert count_records(lambda: vorta_addons.attn_softmax_inplaced(x), name) == {name: 1}


def test_every_operator_replays_in_a_cuda_graph():
    # Capture fails on any launch outside the capturing (current) stream and on
    # any host synchronisation; the replay must compute what eager calls do.
    if OTHER != "cuda":
        pytest.skip("CUDA graphs only")
    for group in ("norm", "elementwise", "rotary", "kv_cache", "moe"):
        needs(group)
    expected = every_operator(every_operator_inputs(5, "cuda"))
    static = every_operator_inputs(5, "cuda")
    side = torch.cuda.Stream()
    side.wait_stream(torch.cuda.current_stream())
    with torch.cuda.stream(side):
        every_operator(every_operator_inputs(6, "cuda"))  # warm-up outside the capture
    torch.cuda.current_stream().wait_stream(side)
    graph = torch.cuda.CUDAGraph()
    with torch.cuda.graph(graph):
        out = every_operator(static)
    for name, value in every_operator_inputs(5, "cuda").items():  # capture ran nothing; start from the inputs
        static[name].copy_(value)
    graph.replay()
    torch.cuda.synchronize()
    for a, b in zip(out, expected):
        same(a, b)


def test_a_cuda_device_classifies_by_what_it_reports():
    if OTHER != "cuda":
        pytest.skip("CUDA devices only")
    hooks = vorta_addons._testing
    props = torch.cuda.get_device_properties(0)
    expected = hooks.classify_device(torch.cuda.get_device_name(0), 32, getattr(props, "pci_device_id", 0))
    assert expected == 7  # OTHER: no CUDA device carries any family's name or id
    assert [hooks.device_family(torch.device("cuda", 0)) for _ in range(3)] == [expected] * 3
