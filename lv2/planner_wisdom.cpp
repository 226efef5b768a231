// Wisdom for the plug-in's plans, read from the user's cache or the system.
#include "lv2/planner_wisdom.h"

#include <fftw3.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

// The cache file of the user, or the empty text when no home is known.
std::string CacheWisdomPath()
{
    const char* cache = std::getenv("XDG_CACHE_HOME");
    if (cache != nullptr && cache[0] == '/')
        return std::string(cache) + "/kelvane/fftw-wisdom";
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/')
        return std::string(home) + "/.cache/kelvane/fftw-wisdom";
    return std::string();
}

// The renderer keeps this file, with a first line naming the FFTW build and
// processor that made it; the wisdom follows that line.
bool ImportCacheFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return false;
    std::ostringstream text;
    text << file.rdbuf();
    std::string wisdom = text.str();
    if (wisdom.rfind("kelvane fftw-wisdom", 0) == 0) {
        const size_t end = wisdom.find('\n');
        wisdom = end == std::string::npos ? std::string() : wisdom.substr(end + 1);
    }
    return !wisdom.empty() && fftwf_import_wisdom_from_string(wisdom.c_str()) != 0;
}

}  // namespace

void ImportPlannerWisdom()
{
    fftwf_make_planner_thread_safe();
    const std::string path = CacheWisdomPath();
    // A missing or unreadable file, or wisdom of another FFTW build, is
    // refused by the importer and changes nothing.
    if (!path.empty() && ImportCacheFile(path))
        return;
    fftwf_import_system_wisdom();
}
