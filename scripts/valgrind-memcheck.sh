#!/usr/bin/env bash
# valgrind memcheck over one test binary of each unit of a normal build, with
# a representative choice of its cases: no invalid read or write, no use of
# an undefined value, and no leak but the five impulse plans that each engine
# leaves on purpose (scripts/sanitizers/valgrind.supp). Prints one line per
# binary and a summary; exits non-zero on the first error found.
#
#   scripts/valgrind-memcheck.sh [BUILD_DIR]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:-build}"
command -v valgrind >/dev/null || { echo "valgrind-memcheck.sh: valgrind is not installed (apt-get install valgrind)" >&2; exit 2; }

# The planner's wisdom that every test binary loads, made by the suite's
# first test: without it each engine would measure its plans under valgrind.
wisdom="$build/tests/fftw-test-wisdom"
[ -s "$wisdom" ] || "$build/tests/make_test_wisdom" "$wisdom"

# binary (under tests/), the cases to run, and how: "one" runs them in one
# process, "each" in a process per case, for the binaries that load the
# plug-in, whose cases each start from a freshly loaded library as CTest runs
# them. The binaries with an allocation counter (sample_block_test,
# surround_tail_test, engine_allocation_test) replace operator new in the
# program, which valgrind cannot follow; their units are reached through the
# binaries below, and the asan suite runs them. Cases that fault on purpose
# are left out.
runs=(
  "filters/second_order_test|*|one"
  "filters/bass_redirect_test|*|one"
  "decoders/steered_matrix_test|*|one"
  "encoders/matrix_encoder_test|*|one"
  "encoders/headphone_convolver_test|*|one"
  "engine/pcm_conversion_test|*|one"
  "engine/dispatch_test|*|one"
  "platform/reg_file_test|*:-*LargeFile*|one"
  "platform/registry_test|*:-*Killed*|one"
  "shell/shell_plugin_test|*|each"
  "shell/chained_faults_test|*:-*FaultsTheProcess*|each"
  "settings/settings_store_test|*:-*LargeFile*|each"
  "settings/config_dialog_test|*|each"
  "hosts/render/out_wav_test|*|one"
)

# VALGRIND_ONLY=name runs only the binaries whose name matches.
if [ -n "${VALGRIND_ONLY:-}" ]; then
  chosen=()
  for run in "${runs[@]}"; do [[ "${run%%|*}" == *"$VALGRIND_ONLY"* ]] && chosen+=("$run"); done
  runs=("${chosen[@]}")
fi

# The cases of a binary that a filter selects, one full name a line.
cases_of() {
  "$1" --gtest_list_tests --gtest_filter="$2" | awk '/^[^ ]/ {suite=$1} /^  / {print suite $1}'
}

# memcheck over one process of a binary, its log files under $log/<name>.*.
memcheck() {
  local binary="$1" filter="$2" name="$3"
  valgrind --tool=memcheck --leak-check=full --show-leak-kinds=definite,indirect \
    --errors-for-leak-kinds=definite,indirect --error-exitcode=99 --track-origins=yes --num-callers=64 \
    --trace-children=no --suppressions="$here/sanitizers/valgrind.supp" \
    --log-file="$log/$name.%p.log" "$binary" --gtest_filter="$filter" --gtest_brief=1 >>"$log/$name.out" 2>&1
}

# Sums of all the logs of a binary: errors, bytes definitely lost, bytes
# suppressed as the engine's plans.
summarise() {
  cat "$log/$1".*.log | awk '
    /ERROR SUMMARY:/ {errors += $4}
    /definitely lost:/ {gsub(",", "", $4); lost += $4}
    / suppressed: [0-9,]+ bytes/ {gsub(",", "", $3); suppressed += $3}
    END {printf "errors %d; definitely lost %d bytes; suppressed (the engines'"'"' five plans) %d bytes", errors, lost, suppressed}'
}

log="$(mktemp -d /tmp/kelvane-valgrind-XXXXXX)"
status=0
for run in "${runs[@]}"; do
  IFS='|' read -r binary filter how <<<"$run"
  name="$(basename "$binary")"
  result=ok
  processes=0
  if [ "$how" = each ]; then
    while read -r case; do
      processes=$((processes + 1))
      memcheck "$build/tests/$binary" "$case" "$name" || { result=FAILED; status=1; }
    done < <(cases_of "$build/tests/$binary" "$filter")
  else
    processes=1
    memcheck "$build/tests/$binary" "$filter" "$name" || { result=FAILED; status=1; }
  fi
  printf '%-26s %-6s %4d process(es); %s\n' "$name" "$result" "$processes" "$(summarise "$name")"
done
echo "logs in $log"
exit $status
