#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, when missing.
# Needs root (or sudo) only when something is missing.
set -euo pipefail

packages=(cmake g++ make pkg-config libfftw3-dev libgtest-dev libbenchmark-dev libsndfile1-dev
          # the renderer: resampling, the PNG report, and reading PNG in its tests
          libsoxr-dev libcairo2-dev zlib1g-dev
          # the LV2 bundle and the real hosts its tests run: lilv's tools, the
          # schema checker, and a PipeWire daemon with its command-line clients
          lv2-dev liblilv-dev lilv-utils sordi pipewire pipewire-bin
          # the sanitizer builds and the fuzzers (clang with its run-time
          # libraries, libFuzzer among them), and memcheck
          clang libclang-rt-dev valgrind)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
# An index that fails to download (a mirror in sync, the security suite's
# i386 index lagging) need not stop the install: go on with what was fetched.
$sudo apt-get update -qq || echo "install-deps.sh: some package indexes could not be fetched; going on" >&2
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
