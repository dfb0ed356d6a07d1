"""repetition_penalty_logits_process_inplaced and attn_softmax_inplaced against plain-torch references."""
import pytest
import torch

import vorta_addons
from helpers import assert_fatal, canary_view, count_records

DTYPES = [torch.float32, torch.float16]
PENALTY = torch.tensor(1.3, dtype=torch.float32)  # passed on as its exact float32 value


def ref_penalty(scores, ids, penalty):
    out = scores.clone()
    for b in range(scores.shape[0]):
        cols = torch.unique(ids[b])
        x = scores[b, cols].float()
        out[b, cols] = torch.where(x > 0, x / penalty, x * penalty).to(scores.dtype)
    return out


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("bsz,vocab,seq_len", [(1, 50, 3), (3, 1000, 77), (5, 32000, 300)])
def test_penalty_on_strided_rows(dtype, bsz, vocab, seq_len):
    g = torch.Generator().manual_seed(vocab)
    scores, canary = canary_view((bsz, vocab + 13), dtype, lambda t: t[:, 5:5 + vocab])
    scores.copy_(torch.randn(bsz, vocab, generator=g) * 4)
    scores[:, :4] = 0.0
    id_base = torch.randint(0, vocab, (bsz, 2 * seq_len + 1), generator=g)
    ids = id_base[:, 1:1 + seq_len]  # row stride 2 * seq_len + 1
    ids[:, 0] = ids[:, -1] = 2  # a repeated zero logit
    expected = ref_penalty(scores.clone(), ids, PENALTY)
    vorta_addons.repetition_penalty_logits_process_inplaced(scores, ids, PENALTY.item())
    assert torch.equal(scores, expected)
    canary.check()


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("logit,expected", [(2.0, 1.0), (-2.0, -4.0), (0.0, 0.0)])
def test_repeated_token_is_penalised_once(dtype, logit, expected):
    scores = torch.zeros(2, 8, dtype=dtype)
    scores[1, 5] = logit
    ids = torch.tensor([[1, 2, 3], [5, 5, 5]])
    vorta_addons.repetition_penalty_logits_process_inplaced(scores, ids, 2.0)
    assert scores[1, 5].item() == expected


def ref_softmax(a):
    return torch.softmax(a.double(), -1)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("shape", [(2, 3, 4, 5), (6, 7, 37), (1, 2, 16, 1024), (3, 2, 1)])
def test_softmax_matches_reference(dtype, shape):
    a = (torch.randn(shape) * 5).to(dtype)
    a.view(-1, shape[-1])[::3, ::2] = -10000.0  # masked positions
    ref = ref_softmax(a)
    ptr = a.data_ptr()
    vorta_addons.attn_softmax_inplaced(a)
    assert a.data_ptr() == ptr and a.dtype == dtype
    if dtype == torch.float32:
        torch.testing.assert_close(a.double(), ref, rtol=2e-6, atol=1e-9)
    else:
        ulp = ref.abs().clamp_min(6.1e-5) * 2.0 ** -10
        assert ((a.double() - ref).abs() <= ulp).all()


def test_softmax_is_shift_invariant_for_large_values():
    a = torch.randn(4, 8, 300) * 3
    b = a + 5000.0  # exp(x) alone would overflow; x - max must be taken first
    vorta_addons.attn_softmax_inplaced(a)
    vorta_addons.attn_softmax_inplaced(b)
    torch.testing.assert_close(a, b, rtol=1e-3, atol=1e-6)
    assert not b.isnan().any()


@pytest.mark.parametrize("dtype", [torch.bfloat16, torch.float64])
def test_other_dtypes_are_rejected(dtype):
    msg = "unsupported dtype, only fp32 and fp16 are supported"
    with pytest.raises(RuntimeError, match=msg):
        vorta_addons.attn_softmax_inplaced(torch.zeros(1, 2, 3, dtype=dtype))
    with pytest.raises(RuntimeError, match=msg):
        vorta_addons.repetition_penalty_logits_process_inplaced(
            torch.zeros(1, 8, dtype=dtype), torch.zeros(1, 2, dtype=torch.long), 1.1)


def test_one_record_per_call():
    a, s, i = torch.randn(2, 3, 8), torch.randn(2, 8), torch.zeros(2, 3, dtype=torch.long)
    assert count_records(lambda: vorta_addons.attn_softmax_inplaced(a),
                         "attention softmax in fp32 inplaced") == {"attention softmax in fp32 inplaced": 1}
    name = "repetition penalty logits process"
    assert count_records(lambda: vorta_addons.repetition_penalty_logits_process_inplaced(s, i, 1.1),
                         name) == {name: 1}


@pytest.mark.parametrize("code,expression", [
    ("vorta_addons.attn_softmax_inplaced(torch.ones(4, 5))", "attn.dim() == 4 || attn.dim() == 3"),
    ("vorta_addons.attn_softmax_inplaced(torch.ones(2, 3, 4, 5).transpose(2, 3))", "attn.is_contiguous()"),
    ("vorta_addons.repetition_penalty_logits_process_inplaced(torch.ones(2, 8), torch.zeros(2, dtype=torch.long), 1.1)",
     "scores.dim() == 2 && input_ids.dim() == 2"),
    ("vorta_addons.repetition_penalty_logits_process_inplaced(torch.ones(2, 8), torch.zeros(2, 3, dtype=torch.int32), 1.1)",
     "input_ids.scalar_type() == AT::Long"),
])
def test_fatal_checks(code, expression):
    assert_fatal(code, expression, "transformers")
