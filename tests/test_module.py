"""The module frame: registry order, docstrings, argument conversion, launch and families."""
import types

import pytest
import torch

import vorta_addons
from conftest import CUDA_GROUPS, GPU
from helpers import count_records, every_operator, every_operator_inputs

# The operator table in registration order, with docstrings.
TABLE = [
    ("sdp", "sdp"),
    ("sdp_fp8", "fp8 sdp"),
    ("sdp_causal", "sdp causal"),
    ("sdp_fp8_causal", "sdp fp8 causal"),
    ("sdp_non_causal", "sdp non causal"),
    ("sdp_fp8_non_causal", "sdp fp8 non causal"),
    ("siglip_sdp_non_causal", "siglip sdp non causal"),
    ("gemma2_sdp", "gemma2 sdp"),
    ("gemma2_sdp_causal", "gemma2 sdp causal"),
    ("rms_norm", "fused rms norm"),
    ("layer_norm", "fused layer norm"),
    ("rotary_half_inplaced", "rotary half inplaced"),
    ("rotary_two_inplaced", "rotary two inplaced"),
    ("rotary_half_with_cache_inplaced", "rotary half with cache inplaced"),
    ("rotary_two_with_cache_inplaced", "rotary two with cache inplaced"),
    ("mlp_silu_mul_inplaced", "mlp silu_mul inplaced"),
    ("quantize_key_value", "quantize key value"),
    ("dequantize_key_value", "dequantize key value"),
    ("repetition_penalty_logits_process_inplaced", "repetition penalty logits process"),
    ("attn_softmax_inplaced", "attention softmax inplaced"),
    ("moe_group_topk", "moe group topk"),
    ("moe_softmax_topk", "moe softmax topk"),
]


def registered():
    return [n for n, v in vars(vorta_addons).items() if isinstance(v, types.BuiltinFunctionType)]


def test_registered_operators_follow_the_table_order():
    names = registered()
    expected = [n for n, _ in TABLE if n in names]
    assert names == expected
    assert {"rms_norm", "layer_norm"} <= set(names)


@pytest.mark.parametrize("name,doc", TABLE)
def test_docstring(name, doc):
    fn = getattr(vorta_addons, name, None)
    if fn is None:
        pytest.skip(f"{name} not registered")
    assert fn.__doc__.strip().splitlines()[-1] == doc


@pytest.mark.parametrize("name", [n for n, _ in TABLE])
def test_none_for_a_tensor_and_a_wrong_arity_are_type_errors(name):
    fn = getattr(vorta_addons, name)
    arity = len(getattr(torch.ops.vorta_addons, name).default._schema.arguments)
    for args in ([None] * arity, [torch.ones(2, 32)] * (arity + 1)):
        with pytest.raises(TypeError, match=f"^{name}\\(\\): incompatible function arguments"):
            fn(*args)


def test_device_queries_need_a_guard_for_the_device_type():
    with pytest.raises(RuntimeError, match="PyTorch is not linked with support for hpu devices"):
        vorta_addons._testing.device_family(torch.device("hpu"))


# Calls of the single-launch operators: one record under the display name, none under another.
RECORDS = [
    ("rms norm", "rms_norm(w, x, 1e-6)"), ("rms norm", "rms_norm(w.half(), x.half(), 1e-6)"),
    ("layer norm", "layer_norm(x, w, None, 1e-6)"), ("layer norm", "layer_norm(x, None, None, 1e-6)"),
    ("layer norm", "layer_norm(x.half(), w.half(), w.half(), 1e-6)"),
    ("rotary half", "rotary_half_inplaced(inv, pos, q, k)"),
    ("rotary every two", "rotary_two_inplaced(inv, pos, q, k)"),
    ("rotary half with cache", "rotary_half_with_cache_inplaced(q, k, cs, cs)"),
    ("rotary two with cache", "rotary_two_with_cache_inplaced(q, k, cs, cs, False)"),
    ("mlp silu_mul", "mlp_silu_mul_inplaced(g, g.clone())"),
    ("quantize kv cache", "quantize_key_value(kv, kv, codes, codes.clone())"),
    ("dequantize kv cache", "dequantize_key_value(codes, codes, kv, kv.clone())"),
    ("repetition penalty logits process", "repetition_penalty_logits_process_inplaced(x, ids, 1.1)"),
    ("attention softmax in fp32 inplaced", "attn_softmax_inplaced(x.view(2, 4, 64))"),
    ("moe softmax topk", "moe_softmax_topk(x, 2, True)"),
    ("moe group topk", "moe_group_topk(x.abs(), None, 4, 2, 0, 2, True, 0.0, 1.0)"),
]


@pytest.mark.parametrize("name,call", RECORDS, ids=[call.split("(")[0] for _, call in RECORDS])
def test_one_profiler_record_per_launch(name, call):
    env = dict(vorta_addons=vorta_addons, x=torch.randn(8, 64), w=torch.randn(64), g=torch.randn(4, 256),
               q=torch.randn(1, 2, 7, 64).half(), k=torch.randn(1, 1, 7, 64).half(), inv=torch.ones(32).half(),
               pos=torch.zeros(1, 7, dtype=torch.long), cs=torch.ones(7, 64).half(), kv=torch.randn(1, 2, 3, 64),
               codes=torch.zeros(1, 2, 3, 64, dtype=torch.uint8), ids=torch.zeros(8, 3, dtype=torch.long))
    names = sorted({n for n, _ in RECORDS})
    counts = count_records(lambda: eval("vorta_addons." + call, env), *names)
    assert counts == {n: int(n == name) for n in names}


def test_results_follow_in_call_order():
    # Successive operators see each other's results without explicit waits.
    x, w = torch.randn(4, 64), torch.rand(64) + 0.5
    y = vorta_addons.rms_norm(w, vorta_addons.rms_norm(w, x, 1e-6), 1e-6)
    ref = vorta_addons.rms_norm(w, x, 1e-6)
    ref = ref.double() * torch.rsqrt(ref.double().pow(2).mean(-1, keepdim=True) + 1e-6) * w.double()
    torch.testing.assert_close(y.double(), ref, rtol=1e-5, atol=1e-6)


FAMILIES = {"KESTREL": 0, "CONDOR": 1, "WREN": 2, "FINCH": 3, "OSPREY": 4, "LARK": 5, "LEGACY": 6, "OTHER": 7}


def test_classifier_is_exposed_to_tests():
    classify = vorta_addons._testing.classify_device
    assert [classify("Kestrel(TM) Graphics", simd, 0) for simd in (16, 8)] == [FAMILIES["FINCH"], FAMILIES["WREN"]]
    assert classify("NVIDIA H100", 32, 0) == FAMILIES["OTHER"]


def test_cpu_classifies_as_other_unless_forced(family):
    cpu = torch.device("cpu")
    assert vorta_addons._testing.device_family(cpu) == FAMILIES["OTHER"]
    family(FAMILIES["LARK"])
    assert vorta_addons._testing.device_family(cpu) == FAMILIES["LARK"]
    family(None)
    assert vorta_addons._testing.device_family(cpu) == FAMILIES["OTHER"]


# -- launches on a GPU --------------------------------------------------------------------

needs_gpu = pytest.mark.skipif(not GPU, reason="no GPU, or no CUDA backend in this build")


def needs(*groups):
    missing = [g for g in groups if g not in CUDA_GROUPS]
    if missing:
        pytest.skip(f"this build has no CUDA kernels for {', '.join(missing)}")


@needs_gpu
def test_one_record_per_launch_on_the_gpu():
    needs("elementwise")
    x = torch.randn(2, 3, 40, device="cuda")
    name = "attention softmax in fp32 inplaced"
    assert count_records(lambda: vorta_addons.attn_softmax_inplaced(x), name) == {name: 1}


@needs_gpu
def test_every_operator_replays_in_a_cuda_graph():
    # Capture fails on any launch outside the capturing (current) stream and on
    # any host synchronisation; the replay must compute what eager calls do.
    needs("norm", "elementwise", "rotary", "kv_cache", "moe")
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
        torch.testing.assert_close(a.cpu(), b.cpu(), rtol=0, atol=0, equal_nan=True)


@needs_gpu
def test_a_cuda_device_classifies_by_what_it_reports():
    hooks = vorta_addons._testing
    props = torch.cuda.get_device_properties(0)
    expected = hooks.classify_device(torch.cuda.get_device_name(0), 32, getattr(props, "pci_device_id", 0))
    assert expected == FAMILIES["OTHER"]  # no CUDA device carries any family's name or id
    assert [hooks.device_family(torch.device("cuda", 0)) for _ in range(3)] == [expected] * 3
