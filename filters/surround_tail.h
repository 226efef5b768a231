// The surround tail shared by both decoders: SL and SR are low-passed at
// 7000 Hz and then delayed by Surround_Delay milliseconds in a ring.
#pragma once

#include <cstdint>

#include "filters/second_order.h"
#include "signal/processor.h"
#include "signal/sample_block.h"

// The tail's memory, part of the engine: it runs on from write to write.
struct SurroundTailState {
    FilterState SurroundFilter[2] = {};  // 7000 Hz low-pass on SL, SR
    SampleBlock SurroundDelayLine[2];    // rings of SL and SR, made at first use; cleared (not moved) by a reset
};

// Gate (SL or SR switch non-zero), then SurroundLowPass, then SurroundDelay.
void SurroundTail(SurroundTailState& tail, ProcessorBlock& block);
// 7000 Hz low-pass on slots 4 and 5; nothing below 44100 Hz.
void SurroundLowPass(SurroundTailState& tail, ProcessorBlock& block);
// DelayRun on slots 4 and 5 with Surround_Delay x 1000 microseconds; nothing at 0 ms.
void SurroundDelay(SurroundTailState& tail, ProcessorBlock& block);

// Ring length in samples for a delay in microseconds: truncated, so a whole
// number of samples comes out one short (10 ms at 44100 Hz is 440).
uint32_t DelayLength(int32_t sampleRate, uint32_t microseconds);

// Sets the ring's length (clearing it on any change) and exchanges it in
// place with one slot of block.Frames frames at `frames`, stride 6.
void DelayRun(SampleBlock& line, uint32_t microseconds, const ProcessorBlock& block, float* frames,
              uint32_t slot);
