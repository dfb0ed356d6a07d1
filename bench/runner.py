"""Common benchmark runner.

Each benchmark module exposes `cases()`, yielding `Case`s. A case times our
operator, the plain-torch composite a user would otherwise write, and a copy
of the same bytes (the memory-bound limit), all in one run, and reports the
speed-up over the composite and the copy-ratio (our time / copy time).
"""
import dataclasses
import json
import statistics
import time
from typing import Callable, List, Optional

import torch


@dataclasses.dataclass
class Case:
    op: str
    shape: str
    dtype: str
    ours: Callable[[], object]
    baseline: Callable[[], object]
    moved: List[torch.Tensor]          # tensors whose bytes one call must move (copied as the limit)
    flops: Optional[float] = None      # for compute-bound operators
    baseline_name: str = "torch"
    setup: Optional[Callable[[], object]] = None  # restores in-place inputs; not timed


def median_time(fn, setup=None, min_runs=5, budget_s=1.0):
    """Median wall time of fn() in seconds (after one warm-up)."""
    if setup:
        setup()
    fn()
    times = []
    start = time.perf_counter()
    while len(times) < min_runs or (time.perf_counter() - start < budget_s and len(times) < 200):
        if setup:
            setup()
        t0 = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t0)
    return statistics.median(times)


def copy_time(tensors):
    clones = [t for t in tensors]
    return median_time(lambda: [c.clone() for c in clones])


def run(case: Case):
    ours = median_time(case.ours, case.setup)
    base = median_time(case.baseline, case.setup)
    copy = copy_time(case.moved)
    nbytes = sum(t.numel() * t.element_size() for t in case.moved)
    row = {
        "op": case.op, "shape": case.shape, "dtype": case.dtype,
        "ours_us": ours * 1e6, "baseline_us": base * 1e6, "copy_us": copy * 1e6,
        "baseline": case.baseline_name,
        "speedup": base / ours, "copy_ratio": ours / copy,
        "GB/s": nbytes / ours / 1e9, "copy GB/s": nbytes / copy / 1e9,
    }
    if case.flops:
        row["GFLOP/s"] = case.flops / ours / 1e9
        row["baseline GFLOP/s"] = case.flops / base / 1e9
    return row


def print_row(row):
    extra = f"  {row['GFLOP/s']:8.1f} GFLOP/s (base {row['baseline GFLOP/s']:.1f})" if "GFLOP/s" in row else ""
    print(f"{row['op']:<34} {row['shape']:<30} {row['dtype']:<8} "
          f"{row['ours_us']:>10.1f} {row['baseline_us']:>10.1f} {row['copy_us']:>10.1f} "
          f"{row['speedup']:>7.2f}x {row['copy_ratio']:>6.2f} {row['GB/s']:>7.1f}{extra}", flush=True)


HEADER = (f"{'operator':<34} {'shape':<30} {'dtype':<8} {'ours us':>10} {'base us':>10} "
          f"{'copy us':>10} {'speedup':>8} {'copy-r':>6} {'GB/s':>7}")


def main(modules, out_path):
    print(f"torch {torch.__version__}, {torch.get_num_threads()} threads")
    print(HEADER)
    rows = []
    for mod in modules:
        for case in mod.cases():
            row = run(case)
            print_row(row)
            rows.append(row)
    with open(out_path, "w") as f:
        json.dump(rows, f, indent=1)
    print(f"wrote {len(rows)} rows to {out_path}")
    return rows
