# Thin wrapper over CMake. `make test` installs missing packages, builds and
# runs every test; `make run` starts the service in a sandbox root.
BUILD_DIR ?= build
MAKEFLAGS += --no-print-directory
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

# Tests that exercise threads against each other: run under ThreadSanitizer.
# Tests run in a PID namespace of their own where the machine allows it: the
# service and the administrator options refuse while another vrkms runs, so
# a vrkms elsewhere on the machine must not be visible to them.
ISOLATE ?= $(shell unshare --pid --fork --mount-proc true 2>/dev/null && echo unshare --pid --fork --mount-proc)

TSAN_TESTS ?= StoreLock|CrypterPool|VrkmsLoad|Facet
FUZZ_SECONDS ?= 15
# ON in CI (.ci/run): compiler warnings are errors in the gcc builds.
WERROR ?= OFF

.PHONY: all deps configure build test test-asan test-tsan fuzz-smoke ci bench run format clean

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD_DIR) $(CMAKE_FLAGS) -DVRKMS_WERROR=$(WERROR) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@cd $(BUILD_DIR) && $(ISOLATE) ctest --output-on-failure -j $(JOBS) --timeout 600

# Every unit and process-level test, built with AddressSanitizer and
# UndefinedBehaviorSanitizer (any report fails the test). The benchmarks,
# which it would not run, are left out of this build.
test-asan: deps
	@cmake -S . -B build-asan $(CMAKE_FLAGS) -DVRKMS_SANITIZE=address,undefined -DVRKMS_WERROR=$(WERROR) \
	  -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON >/dev/null
	@cmake --build build-asan -j $(JOBS)
	@cd build-asan && ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 \
	  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  $(ISOLATE) ctest --output-on-failure -j $(JOBS) --timeout 900

# The concurrency tests, built with ThreadSanitizer.
test-tsan: deps
	@cmake -S . -B build-tsan $(CMAKE_FLAGS) -DVRKMS_SANITIZE=thread -DVRKMS_WERROR=$(WERROR) >/dev/null
	@cmake --build build-tsan -j $(JOBS) --target keystore_tests server_tests vrkms vrkmsctl
	@cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  $(ISOLATE) ctest --output-on-failure -j $(JOBS) --timeout 900 -R '$(TSAN_TESTS)'

# Every fuzz target for FUZZ_SECONDS seconds (clang, ASan and UBSan).
fuzz-smoke: deps
	@FUZZ_SECONDS=$(FUZZ_SECONDS) scripts/fuzz

# What CI runs: the tests, the sanitizer builds and a short fuzzing run.
ci: test format-check test-long test-asan test-tsan fuzz-smoke

bench: build
	@scripts/run-benchmarks $(BUILD_DIR)

run: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target vrkms vrkmsctl vrkms-sandbox-store
	@scripts/run-sandbox $(BUILD_DIR)

format:
	@find kms tests bench fuzz tools \( -name '*.h' -o -name '*.cpp' \) -print0 | xargs -0 clang-format -i

clean:
	@rm -rf $(BUILD_DIR)

# The Debian package (CPack) of the built programs, in $(BUILD_DIR)/package.
.PHONY: package
package: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target vrkms vrkmsctl vrclusterutil
	@cd $(BUILD_DIR) && cpack -G DEB -B package

# The tests labelled long at full length (200 SIGKILLs of the service, 30 s
# of load); every other run of them, `make test` and the sanitizer builds
# included, is short.
.PHONY: test-long
LONG_TEST_ENV ?= VRKMS_KILLS=200 VRKMS_LOAD_SECONDS=30
test-long: build
	@cd $(BUILD_DIR) && $(LONG_TEST_ENV) $(ISOLATE) ctest --output-on-failure -L long

# Fails on any file `make format` would change.
.PHONY: format-check
format-check:
	@find kms tests bench fuzz tools \( -name '*.h' -o -name '*.cpp' \) -print0 | \
	  xargs -0 clang-format --dry-run -Werror
