// The fixed matrix decoder ("Kelvane+C (3/1) = L,R,C,S"): stereo to L, R, C
// and one surround through a constant six-by-two matrix.
#pragma once

#include "filters/surround_tail.h"
#include "signal/processor.h"

constexpr int kMatrixFloats = 12;  // six rows of (left, right)

void LoadFixedMatrix(float matrix[kMatrixFloats]);
void ApplyMatrix6x2(const float matrix[kMatrixFloats], ProcessorBlock& block);
void FixedMatrixDecode(SurroundTailState& tail, ProcessorBlock& block);
