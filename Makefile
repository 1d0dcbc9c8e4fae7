# Front door of the project. `make test` and `make demo` work on a fresh
# machine: they install what is missing, configure, build and run.
SHELL := /bin/bash
.DEFAULT_GOAL := test
HAVE_CLANG := $(shell command -v clang++ >/dev/null 2>&1 && echo yes)

.PHONY: deps build test test-host test-asan test-fuzz demo check clean

deps:
	@scripts/install-deps

build: deps
	cmake --preset host
	cmake --build --preset host

test-host: deps
	cmake --preset host
	cmake --build --preset host
	ctest --preset host

test-asan: deps
	cmake --preset asan
	cmake --build --preset asan
	ctest --preset asan

test-fuzz: deps
ifeq ($(HAVE_CLANG),yes)
	cmake --preset fuzz
	cmake --build --preset fuzz
	ctest --preset fuzz
else
	@echo "test-fuzz: clang++ not found, fuzz smoke runs skipped"
endif

# Every suite on the normal build and under ASan+UBSan, then the fuzz smoke runs.
test: test-host test-asan test-fuzz

demo: build
	@scripts/demo

# Benchmarks (Release tree build/bench): Google Benchmark's output, then one
# table of the numbers beside their targets. Fails only if a program does.
.PHONY: bench
bench: deps
	cmake --preset bench
	cmake --build --preset bench --target lumora_bench
	@bench/run build/bench

clean:
	rm -rf build
