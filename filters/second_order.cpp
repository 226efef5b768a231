// Second-order sections. Each call forms its coefficients once, then runs the
// recursion in 32-bit float, one rounding per operation, in this order:
//
//   high-pass  y = a (x - 2 x1 + x2) - B1 y1 - B2 y2
//   low-pass   y = a (x + 2 x1 + x2) - B1 y1 - B2 y2
//
// The memory moves after y is written over x: x2 <- x1, y2 <- y1, x1 <- x,
// y1 <- y.
#include "filters/second_order.h"

#include <cmath>
#include <cstddef>

#include "signal/frame.h"

namespace {

constexpr float kPi = 3.14159274f;      // pi as a float, 3.1415927410125732
constexpr float kSqrt2 = 1.41421354f;   // 1.4142135381698608

// w = f x pi / fs, kept in double precision: the product and the quotient are
// not rounded to float.
double PrewarpAngle(float cutoff, int32_t sampleRate)
{
    return double(cutoff) * double(kPi) / double(sampleRate);
}

// The shared part of both coefficient sets, from c onward in float. `highPass`
// picks the sign of the (c squared minus one) term, the only difference.
SectionCoefficients FromC(float c, bool highPass)
{
    SectionCoefficients k;
    k.c = c;
    const float D = (c + kSqrt2) * c + 1.0f;
    k.a = 1.0f / D;
    const float q = c * c;
    const float e = (1.0f - c * kSqrt2) + q;
    k.B1 = highPass ? ((q - 1.0f) * k.a) * 2.0f : ((1.0f - q) * k.a) * 2.0f;
    k.B2 = e * k.a;
    return k;
}

}  // namespace

SectionCoefficients HighPassCoefficients(float cutoff, int32_t sampleRate)
{
    const float c = float(std::tan(PrewarpAngle(cutoff, sampleRate)));
    return FromC(c, true);
}

SectionCoefficients LowPassCoefficients(float cutoff, int32_t sampleRate)
{
    // The reciprocal is formed in double precision before the one rounding.
    const float c = float(1.0 / std::tan(PrewarpAngle(cutoff, sampleRate)));
    return FromC(c, false);
}

namespace {

// One sample of the high-pass recursion; moves the memory.
inline float HighPassStep(const SectionCoefficients& k, FilterState& m, float x)
{
    float t = m.x2 - m.x1 * 2.0f;
    t = t + x;
    t = t * k.a;
    t = t - m.y1 * k.B1;
    const float y = t - m.y2 * k.B2;
    m.x2 = m.x1;
    m.y2 = m.y1;
    m.x1 = x;
    m.y1 = y;
    return y;
}

// One sample of the low-pass recursion; moves the memory.
inline float LowPassStep(const SectionCoefficients& k, FilterState& m, float x)
{
    float t = m.x1 * 2.0f + x;
    t = t + m.x2;
    t = t * k.a;
    t = t - m.y1 * k.B1;
    const float y = t - m.y2 * k.B2;
    m.x2 = m.x1;
    m.y2 = m.y1;
    m.x1 = x;
    m.y1 = y;
    return y;
}

}  // namespace

void HighPass2(FilterState& state, float* base, uint32_t first, float cutoff, int32_t stride,
               const ProcessorBlock& block)
{
    const SectionCoefficients k = HighPassCoefficients(cutoff, block.Sample_Rate);
    FilterState m = state;  // held in registers over the loop
    // Indexed, so that a block of 0 frames forms no address in an array that
    // a first write of 0 frames has not made yet.
    const std::size_t step = std::size_t(stride);
    for (uint32_t i = 0; i < block.Frames; ++i) {
        float& x = base[first + i * step];
        x = HighPassStep(k, m, x);
    }
    state = m;
}

void LowPass2(FilterState& state, float* base, uint32_t first, float cutoff, int32_t stride,
              const ProcessorBlock& block)
{
    const SectionCoefficients k = LowPassCoefficients(cutoff, block.Sample_Rate);
    FilterState m = state;
    const std::size_t step = std::size_t(stride);
    for (uint32_t i = 0; i < block.Frames; ++i) {
        float& x = base[first + i * step];
        x = LowPassStep(k, m, x);
    }
    state = m;
}

void SplitHighPass2(FilterState& state, uint32_t slot, float* side, float cutoff,
                    const ProcessorBlock& block)
{
    const SectionCoefficients k = HighPassCoefficients(cutoff, block.Sample_Rate);
    FilterState m = state;
    float* p = block.Block->data + slot;
    for (uint32_t i = 0; i < block.Frames; ++i, p += kFrameFloats) {
        const float x = *p;
        const float y = HighPassStep(k, m, x);
        *p = y;
        // The removed part goes to the side array, which the caller cleared.
        const float d = x - y;
        side[i] = d + side[i];
    }
    state = m;
}
