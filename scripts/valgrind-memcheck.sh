#!/usr/bin/env bash
# valgrind memcheck over one test binary of each unit of a normal build, with
# a representative choice of its cases: no invalid read or write, no use of
# an undefined value, and no leak but the five impulse plans that each engine
# leaves by design (scripts/sanitizers/valgrind.supp). Prints one line per
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

# binary (under tests/), the cases to run, and extra options, by unit. The
# binaries with an allocation counter (sample_block_test, surround_tail_test,
# engine_allocation_test) replace operator new in the program, which valgrind
# cannot follow; their units are reached through the binaries below, and the
# asan suite runs them. Cases that expect an allocation to fail are left out:
# valgrind aborts where the program would throw.
runs=(
  "filters/second_order_test|*|"
  "filters/bass_redirect_test|*|"
  "decoders/steered_matrix_test|*|"
  "encoders/matrix_encoder_test|*|"
  "encoders/headphone_convolver_test|*|"
  "engine/pcm_conversion_test|*|"
  "engine/dispatch_test|*|"
  "platform/reg_file_test|*:-*LargeFile*|"
  "platform/registry_test|*:-*Killed*|"
  "shell/shell_plugin_test|*|"
  "shell/chained_faults_test|*:-*FaultsTheProcess*|"
  "settings/settings_store_test|*:-*LargeFile*|"
  "settings/config_dialog_test|*|"
  "hosts/render/out_wav_test|*|"
)

# VALGRIND_ONLY=name runs only the binaries whose name matches.
if [ -n "${VALGRIND_ONLY:-}" ]; then
  chosen=()
  for run in "${runs[@]}"; do [[ "${run%%|*}" == *"$VALGRIND_ONLY"* ]] && chosen+=("$run"); done
  runs=("${chosen[@]}")
fi

log="$(mktemp -d /tmp/kelvane-valgrind-XXXXXX)"
status=0
for run in "${runs[@]}"; do
  IFS='|' read -r binary filter extra <<<"$run"
  name="$(basename "$binary")"
  # shellcheck disable=SC2086
  if valgrind $extra --tool=memcheck --leak-check=full --show-leak-kinds=definite,indirect \
       --errors-for-leak-kinds=definite,indirect --error-exitcode=99 --track-origins=yes --num-callers=64 \
       --trace-children=no --suppressions="$here/sanitizers/valgrind.supp" \
       --log-file="$log/$name.%p.log" \
       "$build/tests/$binary" --gtest_filter="$filter" --gtest_brief=1 >"$log/$name.out" 2>&1; then
    result=ok
  else
    result="FAILED (exit $?)"
    status=1
  fi
  main="$(ls -t "$log/$name".*.log | tail -1)"
  errors="$(sed -n 's/.*ERROR SUMMARY: \(.*\) (suppressed.*/\1/p' "$main")"
  leaked="$(sed -n 's/.*definitely lost: //p' "$main")"
  suppressed="$(sed -n 's/^==[0-9]*== *suppressed: //p' "$main")"
  printf '%-28s %-6s errors: %s; definitely lost: %s; suppressed (the design'"'"'s plans): %s\n' \
    "$name" "$result" "${errors:-?}" "${leaked:-0 bytes in 0 blocks}" "${suppressed:-0 bytes in 0 blocks}"
done
echo "logs in $log"
exit $status
