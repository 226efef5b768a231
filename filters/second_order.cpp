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
#include "signal/lanes.h"

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

// Four sections in the four lanes of one vector: every lane keeps its own
// memory and the scalar order of operations.
struct LaneMemory {
    Floats x1, x2, y1, y2;
};

template <bool HighPass>
void RunFourLanes(const SectionLane (&lanes)[4], int32_t stride, const SectionCoefficients& k, uint32_t frames)
{
    LaneMemory m;
    for (int j = 0; j < 4; ++j) {
        m.x1[j] = lanes[j].state->x1;
        m.x2[j] = lanes[j].state->x2;
        m.y1[j] = lanes[j].state->y1;
        m.y2[j] = lanes[j].state->y2;
    }
    float* p0 = lanes[0].samples;
    float* p1 = lanes[1].samples;
    float* p2 = lanes[2].samples;
    float* p3 = lanes[3].samples;
    for (uint32_t i = 0; i < frames; ++i, p0 += stride, p1 += stride, p2 += stride, p3 += stride) {
        const Floats x = {*p0, *p1, *p2, *p3};
        const Floats y = HighPass ? HighPassStep(k, m, x) : LowPassStep(k, m, x);
        *p0 = y[0];
        *p1 = y[1];
        *p2 = y[2];
        *p3 = y[3];
    }
    for (int j = 0; j < 4; ++j)
        *lanes[j].state = FilterState{m.x1[j], m.x2[j], m.y1[j], m.y2[j]};
}

template <int N, float (*Step)(const SectionCoefficients&, FilterState&, float)>
void RunLanes(const SectionLane (&lanes)[N], int32_t stride, const SectionCoefficients& k, uint32_t frames)
{
    FilterState m[N];  // held in registers over the loop
    float* p[N];
#pragma GCC unroll 4
    for (int j = 0; j < N; ++j) {
        m[j] = *lanes[j].state;
        p[j] = lanes[j].samples;
    }
    for (uint32_t i = 0; i < frames; ++i) {
#pragma GCC unroll 4
        for (int j = 0; j < N; ++j) {
            *p[j] = Step(k, m[j], *p[j]);
            p[j] += stride;
        }
    }
    for (int j = 0; j < N; ++j)
        *lanes[j].state = m[j];
}

}  // namespace

template <int N>
void HighPass2Lanes(const SectionLane (&lanes)[N], int32_t stride, float cutoff, const ProcessorBlock& block)
{
    RunLanes<N, HighPassStep<float, FilterState>>(lanes, stride, HighPassCoefficients(cutoff, block.Sample_Rate), block.Frames);
}

template <int N>
void LowPass2Lanes(const SectionLane (&lanes)[N], int32_t stride, float cutoff, const ProcessorBlock& block)
{
    const SectionCoefficients k = LowPassCoefficients(cutoff, block.Sample_Rate);
    if constexpr (N == 4)
        RunFourLanes<false>(lanes, stride, k, block.Frames);
    else
        RunLanes<N, LowPassStep<float, FilterState>>(lanes, stride, k, block.Frames);
}

template void HighPass2Lanes<2>(const SectionLane (&)[2], int32_t, float, const ProcessorBlock&);
template void LowPass2Lanes<2>(const SectionLane (&)[2], int32_t, float, const ProcessorBlock&);
template void LowPass2Lanes<4>(const SectionLane (&)[4], int32_t, float, const ProcessorBlock&);

void HighPass2(FilterState& state, float* base, uint32_t first, float cutoff, int32_t stride,
               const ProcessorBlock& block)
{
    // A block of 0 frames changes no memory; returning first forms no
    // address in an array that a first write of 0 frames has not made yet.
    if (block.Frames == 0)
        return;
    const SectionLane lane[1] = {{&state, base + first}};
    RunLanes<1, HighPassStep<float, FilterState>>(lane, stride, HighPassCoefficients(cutoff, block.Sample_Rate), block.Frames);
}

void LowPass2(FilterState& state, float* base, uint32_t first, float cutoff, int32_t stride,
              const ProcessorBlock& block)
{
    // A block of 0 frames changes no memory; returning first forms no
    // address in an array that a first write of 0 frames has not made yet.
    if (block.Frames == 0)
        return;
    const SectionLane lane[1] = {{&state, base + first}};
    RunLanes<1, LowPassStep<float, FilterState>>(lane, stride, LowPassCoefficients(cutoff, block.Sample_Rate), block.Frames);
}

template <int N>
void SplitHighPass2Lanes(FilterState* const (&states)[N], const uint32_t (&slots)[N], float* side, float cutoff,
                         const ProcessorBlock& block)
{
    const SectionCoefficients k = HighPassCoefficients(cutoff, block.Sample_Rate);
    FilterState m[N];
    for (int j = 0; j < N; ++j)
        m[j] = *states[j];
    float* f = block.Block->data;
    for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
        float s = side[i];
#pragma GCC unroll 4
        for (int j = 0; j < N; ++j) {
            const float x = f[slots[j]];
            const float y = HighPassStep(k, m[j], x);
            f[slots[j]] = y;
            // The removed part goes to the side array, which the caller cleared.
            const float d = x - y;
            s = d + s;
        }
        side[i] = s;
    }
    for (int j = 0; j < N; ++j)
        *states[j] = m[j];
}

template void SplitHighPass2Lanes<3>(FilterState* const (&)[3], const uint32_t (&)[3], float*, float,
                                     const ProcessorBlock&);

void SplitHighPass2(FilterState& state, uint32_t slot, float* side, float cutoff,
                    const ProcessorBlock& block)
{
    FilterState* const states[1] = {&state};
    const uint32_t slots[1] = {slot};
    SplitHighPass2Lanes<1>(states, slots, side, cutoff, block);
}
