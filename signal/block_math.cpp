// Logarithms and exponentials of arrays, rounded to float as the C library's.
//
// The lanes follow the well-known argument reductions: for the logarithm
// x = 2^k m with m in [sqrt(1/2), sqrt(2)), ln x = k ln 2 + ln m, where
// ln m comes from s = (m - 1) / (m + 1) and a polynomial in s^2; for the
// exponential x = k ln 2 + r with |r| <= ln 2 / 2, exp x = 2^k exp r, where
// exp r comes from a rational form in r. ln 2 is split in a high part with
// trailing zeros and a low part, so k ln 2 is exact to double precision.
// Every operation is a plain IEEE operation of the vector unit, never
// contracted, so the lanes give the same doubles on every processor.
#include "signal/block_math.h"

#include <cfloat>
#include <cmath>
#include <cstring>

// Every function that takes or returns a wide vector is inlined into its
// caller, so the calling convention of wide vectors, which differs between
// vector units, never comes into play.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace {

constexpr int kLanes = 8;
typedef double Doubles __attribute__((vector_size(kLanes * sizeof(double))));
typedef uint64_t Words __attribute__((vector_size(kLanes * sizeof(uint64_t))));
typedef float Floats __attribute__((vector_size(kLanes * sizeof(float))));

constexpr double kLn2High = 6.93147180369123816490e-01;  // ln 2 with its last 32 bits zero
constexpr double kLn2Low = 1.90821492927058770002e-10;   // ln 2 - kLn2High
constexpr double kInvLn2 = 1.44269504088896338700e+00;
constexpr double kRoundToInteger = 6755399441055744.0;   // 1.5 x 2^52: adding it rounds to an integer
constexpr double kExponentBase = 4503599627370496.0 + 1023.0;  // 2^52 plus the exponent bias

// The polynomial of ln m in s^2, and of exp r in r^2.
constexpr double kLg1 = 6.666666666666735130e-01, kLg2 = 3.999999999940941908e-01;
constexpr double kLg3 = 2.857142874366239149e-01, kLg4 = 2.222219843214978396e-01;
constexpr double kLg5 = 1.818357216161805012e-01, kLg6 = 1.531383769920937332e-01;
constexpr double kLg7 = 1.479819860511658591e-01;
constexpr double kP1 = 1.66666666666666019037e-01, kP2 = -2.77777777770155933842e-03;
constexpr double kP3 = 6.61375632143793436117e-05, kP4 = -1.65339022054652515390e-06;
constexpr double kP5 = 4.13813679705723846039e-08;

// The exponential's lanes are used where the result is a normal float, whose
// rounding drops exactly 29 bits of the double.
constexpr double kExpLowest = -87.0;
constexpr double kExpHighest = 87.0;

constexpr uint64_t kMantissaMask = 0x000FFFFFFFFFFFFFull;
constexpr uint64_t kExponentOne = 0x3FF0000000000000ull;
// Added to the mantissa, it carries into bit 52 when m is at or above
// sqrt(2) (high word 0x6A09C and up); m is then halved and k raised by one.
constexpr uint64_t kSqrtTwoCarry = 0x00095F6400000000ull;
constexpr uint64_t kImplicitBit = 0x0010000000000000ull;
constexpr uint64_t kExponentHalf = 0x4330000000000000ull;     // the bits of 2^52
constexpr uint64_t kRoundedIntegerBits = 0x4338000000000000ull;  // the bits of 1.5 x 2^52

// Low 29 bits of a double: the part that rounding to float drops. The
// boundary is at 2^28.
constexpr uint32_t kDroppedMask = 0x1FFFFFFFu;
constexpr uint32_t kDroppedHalf = 0x10000000u;

// The ranges as bits: positive normal finite doubles run from the bits of
// DBL_MIN over kNormalSpan values; the exponential's bound is 87.
constexpr uint64_t kSmallestNormalBits = 0x0010000000000000ull;
constexpr uint64_t kNormalSpan = 0x7FE0000000000000ull;
constexpr uint64_t kMagnitudeMask = 0x7FFFFFFFFFFFFFFFull;
constexpr uint64_t kExpBoundBits = 0x4055C00000000000ull;  // 87.0

__attribute__((always_inline)) inline Doubles LogLanes(Doubles x)
{
    const Words bits = reinterpret_cast<Words>(x);
    const Words mantissa = bits & kMantissaMask;
    const Words carry = (mantissa + kSqrtTwoCarry) & kImplicitBit;
    const Doubles m = reinterpret_cast<Doubles>(mantissa | (kExponentOne ^ carry));
    const Words exponent = (bits >> 52) + (carry >> 52);
    const Doubles k = reinterpret_cast<Doubles>(exponent | kExponentHalf) - kExponentBase;

    const Doubles f = m - 1.0;
    const Doubles hfsq = 0.5 * f * f;
    const Doubles s = f / (2.0 + f);
    const Doubles z = s * s;
    const Doubles w = z * z;
    const Doubles t1 = w * (kLg2 + w * (kLg4 + w * kLg6));
    const Doubles t2 = z * (kLg1 + w * (kLg3 + w * (kLg5 + w * kLg7)));
    const Doubles R = t2 + t1;
    return k * kLn2High - ((hfsq - (s * (hfsq + R) + k * kLn2Low)) - f);
}

__attribute__((always_inline)) inline Doubles ExpLanes(Doubles x)
{
    const Doubles shifted = x * kInvLn2 + kRoundToInteger;
    const Doubles k = shifted - kRoundToInteger;
    const Doubles hi = x - k * kLn2High;
    const Doubles lo = k * kLn2Low;
    const Doubles r = hi - lo;
    const Doubles t = r * r;
    const Doubles c = r - t * (kP1 + t * (kP2 + t * (kP3 + t * (kP4 + t * kP5))));
    const Doubles y = 1.0 - ((lo - (r * c) / (2.0 - c)) - hi);
    // 2^k from k's bits in the rounded sum: (k + 1023) << 52.
    const Words scale = (reinterpret_cast<Words>(shifted) - kRoundedIntegerBits + 1023u) << 52;
    return y * reinterpret_cast<Doubles>(scale);
}

inline bool NearBoundary(double value)
{
    uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    const uint32_t dropped = uint32_t(bits) & kDroppedMask;
    return dropped - (kDroppedHalf - kRoundingMargin) <= 2 * kRoundingMargin;
}

inline bool LogDomain(double x)
{
    return x >= DBL_MIN && x <= DBL_MAX;
}

inline bool ExpDomain(double x)
{
    return x >= kExpLowest && x <= kExpHighest;
}

// The flags of one group, 1 in the lanes to take again from the library:
// those whose result lies near a float rounding boundary and those whose
// argument is outside the lanes' range. Whole-number operations only, so
// that every vector unit does them in its lanes.
__attribute__((always_inline)) inline Words RedoLanes(Doubles x, Doubles y, bool logarithm)
{
    const Words bits = reinterpret_cast<Words>(y);
    // dropped - (half - margin) from 0 to 2 margin: not wrapped below 0,
    // and a borrow into bit 63 when 2 margin + 1 is taken away.
    const Words t = (bits & kDroppedMask) - (kDroppedHalf - kRoundingMargin);
    const Words near = ((t - (2 * kRoundingMargin + 1)) >> 63) & ~(t >> 63);
    const Words a = reinterpret_cast<Words>(x);
    Words inside;
    if (logarithm) {
        // A positive normal finite double: its bits from those of DBL_MIN
        // up to those of DBL_MAX.
        const Words from = a - kSmallestNormalBits;
        inside = ((from - kNormalSpan) >> 63) & ~(from >> 63);
    } else {
        // |x| no larger than the bound, NaN not at all.
        inside = ((a & kMagnitudeMask) - (kExpBoundBits + 1)) >> 63;
    }
    return near | (inside ^ 1u);
}

template <Doubles (*Lanes)(Doubles), double (*Library)(double), bool (*Domain)(double)>
__attribute__((always_inline)) inline void Group(const double* x, float* out, uint32_t n, bool logarithm)
{
    Doubles v = {0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5};  // a harmless argument for both functions
    if (n == kLanes)
        std::memcpy(&v, x, sizeof v);
    else
        for (uint32_t k = 0; k < n; ++k)
            v[k] = x[k];
    const Doubles y = Lanes(v);
    const Floats f = __builtin_convertvector(y, Floats);
    Words redo = RedoLanes(v, y, logarithm);
    redo |= __builtin_shufflevector(redo, redo, 4, 5, 6, 7, 0, 1, 2, 3);
    redo |= __builtin_shufflevector(redo, redo, 2, 3, 0, 1, 6, 7, 4, 5);
    redo |= __builtin_shufflevector(redo, redo, 1, 0, 3, 2, 5, 4, 7, 6);
    if (n == kLanes && redo[0] == 0) {
        std::memcpy(out, &f, sizeof f);
        return;
    }
    // The rare group: element by element.
    for (uint32_t k = 0; k < n; ++k)
        out[k] = NearBoundary(y[k]) || !Domain(x[k]) ? float(Library(x[k])) : f[k];
}

template <Doubles (*Lanes)(Doubles), double (*Library)(double), bool (*Domain)(double)>
__attribute__((always_inline)) inline void Run(const double* x, float* out, uint32_t count, bool logarithm)
{
    uint32_t i = 0;
    for (; i + kLanes <= count; i += kLanes)
        Group<Lanes, Library, Domain>(x + i, out + i, kLanes, logarithm);
    if (i < count)
        Group<Lanes, Library, Domain>(x + i, out + i, count - i, logarithm);
}

double LibraryLog(double x)
{
    return std::log(x);
}

double LibraryExp(double x)
{
    return std::exp(x);
}

}  // namespace

bool NearFloatBoundary(double value)
{
    return NearBoundary(value);
}

KELVANE_VECTOR_CLONES void LogToFloat(const double* x, float* out, uint32_t count)
{
    Run<LogLanes, LibraryLog, LogDomain>(x, out, count, true);
}

KELVANE_VECTOR_CLONES void ExpToFloat(const double* x, float* out, uint32_t count)
{
    Run<ExpLanes, LibraryExp, ExpDomain>(x, out, count, false);
}
