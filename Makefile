# Thin wrapper over CMake. `make test` installs missing packages, builds and
# runs every test; `make run` starts the service in a sandbox root.
BUILD_DIR ?= build
MAKEFLAGS += --no-print-directory
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps configure build test bench run format clean

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD_DIR) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 600

bench: build
	@scripts/run-benchmarks $(BUILD_DIR)

run: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target vrkms vrkmsctl vrkms-sandbox-store
	@scripts/run-sandbox $(BUILD_DIR)

format:
	@find kms tests bench fuzz tools \( -name '*.h' -o -name '*.cpp' \) -print0 | xargs -0 clang-format -i

clean:
	@rm -rf $(BUILD_DIR)
