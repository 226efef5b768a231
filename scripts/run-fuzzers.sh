#!/usr/bin/env bash
# Runs each libFuzzer target of an asan build for the given number of
# seconds, from the committed seed corpus of fuzz/corpus/<target>. What a run
# finds goes to a scratch folder, never into the committed corpus (merge it
# by hand with -merge=1 when it is worth keeping). Exits non-zero when a
# target fails; the failing input is left in the scratch folder and named.
#
#   scripts/run-fuzzers.sh BUILD_DIR SECONDS [TARGET...]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
source="$(dirname "$here")"
build="${1:?build folder of the asan preset}"
seconds="${2:?seconds per target}"
shift 2
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(plugin_record_fuzzer reg_file_fuzzer)
source "$here/sanitizers/env.sh"

scratch="${FUZZ_SCRATCH:-$(mktemp -d /tmp/kelvane-fuzz-XXXXXX)}"
status=0
for target in "${targets[@]}"; do
  name="${target%_fuzzer}"
  work="$scratch/$name"
  mkdir -p "$work/new" "$work/artifacts"
  # The plug-in's target: inputs long enough for a few dozen calls, the
  # memory of two long delay rings, and the message boxes of failed loads
  # (standard error) kept out of the summary.
  # The settings reader makes no FFT plan, so its leaks need no slow stacks
  # through FFTW, and it runs five times as fast without them.
  extra=()
  options="$ASAN_OPTIONS"
  [ "$name" = plugin_record ] && extra=(-max_len=8192 -rss_limit_mb=3072)
  [ "$name" = reg_file ] && options="${options/fast_unwind_on_malloc=0/fast_unwind_on_malloc=1}"
  echo "== $target: ${seconds} s, log $work/log"
  if ASAN_OPTIONS="$options" "$build/fuzz/$target" -max_total_time="$seconds" -timeout=60 -print_final_stats=1 \
       -artifact_prefix="$work/artifacts/" "${extra[@]}" \
       "$work/new" "$source/fuzz/corpus/$name" >"$work/log" 2>&1; then
    grep -E '^(Done [0-9]+ runs|stat::number_of_executed_units|stat::peak_rss_mb)' "$work/log" || true
    grep -E '^#[0-9]+[[:space:]]+(NEW|REDUCE|pulse|DONE)' "$work/log" | tail -1
  else
    status=1
    echo "$target FAILED; its input: $(ls "$work/artifacts"/* 2>/dev/null | head -1)"
    grep -v -E '^(Kelvane Processor|About Kelvane Processor)' "$work/log" | tail -60
  fi
done
exit $status
