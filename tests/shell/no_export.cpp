// A library that loads but has no winampGetOutModule; it only reports being
// loaded and unloaded.
#include "tests/shell/recording_log.h"

namespace {
__attribute__((constructor)) void Loaded() { Record("noexport", "load", {}); }
__attribute__((destructor)) void Unloaded() { Record("noexport", "unload", {}); }
}  // namespace

extern "C" __attribute__((visibility("default"))) int NotAnOutputPlugin()
{
    return 1;
}
