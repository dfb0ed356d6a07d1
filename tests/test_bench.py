"""The benchmark runner's accounting (never its timings): bytes read and written, the limit
each row is put beside, inputs restored around every timed call, the machine's file name."""
import os
import sys
from unittest import mock

import pytest
import torch

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from bench import runner  # noqa: E402
from bench.runner import Case, CopyLimit, fresh  # noqa: E402

PEAKS = {"float32": {"GFLOP/s": 100.0, "n": 1024}, "float16": {"GFLOP/s": 2.0, "n": 256},
         "bfloat16": {"GFLOP/s": 300.0, "n": 1024}}


@pytest.fixture(autouse=True)
def short_budget(monkeypatch):
    monkeypatch.setattr(runner, "BUDGET_S", 0.002)


def test_in_place_case_sees_its_input_restored_at_every_call():
    x = torch.arange(256, dtype=torch.float32)
    seen = []

    def bump(t):
        seen.append(float(t[1]))
        t.add_(1.0)

    case = Case("bump", "[256]", "float32", lambda: bump(x), bump, (x,), [x], [x], restore=[x],
                baselines={"other": lambda: bump(x)})
    row = runner.run(case, CopyLimit("cpu"), PEAKS, use_compile=False)
    assert len(seen) > 6 and set(seen) == {1.0}       # ours, eager and the other baseline
    assert torch.equal(x, torch.arange(256, dtype=torch.float32))
    assert row["bytes"] == {"read": 1024, "written": 1024}
    assert row["limit"]["kind"] == "memory"
    assert row["fraction"] == pytest.approx(row["limit"]["copy_us"] / row["ours_us"])
    assert row["achieved"]["GB/s"] == pytest.approx(2048 / row["ours_us"] / 1e3)
    assert set(row["speedup"]) == {"eager", "other"}


def test_fresh_outputs_count_without_memory_and_failures_are_reported():
    x = torch.ones(64, 32, dtype=torch.float16)

    def broken(t):
        raise ValueError("no such composite")

    case = Case("sum", "[64, 32]", "float16", lambda: x.sum(0), broken, (x,), [x], [fresh((32,), torch.float16)])
    row = runner.run(case, CopyLimit("cpu"), PEAKS, use_compile=False)
    assert row["bytes"] == {"read": 4096, "written": 64}
    assert row["baseline_errors"] == {"eager": "ValueError: no such composite"}
    assert "eager" not in row["speedup"]


@pytest.mark.parametrize("dtype,peak,label", [("float32", 100.0, "float32 matmul"),
                                               ("float16", 100.0, "float32 matmul"),
                                               ("bfloat16", 300.0, "bfloat16 matmul")])
def test_compute_limit_is_the_faster_product(dtype, peak, label):
    assert runner.compute_limit(PEAKS, dtype) == (peak, label)


def test_compute_row_is_measured_against_the_peak():
    a = torch.ones(16, 16)
    case = Case("mm", "[16, 16]", "float16", lambda: a @ a, torch.mm, (a, a), [a], [a], flops=2 * 16 ** 3)
    row = runner.run(case, None, PEAKS, use_compile=False)
    assert row["limit"] == {"kind": "compute", "of": "float32 matmul", "GFLOP/s": 100.0}
    assert row["fraction"] == pytest.approx(2 * 16 ** 3 / row["ours_us"] / 1e3 / 100.0)


@pytest.mark.parametrize("model,slug", [("AMD EPYC 7763 64-Core Processor", "amd-epyc-7763"),
                                        ("Intel(R) Xeon(R) Platinum 8480+", "intel-xeon-platinum-8480"),
                                        ("Intel(R) Core(TM) i7-10700 CPU @ 2.90GHz", "intel-core-i7-10700")])
def test_machine_slug(model, slug):
    with mock.patch.object(runner, "cpu_model", return_value=model):
        assert runner.machine_name("cpu") == slug
