// The headphone convolver ("Kelvane Headphone (2/0) = L,R"): five speakers to
// two ears by overlap-add convolution with six binaural impulse responses,
// 8192-frame blocks, 16384-point FFTW transforms.
#pragma once

#include <cstdint>

#include "signal/processor.h"

struct EngineStateRecord;

constexpr uint32_t kBlockFrames = 8192;       // frames per block, length of a table
constexpr uint32_t kTransformLength = 16384;  // real points of every transform
constexpr uint32_t kSpectrumFloats = 16386;   // 8193 complex bins in place

// Part of the engine's construction: transforms the six tables and makes the
// plans of the input and product blocks. Load time only.
void BuildHeadphoneConvolver(EngineStateRecord& engine);
// Destroys the five input plans, the impulse plan, then the ten product plans.
void DestroyHeadphonePlans(EngineStateRecord& engine);

void ConvolveHeadphone(ProcessorBlock& block);
