"""python -m bench [name ...]: runs bench/bench_<name>.py modules (all by default)."""
import importlib
import os
import pkgutil
import sys

from bench.runner import main

here = os.path.dirname(os.path.abspath(__file__))
wanted = sys.argv[1:]
names = sorted(m.name for m in pkgutil.iter_modules([here]) if m.name.startswith("bench_"))
if wanted:
    names = [n for n in names if n[len("bench_"):] in wanted]
modules = [importlib.import_module(f"bench.{n}") for n in names]
main(modules, os.path.join(here, "results.json"))
