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
