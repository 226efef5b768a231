// The engine and settings record of a test process: one of each, built on
// first use, after the planner's wisdom has been loaded. Tests that need an
// engine of their own build one; these stand for the plug-in's instance.
#pragma once

#include "engine/engine.h"
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
