# Thin wrapper over CMake and CTest, so that the everyday commands work on a
# fresh Debian 12 machine: `make demo` and `make test`. Packages that are
# missing are installed with apt-get (as root, or through sudo).
BUILD ?= build
DEMO ?= demo
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps configure build demo test test-linux test-windows windows-deps package package-linux \
	package-windows bench compare clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# The main job: renders the embedded test scenes in every mode into $(DEMO)/
# and prints where each source lands.
demo: build
	$(BUILD)/hosts/render/kelvane-render --demo $(DEMO)

# Every test: the Linux build, then the Windows DLLs under Wine.
test: test-linux test-windows

test-linux: build
	ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure

windows-deps:
	@command -v i686-w64-mingw32-g++ >/dev/null && command -v wine >/dev/null && command -v Xvfb >/dev/null \
	  || { if [ "$$(id -u)" -eq 0 ]; then scripts/windows/setup.sh; else sudo scripts/windows/setup.sh; fi; }

test-windows: windows-deps
	scripts/windows/build.sh --test

# The packages: the Linux tarball in $(BUILD)/, and the Windows ZIP with both
# DLLs in build-win32/.
package: package-linux package-windows

package-linux: build
	cmake --build $(BUILD) --target package

package-windows: windows-deps
	scripts/windows/build.sh

bench: build
	$(BUILD)/bench/kelvane-bench

# Whole processes against ffmpeg and sox on the same files; the table in
# README.md comes from here.
compare: build
	BUILD=$(abspath $(BUILD)) bench/compare.sh

clean:
	rm -rf $(BUILD) build-win32 build-win64 $(DEMO)
