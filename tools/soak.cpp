// kelvane-soak: hours of 44100 Hz audio through the plug-in, as a long
// session of a host would push it, with the checks that only a long run can
// make.
//
// The plug-in is linked in whole and driven through its record; its chained
// output is the counting output plug-in. Writes come in random sizes of 0 to
// 8192 frames with a random partial frame behind them, of tones and noise up
// to full scale in 1 to 8 channels of 8, 16, 24 or 32 bits. Every few
// seconds of audio something changes as it does in a player: the settings,
// within the ranges of the dialog, as the dialog changes them (between two
// writes, with no reset); the stream (Close, then Open with another layout
// and the output word size of the moment); a seek (Flush); the user's Play
// or Stop, which the next Close or Open honours.
//
// Checked all the way:
// - frames: each write's output is the count that its mode gives (whole
//   blocks of 8192 from the convolver, the tail's make-up when Headphone is
//   left, the input count otherwise), and over the run frames in = frames
//   out + frames held + frames dropped by resets;
// - values: no frame that leaves the engine holds a NaN or an infinity (the
//   input is always finite and the settings are always within the dialog's
//   ranges);
// - memory: resident memory stays flat after the first minute. A warm-up at
//   the start takes every block to its largest size (every mode, the largest
//   writes, the largest make-up of held frames, 32-bit output), so that any
//   growth after it is growth that should not be.
//
// The figures go to standard output; the exit status is 0 when every check
// held.
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "platform/posix/reg_file.h"
#include "shell/chained_output.h"
#include "tools/counting_output.h"

extern "C" Out_Module* winampGetOutModule();

namespace {

constexpr int32_t kRate = 44100;
constexpr uint32_t kMaxWriteFrames = 8192;   // the host's limit for one write
constexpr uint32_t kConvolverBlock = 8192;
constexpr int kModes = 6;
constexpr double kWarmUpSeconds = 60.0;      // wall time before memory must stay flat
constexpr long kMemorySlackBytes = 1 << 20;  // what the allocator may move about
constexpr uintptr_t kPlayCommand = 40045;
constexpr uintptr_t kStopCommand = 40047;

CountingTally Tally;

struct Options {
    double hours = 0.1;
    uint64_t seed = 1;
    double reportSeconds = 60.0;
};

struct Figures {
    uint64_t framesIn = 0;
    uint64_t framesOut = 0;
    uint64_t framesDropped = 0;  // held frames that a reset let go
    uint64_t writes = 0;
    uint64_t framesInMode[kModes] = {};
    uint64_t settingChanges = 0;
    uint64_t streamChanges = 0;
    uint64_t flushes = 0;
    uint64_t commands = 0;
    uint64_t nonFinite = 0;
    uint64_t countErrors = 0;
    long rssBaseline = -1;  // bytes, taken after the warm-up
    long rssMax = 0;
    long rssFinal = 0;
} Run;

HWND__ HostWindow;
Out_Module* Plugin = nullptr;
std::mt19937_64 Random;

LRESULT HostProc(HWND, UINT, WPARAM, LPARAM)
{
    return 0;
}

int32_t Uniform(int32_t low, int32_t high)
{
    return std::uniform_int_distribution<int32_t>(low, high)(Random);
}

long ResidentBytes()
{
    long pages = 0;
    long resident = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    if (statm == nullptr)
        return 0;
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2)
        resident = 0;
    std::fclose(statm);
    return resident * sysconf(_SC_PAGESIZE);
}

uint32_t Pending()
{
    return PluginEngine.Headphone.Pending_Frames;
}

// A reset may come at this call: what was held is let go.
template <typename Call>
void Resetting(Call call)
{
    const uint32_t held = Pending();
    call();
    if (Pending() == 0)
        Run.framesDropped += held;
}

// ---- The settings, as the dialog changes them ----

void ChangeSettings(int mode)
{
    ProcessorSettingsRecord& s = ProcessorSettings;
    s.Mode = mode;
    s.Surround_Delay = Uniform(0, 100);
    s.Centre_Width = Uniform(0, 100);
    s.Centre_Trim = Uniform(-12, 12);
    s.Surround_Trim_00 = Uniform(-12, 12);
    s.Bass_Redir = Uniform(10, 200);
    s.Bass_Redir_Enable = Uniform(0, 1);
    s.Bass_Trim = Uniform(-12, 12);
    s.Bass_Invert = Uniform(0, 1);
    s.Virtual_C = Uniform(0, 1);
    // Mostly all speakers on, sometimes any of them off.
    const bool any = Uniform(0, 3) == 0;
    s.L = any ? Uniform(0, 1) : 1;
    s.R = any ? Uniform(0, 1) : 1;
    s.C = any ? Uniform(0, 1) : 1;
    s.SL = any ? Uniform(0, 1) : 1;
    s.SR = any ? Uniform(0, 1) : 1;
    const int32_t outBits[] = {16, 24, 32};
    s.Out_Bits = outBits[Uniform(0, 2)];
    ++Run.settingChanges;
}

// ---- The stream ----

struct Stream {
    int channels = 2;
    int bits = 16;
    double phase = 0.0;
    uint64_t noise = 0x853C49E6748FEA9Bull;
} Current;

void OpenStream(int channels, int bits)
{
    Current.channels = channels;
    Current.bits = bits;
    int result = 0;
    Resetting([&] { result = Plugin->Open(kRate, channels, bits, 500, 0); });
    if (result != 0) {
        std::fprintf(stderr, "kelvane-soak: Open failed (%d)\n", result);
        std::exit(2);
    }
    ++Run.streamChanges;
}

void CloseStream()
{
    Resetting([] { Plugin->Close(); });
}

// One sample of the source, finite and up to full scale: two tones that
// drift apart between the channels, noise, and now and then the extremes.
double SourceSample(int channel, uint64_t frame)
{
    Current.noise = Current.noise * 6364136223846793005ull + 1442695040888963407ull;
    const double noise = double(int64_t(Current.noise >> 11) - (int64_t(1) << 52)) / double(int64_t(1) << 52);
    const double t = double(frame) / kRate;
    const double tone = 0.6 * std::sin(2.0 * M_PI * (220.0 + 40.0 * channel) * t + Current.phase) +
                        0.3 * std::sin(2.0 * M_PI * 3100.0 * t * (1 + channel));
    double value = tone + 0.1 * noise;
    if ((frame >> 12) % 97 == 3)
        value = (frame & 1) != 0 ? 1.0 : -1.0;  // a burst of full-scale square
    return std::fmax(-1.0, std::fmin(1.0, value));
}

void AppendSample(std::vector<uint8_t>& pcm, double value, int bits)
{
    switch (bits) {
    case 8:
        pcm.push_back(uint8_t(std::lround(value * 127.0) + 128));
        break;
    case 16: {
        const int16_t word = int16_t(std::lround(value * 32767.0));
        for (int b = 0; b < 2; ++b)
            pcm.push_back(uint8_t(uint16_t(word) >> (8 * b)));
        break;
    }
    case 24: {
        const int32_t word = int32_t(std::lround(value * 8388607.0));
        for (int b = 0; b < 3; ++b)
            pcm.push_back(uint8_t(uint32_t(word) >> (8 * b)));
        break;
    }
    default: {
        const int32_t word = int32_t(std::lround(value * 2147483647.0));
        for (int b = 0; b < 4; ++b)
            pcm.push_back(uint8_t(uint32_t(word) >> (8 * b)));
        break;
    }
    }
}

bool Convolves()
{
    const int c = Current.channels;
    return ProcessorSettings.Mode == 4 && (c == 2 || (c >= 4 && c <= 6));
}

// One write of `frames` frames and a random partial frame, with its checks.
void WriteFrames(uint32_t frames, std::vector<uint8_t>& pcm)
{
    const int frameBytes = Current.channels * (Current.bits / 8);
    pcm.clear();
    for (uint32_t f = 0; f < frames; ++f)
        for (int c = 0; c < Current.channels; ++c)
            AppendSample(pcm, SourceSample(c, Run.framesIn + f), Current.bits);
    const int partial = Uniform(0, frameBytes - 1);
    for (int b = 0; b < partial; ++b)
        pcm.push_back(uint8_t(Uniform(0, 255)));

    const int mode = ProcessorSettings.Mode;
    const uint32_t before = Pending();
    const int result = Plugin->Write(reinterpret_cast<char*>(pcm.data()), int(pcm.size()));
    const uint32_t after = Pending();
    const uint32_t outFrameBytes = 6 * uint32_t(Tally.lastOpenBits / 8);
    const uint32_t out = uint32_t(Tally.lastWriteLength) / outFrameBytes;

    uint32_t expected = frames + before;
    uint32_t expectedHeld = 0;
    if (Convolves()) {
        expected = (frames + before) / kConvolverBlock * kConvolverBlock;
        expectedHeld = (frames + before) % kConvolverBlock;
    } else if (mode == 4) {
        expected = frames;
        expectedHeld = before;
    }
    if (result != 0 || out != expected || after != expectedHeld ||
        uint32_t(Tally.lastWriteLength) % outFrameBytes != 0) {
        if (Run.countErrors++ < 10)
            std::fprintf(stderr,
                         "kelvane-soak: write %" PRIu64 " in mode %d, %u frames, %u held: %u out, %u held after\n",
                         Run.writes, mode, frames, before, out, after);
    }
    // The frames that leave, as floats before the output scale.
    const float* data = PluginEngine.FrameBlock.data;
    for (uint64_t i = 0; i < uint64_t(out) * 6; ++i) {
        if (!std::isfinite(data[i])) {
            if (Run.nonFinite++ < 10)
                std::fprintf(stderr, "kelvane-soak: non-finite sample in write %" PRIu64 ", mode %d, frame %" PRIu64 "\n",
                             Run.writes, mode, i / 6);
            break;
        }
    }
    Run.framesIn += frames;
    Run.framesOut += out;
    Run.framesInMode[mode] += frames;
    ++Run.writes;
}

// Every block at its largest before memory is watched: each mode with the
// largest writes at 32-bit output, and Headphone left with 8191 frames held
// under a write of 8192, the largest make-up there is.
void WarmUp(std::vector<uint8_t>& pcm)
{
    for (int channels : {2, 6, 1, 4, 5, 3, 8}) {
        CloseStream();
        ProcessorSettings.Out_Bits = 32;
        OpenStream(channels, 32);
        for (int mode = 0; mode < kModes; ++mode) {
            ChangeSettings(mode);
            ProcessorSettings.Out_Bits = 32;
            ProcessorSettings.Surround_Delay = 100;
            for (int w = 0; w < 3; ++w)
                WriteFrames(kMaxWriteFrames, pcm);
        }
    }
    CloseStream();
    ProcessorSettings.Out_Bits = 32;
    OpenStream(2, 32);
    ChangeSettings(4);
    WriteFrames(kMaxWriteFrames - 1, pcm);
    ChangeSettings(3);
    WriteFrames(kMaxWriteFrames, pcm);
}

// Something that happens in a player every few seconds.
void Event()
{
    switch (Uniform(0, 5)) {
    case 0:
    case 1:
        ChangeSettings(Uniform(0, kModes - 1));
        break;
    case 2: {
        static const int kBits[] = {8, 16, 24, 32};
        CloseStream();
        // Mostly stereo, as a player mostly plays.
        const int channels = Uniform(0, 2) == 0 ? Uniform(1, 8) : 2;
        OpenStream(channels, kBits[Uniform(0, 3)]);
        break;
    }
    case 3:
        Resetting([] { Plugin->Flush(Uniform(0, 600000)); });
        ++Run.flushes;
        break;
    case 4:
        // Play or Stop, then the host closes and opens again.
        HostWindow.proc(&HostWindow, WM_COMMAND, Uniform(0, 1) == 0 ? kPlayCommand : kStopCommand, 0);
        ++Run.commands;
        CloseStream();
        OpenStream(Current.channels, Current.bits);
        break;
    default:
        Current.phase = Uniform(0, 628) / 100.0;  // a new track, no command
        CloseStream();
        OpenStream(Current.channels, Current.bits);
        break;
    }
}

void Report(double wall, bool final)
{
    const double audioHours = double(Run.framesIn) / kRate / 3600.0;
    std::printf("%s %.1f s wall, %.3f h of audio (%.0fx real time), %" PRIu64 " writes, rss %.1f MB (baseline %.1f, max %.1f)\n",
                final ? "done:" : "at", wall, audioHours, audioHours * 3600.0 / wall, Run.writes,
                Run.rssFinal / 1048576.0, Run.rssBaseline / 1048576.0, Run.rssMax / 1048576.0);
    std::fflush(stdout);
}

bool ParseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "--hours" || arg == "--seed" || arg == "--report") && i + 1 < argc) {
            const char* value = argv[++i];
            char* end = nullptr;
            if (arg == "--hours")
                options.hours = std::strtod(value, &end);
            else if (arg == "--seed")
                options.seed = std::strtoull(value, &end, 10);
            else
                options.reportSeconds = std::strtod(value, &end);
            if (end == value || *end != '\0' || options.hours <= 0.0 || options.reportSeconds <= 0.0) {
                std::fprintf(stderr, "kelvane-soak: %s wants a positive number, not %s\n", arg.c_str(), value);
                return false;
            }
        } else {
            std::fprintf(stderr,
                         "usage: kelvane-soak [--hours H] [--seed N] [--report SECONDS]\n"
                         "  Pushes H hours (default 0.1) of 44100 Hz audio through the plug-in in every mode\n"
                         "  and checks frame counts, finite output and flat resident memory.\n");
            return false;
        }
    }
    return true;
}

// A settings file that chains the plug-in to the counting output.
void PrepareSettings()
{
    char folder[] = "/tmp/kelvane-soak-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
        std::perror("kelvane-soak: mkdtemp");
        std::exit(2);
    }
    const std::string config = std::string(folder) + "/config";
    setenv("XDG_CONFIG_HOME", config.c_str(), 1);
    std::vector<RegValue> values;
    SetRegString(values, "Out_Plug", KELVANE_COUNTING_OUTPUT);
    SetRegDword(values, "Out_Bits", 32);
    std::string error;
    if (!WriteRegKey(RegStoreFile("Morrowfen", "Kelvane"), RegKeyPath("Morrowfen", "Kelvane"), values, error)) {
        std::fprintf(stderr, "kelvane-soak: %s\n", error.c_str());
        std::exit(2);
    }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CountingTally* KelvaneCountingTally()
{
    return &Tally;
}

int main(int argc, char** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options))
        return 2;
    Random.seed(options.seed);
    PrepareSettings();

    const auto start = std::chrono::steady_clock::now();
    const auto seconds = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };

    HostWindow.proc = &HostProc;
    Plugin = winampGetOutModule();
    Plugin->hMainWindow = &HostWindow;
    Plugin->Init();
    OpenStream(2, 16);

    std::vector<uint8_t> pcm;
    pcm.reserve(kMaxWriteFrames * 8 * 4 + 32);
    WarmUp(pcm);

    const uint64_t target = uint64_t(options.hours * 3600.0 * kRate);
    uint64_t nextEvent = Run.framesIn;
    double nextReport = options.reportSeconds;
    while (Run.framesIn < target) {
        if (Run.framesIn >= nextEvent) {
            Event();
            nextEvent = Run.framesIn + uint64_t(Uniform(1, 20)) * kRate;
        }
        WriteFrames(uint32_t(Uniform(0, int32_t(kMaxWriteFrames))), pcm);
        if (Run.writes % 64 == 0) {
            const double now = seconds();
            Run.rssFinal = ResidentBytes();
            if (now >= kWarmUpSeconds) {
                if (Run.rssBaseline < 0)
                    Run.rssBaseline = Run.rssFinal;
                Run.rssMax = std::max(Run.rssMax, Run.rssFinal);
            }
            if (now >= nextReport) {
                Report(now, false);
                nextReport += options.reportSeconds;
            }
        }
    }
    CloseStream();
    const uint64_t held = Pending();
    Plugin->Quit();
    Run.rssFinal = ResidentBytes();
    if (Run.rssBaseline < 0)
        Run.rssBaseline = Run.rssMax = Run.rssFinal;  // a run shorter than the warm-up

    const bool countsHold = Run.framesIn == Run.framesOut + held + Run.framesDropped;
    const bool memoryFlat = Run.rssMax - Run.rssBaseline <= kMemorySlackBytes;
    Report(seconds(), true);
    std::printf("frames: %" PRIu64 " in, %" PRIu64 " out, %" PRIu64 " held at the end, %" PRIu64
                " dropped by resets: %s\n",
                Run.framesIn, Run.framesOut, held, Run.framesDropped, countsHold ? "conserved" : "NOT CONSERVED");
    std::printf("audio by mode (h):");
    for (int mode = 0; mode < kModes; ++mode)
        std::printf(" %d: %.3f", mode, double(Run.framesInMode[mode]) / kRate / 3600.0);
    std::printf("\nchanges: %" PRIu64 " of settings, %" PRIu64 " of stream, %" PRIu64 " seeks, %" PRIu64
                " Play/Stop\n",
                Run.settingChanges, Run.streamChanges, Run.flushes, Run.commands);
    std::printf("writes with a wrong count: %" PRIu64 "; writes with a non-finite sample: %" PRIu64 "\n",
                Run.countErrors, Run.nonFinite);
    std::printf("resident memory after the first minute: %.2f MB to %.2f MB (%s)\n", Run.rssBaseline / 1048576.0,
                Run.rssMax / 1048576.0, memoryFlat ? "flat" : "GREW");
    const bool ok = countsHold && memoryFlat && Run.countErrors == 0 && Run.nonFinite == 0;
    std::printf("%s\n", ok ? "soak passed" : "soak FAILED");
    return ok ? 0 : 1;
}
