# Front door of the project. `make test` and `make demo` work on a fresh
# machine: they install what is missing, configure, build and run.
SHELL := /bin/bash
.DEFAULT_GOAL := test
HAVE_CLANG := $(shell command -v clang++ >/dev/null 2>&1 && echo yes)

# Build trees of the presets; another set keeps a second checkout's or a
# second person's trees apart, e.g. make check HOST_DIR=build/mine ...
HOST_DIR ?= build/host
ASAN_DIR ?= build/asan
TSAN_DIR ?= build/tsan
FUZZ_DIR ?= build/fuzz
JOBS ?= 2
# Seconds of each long fuzz run of `make check` (one per parser target).
FUZZ_SECONDS ?= 60

# Configure a preset into a tree, build it, run its suites. The sanitizer
# options of the suites are part of the tree's tests (tests/CMakeLists.txt).
define preset_test
	cmake --preset $(1) -B $(2) $(3)
	cmake --build $(2) -j $(JOBS)
	ctest --test-dir $(2) --output-on-failure $(4)
endef

.PHONY: deps build test test-host test-asan test-tsan test-fuzz fuzz-long check32 check-arm demo check clean coverage mutate

deps:
	@scripts/install-deps

build: deps
	cmake --preset host -B $(HOST_DIR)
	cmake --build $(HOST_DIR) -j $(JOBS)

test-host: deps
	$(call preset_test,host,$(HOST_DIR))

test-asan: deps
	$(call preset_test,asan,$(ASAN_DIR))

test-tsan: deps
	$(call preset_test,tsan,$(TSAN_DIR))

test-fuzz: deps
ifeq ($(HAVE_CLANG),yes)
	$(call preset_test,fuzz,$(FUZZ_DIR),,-LE long)
else
	@echo "test-fuzz: clang++ not found, fuzz smoke runs skipped"
endif

fuzz-long: deps
ifeq ($(HAVE_CLANG),yes)
	$(call preset_test,fuzz,$(FUZZ_DIR),-DLUMORA_FUZZ_SECONDS=$(FUZZ_SECONDS),-L long)
else
	@echo "fuzz-long: clang++ not found, long fuzz runs skipped"
endif

# Every suite on the normal build and under ASan+UBSan (plain char unsigned,
# as on ARM), then the fuzz smoke runs.
test: test-host test-asan test-fuzz

# Every host suite built and run in a Debian 12 i386 root (the TV's word
# size), made once under build/check32. Needs root or user namespaces.
check32:
	@JOBS=$(JOBS) scripts/check32

# The TV's CPU: every host suite cross-built for armhf and run under
# qemu-user with an armhf root made once under build/check-arm, then the link
# check of the TV build against a stand-in SDK and its install set.
check-arm:
	@JOBS=$(JOBS) scripts/check-arm

# What `make test` does, then every suite under ThreadSanitizer, a long run
# of each fuzz target (FUZZ_SECONDS each), the 32-bit run and the ARM run.
check: test test-tsan fuzz-long check32 check-arm

# Only what the tour runs: the service, lumora-tv, the engine and the TV root.
DEMO_TARGETS := lumora lumora-tv qorv_helper tvroot_files lumora_translations

# The tour's own output matters here: no "Entering directory" lines of the
# build's make.
demo: deps
	cmake --preset host -B $(HOST_DIR)
	cmake --build $(HOST_DIR) -j $(JOBS) --target $(DEMO_TARGETS) -- --no-print-directory
	@LUMORA_DEMO_BUILD=$(abspath $(HOST_DIR)) scripts/demo

# Every host suite on a gcov build (tree build/coverage): an HTML report in
# build/coverage/coverage/ and a table of line and branch coverage per folder.
coverage: deps
	@JOBS=$(JOBS) scripts/coverage

# Mutants of the lines of src/ that make coverage showed reached, each built
# in build/mutate and run against the suites that reach its line. In parts:
# MUTATE_FILES, MUTATE_LIMIT, MUTATE_SEED, MUTATE_SINCE (scripts/mutate --help).
mutate: deps
	@JOBS=$(JOBS) scripts/mutate

# Benchmarks (Release tree build/bench): Google Benchmark's output, then one
# table of the numbers beside their targets. Fails only if a program does.
.PHONY: bench
bench: deps
	cmake --preset bench
	cmake --build --preset bench --target lumora_bench
	@bench/run build/bench

clean:
	rm -rf build
