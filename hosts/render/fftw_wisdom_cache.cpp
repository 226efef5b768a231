// The FFT planner's wisdom kept between runs of the renderer.
#include "hosts/render/fftw_wisdom_cache.h"

#include <fftw3.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* kCacheFolder = "kelvane";
constexpr const char* kCacheFile = "fftw-wisdom";

// The processor model, as the kernel names it; wisdom measured on one model
// need not suit another that shares the home folder.
std::string ProcessorModel()
{
    std::ifstream info("/proc/cpuinfo");
    std::string line;
    while (std::getline(info, line))
        if (line.compare(0, 10, "model name") == 0) {
            const size_t colon = line.find(':');
            return colon == std::string::npos ? std::string() : line.substr(colon + 1);
        }
    return std::string();
}

// The first line of a cache file: what made it.
std::string HeaderLine()
{
    return std::string("kelvane fftw-wisdom ") + fftwf_version + " " + fftwf_cc + " " + fftwf_codelet_optim + " |" +
           ProcessorModel() + "\n";
}

// Makes `path` and its parents, as mkdir -p does.
bool MakeFolders(const std::string& path)
{
    for (size_t slash = path.find('/', 1); ; slash = path.find('/', slash + 1)) {
        const std::string part = path.substr(0, slash);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
        if (slash == std::string::npos)
            return true;
    }
}

// The lines of a wisdom text in sorted order: the planner exports the same
// wisdom in an order of its own from run to run.
std::vector<std::string> SortedLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
}

}  // namespace

std::string WisdomCachePath()
{
    const char* cache = std::getenv("XDG_CACHE_HOME");
    std::string folder;
    if (cache != nullptr && cache[0] == '/') {
        folder = cache;
    } else {
        const char* home = std::getenv("HOME");
        if (home == nullptr || home[0] == '\0')
            return std::string();
        folder = std::string(home) + "/.cache";
    }
    return folder + "/" + kCacheFolder + "/" + kCacheFile;
}

bool LoadWisdomCache(WisdomCache& cache)
{
    cache.loaded.clear();
    if (cache.path.empty())
        return false;
    std::ifstream file(cache.path, std::ios::binary);
    if (!file)
        return false;
    std::ostringstream text;
    text << file.rdbuf();
    const std::string whole = text.str();
    const std::string header = HeaderLine();
    if (whole.compare(0, header.size(), header) != 0)
        return false;
    const std::string wisdom = whole.substr(header.size());
    if (fftwf_import_wisdom_from_string(wisdom.c_str()) == 0)
        return false;
    cache.loaded = wisdom;
    return true;
}

void SaveWisdomCache(const WisdomCache& cache)
{
    if (cache.path.empty())
        return;
    char* exported = fftwf_export_wisdom_to_string();
    if (exported == nullptr)
        return;
    const std::string wisdom = exported;
    std::free(exported);
    if (SortedLines(wisdom) == SortedLines(cache.loaded))
        return;
    const size_t slash = cache.path.rfind('/');
    if (slash == std::string::npos || !MakeFolders(cache.path.substr(0, slash)))
        return;
    std::string pattern = cache.path + ".tmp-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int descriptor = mkstemp(name.data());
    if (descriptor < 0)
        return;
    std::FILE* file = fdopen(descriptor, "wb");
    if (file == nullptr) {
        close(descriptor);
        std::remove(name.data());
        return;
    }
    const std::string content = HeaderLine() + wisdom;
    bool good = std::fwrite(content.data(), 1, content.size(), file) == content.size();
    good = std::fclose(file) == 0 && good;
    if (!good || std::rename(name.data(), cache.path.c_str()) != 0)
        std::remove(name.data());
}
