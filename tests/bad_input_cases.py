"""Hostile calls of every operator, as Python source run in a namespace holding torch, va
(the module) and nan/inf. Each call leaves its result in `out` (None for in-place
operators); `case(op, label, code)` names it "op-label"."""

OPS = [
    "sdp", "sdp_fp8", "sdp_causal", "sdp_fp8_causal", "sdp_non_causal", "sdp_fp8_non_causal",
    "siglip_sdp_non_causal", "gemma2_sdp", "gemma2_sdp_causal", "rms_norm", "layer_norm",
    "rotary_half_inplaced", "rotary_two_inplaced", "rotary_half_with_cache_inplaced",
    "rotary_two_with_cache_inplaced", "mlp_silu_mul_inplaced", "quantize_key_value",
    "dequantize_key_value", "repetition_penalty_logits_process_inplaced", "attn_softmax_inplaced",
    "moe_group_topk", "moe_softmax_topk",
]

FP8 = {"sdp_fp8", "sdp_fp8_causal", "sdp_fp8_non_causal"}
CAUSAL = {"sdp_causal", "sdp_fp8_causal", "gemma2_sdp_causal"}
DECODE = {"sdp", "sdp_fp8"}
ATTENTION = OPS[:9]


def attn_call(op, q, k, v, m="None"):
    tail = {"sdp": "1.0", "siglip_sdp_non_causal": None, "gemma2_sdp": "50.0, 0.125",
            "gemma2_sdp_causal": "50.0, 0.125"}.get(op, "0.125")
    return f"out = va.{op}({q}, {k}, {v}, {m}{', ' + tail if tail else ''})"


def qkv(op, bsz=1, heads=4, kv_heads=2, q_len=3, kv_len=3, d=None, kd=None, dtype="torch.float32"):
    """Setup source for q, k, v of `op` (uint8 codes for the fp8 operators)."""
    d = d or (72 if op == "siglip_sdp_non_causal" else 64)
    kd = kd or d
    if op in FP8:
        cache = f"torch.full(({bsz}, {kv_heads}, {kv_len}, {kd}), 0x30, dtype=torch.uint8)"
    else:
        cache = f"torch.randn({bsz}, {kv_heads}, {kv_len}, {kd}, dtype={dtype})"
    return (f"q = torch.randn({bsz}, {heads}, {q_len}, {d}, dtype={dtype})\n"
            f"k = {cache}\nv = {cache}\n")


def attention_cases():
    cases = []
    for op in ATTENTION:
        c = lambda label, code: cases.append((op, label, code))
        call = attn_call(op, "q", "k", "v")
        c("zero_kv_heads", qkv(op, kv_heads=0) + call)
        c("heads_not_multiple", qkv(op, heads=3) + call)
        c("batch_mismatch", qkv(op, bsz=2) + "q = q[:1].repeat(2, 1, 1, 1)\nk = k[:1]\n" + call)
        c("head_dim_mismatch", qkv(op, kd=80) + call)
        c("value_len_mismatch", qkv(op) + "v = v[:, :, :2]\n" + call)
        c("none_query", qkv(op) + attn_call(op, "None", "k", "v"))
        c("none_value", qkv(op) + attn_call(op, "q", "k", "None"))
        c("query_3d", qkv(op) + "q = q.flatten(2)\n" + call)
        c("float64", qkv(op, dtype="torch.float64") + ("k, v = k.double(), v.double()\n" if op not in FP8 else "") + call)
        c("meta", qkv(op) + "q, k, v = q.to('meta'), k.to('meta'), v.to('meta')\n" + call)
        c("empty_batch", qkv(op, bsz=0) + call)
        c("nan_query_row", qkv(op) + "q[0, 1, 0] = nan\n" + call)
        c("mask_wrong_dtype", qkv(op) + attn_call(op, "q", "k", "v", "torch.zeros(1, 1, 3, 3, dtype=torch.float16)"))
        if op not in CAUSAL:
            c("empty_query_len", qkv(op, q_len=0) + call)
            c("zero_kv_len", qkv(op, kv_len=0) + call)
    return cases


def other_cases():
    cases = []

    def c(op, label, code):
        cases.append((op, label, code))

    # Normalisation: weight [hidden], input [tokens, hidden].
    rn = "out = va.rms_norm(w, x, 1e-6)"
    c("rms_norm", "empty_tokens", "w = torch.ones(64)\nx = torch.ones(0, 64)\n" + rn)
    c("rms_norm", "nan_inf_rows", "w = torch.randn(64)\nx = torch.randn(3, 64)\nx[0, 5] = nan\nx[1, 7] = inf\n" + rn)
    c("rms_norm", "float64", "w = torch.ones(64).double()\nx = torch.ones(2, 64).double()\n" + rn)
    c("rms_norm", "meta", "w = torch.ones(64, device='meta')\nx = torch.ones(2, 64, device='meta')\n" + rn)
    c("rms_norm", "none_weight", "x = torch.ones(2, 64)\nout = va.rms_norm(None, x, 1e-6)")
    c("rms_norm", "hidden_zero", "w = torch.ones(0)\nx = torch.ones(2, 0)\n" + rn)
    ln = "out = va.layer_norm(x, w, b, 1e-6)"
    c("layer_norm", "empty_tokens", "x = torch.ones(0, 64)\nw = b = None\n" + ln)
    c("layer_norm", "nan_inf_rows", "x = torch.randn(3, 64)\nx[0, 5] = nan\nx[1, 7] = inf\nw = torch.randn(64)\nb = torch.randn(64)\n" + ln)
    c("layer_norm", "float64", "x = torch.ones(2, 64).double()\nw = b = None\n" + ln)
    c("layer_norm", "meta", "x = torch.ones(2, 64, device='meta')\nw = b = None\n" + ln)
    c("layer_norm", "none_input", "out = va.layer_norm(None, None, None, 1e-6)")
    c("layer_norm", "hidden_zero", "x = torch.ones(2, 0)\nw = b = None\n" + ln)

    # Rotary embedding: query [bsz, heads, seq, d] and key [bsz, kv_heads, seq, d].
    for op in ("rotary_half_inplaced", "rotary_two_inplaced"):
        pre = "inv = 1.0 / 10000 ** (torch.arange(0, 64, 2) / 64)\nq = torch.randn(2, 4, 3, 64)\nk = torch.randn(2, 2, 3, 64)\n"
        call = f"out = va.{op}(inv, pos, q, k)"
        c(op, "huge_positions", pre + "pos = torch.tensor([[2**40, -2**40, 7]] * 2)\n" + call)
        c(op, "int32_positions", pre + "pos = torch.zeros(2, 3, dtype=torch.int32)\n" + call)
        c(op, "positions_too_short", pre + "pos = torch.zeros(2, 2, dtype=torch.long)\n" + call)
        c(op, "positions_batch_mismatch", pre + "pos = torch.zeros(3, 3, dtype=torch.long)\n" + call)
        c(op, "nan_inf_query", pre + "pos = torch.ones(2, 3, dtype=torch.long)\nq[0, 0, 0, 0] = nan\nq[1, 1, 1, 1] = inf\n" + call)
        c(op, "empty_seq", pre.replace(", 3, 64)", ", 0, 64)") + "pos = torch.zeros(2, 0, dtype=torch.long)\n" + call)
        c(op, "none_positions", pre + f"out = va.{op}(inv, None, q, k)")
        c(op, "meta", pre + "pos = torch.zeros(2, 3, dtype=torch.long)\n"
          "inv, pos, q, k = inv.to('meta'), pos.to('meta'), q.to('meta'), k.to('meta')\n" + call)
    for op in ("rotary_half_with_cache_inplaced", "rotary_two_with_cache_inplaced"):
        pre = "q = torch.randn(2, 4, 3, 64)\nk = torch.randn(2, 2, 3, 64)\ncs = torch.randn(3, 64)\n"
        extra = ", False" if op.startswith("rotary_two") else ""
        call = f"out = va.{op}(q, k, cs, cs{extra})"
        c(op, "cache_too_short", pre + "cs = cs[:2]\n" + call)
        c(op, "cache_too_wide", pre + "cs = torch.randn(3, 128)\n" + call)
        c(op, "float64", pre + "q, k, cs = q.double(), k.double(), cs.double()\n" + call)
        c(op, "nan_inf_cache", pre + "cs[0, 0] = nan\ncs[1, 1] = inf\n" + call)
        c(op, "empty_seq", pre.replace(", 3, 64)", ", 0, 64)").replace("randn(3, 64)", "randn(0, 64)") + call)
        c(op, "none_sin", pre + f"out = va.{op}(q, k, cs, None{extra})")
        c(op, "meta", pre + "q, k, cs = q.to('meta'), k.to('meta'), cs.to('meta')\n" + call)

    # Gated SiLU: gate <- silu(gate) * up, in place.
    mlp = "out = va.mlp_silu_mul_inplaced(g, u)"
    c("mlp_silu_mul_inplaced", "empty", "g = torch.ones(0)\nu = torch.ones(0)\n" + mlp)
    c("mlp_silu_mul_inplaced", "nan_inf", "g = torch.randn(128)\nu = torch.randn(128)\n"
      "g[:4] = torch.tensor([nan, inf, -inf, 1.0])\nu[4:8] = torch.tensor([nan, inf, -inf, 0.0])\n" + mlp)
    c("mlp_silu_mul_inplaced", "float64", "g = torch.ones(128).double()\nu = torch.ones(128).double()\n" + mlp)
    c("mlp_silu_mul_inplaced", "meta", "g = torch.ones(128, device='meta')\nu = torch.ones(128, device='meta')\n" + mlp)
    c("mlp_silu_mul_inplaced", "length_mismatch", "g = torch.ones(128)\nu = torch.ones(256)\n" + mlp)
    c("mlp_silu_mul_inplaced", "int32", "g = torch.ones(128, dtype=torch.int32)\nu = g.clone()\n" + mlp)
    c("mlp_silu_mul_inplaced", "none_up", "g = torch.ones(128)\nout = va.mlp_silu_mul_inplaced(g, None)")

    # Eight-bit caches: [bsz, heads, seq, d] into caller tensors.
    qkv_ = "out = va.quantize_key_value(k, v, ko, vo)"
    pre = ("k = torch.randn(1, 2, 3, 64)\nv = torch.randn(1, 2, 3, 64)\n"
           "ko = torch.zeros(1, 2, 3, 64, dtype=torch.uint8)\nvo = torch.zeros(1, 2, 3, 64, dtype=torch.uint8)\n")
    c("quantize_key_value", "nan_inf", pre + "k[0, 0, 0, :3] = torch.tensor([nan, inf, -inf])\nv[0, 1, 2, :3] = torch.tensor([nan, inf, -inf])\n" + qkv_)
    c("quantize_key_value", "empty_seq", pre.replace(", 3, 64", ", 0, 64") + qkv_)
    c("quantize_key_value", "output_float", pre + "ko = ko.float()\n" + qkv_)
    c("quantize_key_value", "output_too_short", pre + "vo = vo[:, :, :2]\n" + qkv_)
    c("quantize_key_value", "float64", pre + "k, v = k.double(), v.double()\n" + qkv_)
    c("quantize_key_value", "meta", pre + "k, v, ko, vo = (t.to('meta') for t in (k, v, ko, vo))\n" + qkv_)
    c("quantize_key_value", "none_output", pre + "out = va.quantize_key_value(k, v, None, vo)")
    dq = "out = va.dequantize_key_value(k, v, ko, vo)"
    pre = ("k = torch.randint(0, 256, (1, 2, 3, 64), dtype=torch.uint8)\nv = torch.randint(0, 256, (1, 2, 3, 64), dtype=torch.uint8)\n"
           "ko = torch.zeros(1, 2, 3, 64)\nvo = torch.zeros(1, 2, 3, 64)\n")
    c("dequantize_key_value", "every_code", pre + dq)
    c("dequantize_key_value", "empty_seq", pre.replace(", 3, 64", ", 0, 64") + dq)
    c("dequantize_key_value", "input_float", pre + "k = k.float()\n" + dq)
    c("dequantize_key_value", "output_too_short", pre + "vo = vo[:, :, :2]\n" + dq)
    c("dequantize_key_value", "output_float64", pre + "ko, vo = ko.double(), vo.double()\n" + dq)
    c("dequantize_key_value", "meta", pre + "k, v, ko, vo = (t.to('meta') for t in (k, v, ko, vo))\n" + dq)
    c("dequantize_key_value", "none_key", pre + "out = va.dequantize_key_value(None, v, ko, vo)")

    # Repetition penalty: scores [bsz, vocab], ids [bsz, seq_len] int64.
    pre = "s = torch.randn(2, 50)\nids = torch.randint(0, 50, (2, 4))\n"
    rp = "out = va.repetition_penalty_logits_process_inplaced(s, ids, 1.5)"
    for label, bad in (("id_minus_one", -1), ("id_equal_vocab", 50), ("id_2_pow_40", 2 ** 40),
                       ("id_most_negative", -2 ** 63)):
        c("repetition_penalty_logits_process_inplaced", label, pre + f"ids[1, 2] = {bad}\n" + rp)
    c("repetition_penalty_logits_process_inplaced", "empty_history", pre + "ids = ids[:, :0]\n" + rp)
    c("repetition_penalty_logits_process_inplaced", "empty_vocab", "s = torch.randn(2, 0)\nids = torch.zeros(2, 1, dtype=torch.long)\n" + rp)
    c("repetition_penalty_logits_process_inplaced", "nan_inf_scores", pre + "ids = torch.tensor([[0, 1, 2, 3]] * 2)\n"
      "s[0, :4] = torch.tensor([nan, inf, -inf, 0.0])\n" + rp)
    c("repetition_penalty_logits_process_inplaced", "int32_ids", pre + "ids = ids.int()\n" + rp)
    c("repetition_penalty_logits_process_inplaced", "rows_mismatch", pre + "ids = ids[:1]\n" + rp)
    c("repetition_penalty_logits_process_inplaced", "float64", pre + "s = s.double()\n" + rp)
    c("repetition_penalty_logits_process_inplaced", "meta", pre + "s, ids = s.to('meta'), ids.to('meta')\n" + rp)
    c("repetition_penalty_logits_process_inplaced", "none_ids", pre + "out = va.repetition_penalty_logits_process_inplaced(s, None, 1.5)")

    # Softmax in place over the last dimension of a 3-D or 4-D contiguous tensor.
    sm = "out = va.attn_softmax_inplaced(a)"
    c("attn_softmax_inplaced", "empty_rows", "a = torch.randn(2, 0, 5)\n" + sm)
    c("attn_softmax_inplaced", "empty_last_dim", "a = torch.randn(2, 3, 0)\n" + sm)
    c("attn_softmax_inplaced", "nan_inf", "a = torch.randn(2, 3, 40)\na[0, 0, 3] = nan\na[0, 1, 5] = inf\n"
      "a[0, 2, :] = -inf\na[1, 0, ::2] = -inf\n" + sm)
    c("attn_softmax_inplaced", "two_dims", "a = torch.randn(3, 40)\n" + sm)
    c("attn_softmax_inplaced", "float64", "a = torch.randn(2, 3, 40).double()\n" + sm)
    c("attn_softmax_inplaced", "meta", "a = torch.randn(2, 3, 40, device='meta')\n" + sm)
    c("attn_softmax_inplaced", "none", "out = va.attn_softmax_inplaced(None)")

    # Expert routing.
    st = "out = va.moe_softmax_topk(x, {k}, True)"
    c("moe_softmax_topk", "top_k_above_experts", "x = torch.randn(2, 16)\n" + st.format(k=17))
    c("moe_softmax_topk", "zero_experts", "x = torch.randn(2, 0)\n" + st.format(k=1))
    c("moe_softmax_topk", "negative_top_k", "x = torch.randn(2, 16)\n" + st.format(k=-1))
    c("moe_softmax_topk", "zero_top_k", "x = torch.randn(2, 16)\n" + st.format(k=0))
    c("moe_softmax_topk", "zero_tokens", "x = torch.randn(0, 16)\n" + st.format(k=2))
    c("moe_softmax_topk", "inf_logits", "x = torch.randn(3, 16)\nx[0, 4] = inf\nx[1, :] = -inf\nx[2, 3] = -inf\n" + st.format(k=16))
    c("moe_softmax_topk", "float64", "x = torch.randn(2, 16).double()\n" + st.format(k=2))
    c("moe_softmax_topk", "meta", "x = torch.randn(2, 16, device='meta')\n" + st.format(k=2))
    c("moe_softmax_topk", "none", "out = va.moe_softmax_topk(None, 2, True)")
    gt = "out = va.moe_group_topk(x, b, {g}, {tg}, 0, {k}, False, 0.0, 1.0)"
    c("moe_group_topk", "scores_below_minus_one", "x = torch.rand(4, 64)\nb = torch.full((64,), -3.0)\n" + gt.format(g=4, tg=4, k=6))
    c("moe_group_topk", "minus_inf_scores", "x = torch.rand(2, 32)\nx[:, 5:] = -inf\nb = None\n" + gt.format(g=2, tg=2, k=8))
    c("moe_group_topk", "top_k_above_experts", "x = torch.rand(2, 16)\nb = None\n" + gt.format(g=1, tg=1, k=20))
    c("moe_group_topk", "zero_experts", "x = torch.rand(2, 0)\nb = None\n" + gt.format(g=1, tg=1, k=1))
    c("moe_group_topk", "zero_groups", "x = torch.rand(2, 64)\nb = None\n" + gt.format(g=0, tg=1, k=2))
    c("moe_group_topk", "topk_group_above_group", "x = torch.rand(2, 64)\nb = None\n" + gt.format(g=4, tg=17, k=2))
    c("moe_group_topk", "zero_tokens", "x = torch.rand(0, 64)\nb = None\n" + gt.format(g=4, tg=2, k=2))
    c("moe_group_topk", "bias_wrong_size", "x = torch.rand(2, 64)\nb = torch.zeros(32)\n" + gt.format(g=4, tg=2, k=2))
    c("moe_group_topk", "float64_bias", "x = torch.rand(2, 64)\nb = torch.zeros(64).double()\n" + gt.format(g=4, tg=2, k=2))
    c("moe_group_topk", "meta", "x = torch.rand(2, 64, device='meta')\nb = None\n" + gt.format(g=4, tg=2, k=2))
    c("moe_group_topk", "none", "out = va.moe_group_topk(None, None, 4, 2, 0, 2, False, 0.0, 1.0)")
    return cases


CASES = attention_cases() + other_cases()
