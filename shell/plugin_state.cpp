// The plug-in's one instance: the engine, the helper thread that takes a
// share of its headphone blocks, the live settings, the link to the chained
// plug-in and the reset request, static objects that live as long as the
// library. The engine is built here at library load, which makes every FFT
// plan and transforms the impulse tables, ahead of all host calls; the
// helper runs from Init to Quit (and is stopped before the engine goes).
#include "shell/chained_output.h"

Engine PluginEngine;
BlockHelper PluginHelper;
ProcessorSettingsRecord ProcessorSettings;
ChainedOutputRecord ChainedOutput;
uint32_t Reset_Pending;
