// The matrix encoder ("Kelvane Encode (2/0) = L,R"): four to six channels
// fold into two, centre in phase on both, a band-limited and phase-shifted
// surround sum in phase on the left and in antiphase on the right.
#pragma once

#include "filters/second_order.h"
#include "signal/processor.h"

// The encoder's filter memories, part of the engine.
struct MatrixEncoderState {
    FilterState LfeHighPass = {};  // 100 Hz high-pass on slot 3
    FilterState LfeLowPass = {};   // 7000 Hz low-pass on slot 3
    FilterState LfeChain = {};     // the phase chain's one shared memory
};

void DownmixFour(ProcessorBlock& block);
void DownmixFive(ProcessorBlock& block);
void DownmixSix(ProcessorBlock& block);
// Four all-pass steps on slot 3 of every frame, all on the one memory.
void SurroundPhaseChain(FilterState& memory, ProcessorBlock& block);
void EncodeMix(MatrixEncoderState& encoder, ProcessorBlock& block);
