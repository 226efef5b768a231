# Thin wrapper over CMake and CTest, so that the two everyday commands work
# on a fresh Debian machine: `make demo` and `make test`.
BUILD ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps configure build demo test bench clean

all: build

deps:
	@tools/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	$(BUILD)/tools/kelvane-demo

test: build
	ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure

bench: build
	$(BUILD)/bench/kelvane-bench

clean:
	rm -rf $(BUILD)
