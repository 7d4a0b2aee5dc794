# netforge: `make demo` runs the main job on a real model, `make test` builds and runs every test.
# Everything that is missing is installed first (Debian packages as root, Python packages into .venv).

MODEL ?=
N ?= 2000
SEED ?= 1
OUT ?= build/fuzz
FUZZ_SECONDS ?= 20
JOBS ?= $(shell nproc)
PY := .venv/bin/python
BUILD := build/release
CCACHE := $(shell command -v ccache 2>/dev/null)
CMAKE_COMMON = -G Ninja -DPython_EXECUTABLE=$(CURDIR)/$(PY) -DNETFORGE_WERROR=ON \
	-DCMAKE_CXX_COMPILER_LAUNCHER=$$(command -v ccache)

.PHONY: all setup build install demo test cpp-test python-test fuzz fuzz-files bench asan lint format clean

all: build

setup:
	@sh tools/setup.sh

build: setup
	@cmake -S . -B $(BUILD) $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Release -DNETFORGE_BUILD_TESTS=ON \
		-DNETFORGE_BUILD_PYTHON=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

# The same rules that make the wheel put the package into the virtual environment.
install: build
	@for component in python python_tests; do \
		cmake --install $(BUILD) --component $$component --prefix \
			"$$($(PY) -c 'import sysconfig; print(sysconfig.get_paths()["platlib"])')" >/dev/null || exit 1; done

demo: install
	@$(PY) examples/demo.py $(MODEL)

test: install cpp-test python-test

cpp-test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

python-test: install
	@$(PY) -m pytest -q tests/python

# N graphs from the seeds SEED, SEED + 1, ...; what fails is written to OUT, reduced.
fuzz: install fuzz-files
	@cd tests/python && $(CURDIR)/$(PY) -m random_graphs --count $(N) --seed $(SEED) --out $(CURDIR)/$(OUT)

# The readers of files, FUZZ_SECONDS long. What the fuzzer learns stays in OUT for the next run.
fuzz-files:
	@sh tools/setup.sh fuzz
	@CXX=clang++ cmake -S . -B build/fuzzers $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=None -DNETFORGE_BUILD_FUZZ=ON \
		>/dev/null
	@cmake --build build/fuzzers -j $(JOBS)
	@mkdir -p $(OUT)/metadata
	@build/fuzzers/tests/fuzz/fuzz_metadata -max_total_time=$(FUZZ_SECONDS) -seed=$(SEED) -verbosity=1 \
		-print_final_stats=1 -rss_limit_mb=4096 -dict=tests/fuzz/metadata.dict -artifact_prefix=$(OUT)/ \
		$(OUT)/metadata tests/fuzz/metadata_seeds 2>$(OUT)/metadata.log \
		|| { tail -n 60 $(OUT)/metadata.log; exit 1; }
	@grep -E 'number_of_executed_units|^Done' $(OUT)/metadata.log

bench: setup
	@cmake -S . -B build/bench $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Release -DNETFORGE_BUILD_BENCH=ON \
		-DNETFORGE_BUILD_PYTHON=OFF >/dev/null
	@cmake --build build/bench -j $(JOBS)
	@sh bench/run.sh build/bench $(PY)

asan: setup
	@cmake -S . -B build/asan $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Debug -DNETFORGE_BUILD_TESTS=ON \
		-DNETFORGE_BUILD_PYTHON=OFF -DNETFORGE_SANITIZE=address,undefined >/dev/null
	@cmake --build build/asan -j $(JOBS)
	@cd build/asan && ASAN_OPTIONS=detect_leaks=1:strict_init_order=1 UBSAN_OPTIONS=print_stacktrace=1 \
		ctest --output-on-failure -j $(JOBS)

lint:
	@sh tools/setup.sh lint
	@sh tools/lint.sh $(PY)

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i
	@$(PY) -m ruff format python tests/python examples bench tools

clean:
	rm -rf build
