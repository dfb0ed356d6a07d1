"""python -m bench [options] [group ...]: runs bench/bench_<group>.py modules (all by default),
writes bench/results/<machine>-<date>.json and a chart beside it. A run of chosen groups
adds their names to the file name, so it never replaces a full run's results."""
import argparse
import importlib
import os
import pkgutil
import sys

from bench.runner import main

here = os.path.dirname(os.path.abspath(__file__))
groups = sorted(m.name[len("bench_"):] for m in pkgutil.iter_modules([here]) if m.name.startswith("bench_"))

p = argparse.ArgumentParser(prog="python -m bench", description=__doc__)
p.add_argument("groups", nargs="*", help=f"any of: {' '.join(groups)}")
p.add_argument("--device", default="cpu", help="cpu (default) or cuda")
p.add_argument("--no-compile", action="store_true", help="skip the torch.compile baselines")
p.add_argument("--no-chart", action="store_true")
p.add_argument("--out", default=None, help="results folder (default $VORTA_BENCH_RESULTS_DIR, else bench/results)")
args = p.parse_args()
unknown = [g for g in args.groups if g not in groups]
if unknown:
    sys.exit(f"unknown benchmark group(s): {' '.join(unknown)}; known: {' '.join(groups)}")
chosen = args.groups or groups
modules = [importlib.import_module(f"bench.bench_{g}") for g in chosen]
main(modules, args.device, args.out, use_compile=not args.no_compile, chart=not args.no_chart,
     suffix="" if not args.groups else "-" + "-".join(chosen))
