// What a fuzzer does when a property fails: it says which, and where, and
// aborts, so that libFuzzer keeps the input.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition, what)                                                    \
    do {                                                                               \
        if (!(condition)) {                                                            \
            std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", what, __FILE__, __LINE__); \
            std::abort();                                                              \
        }                                                                              \
    } while (0)
