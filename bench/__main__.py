"""python -m bench [--device cuda] [--no-compile] [name ...]: runs bench/bench_<name>.py modules
(all by default), on the CPU or on a CUDA GPU (bench/cuda.py)."""
import importlib
import os
import pkgutil
import sys

from bench.runner import main

here = os.path.dirname(os.path.abspath(__file__))
args = sys.argv[1:]
device = "cpu"
if "--device" in args:
    i = args.index("--device")
    device = args[i + 1]
    del args[i:i + 2]
with_compile = "--no-compile" not in args
wanted = [a for a in args if a != "--no-compile"]
names = sorted(m.name for m in pkgutil.iter_modules([here]) if m.name.startswith("bench_"))
if wanted:
    names = [n for n in names if n[len("bench_"):] in wanted]
modules = [importlib.import_module(f"bench.{n}") for n in names]
if device == "cuda":
    from bench import cuda
    cuda.main(modules, cuda.results_path(here), with_compile)
else:
    main(modules, os.path.join(here, "results.json"))
