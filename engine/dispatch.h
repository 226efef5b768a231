// The mode dispatcher: chooses the stages of one write by In_Channels, Mode
// and Sample_Rate, runs them in place, and makes up the count of frames that
// the convolver swallowed when the Headphone mode is left.
#pragma once

#include <cstdint>

#include "engine/engine.h"
#include "signal/mode.h"
#include "signal/processor.h"

constexpr float kPassThroughGain = 0.707f;  // 0.7070000171661377, not 1/sqrt(2)

// Runs the stages of the block's row on the engine's state. Write path.
void DispatchMode(Engine& engine, ProcessorBlock& block);
// All six slots of every frame times 0.707.
void PassThrough(ProcessorBlock& block);
// The convolver's block, 8192 frames.
uint32_t BlockLength();
// Frames that the block would yield, counting what the convolver holds back.
uint32_t OutputFrames(const Engine& engine, const ProcessorBlock& block);
