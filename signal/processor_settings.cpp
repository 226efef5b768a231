// The one live copy of the settings: all zeros at library load, filled by
// LoadSettings, written by the dialog and read by every write.
#include "signal/processor.h"

ProcessorSettingsRecord ProcessorSettings;
