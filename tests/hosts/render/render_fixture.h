// The renderer's end-to-end tests share this: the program run as a user runs
// it, driving the real out_kelvane.so and out_wav.so of this build, its
// files read back with libsndfile, and the processor driven directly, as a
// player would, in the test's own process for comparison.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "test_audio.h"
#include "hosts/out_module_host.h"

constexpr int kRate = 44100;
constexpr int kStereo16 = SF_FORMAT_WAV | SF_FORMAT_PCM_16;

inline const std::vector<int> kFiveOneMap = {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER,
                                      SF_CHANNEL_MAP_LFE, SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT};

inline TestAudio StereoNoise(int64_t frames, uint32_t seed, int32_t amplitude = 12000)
{
    return TestAudio{kRate, 2, kStereo16, Noise16(static_cast<size_t>(frames) * 2, amplitude, seed)};
}

// The channels [0, keep) of every frame.
inline std::vector<int32_t> FirstChannels(const TestAudio& audio, int keep)
{
    std::vector<int32_t> out;
    for (int64_t i = 0; i < audio.Frames(); ++i)
        for (int c = 0; c < keep; ++c)
            out.push_back(audio.At(i, c));
    return out;
}

// The largest difference between two sample lists of the same length.
inline int64_t LargestDifference(const std::vector<int32_t>& a, const std::vector<int32_t>& b)
{
    int64_t largest = 0;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i)
        largest = std::max<int64_t>(largest, std::llabs(static_cast<int64_t>(a[i]) - b[i]));
    return largest;
}

// FFTW plans made with FFTW_MEASURE are chosen by timing, so two loads of the
// processor may convolve with differently ordered sums: the headphone mode is
// equal from run to run up to the last bit of a 16-bit word. Every other mode
// is equal exactly.
constexpr int64_t kHeadphoneRunToRunSteps = 2;

inline void ExpectSameOutput(const std::vector<int32_t>& got, const std::vector<int32_t>& expected, bool headphone,
                      const std::string& what)
{
    ASSERT_EQ(got.size(), expected.size()) << what;
    if (headphone)
        EXPECT_LE(LargestDifference(got, expected), kHeadphoneRunToRunSteps) << what;
    else
        EXPECT_EQ(got, expected) << what;
}

// --- Driving the processor directly, as a player would, in this process ---

inline intptr_t QuietWindowProc(host::HWND, uint32_t, uintptr_t, intptr_t)
{
    return 0;
}

inline host::HostWindow DirectWindow{QuietWindowProc};

inline host::Out_Module* Processor()
{
    static host::Out_Module* module = [] {
        void* library = dlopen(PluginPath().c_str(), RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(library, nullptr) << dlerror();
        auto get = reinterpret_cast<host::GetOutModuleFunction>(dlsym(library, host::kGetOutModuleName));
        host::Out_Module* record = get();
        record->hMainWindow = &DirectWindow;
        record->hDllInstance = library;
        return record;
    }();
    return module;
}

// Plays `input` through the processor with the settings `values` (lines of
// the settings key), 1024 frames a write, then a whole convolver block of
// silence, and gives back the first frames of the output, as many as went in.
inline TestAudio DriveDirectly(const TestAudio& input, const std::string& values)
{
    TempFolder config;
    mkdir(config.File("Morrowfen").c_str(), 0755);
    const std::string captured = config.File("direct.wav");
    std::ofstream(config.File("Morrowfen/Kelvane.reg"), std::ios::binary)
        << "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]\n"
        << "\"Out_Plug\"=\"" << OutWavPath() << "\"\n" << values;
    std::ofstream(config.File("Morrowfen/OutWav.reg"), std::ios::binary)
        << "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\OutWav]\n"
        << "\"Out_File\"=\"" << captured << "\"\n";
    setenv("XDG_CONFIG_HOME", config.path.c_str(), 1);

    host::Out_Module* module = Processor();
    module->Init();
    EXPECT_GE(module->Open(input.rate, input.channels, 16, 2000, 0), 0);
    constexpr int64_t kBlock = 1024;
    std::vector<uint8_t> bytes;
    auto write_frames = [&](int64_t first, int64_t count, bool silence) {
        bytes.assign(static_cast<size_t>(count * input.channels * 2) * 3, 0);
        if (!silence)
            for (int64_t i = 0; i < count * input.channels; ++i) {
                const uint32_t word = static_cast<uint32_t>(input.samples[static_cast<size_t>(first * input.channels + i)]);
                bytes[static_cast<size_t>(2 * i)] = static_cast<uint8_t>(word);
                bytes[static_cast<size_t>(2 * i + 1)] = static_cast<uint8_t>(word >> 8);
            }
        EXPECT_EQ(module->Write(reinterpret_cast<char*>(bytes.data()), static_cast<int>(count * input.channels * 2)), 0);
    };
    for (int64_t first = 0; first < input.Frames(); first += kBlock)
        write_frames(first, std::min(kBlock, input.Frames() - first), false);
    for (int block = 0; block < 8; ++block)
        write_frames(0, 1024, true);
    module->Close();
    module->Quit();
    TestAudio output = ReadTestAudio(captured);
    return Slice(output, 0, std::min(output.Frames(), input.Frames()));
}

inline std::string ModeValues(int mode, int out_bits = 16)
{
    char text[128];
    std::snprintf(text, sizeof text, "\"Mode\"=dword:%08x\n\"Out_Bits\"=dword:%08x\n", mode, out_bits);
    return text;
}

// --- Running the program -----------------------------------------------------

struct RenderFixture : ::testing::Test {
    TempFolder config;  // XDG_CONFIG_HOME of the program: the user's saved settings
    TempFolder home;
    TempFolder work;    // inputs and outputs

    std::vector<std::pair<std::string, std::string>> Environment() const
    {
        // The planner's wisdom is shared by all the tests' runs, in this build.
        return {{"XDG_CONFIG_HOME", config.path}, {"HOME", home.path}, {"KELVANE_PLUGIN", ""},
                {"XDG_CACHE_HOME", KELVANE_TEST_RENDER_CACHE}};
    }

    // Runs the renderer with this build's plug-ins, allowed to replace its
    // outputs (-y) unless `replace` is false.
    ProcessResult Render(std::vector<std::string> args, bool with_plugin = true, bool replace = true) const
    {
        args.insert(args.begin(), RenderPath());
        if (with_plugin)
            args.insert(args.begin() + 1, {"--plugin", PluginPath(), "--out-wav", OutWavPath()});
        if (replace)
            args.insert(args.begin() + 1, "-y");
        return RunProgram(args, Environment());
    }

    std::string Input(const std::string& name, const TestAudio& audio) const
    {
        const std::string path = work.File(name);
        WriteTestAudio(path, audio);
        return path;
    }

    // A stream of 30000 noise frames written whole to all.wav and cut at
    // frame 13001 into a.wav and b.wav.
    struct CutStream {
        TestAudio whole;  // the stream
        std::string all;  // the whole stream's file
        std::string a;    // frames [0, 13001)
        std::string b;    // frames [13001, 30000)
    };

    CutStream CutInTwo(uint32_t seed) const
    {
        CutStream cut{StereoNoise(30000, seed), {}, {}, {}};
        cut.all = Input("all.wav", cut.whole);
        cut.a = Input("a.wav", Slice(cut.whole, 0, 13001));
        cut.b = Input("b.wav", Slice(cut.whole, 13001, 30000 - 13001));
        return cut;
    }

    void SaveSettings(const std::string& values) const
    {
        mkdir(config.File("Morrowfen").c_str(), 0755);
        std::ofstream(config.File("Morrowfen/Kelvane.reg"), std::ios::binary)
            << "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]\n"
            << "\"Out_Plug\"=\"out_ds.dll\"\n" << values;
    }
};

// A failed run: its message, a non-zero status, and nothing left in `folder`
// but the files that were there before.
inline void ExpectCleanFailure(const ProcessResult& result, const std::string& message, const std::string& folder,
                        const std::vector<std::string>& before)
{
    EXPECT_NE(result.status, 0);
    EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(FolderEntries(folder), before);
}

// Runs the renderer with standard input and standard error on a terminal
// of its own, types `typed` on it, and gives back what appeared there. The
// exit status goes to `status`, or must be 0 when that is null.
inline std::string RenderOnTerminal(const std::vector<std::string>& args,
                                    const std::vector<std::pair<std::string, std::string>>& env,
                                    const std::string& typed = "", int* status = nullptr)
{
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) {
        // Only standard input and standard error stay on the terminal.
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        ExecProgram(args, env);
    }
    if (!typed.empty()) {
        EXPECT_EQ(write(terminal, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
    }
    std::string seen;
    char chunk[4096];
    for (;;) {
        const ssize_t got = read(terminal, chunk, sizeof chunk);
        if (got <= 0)
            break;
        seen.append(chunk, static_cast<size_t>(got));
    }
    int code = 0;
    waitpid(child, &code, 0);
    close(terminal);
    const int exit_status = WIFEXITED(code) ? WEXITSTATUS(code) : 128 + WTERMSIG(code);
    if (status != nullptr) {
        *status = exit_status;
    } else {
        EXPECT_EQ(exit_status, 0) << seen;
    }
    return seen;
}
