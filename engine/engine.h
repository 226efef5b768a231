// EngineState: the one object of all processing state, built at library load
// (where every FFT plan is made and the impulse tables are transformed) and
// torn down at unloading. Filter memories and delay rings run on from write
// to write and from track to track; EngineReset clears what must not sound
// across a break in the audio.
#pragma once

#include <cstdint>

#include "filters/second_order.h"
#include "signal/sample_block.h"

// FFTW's opaque plan, as fftw3.h declares it.
struct fftwf_plan_s;
using FftPlan = fftwf_plan_s*;

struct EngineStateRecord {
    // Filter memories, cleared by EngineReset.
    FilterState BassFilter[3];      // split high-pass on L, R, C (bass redirection)
    FilterState SurroundFilter[2];  // 7000 Hz low-pass on SL, SR (surround tail)
    FilterState LfeHighPass;        // encoder: 100 Hz high-pass on slot 3
    FilterState LfeLowPass;         // encoder: 7000 Hz low-pass on slot 3
    FilterState LfeChain;           // encoder: the phase chain's one shared memory
    FilterState BandFilter[2];      // 1200 Hz band split, L and R
    FilterState SteerFilter[4];     // 7.95 Hz smoothers: high x, high y, low x, low y

    // Arrays, made at first use unless noted.
    SampleBlock SurroundDelayLine[2];  // rings of SL and SR; cleared (not moved) by EngineReset
    SampleBlock HighBand;              // 2 x Frames, interleaved high band
    SampleBlock LowBand;               // 2 x Frames, interleaved low band
    SampleBlock SteerHighLR;           // Frames, x of the high band
    SampleBlock SteerHighCS;           // Frames, y of the high band
    SampleBlock SteerLowLR;            // Frames, x of the low band
    SampleBlock SteerLowCS;            // Frames, y of the low band
    SampleBlock BassSum;               // Frames, sum of the removed bass
    SampleBlock ImpulseSpectrum[6];    // constructor: transforms of the six impulse tables
    SampleBlock EarBlock;              // 16384 per block of a write, ears interleaved
    SampleBlock InputBlock[5];         // constructor: L, R, C, SL, SR collection and transform
    SampleBlock OverlapBlock;          // constructor: 16384, the previous block's tail
    SampleBlock ProductBlock[10];      // constructor: one spectrum product each

    uint32_t Pending_Frames;  // frames held back by the convolver, 0..8191

    // The FFT plans, made at construction and living as long as the object.
    FftPlan ImpulsePlan;     // overwritten for each of the six tables; the first five are never destroyed
    FftPlan InputPlan[5];    // forward, one per InputBlock
    FftPlan ProductPlan[10]; // inverse, one per ProductBlock

    EngineStateRecord();
    ~EngineStateRecord();
    EngineStateRecord(const EngineStateRecord&) = delete;
    EngineStateRecord& operator=(const EngineStateRecord&) = delete;
};

extern EngineStateRecord EngineState;

// Clears all filter memories, the overlap and both delay rings, and drops the
// frames the convolver holds back.
void EngineReset();
// The same on a given state object.
void ResetEngineState(EngineStateRecord& engine);
