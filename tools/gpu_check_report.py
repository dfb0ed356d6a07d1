"""Summary of a tools/gpu-check run: results.json beside the logs, and a short table.

Usage: gpu_check_report.py OUT step=rc:seconds ...
"""
import glob
import json
import os
import re
import sys


def read(path):
    try:
        with open(path, errors="replace") as f:
            return f.read()
    except OSError:
        return ""


def pytest_counts(log):
    """The counts of the last pytest summary line in the log ({} if none)."""
    lines = [l for l in log.splitlines()
             if re.search(r"\d+ (passed|failed|error)", l) and not l.startswith("=========")]
    if not lines:
        return {}
    return {k: int(n) for n, k in re.findall(r"(\d+) (passed|failed|skipped|errors?|xfailed|deselected)",
                                               lines[-1])}


def section(log, step):
    """What one step wrote to a log that several steps share (from its "== step (" header on)."""
    parts = re.split(r"^(?===\s\w+ \(at most)", log, flags=re.M)
    return "".join(p for p in parts if p.startswith(f"== {step} ("))


def failed_tests(log):
    """The ids of the tests pytest reported as failed or in error, in order, once each."""
    return list(dict.fromkeys(re.findall(r"^(?:FAILED|ERROR) (\S+)", log, re.M)))


def sanitizer_errors(log):
    # memcheck: "ERROR SUMMARY: N errors"; racecheck: "RACECHECK SUMMARY: ... (N errors, M warnings)".
    m = re.findall(r"(?:ERROR SUMMARY: |SUMMARY: .*\()(\d+) error", log)
    return int(m[-1]) if m else None


def ptxas(log):
    """Per kernel: registers, stack frame and spill bytes, from -Xptxas -v."""
    kernels, name = [], None
    for line in log.splitlines():
        m = re.search(r"Compiling entry function '(\S+)' for '(\w+)'", line)
        if m:
            name = {"kernel": m.group(1), "arch": m.group(2)}
            continue
        m = re.search(r"(\d+) bytes stack frame, (\d+) bytes spill stores, (\d+) bytes spill loads", line)
        if m and name:
            name.update(stack=int(m.group(1)), spill_stores=int(m.group(2)), spill_loads=int(m.group(3)))
            continue
        m = re.search(r"Used (\d+) registers", line)
        if m and name:
            name["registers"] = int(m.group(1))
            kernels.append(name)
            name = None
    return kernels


def main():
    out = sys.argv[1]
    steps = {}
    for arg in sys.argv[2:]:
        key, _, value = arg.partition("=")
        rc, _, secs = value.partition(":")
        steps[key] = {"rc": rc, "seconds": int(secs or 0)}
    build = read(os.path.join(out, "build.log"))
    kernels = ptxas(build)
    sanitize = read(os.path.join(out, "sanitize.log"))
    memcheck, racecheck = section(sanitize, "memcheck"), section(sanitize, "racecheck")
    result = {
        "steps": steps,
        "tests": pytest_counts(read(os.path.join(out, "tests.log"))),
        "failed": failed_tests(read(os.path.join(out, "tests.log")) + memcheck),
        "cudagraphs": pytest_counts(read(os.path.join(out, "cudagraphs.log"))),
        "memcheck": {"errors": sanitizer_errors(memcheck), "tests": pytest_counts(memcheck)},
        "racecheck": {"errors": sanitizer_errors(racecheck), "tests": pytest_counts(racecheck)},
        "kernels": kernels,
        "spilling_kernels": [k["kernel"] for k in kernels if k.get("spill_stores") or k.get("stack")],
    }
    bench_files = [f for f in glob.glob(os.path.join(out, "*.json"))
                   if not f.endswith("results.json") and not os.path.basename(f).startswith("attention-")]
    rows = json.load(open(bench_files[0]))["rows"] if bench_files else []
    result["bench"] = {"file": os.path.basename(bench_files[0]) if bench_files else None, "rows": len(rows)}
    attention_files = glob.glob(os.path.join(out, "attention-*.json"))
    attention = json.load(open(attention_files[0]))["rows"] if attention_files else []
    result["attention"] = attention
    with open(os.path.join(out, "results.json"), "w") as f:
        json.dump(result, f, indent=1)

    print("\n== benchmark (us; %limit = share of the same run's copy bandwidth or matmul peak; "
          "graph = per call in a CUDA graph)")
    print(f"{'operator':<34} {'shape':<28} {'dtype':<8} {'ours':>8} {'compiled':>8} {'%limit':>6} "
          f"{'vs comp':>7} {'graph':>7}")
    for r in rows:
        f = lambda v, s: format(v, s) if v is not None else "-"
        print(f"{r['op'][:34]:<34} {r['shape'][:28]:<28} {r['dtype']:<8} {f(r['ours_us'], '8.2f')} "
              f"{f(r['baselines_us'].get('compile'), '8.2f')} {f(100 * r['fraction'], '6.1f')} "
              f"{f(r['speedup'].get('compile'), '7.2f')} {f(r.get('graph_us', {}).get('ours'), '7.2f')}")
    if attention:
        print("\n== attention (decode: GB/s of K and V read once, share of the same run's copy bandwidth; "
              "prefill: TFLOP/s)")
        for r in attention:
            main = (f"{r['GB/s']:7.0f} GB/s {100 * r['of_copy']:5.1f}% copy" if "GB/s" in r
                    else f"{r['TFLOP/s']:7.1f} TFLOP/s")
            ratios = " ".join(f"{k[3:]} {v:.2f}x" for k, v in r.items() if k.startswith("vs_"))
            print(f"{r['op'][:18]:<18} {r['shape'][:24]:<24} {r['dtype']:<8} {r['ours_us']:9.1f} us {main}  {ratios}")
    print("\n== gpu-check")
    for name, s in steps.items():
        print(f"{name:<10} rc {s['rc']:<8} {s['seconds']:>4}s")
    t = result["tests"]
    print(f"tests      {t.get('passed', 0)} passed, {t.get('failed', 0)} failed, "
          f"{t.get('error', 0) + t.get('errors', 0)} errors, {t.get('skipped', 0)} skipped")
    for name in result["failed"]:
        print(f"  failed   {name}")
    c = result["cudagraphs"]
    print(f"cudagraphs {c.get('passed', 0)} passed, {c.get('failed', 0)} failed, {c.get('skipped', 0)} skipped")
    for tool in ("memcheck", "racecheck"):
        r = result[tool]
        print(f"{tool:<10} {r['errors'] if r['errors'] is not None else '-'} errors over "
              f"{r['tests'].get('passed', 0)} passed tests")
    print(f"kernels    {len(kernels)} compiled, max {max((k['registers'] for k in kernels), default=0)} "
          f"registers, spilling: {', '.join(result['spilling_kernels']) or 'none'}")


if __name__ == "__main__":
    main()
