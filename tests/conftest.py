import os
import sys

import pytest
import torch

# The built module lives in build/ when the tests run from a source tree.
_BUILD = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "build")
if os.path.isdir(_BUILD) and _BUILD not in sys.path:
    sys.path.insert(0, _BUILD)

import vorta_addons  # noqa: E402


def _devices():
    devices = ["cpu"]
    if torch.cuda.is_available() and hasattr(vorta_addons, "_testing"):
        devices.append("cuda")
    return devices


DEVICES = _devices()


@pytest.fixture(params=DEVICES)
def device(request):
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
