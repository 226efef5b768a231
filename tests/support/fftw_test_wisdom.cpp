// Test processes only: before the engine is constructed, load the planner's
// wisdom that the FftwTestWisdom fixture saved for the engine's one transform
// size, so that each of the many short test processes skips re-measuring the
// same 16384-point plans. The engine still asks for FFTW_MEASURE plans; with
// the wisdom at hand the planner finds its measurements already made. The
// plug-in itself never loads wisdom.
#include <fftw3.h>

#include <cstdio>

namespace {

struct WisdomLoader {
    WisdomLoader()
    {
        if (std::FILE* f = std::fopen(KELVANE_TEST_WISDOM, "r")) {
            std::fclose(f);
            fftwf_import_wisdom_from_filename(KELVANE_TEST_WISDOM);
        }
    }
};

// Runs ahead of every static constructor of default priority, the engine's
// included.
__attribute__((init_priority(101))) WisdomLoader Loader;

}  // namespace
