// Second-order Butterworth sections from the bilinear transform, run in place
// over one block in single precision.
//
// Every filter of the signal path is one of these. Coefficients are never
// stored: each call forms them afresh from the cut-off and the sample rate
// (tangent in double precision, rounded once), then runs the recursion in
// 32-bit float in a fixed order. That order matters: the 7.95 Hz smoother of
// the steering detector sits so near the stability edge that its resting
// point depends on each rounding. The stride lets one section walk one
// channel of interleaved frames.
#pragma once

#include <cstdint>

#include "signal/processor.h"

// Memory of one section.
struct FilterState {
    float x1;  // previous input sample
    float x2;  // input sample before that
    float y1;  // previous output sample
    float y2;  // output sample before that
};

// Coefficients of one call, as the recursion uses them.
struct SectionCoefficients {
    float c;   // tan(w) for the high-pass forms, 1 / tan(w) for the low-pass
    float a;   // normalised feed-forward gain
    float B1;  // first feedback coefficient (subtracted)
    float B2;  // second feedback coefficient (subtracted)
};

SectionCoefficients HighPassCoefficients(float cutoff, int32_t sampleRate);
SectionCoefficients LowPassCoefficients(float cutoff, int32_t sampleRate);

// The part both recursions share, from the sum of the inputs t on: times
// a, less B1 y1, less B2 y2; then the memory moves. T is a float, or a
// vector of floats for sections side by side, each lane with its own memory;
// Memory has the fields of FilterState in T.
template <class T, class Memory>
inline T Feedback(const SectionCoefficients& k, Memory& m, T t, T x)
{
    t = t * k.a;
    t = t - m.y1 * k.B1;
    const T y = t - m.y2 * k.B2;
    m.x2 = m.x1;
    m.y2 = m.y1;
    m.x1 = x;
    m.y1 = y;
    return y;
}

// One sample of each recursion, in the order above; moves the memory.
template <class T, class Memory>
inline T HighPassStep(const SectionCoefficients& k, Memory& m, T x)
{
    T t = m.x2 - m.x1 * 2.0f;
    t = t + x;
    return Feedback(k, m, t, x);
}

template <class T, class Memory>
inline T LowPassStep(const SectionCoefficients& k, Memory& m, T x)
{
    T t = m.x1 * 2.0f + x;
    t = t + m.x2;
    return Feedback(k, m, t, x);
}

// Both process exactly block.Frames samples at base[first], base[first +
// stride], ...; Sample_Rate and Frames are read from the block.
void HighPass2(FilterState& state, float* base, uint32_t first, float cutoff, int32_t stride,
               const ProcessorBlock& block);
void LowPass2(FilterState& state, float* base, uint32_t first, float cutoff, int32_t stride,
              const ProcessorBlock& block);

// High-pass on one slot of the frames behind block.Block (stride 6), adding
// the removed part, input minus output, to side[i] for each frame i.
void SplitHighPass2(FilterState& state, uint32_t slot, float* side, float cutoff,
                    const ProcessorBlock& block);

// One section of several that run side by side: its memory and its first
// sample.
struct SectionLane {
    FilterState* state;
    float* samples;
};

// N sections of one kind and cut-off in one loop, each over block.Frames
// samples at its own pointer with the common stride. Every section keeps its
// own memory and order of operations, so the result is that of N separate
// calls; the independent recursions only overlap in the processor.
template <int N>
void HighPass2Lanes(const SectionLane (&lanes)[N], int32_t stride, float cutoff, const ProcessorBlock& block);
template <int N>
void LowPass2Lanes(const SectionLane (&lanes)[N], int32_t stride, float cutoff, const ProcessorBlock& block);

// SplitHighPass2 on N slots of the frames in one loop; the removed parts
// are added to side[i] in the order of the slots, as N calls would add them.
template <int N>
void SplitHighPass2Lanes(FilterState* const (&states)[N], const uint32_t (&slots)[N], float* side, float cutoff,
                         const ProcessorBlock& block);
