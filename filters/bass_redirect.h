// Bass redirection: the lows of L, R and C, taken out by complementary
// high-pass sections, summed into the LFE slot at a fixed -10 dB and the
// user's trim.
#pragma once

#include <cstdint>

#include "signal/processor.h"

// pow(10, trim x 0.05) x sign x 0.316, in double, rounded once.
float BassRedirectGain(int32_t bassTrim, int32_t bassInvert);

void BassRedirect(ProcessorBlock& block);
