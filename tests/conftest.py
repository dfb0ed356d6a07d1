import os
import sys

import pytest
import torch

from helpers import BUILD_DIR, CUDA_SOURCE_GROUPS

# The module under test is the one in BUILD_DIR (build/, or $VORTA_BUILD_DIR).
if os.path.isdir(BUILD_DIR) and BUILD_DIR not in sys.path:
    sys.path.insert(0, BUILD_DIR)

import vorta_addons  # noqa: E402

BACKENDS = vorta_addons._testing.backends()
CUDA_GROUPS = set(BACKENDS.get("cuda", []))
# CUDA tests run where the module has CUDA kernels and a GPU is visible.
GPU = "cuda" in BACKENDS and torch.cuda.is_available()
DEVICES = ["cpu", "cuda"] if GPU else ["cpu"]


def _build_problems():
    """Why the imported module is not the build the environment names, if it is not."""
    found = os.path.dirname(os.path.dirname(os.path.realpath(vorta_addons.__file__)))
    if os.path.isdir(BUILD_DIR) and found != os.path.realpath(BUILD_DIR):
        return [f"imported {vorta_addons.__file__}, not the module in {BUILD_DIR}"]
    problems = []
    if os.environ.get("VORTA_EXPECT_CUDA") == "1" and CUDA_GROUPS != CUDA_SOURCE_GROUPS:
        problems.append(f"CUDA kernels built for {sorted(CUDA_GROUPS)}, "
                        f"but csrc/cuda/ has sources for {sorted(CUDA_SOURCE_GROUPS)}")
    if os.environ.get("VORTA_EXPECT_GPU") == "1" and not GPU:
        problems.append("no GPU visible to torch" if "cuda" in BACKENDS else "no CUDA backend in this build")
    return problems


def pytest_configure(config):
    problems = _build_problems()
    if problems:
        raise pytest.UsageError("; ".join(problems))


def pytest_report_header(config):
    groups = ", ".join(sorted(CUDA_GROUPS)) or "none"
    return [f"vorta_addons from {os.path.dirname(vorta_addons.__file__)}; CUDA groups: {groups}; "
            f"devices under test: {', '.join(DEVICES)}"]


@pytest.fixture(params=DEVICES)
def device(request):
    """Each device with kernels; CUDA only where the module's GROUP (name or tuple) has CUDA kernels."""
    group = getattr(request.module, "GROUP", None)
    missing = [g for g in (group if isinstance(group, tuple) else (group,)) if g not in CUDA_GROUPS]
    if request.param == "cuda" and missing:
        pytest.skip(f"this build has no CUDA kernels for {', '.join(map(str, missing))}")
    return request.param


@pytest.fixture(autouse=True)
def seeded_rng():
    """Every test draws from a seeded generator and leaves the global one as it was."""
    with torch.random.fork_rng():
        torch.manual_seed(0)
        yield


@pytest.fixture
def family():
    """Forces the device family seen by the operators for one test."""
    hooks = vorta_addons._testing
    yield hooks.force_device_family
    hooks.force_device_family(None)
