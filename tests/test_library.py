"""The operators in PyTorch's dispatcher (opcheck, torch.compile of the demo's decoder), the type
stubs and the package's import."""
import ast
import os
import re
import subprocess
import sys

import pytest
import torch
import torch._dynamo.testing

import vorta_addons
from conftest import DEVICES
from test_module import TABLE

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from vorta_llm.compiled import CompiledLlama  # noqa: E402
from vorta_llm.config import LlamaConfig  # noqa: E402
from vorta_llm.generate import generate  # noqa: E402
from vorta_llm.model import VortaLlama  # noqa: E402
from vorta_llm.weights import random_weights  # noqa: E402

ops = torch.ops.vorta_addons
NAMES = [name for name, _ in TABLE]
KESTREL = 0

# What each operator writes: the schema must mark exactly these arguments (a!).
WRITES = {
    "rotary_half_inplaced": {"query", "key"},
    "rotary_two_inplaced": {"query", "key"},
    "rotary_half_with_cache_inplaced": {"query", "key"},
    "rotary_two_with_cache_inplaced": {"query", "key"},
    "mlp_silu_mul_inplaced": {"gate"},
    "quantize_key_value": {"key_output", "value_output"},
    "dequantize_key_value": {"key_output", "value_output"},
    "repetition_penalty_logits_process_inplaced": {"scores"},
    "attn_softmax_inplaced": {"attn"},
}


def codes(*shape, device):
    return torch.randint(0, 256, shape, dtype=torch.uint8, device=device)


def cases(device):
    """(operator, arguments, device family or None) for every operator, both prefill paths included."""
    r = lambda *s: torch.randn(*s, device=device)  # noqa: E731
    q, k, v = r(1, 4, 33, 64), r(1, 2, 33, 64), r(1, 2, 33, 64)
    k8, v8 = codes(1, 2, 33, 64, device=device), codes(1, 2, 33, 64, device=device)
    rope = (r(2, 4, 7, 64), r(2, 2, 7, 64))
    return [
        ("sdp", (r(2, 6, 1, 64), r(2, 2, 37, 64), r(2, 2, 37, 64), None, 0.125), None),
        ("sdp", (r(2, 6, 1, 64), r(2, 2, 37, 64), r(2, 2, 37, 64), r(2, 1, 1, 37), 0.125), None),
        ("sdp_fp8", (r(1, 4, 1, 192), codes(1, 2, 37, 192, device=device),
                     codes(1, 2, 37, 128, device=device), None, 0.07), None),
        ("sdp_causal", (q, k, v, None, 0.125), None),
        ("sdp_causal", (q, k, v, None, 0.125), KESTREL),
        ("sdp_causal", (r(1, 2, 300, 64), r(1, 2, 300, 64), r(1, 2, 300, 64), None, 0.125), None),
        ("sdp_fp8_causal", (q, k8, v8, None, 0.125), None),
        ("sdp_non_causal", (q[:, :, :20], k, v, r(1, 1, 20, 33), 0.125), None),
        ("sdp_fp8_non_causal", (q, k8, v8, None, 0.125), KESTREL),
        ("siglip_sdp_non_causal", (r(1, 2, 30, 72), r(1, 2, 30, 72), r(1, 2, 30, 72), None), KESTREL),
        ("gemma2_sdp", (q[:, :, :20], k, v, None, 50.0, 0.125), None),
        ("gemma2_sdp_causal", (q, k, v, None, 30.0, 0.125), None),
        ("rms_norm", (r(64), r(5, 64), 1e-6), None),
        ("layer_norm", (r(5, 96), r(96), None, 1e-5), None),
        ("rotary_half_inplaced", (r(32), torch.arange(7, device=device)[None], *rope), None),
        ("rotary_two_inplaced", (r(32), torch.arange(3, 10, device=device)[None], *rope), None),
        ("rotary_half_with_cache_inplaced", (*rope, r(7, 48), r(7, 48)), None),
        ("rotary_two_with_cache_inplaced", (*rope, r(7, 64), r(7, 64), True), None),
        ("mlp_silu_mul_inplaced", (r(4, 256), r(4, 256)), None),
        ("quantize_key_value", (r(1, 2, 5, 64), r(1, 2, 5, 64), codes(1, 2, 5, 64, device=device),
                                codes(1, 2, 5, 64, device=device)), None),
        ("dequantize_key_value", (k8, v8, r(1, 2, 33, 64), r(1, 2, 33, 64)), None),
        ("repetition_penalty_logits_process_inplaced",
         (r(2, 100), torch.randint(0, 100, (2, 7), device=device), 1.3), None),
        ("attn_softmax_inplaced", (r(2, 3, 4, 40),), None),
        ("moe_group_topk", (torch.rand(5, 64, device=device), r(64), 4, 2, 0, 6, True, 1e-20, 2.5), None),
        ("moe_softmax_topk", (r(5, 64), 4, True), None),
    ]


CASE_IDS = [f"{name}-{i}" for i, (name, _, _) in enumerate(cases("cpu"))]


def without_kernels(e):
    return re.search(r"no CUDA kernels|has no kernels for cuda", str(e)) is not None


# Every device of the build; an operator whose group has no CUDA kernels is skipped on CUDA.
@pytest.mark.parametrize("device", DEVICES)
@pytest.mark.parametrize("index", range(len(CASE_IDS)), ids=CASE_IDS)
def test_opcheck(device, family, index):
    name, args, fam = cases(device)[index]
    family(fam)
    try:
        torch.library.opcheck(getattr(ops, name).default, args)
    except Exception as e:  # opcheck wraps the operator's own error
        if device == "cuda" and without_kernels(e):
            pytest.skip(f"{name} has no CUDA kernels in this build")
        raise


def test_opcheck_covers_every_operator():
    assert {name for name, _, _ in cases("cpu")} == set(NAMES)


def test_schemas_follow_the_module_and_mark_writes():
    for name in NAMES:
        schema = getattr(ops, name).default._schema
        written = {a.name for a in schema.arguments if a.alias_info is not None and a.alias_info.is_write}
        assert written == WRITES.get(name, set()), name
        assert torch.Tag.pt2_compliant_tag in getattr(ops, name).default.tags


def test_prefill_fakes_report_the_padded_buffer():
    """The vector path's result is a view of 256-row blocks; the fake reports the same view."""
    q, k, v = (torch.randn(1, 2, 300, 64) for _ in range(3))
    real = ops.sdp_causal(q, k, v, None, 0.125)
    fake = ops.sdp_causal(q.to("meta"), k.to("meta"), v.to("meta"), None, 0.125)
    assert real.stride() == fake.stride() == (2 * 512 * 64, 512 * 64, 64, 1)
    sig = ops.siglip_sdp_non_causal(*(torch.empty(1, 2, 30, 72, device="meta") for _ in range(3)), None)
    assert sig.shape == (1, 2, 30, 72) and sig.stride() == (2 * 256 * 80, 256 * 80, 80, 1)


# -- torch.compile of the demo's decoder --------------------------------------------------

ONE_LAYER = LlamaConfig(vocab_size=320, hidden_size=128, intermediate_size=256, num_layers=1,
                        num_heads=4, num_kv_heads=2, head_dim=64, max_position=64)


def prompt(cfg, batch, length):
    return torch.randint(0, cfg.vocab_size, (batch, length), generator=torch.Generator().manual_seed(1))


def test_decoder_compiles_to_one_graph_per_step_kind():
    """A one-layer decoder's prompt and decode steps compiled whole: two graphs, no break, eager bits."""
    torch._dynamo.reset()
    torch._dynamo.utils.counters.clear()
    w = random_weights(ONE_LAYER, seed=3, tied=False)
    eager = VortaLlama(ONE_LAYER, w, max_len=16)
    traced = VortaLlama(ONE_LAYER, w, max_len=16, ops=ops)
    counter = torch._dynamo.testing.CompileCounterWithBackend("inductor")
    forward = torch.compile(traced.forward, fullgraph=True, backend=counter)
    tokens = prompt(ONE_LAYER, 1, 9)
    for _ in range(4):
        expected = eager.forward(tokens)
        assert torch.equal(forward(tokens), expected)
        tokens = expected.argmax(-1, keepdim=True)
    assert counter.frame_count == 2
    assert not torch._dynamo.utils.counters["graph_break"]
    assert torch.equal(traced.k_cache, eager.k_cache) and torch.equal(traced.v_cache, eager.v_cache)


def compiled_against_eager(device, kv_cache, rope, fixed_shapes=None, dtype=torch.float32, steps=6):
    w = random_weights(ONE_LAYER, seed=4, tied=False)
    kw = dict(kv_cache=kv_cache, rope=rope, batch=2, max_len=9 + steps + 1, device=device, dtype=dtype)
    eager = VortaLlama(ONE_LAYER, w, **kw)
    compiled = CompiledLlama(ONE_LAYER, w, fixed_shapes=fixed_shapes, **kw)
    ids = prompt(ONE_LAYER, 2, 9).to(device)
    try:
        expected = generate(eager, ids, steps, penalty=1.3, keep_logits=True, device=device)
    except RuntimeError as e:
        if without_kernels(e):
            pytest.skip(f"the decoder's operators lack CUDA kernels in this build: {e}")
        raise
    got = generate(compiled, ids, steps, penalty=1.3, keep_logits=True, device=device)
    assert torch.equal(got.tokens, expected.tokens)
    for a, b in zip(got.logits, expected.logits):
        assert torch.equal(a, b)
    assert torch.equal(torch.stack(compiled.k_cache), eager.k_cache)


@pytest.mark.parametrize("fixed_shapes,rope,dtype", [(True, "freq", torch.float32),
                                                     (False, "cache", torch.float16)],
                         ids=["fixed-shapes-fp32", "symbolic-position-fp16"])
def test_compiled_decode_matches_eager(fixed_shapes, rope, dtype):
    """The demo's --compile runner (8-bit cache written in the graph) gives the eager loop's logits."""
    torch._dynamo.reset()
    compiled_against_eager("cpu", "int8", rope, fixed_shapes, dtype)


@pytest.mark.skipif(not torch.cuda.is_available(), reason="needs a CUDA device")
@pytest.mark.parametrize("kv_cache", ["full", "int8"])
def test_cuda_graphs_replay_the_eager_decode(kv_cache):
    """mode="reduce-overhead": every decode step replays one CUDA graph, with the eager result."""
    torch._dynamo.reset()
    torch._dynamo.utils.counters.clear()
    compiled_against_eager("cuda", kv_cache, "cache")
    assert not torch._dynamo.utils.counters["graph_break"]
    assert torch._dynamo.utils.counters["inductor"]["cudagraph_skips"] == 0


# -- the package -------------------------------------------------------------------------

# pybind11 shows the numbers it converts by the protocols it accepts.
PYBIND_NUMBERS = {"typing.SupportsFloat | typing.SupportsIndex": "float",
                  "typing.SupportsInt | typing.SupportsIndex": "int",
                  "typing.SupportsFloat": "float", "typing.SupportsInt": "int"}  # newer pybind11


def stub_functions():
    path = os.path.join(os.path.dirname(vorta_addons.__file__), "__init__.pyi")
    tree = ast.parse(open(path).read())
    return [node for node in tree.body if isinstance(node, ast.FunctionDef)]


def pybind_types(fn):
    """Argument and return types of the signature pybind11 shows, torch.Tensor as Tensor."""
    first = fn.__doc__.strip().splitlines()[0].replace("torch.Tensor", "Tensor")
    for shown, written in PYBIND_NUMBERS.items():
        first = first.replace(shown, written)
    args, ret = re.fullmatch(r"\w+\((.*)\) -> (.*)", first).groups()
    return [a.split(": ", 1)[1] for a in args.split(", ")], ret


def test_stubs_name_type_and_order_every_operator():
    stubs = stub_functions()
    assert [f.name for f in stubs] == NAMES
    for f in stubs:
        a = f.args
        assert not a.args and not a.kwonlyargs and a.vararg is None, f"{f.name}: not positional-only"
        schema = getattr(ops, f.name).default._schema
        assert [p.arg for p in a.posonlyargs] == [s.name for s in schema.arguments], f.name
        types, ret = pybind_types(getattr(vorta_addons, f.name))
        assert [ast.unparse(p.annotation) for p in a.posonlyargs] == types, f.name
        assert ast.unparse(f.returns) == ret, f.name
        assert ast.get_docstring(f) == getattr(vorta_addons, f.name).__doc__.strip().splitlines()[-1]


def project_version():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    with open(os.path.join(root, "pyproject.toml")) as f:
        return re.search(r'^version = "([^"]+)"$', f.read(), re.M).group(1)


def test_imports_alone_into_a_fresh_interpreter():
    env = dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(vorta_addons.__file__)))
    code = ("import sys; assert 'torch' not in sys.modules\n"
            "import vorta_addons\n"
            "print(vorta_addons.__version__, len(vorta_addons.rms_norm.__doc__) > 0)")
    out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, env=env, timeout=120)
    assert out.returncode == 0, out.stderr
    assert out.stdout.split() == [project_version(), "True"]
    assert vorta_addons.__version__ == project_version()
