// Helpers of the renderer's tests: temporary folders, WAV files written and
// read through libsndfile (not through the code under test), and running a
// program with a changed environment.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <sndfile.h>

// A fresh folder, removed with everything in it at the end of the scope.
struct TempFolder {
    std::string path;
    TempFolder();
    ~TempFolder();
    std::string File(const std::string& name) const { return path + "/" + name; }
};

// Interleaved samples at the file's depth (16-bit values for PCM_16 ...).
struct TestAudio {
    int rate = 0;
    int channels = 0;
    int format = 0;                 // libsndfile major | subtype
    std::vector<int32_t> samples;   // frames x channels
    int64_t Frames() const { return channels == 0 ? 0 : static_cast<int64_t>(samples.size()) / channels; }
    int32_t At(int64_t frame, int channel) const { return samples[static_cast<size_t>(frame * channels + channel)]; }
};

// Writes `audio` with libsndfile; `audio.format` picks the file type.
void WriteTestAudio(const std::string& path, const TestAudio& audio);

// Reads a file with libsndfile. The samples are brought down to the file's
// own depth for PCM_16, PCM_24 and PCM_32. Fails the test if unreadable.
TestAudio ReadTestAudio(const std::string& path);

// libsndfile's channel map of a file, empty if it has none.
std::vector<int> ReadChannelMap(const std::string& path);

// Deterministic noise in [-amplitude, amplitude], as 16-bit samples.
std::vector<int32_t> Noise16(size_t count, int32_t amplitude, uint32_t seed);

// The frames [first, first + count) of `audio` as a new TestAudio.
TestAudio Slice(const TestAudio& audio, int64_t first, int64_t count);

struct ProcessResult {
    int status = -1;        // exit status, or 128 + signal
    std::string out;        // standard output
    std::string err;        // standard error
};

// Runs `args` (args[0] is the program path) with the environment changed
// by `env` (name, value; an empty value unsets), and waits for it.
ProcessResult RunProgram(const std::vector<std::string>& args,
                         const std::vector<std::pair<std::string, std::string>>& env = {});

// In a forked child: changes the environment by `env` as RunProgram does and
// replaces the process by `args`; exits with 127 when that fails.
[[noreturn]] void ExecProgram(const std::vector<std::string>& args,
                              const std::vector<std::pair<std::string, std::string>>& env);

// Paths of this build's programs: from the environment that CTest sets
// (KELVANE_TEST_PLUGIN, KELVANE_TEST_OUT_WAV, KELVANE_TEST_RENDER), else the
// paths compiled into the test.
std::string PluginPath();
std::string OutWavPath();
std::string RenderPath();

// Reads a whole file into a string; empty if missing.
std::string ReadWholeFile(const std::string& path);

// Names of the entries of a folder, sorted.
std::vector<std::string> FolderEntries(const std::string& path);
