#!/usr/bin/env bash
# Builds out_kelvane.dll for 32-bit and 64-bit Windows (build-win32/ and
# build-win64/), with FFTW from Debian's source package built on first use
# inside each build folder, then the ZIP that holds both DLLs
# (build-win32/out_kelvane-<version>-windows.zip). With --test, also runs the
# tests under Wine.
# scripts/windows/setup.sh must have run on this machine once.
set -euo pipefail
cd "$(dirname "$0")/../.."

run_tests=0
[[ ${1:-} == --test ]] && run_tests=1

for preset in windows-i686 windows-x86_64; do
  cmake --preset "$preset"
  cmake --build --preset "$preset"
done
ls -l build-win32/shell/out_kelvane.dll build-win64/shell/out_kelvane.dll
# The ZIP takes the DLLs of both folders, so it comes last.
cmake --build --preset windows-i686 --target package
ls -l build-win32/out_kelvane-*-windows.zip

if [[ $run_tests -eq 1 ]]; then
  status=0
  for preset in windows-i686 windows-x86_64; do
    ctest --preset "$preset" -L wine || status=1
  done
  exit $status
fi
