// The mode dispatcher: chooses the stages of one write by In_Channels, Mode
// and Sample_Rate, runs them in place, and makes up the count of frames that
// the convolver swallowed when the Headphone mode is left.
#pragma once

#include <cstdint>

#include "signal/processor.h"

constexpr float kPassThroughGain = 0.707f;  // 0.7070000171661377, not 1/sqrt(2)
constexpr int32_t kHeadphoneRateLow = 44100;
constexpr int32_t kHeadphoneRateHigh = 48000;

void DispatchMode(ProcessorBlock& block);
// All six slots of every frame times 0.707.
void PassThrough(ProcessorBlock& block);
// The convolver's block, 8192 frames.
uint32_t BlockLength();
// Frames that the block would yield, counting what the convolver holds back.
uint32_t OutputFrames(const ProcessorBlock& block);
