// The FFT planner's wisdom kept between runs of the renderer.
//
// Loading the processor makes its FFT plans, and measuring them takes about
// two seconds. The processor and this program share one FFTW in the
// process, so wisdom that the renderer hands the planner before the load
// makes that planning instant; the plans that come out are the ones that
// were measured the first time, so every run with the same cache gives the
// same output. The processor itself never reads or writes wisdom: this is
// the host's business.
//
// The cache is one file per user, ${XDG_CACHE_HOME:-$HOME/.cache}/kelvane/
// fftw-wisdom. Its first line names the FFTW build and the processor model
// that made it; a file from another build or machine, or one that cannot be
// read, is ignored and replaced. It is written under a temporary name and
// renamed, so parallel runs never see half a file.
#pragma once

#include <string>

struct WisdomCache {
    std::string path;    // the cache file, empty when there is no home to put it in
    std::string loaded;  // the wisdom as it was read, empty when none was
};

// The cache file of this user: XDG_CACHE_HOME, else HOME/.cache; empty when
// neither is set.
std::string WisdomCachePath();

// Hands the planner the wisdom in `cache.path`, if it is there and was made
// by this FFTW on this processor model. True when wisdom was loaded.
bool LoadWisdomCache(WisdomCache& cache);

// Saves what the planner knows now, when that differs from what was loaded.
// Failures are silent: a missing cache only costs time.
void SaveWisdomCache(const WisdomCache& cache);
