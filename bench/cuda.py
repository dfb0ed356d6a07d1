"""Benchmark cases on a CUDA GPU: python -m bench --device cuda [name ...]

Each case of the bench modules is built on the GPU (torch's default device
while the module's cases() builds it) and timed with CUDA events after a warm-up,
beside three baselines from the same run: the plain-torch composite,
torch.compile of that composite, and a device-to-device copy of the same
number of bytes (read plus written) into a preallocated buffer. Calls that
move little (decode sizes) are also timed as replays of a CUDA graph holding
many calls, which leaves out the host's launch overhead.

Rows go to bench/results/<gpu>-<date>.json (or $VORTA_BENCH_RESULTS_DIR), written
after every case.
"""
import datetime
import json
import os
import re
import statistics
import subprocess

import torch

GRAPH_BYTES = 16 << 20   # cases moving at most this much are also timed in a graph
GRAPH_CALLS = 64         # calls per captured graph
BUDGET_MS = 300.0        # timed repetitions per measurement, by total time


def _sync_median_us(pairs):
    torch.cuda.synchronize()
    return statistics.median(s.elapsed_time(e) for s, e in pairs) * 1e3


def event_time_us(fn, setup=None, warmup=3):
    """Median time of fn() in microseconds, each call between two events."""
    for _ in range(warmup):
        if setup:
            setup()
        fn()
    torch.cuda.synchronize()
    first = []
    for _ in range(3):
        if setup:
            setup()
        s, e = torch.cuda.Event(enable_timing=True), torch.cuda.Event(enable_timing=True)
        s.record()
        fn()
        e.record()
        first.append((s, e))
    estimate_ms = max(_sync_median_us(first) / 1e3, 1e-3)
    reps = int(min(200, max(10, BUDGET_MS / estimate_ms)))
    pairs = []
    for _ in range(reps):
        if setup:
            setup()
        s, e = torch.cuda.Event(enable_timing=True), torch.cuda.Event(enable_timing=True)
        s.record()
        fn()
        e.record()
        pairs.append((s, e))
    return _sync_median_us(pairs)


def graph_time_us(fn, setup=None):
    """Per-call time of GRAPH_CALLS calls of fn() captured in one CUDA graph."""
    side = torch.cuda.Stream()
    side.wait_stream(torch.cuda.current_stream())
    with torch.cuda.stream(side):
        for _ in range(3):
            fn()
    torch.cuda.current_stream().wait_stream(side)
    graph = torch.cuda.CUDAGraph()
    with torch.cuda.graph(graph):
        for _ in range(GRAPH_CALLS):
            fn()
    if setup:
        setup()
    return event_time_us(graph.replay) / GRAPH_CALLS


def compiled(fn):
    torch._dynamo.reset()  # every case compiles afresh (its lambdas share code objects)
    return torch.compile(fn, dynamic=False)


def measure(label, fn, *args, **kwargs):
    try:
        return fn(*args, **kwargs)
    except Exception as exc:  # a baseline that cannot run here is reported, not fatal
        print(f"  ({label}: {type(exc).__name__}: {str(exc).splitlines()[0][:120]})", flush=True)
        return None


def run(case, with_compile=True):
    nbytes = sum(t.numel() * t.element_size() for t in case.moved)
    src = torch.empty(max(nbytes // 2, 1), dtype=torch.uint8, device="cuda")
    dst = torch.empty_like(src)
    ours = event_time_us(case.ours, case.setup)
    base = measure("torch", event_time_us, case.baseline, case.setup)
    comp_fn = measure("compile", compiled, case.baseline) if with_compile else None
    comp = measure("compiled", event_time_us, comp_fn, case.setup) if comp_fn else None
    copy = event_time_us(lambda: dst.copy_(src))
    row = {"op": case.op, "shape": case.shape, "dtype": case.dtype, "device": "cuda",
           "bytes": nbytes, "ours_us": ours, "torch_us": base, "compiled_us": comp, "copy_us": copy,
           "GB/s": nbytes / ours / 1e3, "copy GB/s": nbytes / copy / 1e3,
           "copy_fraction": copy / ours}
    if base:
        row["vs_torch"] = base / ours
    if comp:
        row["vs_compiled"] = comp / ours
    if nbytes <= GRAPH_BYTES:
        row["graph_us"] = measure("graph", graph_time_us, case.ours, case.setup)
        row["torch_graph_us"] = measure("torch graph", graph_time_us, case.baseline, case.setup)
        if comp_fn:
            row["compiled_graph_us"] = measure("compiled graph", graph_time_us, comp_fn, case.setup)
    return row


def fmt(v, spec):
    return format(v, spec) if v is not None else "-"


HEADER = (f"{'operator':<34} {'shape':<28} {'dtype':<8} {'ours us':>9} {'torch':>9} {'compiled':>9} "
          f"{'copy us':>9} {'%copy':>6} {'vs comp':>7} {'graph us':>8} {'c.graph':>8}")


def print_row(r):
    print(f"{r['op']:<34} {r['shape']:<28} {r['dtype']:<8} {fmt(r['ours_us'], '9.2f')} "
          f"{fmt(r['torch_us'], '9.2f')} {fmt(r['compiled_us'], '9.2f')} {fmt(r['copy_us'], '9.2f')} "
          f"{fmt(100 * r['copy_fraction'], '6.1f')} {fmt(r.get('vs_compiled'), '7.2f')} "
          f"{fmt(r.get('graph_us'), '8.2f')} {fmt(r.get('compiled_graph_us'), '8.2f')}", flush=True)


def results_path(here):
    # Called before main() checks for a GPU.
    if not torch.cuda.is_available():
        raise SystemExit("bench --device cuda: torch sees no GPU")
    """<gpu>-<date>.json, e.g. nvidia-h100-80gb-hbm3-2026-11-23.json, in bench/results/
    (or $VORTA_BENCH_RESULTS_DIR)."""
    gpu = re.sub(r"[^a-z0-9]+", "-", torch.cuda.get_device_name().lower()).strip("-")
    day = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d")
    folder = os.environ.get("VORTA_BENCH_RESULTS_DIR") or os.path.join(here, "results")
    return os.path.join(folder, f"{gpu}-{day}.json")


def describe_run():
    def git(*args):
        try:
            return subprocess.run(["git", *args], capture_output=True, text=True, timeout=10).stdout.strip()
        except OSError:
            return ""
    prop = torch.cuda.get_device_properties(0)
    return {"gpu": torch.cuda.get_device_name(), "multiprocessors": prop.multi_processor_count,
            "torch": torch.__version__, "cuda": torch.version.cuda, "commit": git("rev-parse", "HEAD"),
            "dirty": bool(git("status", "--porcelain", "--untracked-files=no")),
            "date": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds")}


def main(modules, out_path, with_compile=True):
    if not torch.cuda.is_available():
        raise SystemExit("bench --device cuda: torch sees no GPU")
    torch.backends.cuda.matmul.allow_tf32 = False
    run_info = describe_run()
    print(f"{run_info['gpu']}, torch {run_info['torch']} (CUDA {run_info['cuda']})")
    print(HEADER)
    rows = []
    os.makedirs(os.path.dirname(out_path), exist_ok=True)
    for mod in modules:
        cases = mod.cases()
        while True:
            with torch.device("cuda"):  # only while the case builds its tensors
                case = next(cases, None)
            if case is None:
                break
            row = run(case, with_compile)
            print_row(row)
            rows.append(row)
            with open(out_path, "w") as f:
                json.dump({"run": run_info, "rows": rows}, f, indent=1)
    print(f"wrote {len(rows)} rows to {out_path}")
    return rows
