// Levels before the output conversion. The plug-in's record shows only the
// PCM that leaves it, where a sample over full scale has already wrapped to
// the other extreme; so the renderer runs an engine of its own in this
// process beside the plug-in, fed the same writes with the same settings
// and the same stream words, and reads the frames that it leaves behind
// before their conversion: six floats a frame, 1.0 being the level that
// leaves at 0.85 of full scale.
#pragma once

#include <cstdint>
#include <memory>

#include "engine/engine.h"
#include "signal/processor.h"

struct EngineMeter {
    std::unique_ptr<Engine> engine;     // built on first use; building it makes the FFT plans
    ProcessorSettingsRecord settings;   // as the processor loads them at Init
    StreamWords stream;                 // as the processor latches them at Open
};

// Builds the engine (once) and loads the settings from the processor's key,
// as the plug-in's Init does. The key must be in place.
void StartEngineMeter(EngineMeter& meter);

// The stream of the next file, as Open latches it.
void OpenEngineMeter(EngineMeter& meter, int rate, int channels, int bits);

// What the processor does at a reset (Stop and Play, Quit).
void ResetEngineMeter(EngineMeter& meter);

// Processes one write of `bytes` bytes at `source`, as the plug-in's Write
// gets it. Returns the frames that the write yields, six floats each, and
// their count in `out_frames`.
const float* MeterWrite(EngineMeter& meter, const uint8_t* source, uint32_t bytes, uint32_t& out_frames);

// True when a float before the conversion does not fit an output word of
// `bits` bits: the conversion multiplies by 0.85 of full scale and truncates
// toward zero, so a product of full scale or more, or one step or more past
// negative full scale, wraps (and so does NaN).
bool OverFullScale(float sample, int bits);

// The word's limits of that test: the factor of the conversion and the two
// bounds of the product, worked out once for a run of samples.
struct FullScaleLimits {
    float scale;
    double high;   // full scale: this or more wraps
    double low;    // one step past negative full scale: this or less wraps
};

FullScaleLimits FullScaleOf(int bits);
