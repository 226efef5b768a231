// The matrix encoder ("Kelvane Encode (2/0) = L,R"): four to six channels
// fold into two, centre in phase on both, a band-limited and phase-shifted
// surround sum in phase on the left and in antiphase on the right.
#pragma once

#include "filters/second_order.h"
#include "signal/processor.h"

void DownmixFour(ProcessorBlock& block);
void DownmixFive(ProcessorBlock& block);
void DownmixSix(ProcessorBlock& block);
// Four all-pass steps on slot 3 of every frame, all on the one memory.
void SurroundPhaseChain(FilterState& memory, ProcessorBlock& block);
void EncodeMix(ProcessorBlock& block);
