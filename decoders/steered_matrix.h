// The steered matrix decoder ("Kelvane-AS" and "Kelvane-ASr"): a two-band
// active matrix whose coefficients follow the steering sample by sample.
#pragma once

#include <cstdint>

#include "decoders/steering_detect.h"
#include "filters/surround_tail.h"
#include "signal/processor.h"

// The four exponential terms of one band from its smoothed steering.
struct SteeringTerms {
    float eL;  // falls when left dominates
    float eR;  // falls when right dominates
    float eC;  // falls when centre dominates
    float eS;  // falls when surround dominates
};

SteeringTerms MakeSteeringTerms(float x, float y);

// Rows of the matrix, each (coefficient of l, coefficient of r).
struct SteeredRows {
    float frontLeft[2];
    float frontRight[2];
    float centre[2];
    float surround[2];       // one surround, Mode 2
    float leftSurround[2];   // other modes
    float rightSurround[2];  // other modes
};

SteeredRows MakeSteeredRows(const SteeringTerms& e);

void SteeredMatrixDecode(SteeringState& steering, SurroundTailState& tail, ProcessorBlock& block);
