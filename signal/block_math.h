// Natural logarithms and exponentials of whole arrays, formed in double
// precision and rounded once to float: element for element the float that
// float(std::log(x)) and float(std::exp(x)) of the C library give, but four
// elements at a time.
//
// Each group of four is evaluated with the classic argument reduction and
// polynomial (error well under two units in the last place of a double).
// Such a result rounds to the same float as the library's unless the two lie
// on either side of a rounding boundary, the midpoint between two floats, so
// every result that falls within a wide margin of a boundary, and every
// argument outside the range the polynomial is made for, is computed again
// with the library itself. The floats are therefore the library's by
// construction, whichever last bit the library gets in double precision.
#pragma once

#include <cstdint>

// Where the loader can pick a function by processor (ELF's indirect
// functions), a function so marked is built again for the wider vector
// units too. Only plain IEEE operations are ever used, none contracted, so
// every build gives the same results. GCC only: clang (the sanitizer and
// fuzzing builds) makes no indirect function that other files can call.
#if defined(__ELF__) && defined(__x86_64__) && !defined(__clang__)
#define KELVANE_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define KELVANE_VECTOR_CLONES
#endif

// Distance from a rounding boundary, in units in the last place of the double
// result, inside which the library is asked instead. Far above the error of
// both evaluations, and still only about one result in a quarter million.
constexpr uint32_t kRoundingMargin = 1024;

// out[i] = float(std::log(x[i])) for i below count. Write path.
void LogToFloat(const double* x, float* out, uint32_t count);

// out[i] = float(std::exp(x[i])) for i below count. Write path.
void ExpToFloat(const double* x, float* out, uint32_t count);

// The double result's bits lie within kRoundingMargin units of the midpoint
// between the two floats it falls between.
bool NearFloatBoundary(double value);
