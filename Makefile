# Thin wrapper over CMake and CTest, so that the everyday commands work on a
# fresh Debian 12 machine: `make demo` and `make test`. Packages that are
# missing are installed with apt-get (as root, or through sudo).
BUILD ?= build
DEMO ?= demo
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps configure build demo test test-linux test-windows windows-deps package package-linux \
	package-windows bench compare clean asan-build test-asan fuzz fuzz-short tsan-build test-tsan valgrind

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

# The sanitizer builds (CMakePresets.json): asan is AddressSanitizer with
# UndefinedBehaviorSanitizer, and holds the fuzzers; tsan runs the tests that
# put the dialog thread beside the write path.
asan-build: deps
	cmake --preset asan
	cmake --build --preset asan

# The whole suite under asan. Tests that cannot run under the sanitizers at
# all carry a label with no-asan in it, which the preset leaves out.
test-asan: asan-build
	ctest --preset asan

# The fuzzers, FUZZ_SECONDS each (make fuzz FUZZ_SECONDS=1800); fuzz-short is
# CI's two minutes each, both at once, one per core.
FUZZ_SECONDS ?= 120
fuzz: asan-build
	scripts/run-fuzzers.sh build-asan $(FUZZ_SECONDS)

fuzz-short: asan-build
	scripts/run-fuzzers.sh build-asan 120 plugin_record_fuzzer & record=$$!; \
	scripts/run-fuzzers.sh build-asan 120 reg_file_fuzzer; reader=$$?; \
	wait $$record && exit $$reader

tsan-build: deps
	cmake --preset tsan
	cmake --build --preset tsan

# The plug-in's tests catch standard error, so the reports go to files of
# their own, shown when a test fails.
test-tsan: tsan-build
	rm -f build-tsan/tsan-report.*
	ctest --preset tsan || { cat build-tsan/tsan-report.* 2>/dev/null; exit 1; }

# valgrind memcheck over one test binary of each unit of the normal build
# (some minutes; not part of `make test`).
valgrind: build
	scripts/valgrind-memcheck.sh $(BUILD)

bench: build
	$(BUILD)/bench/kelvane-bench

# Whole processes against ffmpeg and sox on the same files; the table in
# README.md comes from here.
compare: build
	BUILD=$(abspath $(BUILD)) bench/compare.sh

clean:
	rm -rf $(BUILD) build-win32 build-win64 build-asan build-tsan $(DEMO)
