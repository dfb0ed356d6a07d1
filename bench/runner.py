"""Benchmark runner: each operator beside the limits of this machine and the baselines a user
would otherwise run, all measured in one run.

A module bench_<group>.py yields `Case`s from `cases(device)`. For each case the runner times
our operator; the plain-torch composite eagerly and under torch.compile (compile time
excluded: the first call compiles and is reported apart); and any further baselines the case
names (torch's scaled_dot_product_attention, or our own operator on another cache format).
It puts the operator beside one of two limits:

- memory: a copy of the same bytes into a preallocated buffer. A case lists the tensors one
  call reads and those it writes (an in-place operator reads and writes its target; a meta
  tensor stands for an output the call allocates). The copy moves (read + written) / 2
  bytes, so it too reads and writes the same total, and both report (read + written) / time.
  On the CPU the operator and its copy are called in turn when they move 64 MiB or more,
  so that both see the same host.
- compute (cases with `flops`): the fastest large matrix product torch runs on this device
  (see `matmul_peaks`), in float32 or in the case's dtype where that is faster. On the CPU
  the operator and that product (at the size that gave the peak) are called in turn, and
  the row's limit is the product's speed measured so.

A memory-bound case may also name the arithmetic it cannot avoid (`min_flops`, decode
attention's two products): the row then adds the time that takes at the same peak, and its
fraction of the larger of the two limits, so that a row the copy cannot explain shows which
limit binds.

On the CPU times are wall-clock; on a CUDA GPU they are CUDA-event intervals, and decode-sized
cases are also timed as replays of a CUDA graph of many calls, which leaves out the host's
launch overhead.
"""
from __future__ import annotations

import dataclasses
import datetime
import functools
import json
import os
import platform
import re
import statistics
import subprocess
import time
from typing import Callable, Dict, List, Optional

import torch

# Seconds of timed calls per measurement; every measurement takes its median.
BUDGET_S = float(os.environ.get("BENCH_BUDGET_S", "0.25"))
MIN_RUNS = 3
MAX_RUNS = 20000


@dataclasses.dataclass
class Case:
    op: str
    shape: str
    dtype: str
    ours: Callable[[], object]
    composite: Callable                      # plain torch, called as composite(*args)
    args: tuple
    reads: List[torch.Tensor]                # what one call reads ...
    writes: List[torch.Tensor]               # ... and writes (meta tensors for fresh outputs)
    flops: Optional[float] = None            # compute-bound: the limit is the matmul peak
    min_flops: Optional[float] = None        # memory-bound, but at least this much arithmetic
    baselines: Dict[str, Callable[[], object]] = dataclasses.field(default_factory=dict)
    # Baselines timed with ours and its limit, in turn where those are (their ratio to ours
    # is the figure that matters): another operator of ours on the same data.
    rivals: Dict[str, Callable[[], object]] = dataclasses.field(default_factory=dict)
    restore: List[torch.Tensor] = dataclasses.field(default_factory=list)  # overwritten inputs
    # Compiled instead of `composite` when torch.compile cannot compile that (same arguments).
    compile_fallback: Optional[Callable] = None
    size: str = "large"                      # "large" (leaves the caches) or "decode"
    note: str = ""

    @property
    def device(self) -> torch.device:
        return next(t.device for t in self.reads if t.device.type != "meta")


def dtype_name(dtype: torch.dtype) -> str:
    return str(dtype).replace("torch.", "")


def nbytes(tensors) -> int:
    return sum(t.numel() * t.element_size() for t in tensors)


def fresh(shape, dtype) -> torch.Tensor:
    """Stands for an output the operator allocates: counted, never touched."""
    return torch.empty(shape, dtype=dtype, device="meta")


def uniform(shape, dtype=torch.float32, device="cpu", lo=-2.0, hi=2.0) -> torch.Tensor:
    """Random inputs, filled faster than randn (large cases hold gigabytes)."""
    return torch.empty(shape, dtype=torch.float32, device=device).uniform_(lo, hi).to(dtype)


# -- timing -------------------------------------------------------------------------------

def cpu_median(fn, setup=None, budget_s=None) -> float:
    """Median wall time of fn() in seconds: one untimed warm-up call, then calls until the
    budget is spent (at least MIN_RUNS, or one when a call alone outlasts the budget).
    setup() runs before every call, outside the timed region."""
    budget_s = BUDGET_S if budget_s is None else budget_s
    if setup:
        setup()
    t0 = time.perf_counter()
    fn()
    min_runs = MIN_RUNS if time.perf_counter() - t0 < budget_s else 1
    times = []
    deadline = time.perf_counter() + budget_s
    while len(times) < min_runs or (time.perf_counter() < deadline and len(times) < MAX_RUNS):
        if setup:
            setup()
        t0 = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t0)
    return statistics.median(times)


def cpu_interleaved_medians(fns, setups, budget_s=None) -> List[float]:
    """Median wall time of each of fns in seconds, called in rounds (each once per round,
    setups[i] before fns[i], untimed): one untimed round, then rounds until the budget
    (per function) is spent, at least MIN_RUNS. Other tenants of the host move its memory
    bandwidth by a third within minutes; interleaved, a drift touches every function alike
    and their ratio holds."""
    budget_s = (BUDGET_S if budget_s is None else budget_s) * len(fns)
    calls = list(zip(fns, setups))
    t0 = time.perf_counter()
    for fn, setup in calls:
        if setup:
            setup()
        fn()
    min_runs = MIN_RUNS if time.perf_counter() - t0 < budget_s else 1
    times = [[] for _ in calls]
    deadline = time.perf_counter() + budget_s
    while len(times[0]) < min_runs or (time.perf_counter() < deadline and len(times[0]) < MAX_RUNS):
        for (fn, setup), ts in zip(calls, times):
            if setup:
                setup()
            t = time.perf_counter()
            fn()
            ts.append(time.perf_counter() - t)
    return [statistics.median(ts) for ts in times]


def _cuda_event_seconds(fn, setup, runs) -> List[float]:
    """Seconds of each of `runs` calls of fn(), each between two CUDA events."""
    pairs = []
    for _ in range(runs):
        if setup:
            setup()
        start, end = torch.cuda.Event(enable_timing=True), torch.cuda.Event(enable_timing=True)
        start.record()
        fn()
        end.record()
        pairs.append((start, end))
    torch.cuda.synchronize()
    return [start.elapsed_time(end) / 1e3 for start, end in pairs]


def cuda_median(fn, setup=None, budget_s=None) -> float:
    """Median GPU time of fn() in seconds between two CUDA events: three untimed calls, three
    timed ones for an estimate, then as many as the estimate fits into the budget (at least
    MIN_RUNS). setup() runs before every call, outside the events."""
    budget_s = BUDGET_S if budget_s is None else budget_s
    for _ in range(3):
        if setup:
            setup()
        fn()
    estimate = max(statistics.median(_cuda_event_seconds(fn, setup, 3)), 1e-6)
    runs = int(min(MAX_RUNS, max(MIN_RUNS, budget_s / estimate)))
    return statistics.median(_cuda_event_seconds(fn, setup, runs))


GRAPH_CALLS = 64  # calls per captured CUDA graph


def cuda_graph_median(calls, setup=None, budget_s=None) -> float:
    """Seconds per call of `calls` (callables, in order) captured once in one CUDA graph and
    timed as replays: the host's launch overhead stays out. setup() runs once, before the
    replays."""
    side = torch.cuda.Stream()
    side.wait_stream(torch.cuda.current_stream())
    with torch.cuda.stream(side):  # warm-up outside the capture
        for call in calls:
            call()
    torch.cuda.current_stream().wait_stream(side)
    graph = torch.cuda.CUDAGraph()
    with torch.cuda.graph(graph):
        for call in calls:
            call()
    if setup:
        setup()
    return cuda_median(graph.replay, budget_s=budget_s) / len(calls)


# Device type -> timing function with cpu_median's signature.
TIMERS: Dict[str, Callable] = {"cpu": cpu_median, "cuda": cuda_median}


def timer_for(device) -> Callable:
    kind = torch.device(device).type
    if kind not in TIMERS:
        raise RuntimeError(f"no benchmark timer for device {kind!r}")
    return TIMERS[kind]


# Bytes moved from which a CPU case and its copy are timed in turn: the data leaves the
# last-level cache anyway. A smaller case stays in the caches between calls when timed
# alone, and timed in turn with its copy, each would evict the other.
INTERLEAVE_BYTES = 64 << 20


def medians_for(device, moved, fns, setups) -> List[float]:
    """Seconds per call of each of fns, cases that move `moved` bytes: interleaved on the CPU
    from INTERLEAVE_BYTES up, else one after another (a GPU's memory is not shared with
    other processes)."""
    if torch.device(device).type == "cpu" and moved >= INTERLEAVE_BYTES:
        return cpu_interleaved_medians(fns, setups)
    timer = timer_for(device)
    return [timer(fn, setup) for fn, setup in zip(fns, setups)]


# -- limits -------------------------------------------------------------------------------

class CopyLimit:
    """Times a copy of n bytes between two preallocated buffers (grown once, reused)."""

    def __init__(self, device):
        self.device = torch.device(device)
        self.src = self.dst = torch.empty(0, dtype=torch.uint8, device=self.device)

    def call(self, moved: int) -> Callable[[], object]:
        """The copy that reads and writes `moved` bytes in all."""
        n = max(1, (moved + 1) // 2)
        if n > self.src.numel():
            self.src = self.dst = None
            self.src = torch.full((n,), 7, dtype=torch.uint8, device=self.device)
            self.dst = torch.zeros(n, dtype=torch.uint8, device=self.device)
        src, dst = self.src[:n], self.dst[:n]
        return lambda: dst.copy_(src)

    def seconds(self, moved: int) -> float:
        return timer_for(self.device)(self.call(moved))


def square_product(device, dtype: str, n: int):
    """(call, flops) of torch.mm of two n x n matrices in `dtype` into a preallocated output."""
    dt = getattr(torch, dtype)
    a, b = uniform((n, n), dt, device), uniform((n, n), dt, device)
    c = torch.empty(n, n, dtype=dt, device=device)
    return (lambda: torch.mm(a, b, out=c)), 2.0 * n ** 3


# The product a compute-bound CPU case is timed in turn with, kept between cases.
_peak_product = functools.lru_cache(maxsize=2)(square_product)


def matmul_peaks(device, dtypes=(torch.float32, torch.float16, torch.bfloat16)) -> dict:
    """GFLOP/s of torch.mm into a preallocated output, per dtype: square sizes doubling from
    256 until one call takes 0.1 s (or 4096), the best size kept. Half-precision products
    without hardware support run orders of magnitude slower, hence the small start."""
    timer = timer_for(device)
    peaks = {}
    for dtype in map(dtype_name, dtypes):
        best, n = None, 256
        while True:
            product, flops = square_product(device, dtype, n)
            t = timer(product, budget_s=0.3)
            if best is None or flops / t / 1e9 > best["GFLOP/s"]:
                best = {"GFLOP/s": flops / t / 1e9, "n": n}
            if t > 0.1 or n >= 4096:
                break
            n *= 2
        peaks[dtype] = best
    return peaks


def limit_dtype(peaks: dict, dtype: str) -> str:
    """The product a compute-bound case in `dtype` is put beside: float32, or the case's own
    dtype where that product is faster."""
    if dtype in peaks and peaks[dtype]["GFLOP/s"] > peaks["float32"]["GFLOP/s"]:
        return dtype
    return "float32"


def compute_limit(peaks: dict, dtype: str):
    """(GFLOP/s, label) of the limit for a compute-bound case in `dtype` (see limit_dtype)."""
    name = limit_dtype(peaks, dtype)
    return peaks[name]["GFLOP/s"], f"{name} matmul"


# -- one case -----------------------------------------------------------------------------

def _short_error(e: Exception) -> str:
    first = str(e).strip().splitlines()[0] if str(e).strip() else ""
    return f"{type(e).__name__}: {first}"[:160]


def _compile(composite, args):
    """(callable, compile seconds) or raises: the first call compiles."""
    fn = torch.compile(composite, dynamic=False)
    t0 = time.perf_counter()
    fn(*args)
    return (lambda: fn(*args)), time.perf_counter() - t0


def run(case: Case, copy: Optional[CopyLimit], peaks: dict, use_compile=True) -> dict:
    timer = timer_for(case.device)
    saved = [t.clone() for t in case.restore]

    def setup():
        for t, s in zip(case.restore, saved):
            t.copy_(s)

    setup_fn = setup if saved else None
    timings, errors = {}, {}
    timed = {"ours": case.ours}

    def measure(name, fn):
        try:
            timings[name] = timer(fn, setup_fn) * 1e6
            timed[name] = fn
        except Exception as e:  # a baseline that does not run is reported, not fatal
            errors[name] = _short_error(e)

    # A memory-bound case and its copy are timed together (see medians_for).
    moved = {"read": nbytes(case.reads), "written": nbytes(case.writes)}
    total = moved["read"] + moved["written"]
    peak_now = None
    if case.flops and case.device.type == "cpu":
        # In turn with the product of its limit, at the size that gave the peak: the host's
        # speed drifts within minutes, and the drift then touches both alike. An untimed
        # product before each timed one brings its operands back into the caches.
        name = limit_dtype(peaks, case.dtype)
        product, product_flops = _peak_product(case.device, name, peaks[name]["n"])
        ours_s, product_s = cpu_interleaved_medians([case.ours, product], [setup_fn, product])
        ours_us, copy_us, peak_now = ours_s * 1e6, None, product_flops / product_s / 1e9
    elif case.flops:
        ours_us, copy_us = timer(case.ours, setup_fn) * 1e6, None
    else:
        rivals = list(case.rivals.items())
        medians = medians_for(case.device, total, [case.ours, copy.call(total)] + [fn for _, fn in rivals],
                              [setup_fn, None] + [setup_fn] * len(rivals))
        ours_us, copy_us = medians[0] * 1e6, medians[1] * 1e6
        for (name, fn), t in zip(rivals, medians[2:]):
            timings[name], timed[name] = t * 1e6, fn
    for name, fn in case.rivals.items():  # where the limit's timing did not take them
        if name not in timings:
            measure(name, fn)
    measure("eager", lambda: case.composite(*case.args))
    compile_s, compile_note = None, None
    if use_compile:
        try:
            setup()
            try:
                fn, compile_s = _compile(case.composite, case.args)
            except Exception as e:
                if case.compile_fallback is None:
                    raise
                compile_note = f"the fallback form compiled; the composite: {_short_error(e)}"
                setup()
                fn, compile_s = _compile(case.compile_fallback, case.args)
            # A guard that fails on every call would time compilation: make it an error.
            torch._dynamo.config.error_on_recompile = True
            try:
                measure("compile", fn)
            finally:
                torch._dynamo.config.error_on_recompile = False
        except Exception as e:
            errors["compile"] = _short_error(e)
    for name, fn in case.baselines.items():
        measure(name, fn)
    graph_us = {}
    if case.device.type == "cuda" and case.size == "decode":
        for name, fn in timed.items():
            try:
                graph_us[name] = cuda_graph_median([fn] * GRAPH_CALLS, setup_fn) * 1e6
            except Exception as e:
                errors[f"{name} in a CUDA graph"] = _short_error(e)
    setup()
    del saved

    row = {"op": case.op, "shape": case.shape, "dtype": case.dtype, "size": case.size,
           "ours_us": ours_us, "baselines_us": timings, "baseline_errors": errors,
           "compile_s": compile_s,
           "speedup": {name: us / ours_us for name, us in timings.items()}}
    if graph_us:
        row["graph_us"] = graph_us
    notes = [n for n in (case.note, compile_note) if n]
    if notes:
        row["note"] = "; ".join(notes)
    if case.flops:
        peak, label = compute_limit(peaks, case.dtype)
        peak = peak_now or peak
        achieved = case.flops / ours_us / 1e3
        row.update(flops=case.flops, limit={"kind": "compute", "of": label, "GFLOP/s": peak},
                   achieved={"GFLOP/s": achieved}, fraction=achieved / peak)
    else:
        row.update(bytes=moved, limit={"kind": "memory", "of": "copy", "copy_us": copy_us,
                                       "GB/s": total / copy_us / 1e3},
                   achieved={"GB/s": total / ours_us / 1e3}, fraction=copy_us / ours_us)
        if case.min_flops:
            peak, label = compute_limit(peaks, case.dtype)
            floor_us = case.min_flops / peak / 1e3
            row.update(compute_floor={"of": label, "flops": case.min_flops, "GFLOP/s": peak, "us": floor_us},
                       roofline_fraction=max(copy_us, floor_us) / ours_us)
    return row


# -- report -------------------------------------------------------------------------------

HEADER = (f"{'operator':<42} {'dtype':<8} {'shape':<34} {'ours us':>10} {'eager us':>10} "
          f"{'compile us':>10} {'achieved':>14} {'limit':>14} {'frac':>5} {'x eager':>8} "
          f"{'x compile':>9}  other baselines")


def _fmt_us(row, name):
    us = row["baselines_us"].get(name)
    return f"{us:>10.1f}" if us is not None else f"{'failed' if name in row['baseline_errors'] else '-':>10}"


def format_row(row) -> str:
    unit = "GFLOP/s" if row["limit"]["kind"] == "compute" else "GB/s"
    sp = row["speedup"]
    xs = lambda name: f"{sp[name]:.2f}x" if name in sp else "-"  # noqa: E731
    others = ", ".join(f"{n} {xs(n)}" for n in row["baselines_us"] if n not in ("eager", "compile"))
    if "graph_us" in row:
        others += (", " if others else "") + "in a CUDA graph: " + ", ".join(
            f"{n} {us:.2f} us" for n, us in row["graph_us"].items())
    extra = [f"{n}: {e}" for n, e in row["baseline_errors"].items()] + ([row["note"]] if "note" in row else [])
    if "compute_floor" in row:
        floor = row["compute_floor"]
        binds = "binds" if floor["us"] > row["limit"]["copy_us"] else "below the copy"
        extra.append(f"compute floor {floor['us']:.1f} us at the {floor['of']} peak ({binds}): "
                     f"{row['roofline_fraction']:.2f} of the larger limit")
    return (f"{row['op']:<42} {row['dtype']:<8} {row['shape']:<34} {row['ours_us']:>10.1f} "
            f"{_fmt_us(row, 'eager')} {_fmt_us(row, 'compile')} "
            f"{row['achieved'][unit]:>6.1f} {unit:<7} {row['limit'][unit]:>6.1f} {unit:<7} "
            f"{row['fraction']:>5.2f} {xs('eager'):>8} {xs('compile'):>9}  {others}"
            + (f"  [{'; '.join(extra)}]" if extra else ""))


def cpu_model() -> str:
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor() or platform.machine()


def cpu_features() -> List[str]:
    """The instruction-set extensions that decide which kernels and products are fast."""
    wanted = ("avx2", "fma", "f16c", "avx512f", "avx512_bf16", "avx512_fp16", "amx_tile", "amx_bf16")
    try:
        with open("/proc/cpuinfo") as f:
            flags = next((ln.split(":", 1)[1].split() for ln in f if ln.startswith("flags")), [])
    except OSError:
        flags = []
    return [w for w in wanted if w in flags]


# The environment that decides whether a fresh output is fresh pages (page faults, zeroing)
# or memory freed earlier: huge pages for torch's CPU allocator, glibc's caching settings.
ALLOCATOR_ENV = ("THP_MEM_ALLOC_ENABLE", "MALLOC_MMAP_THRESHOLD_", "MALLOC_TRIM_THRESHOLD_", "MALLOC_TOP_PAD_")


def allocator_env() -> Dict[str, str]:
    return {k: os.environ[k] for k in ALLOCATOR_ENV if k in os.environ}


def machine_name(device) -> str:
    dev = torch.device(device)
    name = torch.cuda.get_device_name(dev) if dev.type == "cuda" else cpu_model()
    name = re.sub(r"\((r|tm)\)|\b(processor|cpu|\d+-core)\b|@.*$", " ", name.lower())
    return re.sub(r"[^a-z0-9]+", "-", name).strip("-")[:40] or "unknown"


def git_commit():
    """(commit, whether tracked files differ from it) of the tree measured; ("", False) outside git."""
    def git(*args):
        try:
            return subprocess.run(["git", *args], capture_output=True, text=True, timeout=10,
                                  cwd=os.path.dirname(os.path.abspath(__file__))).stdout.strip()
        except (OSError, subprocess.SubprocessError):
            return ""
    commit = git("rev-parse", "HEAD")
    return commit, bool(commit and git("status", "--porcelain", "--untracked-files=no"))


def main(modules, device="cpu", out_dir=None, use_compile=True, chart=True, suffix=""):
    """Runs every case of `modules` on `device`; writes <out_dir>/<machine>-<date><suffix>.json
    after every row (a run cut short keeps what it measured) and a chart at the end. out_dir
    defaults to $VORTA_BENCH_RESULTS_DIR, else bench/results."""
    # One composite serves many shapes: let Dynamo keep a graph per shape, and fail rather
    # than fall back to eager silently when it would not.
    torch._dynamo.config.recompile_limit = 512
    torch._dynamo.config.accumulated_recompile_limit = 4096
    torch._dynamo.config.fail_on_recompile_limit_hit = True
    device = torch.device(device)
    if device.type == "cuda":
        if not torch.cuda.is_available():
            raise SystemExit("bench --device cuda: torch sees no GPU")
        # float32 products stay float32 (no TF32), in the baselines and in the matmul peak.
        torch.backends.cuda.matmul.allow_tf32 = False
    started = datetime.datetime.now()
    commit, dirty = git_commit()
    meta = {"machine": machine_name(device), "device": str(device), "date": started.strftime("%Y-%m-%d"),
            "started": started.isoformat(timespec="seconds"), "torch": torch.__version__,
            "threads": torch.get_num_threads(), "cpu": cpu_model(), "cpu_features": cpu_features(),
            "budget_s": BUDGET_S, "allocator_env": allocator_env(),
            "load_average_start": list(os.getloadavg()),
            "commit": commit, "dirty": dirty}
    if device.type == "cuda":
        meta.update(gpu=torch.cuda.get_device_name(device), cuda=torch.version.cuda,
                    multiprocessors=torch.cuda.get_device_properties(device).multi_processor_count)
    print(f"{meta['machine']}: {meta['cpu']} ({' '.join(meta['cpu_features'])}), torch {meta['torch']}, "
          f"{meta['threads']} threads, device {device}, load {meta['load_average_start'][0]:.2f}")
    print("allocator: " + (" ".join(f"{k}={v}" for k, v in meta["allocator_env"].items()) or "defaults"))
    peaks = matmul_peaks(device)
    print("matmul peak: " + ", ".join(f"{k} {v['GFLOP/s']:.1f} GFLOP/s (n={v['n']})" for k, v in peaks.items()))
    copy = CopyLimit(device)
    big = 256 << 20
    copy_big = big / copy.seconds(big) / 1e9
    print(f"copy limit: {copy_big:.1f} GB/s moving 256 MiB (read + written)", flush=True)
    meta.update(matmul_peaks=peaks, copy_GBps_256MiB=copy_big)
    out_dir = (out_dir or os.environ.get("VORTA_BENCH_RESULTS_DIR")
               or os.path.join(os.path.dirname(os.path.abspath(__file__)), "results"))
    os.makedirs(out_dir, exist_ok=True)
    stem = os.path.join(out_dir, f"{meta['machine']}-{meta['date']}{suffix}")
    rows = []

    def save():
        result = {**meta, "rows": rows}
        with open(stem + ".json", "w") as f:
            json.dump(result, f, indent=1)
        return result

    print(HEADER)
    for mod in modules:
        for case in mod.cases(device):
            row = run(case, copy, peaks, use_compile)
            row["group"] = mod.__name__.rsplit(".", 1)[-1][len("bench_"):]
            print(format_row(row), flush=True)
            rows.append(row)
            save()
            del case
    meta.update(load_average_end=list(os.getloadavg()),
                seconds=(datetime.datetime.now() - started).total_seconds())
    result = save()
    print(f"wrote {len(rows)} rows to {stem}.json in {meta['seconds']:.0f} s "
          f"(load {meta['load_average_start'][0]:.2f} at start, {meta['load_average_end'][0]:.2f} at end)")
    if chart:
        try:
            from bench.chart import draw
        except ImportError as e:
            print(f"no chart: {e} (make bench installs requirements-bench.txt)")
        else:
            draw(result, stem + ".png")
            print(f"wrote {stem}.png")
    return result
