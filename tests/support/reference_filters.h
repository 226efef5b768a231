// Float references of the second-order sections, for the tests to hold the
// filter stages against.
//
// Coefficients and recursions are spelled out one float operation at a time
// in their fixed evaluation order: w and the tangent in double, one rounding,
// then single precision throughout. A stage that follows the same steps
// matches these to the bit.
#pragma once

#include <cmath>
#include <cstdint>

#include "filters/second_order.h"

constexpr float kFloatPi = 3.14159274f;  // 3.1415927410125732
constexpr float kSqrtTwo = 1.41421354f;  // 1.4142135381698608

// Coefficient steps of a high-pass (lowPass false) or low-pass section.
inline SectionCoefficients ReferenceCoefficients(float cutoff, int32_t rate, bool lowPass)
{
    const double w = double(cutoff) * double(kFloatPi) / double(rate);
    SectionCoefficients k{};
    k.c = lowPass ? float(1.0 / std::tan(w)) : float(std::tan(w));
    const float D = (k.c + kSqrtTwo) * k.c + 1.0f;
    k.a = 1.0f / D;
    const float q = k.c * k.c;
    const float e = (1.0f - k.c * kSqrtTwo) + q;
    k.B1 = lowPass ? ((1.0f - q) * k.a) * 2.0f : ((q - 1.0f) * k.a) * 2.0f;
    k.B2 = e * k.a;
    return k;
}

// One sample of each recursion.
inline float ReferenceHighPassStep(FilterState& m, float x, const SectionCoefficients& k)
{
    float t = m.x2 - (m.x1 * 2.0f);
    t = t + x;
    t = t * k.a;
    t = t - (m.y1 * k.B1);
    const float y = t - (m.y2 * k.B2);
    m.x2 = m.x1;
    m.y2 = m.y1;
    m.x1 = x;
    m.y1 = y;
    return y;
}

inline float ReferenceLowPassStep(FilterState& m, float x, const SectionCoefficients& k)
{
    float t = (m.x1 * 2.0f) + x;
    t = t + m.x2;
    t = t * k.a;
    t = t - (m.y1 * k.B1);
    const float y = t - (m.y2 * k.B2);
    m.x2 = m.x1;
    m.y2 = m.y1;
    m.x1 = x;
    m.y1 = y;
    return y;
}

// A section with its own memory, starting from zero.
struct ReferenceSection {
    SectionCoefficients k;  // from ReferenceCoefficients
    FilterState m;          // memory carried from sample to sample
    bool lowPass;           // which of the two recursions it runs
};

inline ReferenceSection ReferenceHighPass(float cutoff, int32_t rate)
{
    return ReferenceSection{ReferenceCoefficients(cutoff, rate, false), FilterState{}, false};
}

inline ReferenceSection ReferenceLowPass(float cutoff, int32_t rate)
{
    return ReferenceSection{ReferenceCoefficients(cutoff, rate, true), FilterState{}, true};
}

inline float ReferenceStep(ReferenceSection& s, float x)
{
    return s.lowPass ? ReferenceLowPassStep(s.m, x, s.k) : ReferenceHighPassStep(s.m, x, s.k);
}

inline bool SameMemory(const FilterState& a, const FilterState& b)
{
    return a.x1 == b.x1 && a.x2 == b.x2 && a.y1 == b.y1 && a.y2 == b.y2;
}
