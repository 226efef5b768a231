// Helpers of the renderer's tests.
#include "test_audio.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

TempFolder::TempFolder()
{
    std::string pattern = std::filesystem::temp_directory_path().string() + "/render-test-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr)
        std::abort();
    path = name.data();
}

TempFolder::~TempFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

namespace {

int DepthOf(int format)
{
    switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8: return 8;
    case SF_FORMAT_PCM_16: return 16;
    case SF_FORMAT_PCM_24: return 24;
    case SF_FORMAT_PCM_32: return 32;
    default: return 32;
    }
}

}  // namespace

void WriteTestAudio(const std::string& path, const TestAudio& audio)
{
    SF_INFO info{};
    info.samplerate = audio.rate;
    info.channels = audio.channels;
    info.format = audio.format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    const int shift = 32 - DepthOf(audio.format);
    std::vector<int32_t> words(audio.samples.size());
    for (size_t i = 0; i < words.size(); ++i)
        words[i] = static_cast<int32_t>(static_cast<uint32_t>(audio.samples[i]) << shift);
    EXPECT_EQ(sf_writef_int(file, words.data(), audio.Frames()), audio.Frames());
    sf_close(file);
}

TestAudio ReadTestAudio(const std::string& path)
{
    TestAudio audio;
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    EXPECT_NE(file, nullptr) << path << ": " << sf_strerror(nullptr);
    if (file == nullptr)
        return audio;
    audio.rate = info.samplerate;
    audio.channels = info.channels;
    audio.format = info.format;
    audio.samples.resize(static_cast<size_t>(info.frames * info.channels));
    EXPECT_EQ(sf_readf_int(file, audio.samples.data(), info.frames), info.frames);
    sf_close(file);
    const int shift = 32 - DepthOf(info.format);
    for (int32_t& sample : audio.samples)
        sample >>= shift;
    return audio;
}

std::vector<int> ReadChannelMap(const std::string& path)
{
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr)
        return {};
    std::vector<int> map(static_cast<size_t>(info.channels));
    if (sf_command(file, SFC_GET_CHANNEL_MAP_INFO, map.data(), static_cast<int>(map.size() * sizeof(int))) != SF_TRUE)
        map.clear();
    sf_close(file);
    return map;
}

std::vector<int32_t> Noise16(size_t count, int32_t amplitude, uint32_t seed)
{
    std::vector<int32_t> out(count);
    uint32_t state = seed | 1u;
    for (int32_t& sample : out) {
        state = state * 1664525u + 1013904223u;
        const int64_t span = 2 * static_cast<int64_t>(amplitude) + 1;
        sample = static_cast<int32_t>(static_cast<int64_t>(state >> 8) % span - amplitude);
    }
    return out;
}

TestAudio Slice(const TestAudio& audio, int64_t first, int64_t count)
{
    TestAudio part = audio;
    part.samples.assign(audio.samples.begin() + first * audio.channels,
                        audio.samples.begin() + (first + count) * audio.channels);
    return part;
}

void ExecProgram(const std::vector<std::string>& args, const std::vector<std::pair<std::string, std::string>>& env)
{
    for (const auto& [name, value] : env) {
        if (value.empty())
            unsetenv(name.c_str());
        else
            setenv(name.c_str(), value.c_str(), 1);
    }
    std::vector<char*> argv;
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

ProcessResult RunProgram(const std::vector<std::string>& args,
                         const std::vector<std::pair<std::string, std::string>>& env)
{
    ProcessResult result;
    char out_name[] = "/tmp/render-test-out-XXXXXX";
    char err_name[] = "/tmp/render-test-err-XXXXXX";
    const int out = mkstemp(out_name);
    const int err = mkstemp(err_name);
    const pid_t child = fork();
    if (child == 0) {
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        const int null = open("/dev/null", O_RDONLY);
        dup2(null, STDIN_FILENO);
        ExecProgram(args, env);
    }
    int status = 0;
    waitpid(child, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    close(out);
    close(err);
    result.out = ReadWholeFile(out_name);
    result.err = ReadWholeFile(err_name);
    unlink(out_name);
    unlink(err_name);
    return result;
}

namespace {

std::string FromEnvironment(const char* name, const char* built)
{
    const char* value = std::getenv(name);
    return value != nullptr && value[0] != '\0' ? value : built;
}

}  // namespace

std::string PluginPath()
{
#ifdef KELVANE_TEST_PLUGIN
    return FromEnvironment("KELVANE_TEST_PLUGIN", KELVANE_TEST_PLUGIN);
#else
    return FromEnvironment("KELVANE_TEST_PLUGIN", "");
#endif
}

std::string OutWavPath()
{
    return FromEnvironment("KELVANE_TEST_OUT_WAV", KELVANE_TEST_OUT_WAV);
}

std::string RenderPath()
{
    return FromEnvironment("KELVANE_TEST_RENDER", KELVANE_TEST_RENDER);
}

std::string ReadWholeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> FolderEntries(const std::string& path)
{
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(path, ignored))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}
