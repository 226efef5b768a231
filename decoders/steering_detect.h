// Steering detector of the steered decoder: a band split at 1200 Hz and, per
// band, two smoothed log-ratio signals (left/right and centre/surround).
#pragma once

#include "filters/second_order.h"
#include "signal/processor.h"
#include "signal/sample_block.h"

// The steered decoder's memory and scratch, part of the engine. The arrays
// are made at first use and grow with the write; a reset leaves them alone.
struct SteeringState {
    FilterState BandFilter[2] = {};   // 1200 Hz band split, L and R
    FilterState SteerFilter[4] = {};  // 7.95 Hz smoothers: high x, high y, low x, low y
    SampleBlock HighBand;             // 2 x Frames, interleaved high band
    SampleBlock LowBand;              // 2 x Frames, interleaved low band
    SampleBlock SteerHighLR;          // Frames, x of the high band
    SampleBlock SteerHighCS;          // Frames, y of the high band
    SampleBlock SteerLowLR;           // Frames, x of the low band
    SampleBlock SteerLowCS;           // Frames, y of the low band
};

constexpr float kSteeringLeak = 0.1f;        // 0.10000000149011612
constexpr float kSteeringSmoother = 7.95f;   // 7.949999809265137 Hz

// Raw (unsmoothed) steering of one sample pair: x for left/right, y for
// centre (sum) against surround (difference), each within +-ln 10.
void SteeringPair(float l, float r, float& x, float& y);

// HighBand = 1200 Hz high-pass of slots 0 and 1; LowBand = input - HighBand.
void BandSplit(SteeringState& steering, ProcessorBlock& block);

// Detects x and y for every frame of the interleaved band, then smooths the
// two arrays in place with the 7.95 Hz low-pass.
void SteeringDetect(const ProcessorBlock& block, const float* band, FilterState& xState,
                    FilterState& yState, float* x, float* y);

// Both bands at once, as SteeringDetect on the high band with SteerFilter[0]
// and [1] and on the low band with [2] and [3] gives them: all four
// arrays detected, then the four smoothers side by side.
void SteeringDetectBands(SteeringState& steering, const ProcessorBlock& block);
