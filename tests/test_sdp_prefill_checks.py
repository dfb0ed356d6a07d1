"""Prefill attention: fatal shape checks in their order, and the paths' argument errors."""
import pytest
import torch

import vorta_addons
from helpers import assert_fatal

KESTREL, FINCH, OSPREY, LARK, OTHER = 0, 3, 4, 5, 7


def t(*shape, dtype="torch.float32"):
    return f"torch.zeros({', '.join(map(str, shape))}, dtype={dtype})"


Q, KV = t(1, 4, 8, 64), t(1, 2, 8, 64)
BYTES = t(1, 2, 8, 64, dtype="torch.uint8")


@pytest.mark.parametrize("code,expression", [
    (f"vorta_addons.sdp_causal({Q}, {KV}, {t(1, 2, 8, 64, dtype='torch.float16')}, None, 1.0)",
     "key.scalar_type() == value.scalar_type()"),
    # Mask preparation, in its order, before the operators' own checks.
    (f"vorta_addons.sdp_causal({Q}, {t(1, 2, 9, 64)}, {t(1, 2, 9, 64)}, {t(2, 4, 8, 9)}, 1.0)",
     "mask->size(0) == bsz"),
    (f"vorta_addons.sdp_non_causal({Q}, {KV}, {KV}, {t(1, 2, 8, 8)}, 1.0)",
     "mask->size(1) == num_heads || mask->size(1) == 1"),
    (f"vorta_addons.sdp_non_causal({Q}, {KV}, {KV}, {t(1, 1, 7, 8)}, 1.0)",
     "mask->size(2) == seq_length"),
    (f"vorta_addons.sdp_non_causal({Q}, {KV}, {KV}, torch.zeros(1, 1, 8, 129)[..., :128], 1.0)",
     "mask->stride(2) % 2 == 0"),
    # The operators' own checks.
    (f"vorta_addons.sdp_causal({Q}, {t(1, 2, 9, 64)}, {t(1, 2, 9, 64)}, None, 1.0)",
     "query.size(2) == key.size(2)"),
    (f"vorta_addons.sdp_causal({Q}, {t(1, 2, 8, 64, dtype='torch.float16')}, "
     f"{t(1, 2, 8, 64, dtype='torch.float16')}, None, 1.0)",
     "query.scalar_type() == key.scalar_type()"),
    (f"vorta_addons.sdp_fp8_causal({Q}, {t(1, 2, 9, 64, dtype='torch.uint8')}, "
     f"{t(1, 2, 9, 64, dtype='torch.uint8')}, None, 1.0)", "query.size(2) == key.size(2)"),
    (f"vorta_addons.sdp_fp8_causal({Q}, {KV}, {KV}, None, 1.0)",
     "key.scalar_type() == at::ScalarType::Byte"),
    (f"vorta_addons.sdp_fp8_non_causal({Q}, {KV}, {KV}, None, 1.0)",
     "key.scalar_type() == at::ScalarType::Byte"),
    (f"vorta_addons.sdp_non_causal({Q}, {BYTES}, {BYTES}, None, 1.0)",
     "query.scalar_type() == key.scalar_type()"),
    (f"vorta_addons.siglip_sdp_non_causal({t(1, 4, 8, 72)}, {t(1, 2, 8, 72, dtype='torch.float16')}, "
     f"{t(1, 2, 8, 72, dtype='torch.float16')}, None)", "query.scalar_type() == key.scalar_type()"),
])
def test_fatal_checks(code, expression):
    assert_fatal(code, expression, "sdp/api")


def test_fp8_non_causal_accepts_unequal_lengths():
    out = vorta_addons.sdp_fp8_non_causal(torch.zeros(1, 4, 3, 64),
                                          torch.zeros(1, 2, 8, 64, dtype=torch.uint8),
                                          torch.zeros(1, 2, 8, 64, dtype=torch.uint8), None, 1.0)
    assert out.shape == (1, 4, 3, 64)


HEAD_DIM = "unsupported head_dim, only 256, 192, 128, 96, 80 and 64 are supported"
DTYPE = "unsupported dtype, only fp32 and fp16 are supported"
SIGLIP_DEVICE = "unsupported device, only KESTREL, HARRIER, LARK are supported"
PREFILL = "sdp_non_causal sdp_fp8_non_causal"
F32, BF16 = torch.float32, torch.bfloat16


@pytest.mark.parametrize("ops,fam,d,dtype,message", [
    (PREFILL, OTHER, 72, F32, HEAD_DIM), (PREFILL, OTHER, 72, BF16, HEAD_DIM), (PREFILL, KESTREL, 96, BF16, DTYPE),
    (PREFILL, OTHER, 64, BF16, DTYPE), (PREFILL, FINCH, 128, BF16, DTYPE),
    ("siglip_sdp_non_causal", FINCH, 72, F32, SIGLIP_DEVICE), ("siglip_sdp_non_causal", OSPREY, 72, F32, SIGLIP_DEVICE),
    ("siglip_sdp_non_causal", OTHER, 64, BF16, SIGLIP_DEVICE),
    ("siglip_sdp_non_causal", KESTREL, 64, BF16, "unsupported head_dim, only 72 is supported"),
    ("siglip_sdp_non_causal", LARK, 72, BF16, DTYPE),
    ("gemma2_sdp", OTHER, 72, F32, HEAD_DIM), ("gemma2_sdp_causal", OTHER, 64, BF16, DTYPE),
])
def test_argument_errors(family, ops, fam, d, dtype, message):
    family(fam)
    q, k = torch.zeros(1, 2, 4, d, dtype=dtype), torch.zeros(1, 1, 4, d, dtype=dtype)
    for op in ops.split():
        kv = k.to(torch.uint8) if "fp8" in op else k
        tail = () if op.startswith("siglip") else (50.0, 1.0) if op.startswith("gemma2") else (1.0,)
        with pytest.raises(RuntimeError, match=message):
            getattr(vorta_addons, op)(q, kv, kv, None, *tail)


def test_softcap_must_be_positive():
    q = torch.zeros(1, 2, 4, 64)
    with pytest.raises(RuntimeError, match="softcap must be positive"):
        vorta_addons.gemma2_sdp(q, q[:, :1], q[:, :1], None, 0.0, 1.0)


def test_a_mask_shorter_than_the_keys_is_a_torch_error():
    q = torch.zeros(1, 2, 4, 64)
    with pytest.raises(RuntimeError):
        vorta_addons.sdp_non_causal(q, q[:, :1], q[:, :1], torch.zeros(1, 1, 4, 3), 1.0)
