"""Shared test helpers: fatal checks in a child interpreter, canaries, profiler counts."""
import os
import re
import signal
import subprocess
import sys
import textwrap

import torch

_ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# The build the tests import: build/ unless VORTA_BUILD_DIR names another.
BUILD_DIR = os.path.join(_ROOT, os.environ.get("VORTA_BUILD_DIR", "build"))
# Operator groups with CUDA sources in this tree (a build with CUDA has kernels for each).
_CUDA_SRC = os.path.join(_ROOT, "csrc", "cuda")
CUDA_SOURCE_GROUPS = {
    d for d in (os.listdir(_CUDA_SRC) if os.path.isdir(_CUDA_SRC) else [])
    if d != "common" and os.path.isdir(os.path.join(_CUDA_SRC, d))
    and any(f.endswith(".cu") for f in os.listdir(os.path.join(_CUDA_SRC, d)))
}


def run_fatal(code):
    """Runs `code` after `import torch, vorta_addons` in a child interpreter.

    Returns (returncode, stderr)."""
    prelude = "import torch\nimport vorta_addons\n"
    env = dict(os.environ)
    env["PYTHONPATH"] = os.pathsep.join(p for p in (BUILD_DIR, env.get("PYTHONPATH")) if p)
    proc = subprocess.run(
        [sys.executable, "-c", prelude + textwrap.dedent(code)],
        capture_output=True, text=True, env=env, timeout=120,
    )
    return proc.returncode, proc.stderr


def assert_fatal(code, expression, source):
    """The child must abort, reporting `expression` from `source` with a line number."""
    rc, err = run_fatal(code)
    assert rc == -signal.SIGABRT, f"expected an abort, got rc={rc}\n{err}"
    pattern = rf"{re.escape(source)}:(\d+): Assertion `{re.escape(expression)}' failed\."
    assert re.search(pattern, err), err
    return err


def count_records(fn, *names):
    """Calls fn() under the profiler; returns how many records carry each name."""
    with torch.profiler.profile() as prof:
        fn()
    found = [e.name for e in prof.events()]
    return {n: found.count(n) for n in names}


class Canary:
    """A view into a larger buffer; `check()` asserts nothing outside the view changed."""

    def __init__(self, base, view):
        self.base, self.before = base, base.clone()
        index = torch.arange(base.numel(), device=base.device).as_strided(
            view.shape, view.stride(), view.storage_offset() - base.storage_offset())
        inside = torch.zeros(base.numel(), dtype=torch.bool, device=base.device)
        inside[index.flatten()] = True
        self.outside = ~inside.view(base.shape)

    def check(self):
        assert torch.equal(self.base[self.outside], self.before[self.outside]), \
            "memory outside the view was written"


def canary_view(shape, dtype, make_view, fill=-7.0, device="cpu"):
    """Builds a base tensor of `shape` filled with `fill`; returns (view, Canary)."""
    base = torch.full(shape, fill, dtype=dtype, device=device)
    view = make_view(base)
    return view, Canary(base, view)
