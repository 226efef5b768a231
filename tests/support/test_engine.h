// The engine and settings record of a test process: one of each, built on
// first use, after the planner's wisdom has been loaded. Tests that need an
// engine of their own build one; these stand for the plug-in's instance.
#pragma once

#include "engine/engine.h"
#include "engine/pcm_conversion.h"
#include "signal/processor.h"

inline Engine& TestEngine()
{
    static Engine engine;
    return engine;
}

inline ProcessorSettingsRecord& TestSettings()
{
    static ProcessorSettingsRecord settings{};
    return settings;
}

// One write whose buffer holds exactly `frames` whole frames, as a host
// writes them: the conversion's run-on passes find nothing behind them.
inline void ConvertWholeFrames(Engine& engine, const ProcessorSettingsRecord& settings, const StreamWords& stream,
                               const uint8_t* source, uint32_t& frames)
{
    const uint32_t bytes = frames * stream.Stream_Channels * (stream.Stream_Bits / 8);
    ConvertAndProcess(engine, settings, stream, source, bytes, frames);
}
