"""The benchmark runner's accounting (never its timings): bytes read and written, the limit
each row is put beside, inputs restored around every timed call, the machine's file name."""
import itertools
import json
import os
import subprocess
import sys
import types
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


@pytest.mark.parametrize("interleave_bytes", [0, runner.INTERLEAVE_BYTES])  # in turn with the copy, alone
def test_in_place_case_sees_its_input_restored_at_every_call(interleave_bytes, monkeypatch):
    monkeypatch.setattr(runner, "INTERLEAVE_BYTES", interleave_bytes)
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


def test_rivals_are_timed_in_turn_with_ours_and_the_copy(monkeypatch):
    monkeypatch.setattr(runner, "INTERLEAVE_BYTES", 0)
    x = torch.ones(256)
    ours, rival = (lambda: x.mul(2.0)), (lambda: x.mul(3.0))
    rounds = []

    def in_turn(fns, setups):
        rounds.append(fns)
        return [1e-6, 2e-6, 3e-6]
    monkeypatch.setattr(runner, "cpu_interleaved_medians", in_turn)
    case = Case("scale", "[256]", "float32", ours, torch.mul, (x, 2.0), [x], [fresh((256,), torch.float32)],
                rivals={"rival": rival})
    row = runner.run(case, CopyLimit("cpu"), PEAKS, use_compile=False)
    assert len(rounds) == 1 and rounds[0][0] is ours and rounds[0][2] is rival
    assert row["limit"]["copy_us"] == pytest.approx(2.0)
    assert row["baselines_us"]["rival"] == pytest.approx(3.0) and row["speedup"]["rival"] == pytest.approx(3.0)


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


def test_compute_row_is_measured_in_turn_with_the_peak_product(monkeypatch):
    # The float32 product at the size of its peak (1024) takes 4 ms when timed in turn with
    # the case: that, not the peak found at the start, is the row's limit.
    a = torch.ones(16, 16)
    case = Case("mm", "[16, 16]", "float16", lambda: a @ a, torch.mm, (a, a), [a], [a], flops=2 * 16 ** 3)
    timed = []

    def in_turn(fns, setups):
        timed.append(fns[1])
        assert setups[1] is fns[1]  # an untimed product first: its operands back in the caches
        return [2e-6, 0.004]
    monkeypatch.setattr(runner, "cpu_interleaved_medians", in_turn)
    row = runner.run(case, None, PEAKS, use_compile=False)
    assert timed == [runner._peak_product(torch.device("cpu"), "float32", 1024)[0]]
    limit = 2 * 1024 ** 3 / 0.004 / 1e9
    assert row["ours_us"] == pytest.approx(2.0)
    assert row["limit"] == {"kind": "compute", "of": "float32 matmul", "GFLOP/s": pytest.approx(limit)}
    assert row["fraction"] == pytest.approx(2 * 16 ** 3 / 2e-6 / 1e9 / limit)


@pytest.mark.parametrize("min_flops", [1e3, 1e9])  # a floor below the copy, one that binds
def test_memory_row_names_its_compute_floor(min_flops):
    x = torch.ones(1024, dtype=torch.float16)
    case = Case("scale", "[1024]", "float16", lambda: x.mul(2.0), torch.mul, (x, 2.0), [x],
                [fresh((1024,), torch.float16)], min_flops=min_flops)
    row = runner.run(case, CopyLimit("cpu"), PEAKS, use_compile=False)
    floor_us = min_flops / 100.0 / 1e3  # float16 is put beside the faster float32 product
    assert row["compute_floor"] == {"of": "float32 matmul", "flops": min_flops, "GFLOP/s": 100.0, "us": floor_us}
    assert row["limit"]["kind"] == "memory"
    assert row["roofline_fraction"] == pytest.approx(max(floor_us, row["limit"]["copy_us"]) / row["ours_us"])
    assert ("(binds)" in runner.format_row(row)) == (floor_us > row["limit"]["copy_us"])


@pytest.mark.parametrize("model,slug", [("AMD EPYC 7763 64-Core Processor", "amd-epyc-7763"),
                                        ("Intel(R) Xeon(R) Platinum 8480+", "intel-xeon-platinum-8480"),
                                        ("Intel(R) Core(TM) i7-10700 CPU @ 2.90GHz", "intel-core-i7-10700")])
def test_machine_slug(model, slug):
    with mock.patch.object(runner, "cpu_model", return_value=model):
        assert runner.machine_name("cpu") == slug


def one_row_then_failure(device):
    x = torch.ones(1024, device=device)
    yield Case("scale", "[1024]", "float32", lambda: x.mul(2.0), torch.mul, (x, 2.0), [x],
               [fresh((1024,), torch.float32)], size="decode")
    raise RuntimeError("the run is cut short")


def test_rows_are_written_as_measured_where_the_environment_says(tmp_path, monkeypatch):
    monkeypatch.setenv("VORTA_BENCH_RESULTS_DIR", str(tmp_path))
    monkeypatch.setattr(runner, "matmul_peaks", lambda device: PEAKS)
    monkeypatch.setattr(runner, "machine_name", lambda device: "test-machine")
    module = types.SimpleNamespace(__name__="bench.bench_scale", cases=one_row_then_failure)
    c = torch._dynamo.config
    # Restored afterwards: main() sets them for the whole process.
    with c.patch(recompile_limit=c.recompile_limit, accumulated_recompile_limit=c.accumulated_recompile_limit,
                 fail_on_recompile_limit_hit=c.fail_on_recompile_limit_hit):
        with pytest.raises(RuntimeError, match="cut short"):
            runner.main([module], "cpu", use_compile=False, chart=False)
    (path,) = tmp_path.glob("test-machine-*.json")
    rows = json.loads(path.read_text())["rows"]
    assert [(r["op"], r["group"]) for r in rows] == [("scale", "scale")]


def test_gpu_check_summary_reads_the_runner_rows(tmp_path):
    """tools/gpu-check's table takes the runner's rows as a CUDA run writes them."""
    (case,) = itertools.islice(one_row_then_failure("cpu"), 1)
    row = runner.run(case, CopyLimit("cpu"), PEAKS, use_compile=False)
    row["graph_us"] = {"ours": 1.25}  # what a CUDA run adds to decode-sized rows
    (tmp_path / "some-gpu-2026-01-01.json").write_text(json.dumps({"rows": [row]}))
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    out = subprocess.run([sys.executable, os.path.join(root, "tools", "gpu_check_report.py"), str(tmp_path),
                          "bench=0:1"], capture_output=True, text=True, check=True).stdout
    (line,) = [ln for ln in out.splitlines() if ln.startswith("scale")]
    assert line.split()[-1] == "1.25" and f"{100 * row['fraction']:.1f}" in line
    assert json.loads((tmp_path / "results.json").read_text())["bench"]["rows"] == 1
