"""VORTA_CPU_ISA picks the CPU kernels' instruction set, capped by the CPU; every build gives the same bits."""
import os
import subprocess
import sys
import textwrap

import pytest
import torch

from helpers import BUILD_DIR


def cpu_flags():
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("flags"):
                return set(line.split(":", 1)[1].split())
    return set()  # not x86: no flags line


FLAGS = cpu_flags()
HAS = {"generic": True, "avx2": {"avx2", "fma", "f16c"} <= FLAGS,
       "avx512": {"avx2", "fma", "f16c", "avx512f", "avx512vl"} <= FLAGS}
X86 = os.uname().machine == "x86_64"


def child(isa, code):
    env = dict(os.environ, VORTA_CPU_ISA=isa,
               PYTHONPATH=os.pathsep.join(p for p in (BUILD_DIR, os.environ.get("PYTHONPATH")) if p))
    prelude = "import torch\nimport vorta_addons\nfrom vorta_addons import _C\n"
    return subprocess.run([sys.executable, "-c", prelude + textwrap.dedent(code)],
                          capture_output=True, text=True, env=env, timeout=300)


@pytest.mark.parametrize("isa", ["generic", "avx2", "avx512"])
def test_setting_chooses_the_best_the_cpu_has_below_it(isa):
    proc = child(isa, "print(_C._testing.cpu_isa())")
    assert proc.returncode == 0, proc.stderr
    order = ["avx512", "avx2", "generic"]
    expected = next(i for i in order[order.index(isa):] if HAS[i] and (X86 or i == "generic"))
    assert proc.stdout.strip() == expected


def test_unknown_setting_is_fatal():
    proc = child("sse9", "print(_C._testing.cpu_isa())")
    assert proc.returncode != 0
    assert "vorta_addons: VORTA_CPU_ISA=sse9 is none of avx512, avx2, generic" in proc.stderr


# Results of one call of every CPU kernel family, from fixed seeds.
EVERY_KERNEL = """
import sys
sys.path.insert(0, TESTS)
from helpers import every_operator, every_operator_inputs
out = every_operator(every_operator_inputs(3, "cpu"))
g = torch.Generator().manual_seed(3)
r = lambda *shape: torch.randn(*shape, generator=g)
out += [vorta_addons.sdp(r(2, 32, 1, 128).half(), r(2, 8, 300, 128).half(), r(2, 8, 300, 128).half(), None, 0.088),
        vorta_addons.sdp(r(1, 8, 100, 64), r(1, 2, 100, 64), r(1, 2, 100, 64), None, 0.125)]
# bfloat16 rotation through NaNs (signalling, payload in the low bit), infinities and inf - inf.
odd = torch.tensor([0x7F81, 0xFFC1 - 65536, 0x7FC3, 0x7F80, 0xFF80 - 65536], dtype=torch.int16)
for two in (False, True):
    bq, bk, cos, sin = r(1, 4, 8, 64).bfloat16(), r(1, 2, 8, 64).bfloat16(), r(8, 64).bfloat16(), r(8, 64).bfloat16()
    bq.view(torch.int16).view(-1)[::97][:5] = odd
    bk.view(torch.int16).view(-1)[1::53][:5] = odd
    cos[3, :5], sin[3, :5] = float("inf"), float("-inf")
    if two:
        vorta_addons.rotary_two_with_cache_inplaced(bq, bk, cos, sin, True)
    else:
        vorta_addons.rotary_half_with_cache_inplaced(bq, bk, cos, sin)
    out += [bq, bk]
torch.save(out, PATH)
"""


@pytest.mark.skipif(not (X86 and HAS["avx2"]), reason="one build of the kernels on this CPU")
def test_generic_and_avx2_builds_give_the_same_bits(tmp_path):
    results = {}
    for isa in ("generic", "avx2"):
        path = tmp_path / f"{isa}.pt"
        proc = child(isa, f"PATH, TESTS = {str(path)!r}, {os.path.dirname(os.path.abspath(__file__))!r}\n" + EVERY_KERNEL)
        assert proc.returncode == 0, proc.stderr
        results[isa] = torch.load(path)
    for i, (a, b) in enumerate(zip(results["generic"], results["avx2"])):
        assert a.dtype == b.dtype and a.shape == b.shape, i
        assert torch.equal(a.view(torch.uint8) if a.is_floating_point() else a,
                           b.view(torch.uint8) if b.is_floating_point() else b), i
