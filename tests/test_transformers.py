"""repetition_penalty_logits_process_inplaced and attn_softmax_inplaced against plain-torch references."""
import pytest
import torch

import vorta_addons
from helpers import assert_fatal, canary_view

GROUP = "elementwise"
DTYPES = [torch.float32, torch.float16]
PENALTY = torch.tensor(1.3, dtype=torch.float32)  # passed on as its exact float32 value


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("bsz,vocab,seq_len", [(1, 50, 3), (3, 1000, 77), (5, 32000, 300)])
def test_penalty_on_strided_rows(dtype, bsz, vocab, seq_len, device):
    scores, canary = canary_view((bsz, vocab + 13), dtype, lambda t: t[:, 5:5 + vocab], device=device)
    scores.copy_(torch.randn(bsz, vocab) * 4)
    scores[:, :4] = 0.0
    ids = torch.randint(0, vocab, (bsz, 2 * seq_len + 1)).to(device)[:, 1:1 + seq_len]  # row stride 2 * seq_len + 1
    ids[:, 0] = ids[:, -1] = 2  # a repeated zero logit
    expected = scores.cpu().clone()
    for b in range(bsz):  # each distinct id once, from the unpenalised logit
        cols = torch.unique(ids[b].cpu())
        x = expected[b, cols].float()
        expected[b, cols] = torch.where(x > 0, x / PENALTY, x * PENALTY).to(dtype)
    vorta_addons.repetition_penalty_logits_process_inplaced(scores, ids, PENALTY.item())
    assert torch.equal(scores.cpu(), expected)
    canary.check()


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("logit,expected", [(2.0, 1.0), (-2.0, -4.0), (0.0, 0.0)])
def test_repeated_token_is_penalised_once(dtype, logit, expected, device):
    scores = torch.zeros(2, 8, dtype=dtype, device=device)
    scores[1, 5] = logit
    ids = torch.tensor([[1, 2, 3], [5, 5, 5]], device=device)
    vorta_addons.repetition_penalty_logits_process_inplaced(scores, ids, 2.0)
    assert scores[1, 5].item() == expected


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("shape", [(2, 3, 4, 5), (6, 7, 37), (1, 2, 16, 1024), (3, 2, 1), (1, 3, 4097),
                                   (1, 2, 16385), (1, 2, 40000)])
def test_softmax_matches_reference(dtype, shape, device):
    a = (torch.randn(shape) * 5 + 100).to(dtype)  # exp(x) alone would overflow
    a.view(-1, shape[-1])[::3, ::2] = -10000.0  # masked positions
    ref, a = torch.softmax(a.double(), -1), a.to(device)
    ptr = a.data_ptr()
    vorta_addons.attn_softmax_inplaced(a)
    assert a.data_ptr() == ptr and a.dtype == dtype
    a = a.cpu()
    if dtype == torch.float32:
        # A long row's sum takes a float32 rounding per few elements added.
        torch.testing.assert_close(a.double(), ref, rtol=2e-6 + 1e-10 * shape[-1], atol=1e-9)
    else:
        assert ((a.double() - ref).abs() <= ref.abs().clamp_min(6.1e-5) * 2.0 ** -10).all()


@pytest.mark.parametrize("dtype", DTYPES)
def test_softmax_rows_with_nan_infinities_and_underflow(dtype, device):
    # Rows whose exponentials all stay normal take a faster path than rows with an entry
    # that underflows, a NaN or an infinity; each row here is one of those.
    a = torch.randn(5, 1024, generator=torch.Generator().manual_seed(1)) * 3
    a[0, 7] = a[0].max() - 97.0  # e^-97: subnormal in float32, a lane of its own
    a[1, 100] = float("nan")
    a[2, ::5] = float("-inf")
    a[3, 1023] = float("inf")
    a = a.to(dtype)
    ref, a = torch.softmax(a.double(), -1), a.to(device)
    vorta_addons.attn_softmax_inplaced(a.view(1, 1, 5, 1024))
    a = a.cpu().double()
    tol = 2e-6 if dtype == torch.float32 else 2.0 ** -10
    torch.testing.assert_close(a, ref, rtol=tol, atol=1e-44 if dtype == torch.float32 else 6e-8, equal_nan=True)
    assert a[1].isnan().all() and a[3].isnan().all() and (a[2, ::5] == 0).all()


def test_penalty_skips_ids_outside_the_vocabulary_on_the_gpu(device):
    # The CPU refuses such ids before any write (a host check); the GPU kernels cannot wait for one.
    if device == "cpu":
        pytest.skip("the CPU backend refuses these ids")
    scores = torch.full((2, 10), 2.0, device=device)
    ids = torch.tensor([[3, -1, 10, 3], [1 << 40, 9, -5, 0]], device=device)
    vorta_addons.repetition_penalty_logits_process_inplaced(scores, ids, 2.0)
    expected = torch.full((2, 10), 2.0)
    expected[0, 3] = expected[1, 9] = expected[1, 0] = 1.0
    assert torch.equal(scores.cpu(), expected)


def test_bfloat16_is_refused():
    with pytest.raises(RuntimeError, match="unsupported dtype, only fp32 and fp16 are supported"):
        vorta_addons.attn_softmax_inplaced(torch.randn(2, 3, 8).bfloat16())
    with pytest.raises(RuntimeError, match="unsupported dtype, only fp32 and fp16 are supported"):
        vorta_addons.repetition_penalty_logits_process_inplaced(torch.randn(2, 8).bfloat16(), torch.zeros(2, 3).long(), 1.1)


@pytest.mark.parametrize("code,expression", [
    ("attn_softmax_inplaced(torch.ones(2, 3, 4, 5).transpose(2, 3))", "attn.is_contiguous()"),
    ("repetition_penalty_logits_process_inplaced(torch.ones(2, 8), torch.zeros(2, dtype=torch.long), 1.1)",
     "scores.dim() == 2 && input_ids.dim() == 2"),
])
def test_fatal_checks(code, expression):
    assert_fatal("vorta_addons." + code, expression, "transformers")
