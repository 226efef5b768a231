// The floating-point environment that the engine's arithmetic is built for,
// held for the length of one call from a host.
//
// Hosts may run their audio threads with denormals flushed to zero, or with
// another rounding mode, which would change the engine's output bits. On x86
// the scope saves the SSE control word, clears flush-to-zero and
// denormals-are-zero, selects round-to-nearest, and puts the host's word back
// at its end. Two instructions each way; no system call.
#pragma once

#if defined(__SSE__) || defined(__x86_64__) || defined(_M_X64)
#include <xmmintrin.h>

class FloatEnvironment {
public:
    FloatEnvironment() : saved_(_mm_getcsr()) { _mm_setcsr(saved_ & ~kHostChoices); }
    ~FloatEnvironment() { _mm_setcsr(saved_); }
    FloatEnvironment(const FloatEnvironment&) = delete;
    FloatEnvironment& operator=(const FloatEnvironment&) = delete;

private:
    static constexpr unsigned kFlushToZero = 0x8000;      // bit 15
    static constexpr unsigned kRoundingControl = 0x6000;  // bits 13-14; 0 is round to nearest
    static constexpr unsigned kDenormalsAreZero = 0x0040; // bit 6
    static constexpr unsigned kHostChoices = kFlushToZero | kRoundingControl | kDenormalsAreZero;
    unsigned saved_;  // the host's control word
};

#else

// Elsewhere the host's environment is taken as it is.
class FloatEnvironment {
public:
    FloatEnvironment() = default;
    FloatEnvironment(const FloatEnvironment&) = delete;
    FloatEnvironment& operator=(const FloatEnvironment&) = delete;
};

#endif
