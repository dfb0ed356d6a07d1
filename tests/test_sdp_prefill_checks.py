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


def zeros(d, dtype=torch.float32, lq=4):
    return torch.zeros(1, 2, lq, d, dtype=dtype), torch.zeros(1, 1, 4, d, dtype=dtype)


@pytest.mark.parametrize("fam,d,dtype,message", [
    (OTHER, 72, torch.float32, "unsupported head_dim, only 256, 192, 128, 96, 80 and 64 are supported"),
    (OTHER, 72, torch.bfloat16, "unsupported head_dim, only 256, 192, 128, 96, 80 and 64 are supported"),
    (KESTREL, 96, torch.bfloat16, "unsupported dtype, only fp32 and fp16 are supported"),
    (OTHER, 64, torch.bfloat16, "unsupported dtype, only fp32 and fp16 are supported"),
    (FINCH, 128, torch.bfloat16, "unsupported dtype, only fp32 and fp16 are supported"),
])
def test_prefill_argument_errors(family, fam, d, dtype, message):
    family(fam)
    q, k = zeros(d, dtype)
    for op in (vorta_addons.sdp_non_causal, vorta_addons.sdp_fp8_non_causal):
        kv = k if op is vorta_addons.sdp_non_causal else k.to(torch.uint8)
        with pytest.raises(RuntimeError, match=message):
            op(q, kv, kv, None, 1.0)


@pytest.mark.parametrize("fam,d,dtype,message", [
    (FINCH, 72, torch.float32, "unsupported device, only KESTREL, HARRIER, LARK are supported"),
    (OSPREY, 72, torch.float32, "unsupported device, only KESTREL, HARRIER, LARK are supported"),
    (OTHER, 64, torch.bfloat16, "unsupported device, only KESTREL, HARRIER, LARK are supported"),
    (KESTREL, 64, torch.bfloat16, "unsupported head_dim, only 72 is supported"),
    (LARK, 72, torch.bfloat16, "unsupported dtype, only fp32 and fp16 are supported"),
])
def test_siglip_argument_errors(family, fam, d, dtype, message):
    family(fam)
    q, k = zeros(d, dtype)
    with pytest.raises(RuntimeError, match=message):
        vorta_addons.siglip_sdp_non_causal(q, k, k, None)


def test_gemma2_argument_errors():
    q, k = zeros(72)
    with pytest.raises(RuntimeError, match="unsupported head_dim, only 256, 192, 128, 96, 80 and 64"):
        vorta_addons.gemma2_sdp(q, k, k, None, 50.0, 1.0)
    q, k = zeros(64, torch.bfloat16)
    with pytest.raises(RuntimeError, match="unsupported dtype, only fp32 and fp16 are supported"):
        vorta_addons.gemma2_sdp_causal(q, k, k, None, 50.0, 1.0)
    q, k = zeros(64)
    with pytest.raises(RuntimeError, match="softcap must be positive"):
        vorta_addons.gemma2_sdp(q, k, k, None, 0.0, 1.0)


def test_a_mask_shorter_than_the_keys_is_a_torch_error():
    q, k = zeros(64)
    with pytest.raises(RuntimeError):
        vorta_addons.sdp_non_causal(q, k, k, torch.zeros(1, 1, 4, 3), 1.0)
