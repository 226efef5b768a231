// Bass redirection: the lows of L, R and C, taken out by complementary
// high-pass sections, summed into the LFE slot at a fixed -10 dB and the
// user's trim.
#pragma once

#include <cstdint>

#include "filters/second_order.h"
#include "signal/processor.h"
#include "signal/sample_block.h"

// The redirection's memory, part of the engine.
struct BassRedirectState {
    FilterState BassFilter[3] = {};  // split high-pass on L, R, C
    SampleBlock BassSum;             // Frames floats, the sum of the removed bass; made at first use
};

// pow(10, trim x 0.05) x sign x 0.316, in double, rounded once.
float BassRedirectGain(int32_t bassTrim, int32_t bassInvert);

void BassRedirect(BassRedirectState& bass, ProcessorBlock& block);
