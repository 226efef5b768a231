# The sanitizers' run-time options, for every program of the sanitizer
# builds: the tests (through the CTest presets, which set the same), the
# fuzzers and the soak. Sourced, not run.
#
# Stacks are unwound the slow way at every allocation, so that the stack of
# a leak reaches through FFTW (built without frame pointers) to the engine
# function that made the plan, where the suppressions file names it.
_kelvane_sanitizers="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=64:detect_stack_use_after_return=1:strict_init_order=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export LSAN_OPTIONS="${LSAN_OPTIONS:-suppressions=$_kelvane_sanitizers/lsan.supp:print_suppressions=0}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$_kelvane_sanitizers/tsan.supp}"
unset _kelvane_sanitizers
