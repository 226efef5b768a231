// The headphone convolver ("Kelvane Headphone (2/0) = L,R"): five speakers to
// two ears by overlap-add convolution with six binaural impulse responses,
// 8192-frame blocks, 16384-point FFTW transforms.
#pragma once

#include <cstdint>

#include "signal/block_helper.h"
#include "signal/processor.h"
#include "signal/sample_block.h"

// FFTW's opaque plan, as fftw3.h declares it.
struct fftwf_plan_s;
using FftPlan = fftwf_plan_s*;

constexpr uint32_t kBlockFrames = 8192;       // frames per block, length of a table
constexpr uint32_t kTransformLength = 16384;  // real points of every transform
constexpr uint32_t kSpectrumFloats = 16386;   // 8193 complex bins in place

// The convolver's arrays, plans and hold-back, part of the engine. Every array
// but EarBlock is made with the engine, and every plan with it.
struct HeadphoneConvolver {
    SampleBlock ImpulseSpectrum[6];  // transforms of the six impulse tables, 16386 floats each
    SampleBlock EarBlock;            // 16384 per block of a write, ears interleaved; made at first use
    SampleBlock InputBlock[5];       // L, R, C, SL, SR collection and transform, 16386 floats each
    SampleBlock OverlapBlock;        // 16384, the previous block's tail; cleared by a reset
    SampleBlock ProductBlock[10];    // one spectrum product each, 16386 floats each
    uint32_t Pending_Frames = 0;     // frames held back, 0..8191; dropped by a reset

    FftPlan ImpulsePlan = nullptr;   // overwritten for each of the six tables; the first five are never destroyed
    FftPlan InputPlan[5] = {};       // forward, one per InputBlock
    FftPlan ProductPlan[10] = {};    // inverse, one per ProductBlock

    BlockHelper* Helper = nullptr;   // offered SL and SR of each block beside the caller; none: all on the caller
};

// Part of the engine's construction: transforms the six tables and makes the
// plans of the input and product blocks. Load time only.
void BuildHeadphoneConvolver(HeadphoneConvolver& convolver);
// Destroys the five input plans, the impulse plan, then the ten product plans.
void DestroyHeadphonePlans(HeadphoneConvolver& convolver);

void ConvolveHeadphone(HeadphoneConvolver& convolver, ProcessorBlock& block);
