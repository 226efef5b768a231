#!/usr/bin/env bash
# The lines of the plug-in that a fuzzer's corpus reaches: builds the fuzzers
# with clang's source-based coverage (in build-fuzzcov/, no sanitizer),
# replays each corpus once and prints llvm-cov's report over the plug-in's
# own sources (signal, filters, decoders, encoders, engine, platform,
# settings, shell).
#
#   scripts/fuzz-coverage.sh [CORPUS_FOLDER...]     (default: fuzz/corpus/*)
set -euo pipefail
source="$(cd "$(dirname "$0")/.." && pwd)"
build="$source/build-fuzzcov"
llvm_version="$(clang++ --version | sed -n 's/.*clang version \([0-9]*\).*/\1/p')"
profdata="$(command -v llvm-profdata-"$llvm_version" || command -v llvm-profdata)"
cov="$(command -v llvm-cov-"$llvm_version" || command -v llvm-cov)"

cmake -S "$source" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DKELVANE_FUZZ=ON -DKELVANE_TESTS=OFF -DKELVANE_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="-fprofile-instr-generate -fcoverage-mapping" >/dev/null
cmake --build "$build" -j 2 --target plugin_record_fuzzer reg_file_fuzzer >/dev/null

corpora=("$@")
[ ${#corpora[@]} -gt 0 ] || corpora=("$source/fuzz/corpus/plugin_record" "$source/fuzz/corpus/reg_file")
profiles="$(mktemp -d /tmp/kelvane-fuzzcov-XXXXXX)"
for corpus in "${corpora[@]}"; do
  target="$(basename "$corpus")_fuzzer"
  echo "== $target over $corpus ($(ls "$corpus" | wc -l) inputs)"
  LLVM_PROFILE_FILE="$profiles/$target.%p.profraw" "$build/fuzz/$target" -runs=0 "$corpus" >"$profiles/$target.log" 2>&1
  "$profdata" merge -sparse "$profiles/$target".*.profraw -o "$profiles/$target.profdata"
  "$cov" report "$build/fuzz/$target" -instr-profile="$profiles/$target.profdata" \
    $(for unit in signal filters decoders encoders engine platform settings shell; do echo "$source/$unit"; done) |
    tail -1 | awk '{printf "   plug-in sources: regions %s, functions %s, lines %s covered\n", $4, $7, $10}'
done
