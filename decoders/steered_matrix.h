// The steered matrix decoder ("Kelvane-AS" and "Kelvane-ASr"): a two-band
// active matrix whose coefficients follow the steering sample by sample.
#pragma once

#include <cstdint>

#include "decoders/steering_detect.h"
#include "filters/surround_tail.h"
#include "signal/processor.h"

// The four exponential terms of one band from its smoothed steering; T is a
// float, or a vector of floats for several frames at once.
template <class T>
struct SteeringTermsOf {
    T eL;  // falls when left dominates
    T eR;  // falls when right dominates
    T eC;  // falls when centre dominates
    T eS;  // falls when surround dominates
};
using SteeringTerms = SteeringTermsOf<float>;

SteeringTerms MakeSteeringTerms(float x, float y);

// Rows of the matrix, each (coefficient of l, coefficient of r).
template <class T>
struct SteeredRowsOf {
    T frontLeft[2];
    T frontRight[2];
    T centre[2];
    T surround[2];       // one surround, Mode 2
    T leftSurround[2];   // other modes
    T rightSurround[2];  // other modes
};
using SteeredRows = SteeredRowsOf<float>;

SteeredRows MakeSteeredRows(const SteeringTerms& e);

void SteeredMatrixDecode(SteeringState& steering, SurroundTailState& tail, ProcessorBlock& block);
