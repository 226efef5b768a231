// The registry mirror of the live settings record: one key, seventeen values, each
// named after its field. Read at Init and at the dialog's Cancel, written at
// the dialog's OK. Every failure is silent.
#pragma once

#include "signal/processor.h"

// Fills `settings` from the key, value by value; a value that cannot be read
// takes its default. Interface thread.
void LoadSettings(ProcessorSettingsRecord& settings);
// Writes all seventeen values, creating the key when missing. Interface thread.
void SaveSettings(const ProcessorSettingsRecord& settings);
