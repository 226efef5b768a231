// A first look at the engine: pushes a generated stereo scene through
// ConvertAndProcess in every mode and prints the RMS level of each output
// channel. The scene has a source hard left, one hard right, one in the
// centre and one in antiphase, each for a second, so that the table shows
// where each lands.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "signal/engine_state.h"
#include "signal/pcm_conversion.h"
#include "signal/processor.h"

namespace {

constexpr int32_t kRate = 44100;
constexpr uint32_t kWriteFrames = 576;
constexpr double kTwoPi = 6.283185307179586;

struct Segment {
    const char* name;
    double left;   // gain of the tone on the left
    double right;  // gain of the tone on the right
};

const Segment kScene[] = {
    {"left", 1.0, 0.0},
    {"right", 0.0, 1.0},
    {"centre", 0.7, 0.7},
    {"behind", 0.7, -0.7},
};

const char* const kModeNames[] = {
    "Bypass",
    "Kelvane+C (3/1) = L,R,C,S",
    "Kelvane-AS (3/1) = L,R,C,S",
    "Kelvane-ASr (3/2) = L,R,C,SL,SR",
    "Kelvane Headphone (2/0) = L,R",
    "Kelvane Encode (2/0) = L,R",
};

void DefaultSettings(int32_t mode)
{
    ProcessorSettingsRecord& s = ProcessorSettings;
    s.Mode = mode;
    s.Out_Bits = 16;
    s.Surround_Delay = 10;
    s.Centre_Width = 0;
    s.Centre_Trim = 0;
    s.Surround_Trim_00 = 0;
    s.Bass_Redir = 120;
    s.Bass_Redir_Enable = 0;
    s.Bass_Trim = 0;
    s.Bass_Invert = 0;
    s.Virtual_C = 0;
    s.L = s.R = s.C = s.SL = s.SR = 1;
}

// Renders one segment in one mode; returns the RMS of each of the six
// output channels in dBFS.
void RenderSegment(const Segment& segment, double rms[6])
{
    const StreamWords stream = {2, 16, kRate, 16};
    const uint32_t total = uint32_t(kRate);  // one second
    double sums[6] = {};
    uint64_t counted = 0;
    std::vector<int16_t> pcm(2 * kWriteFrames);
    // Write on past the second so that the Headphone mode's held-back frames
    // come out too; count only the first second of output.
    for (uint32_t done = 0; done < total + 2 * 8192; done += kWriteFrames) {
        for (uint32_t i = 0; i < kWriteFrames; ++i) {
            const double v = 0.5 * std::sin(kTwoPi * 440.0 * double(done + i) / kRate);
            const bool on = done + i < total;
            pcm[2 * i] = int16_t(on ? 32767.0 * v * segment.left : 0.0);
            pcm[2 * i + 1] = int16_t(on ? 32767.0 * v * segment.right : 0.0);
        }
        uint32_t frames = kWriteFrames;
        ConvertAndProcess(stream, reinterpret_cast<const uint8_t*>(pcm.data()), frames);
        const int16_t* out = reinterpret_cast<const int16_t*>(PcmBlock.data);
        for (uint32_t i = 0; i < frames && counted < total; ++i, ++counted)
            for (int c = 0; c < 6; ++c)
                sums[c] += double(out[6 * i + c]) * double(out[6 * i + c]);
    }
    for (int c = 0; c < 6; ++c) {
        const double r = std::sqrt(sums[c] / double(total)) / 32768.0;
        rms[c] = r > 0.0 ? 20.0 * std::log10(r) : -200.0;
    }
}

}  // namespace

int main()
{
    std::printf("RMS per output channel in dBFS (440 Hz tone at -6 dBFS, 44100 Hz, 16 bits)\n\n");
    std::printf("%-34s %-7s %7s %7s %7s %7s %7s %7s\n", "mode", "source", "L", "R", "C", "LFE",
                "SL", "SR");
    for (int32_t mode = 0; mode <= 5; ++mode) {
        DefaultSettings(mode);
        for (const Segment& segment : kScene) {
            EngineReset();
            double rms[6];
            RenderSegment(segment, rms);
            std::printf("%-34s %-7s", kModeNames[mode], segment.name);
            for (double v : rms) {
                if (v <= -120.0)
                    std::printf(" %7s", "-inf");
                else
                    std::printf(" %7.1f", v);
            }
            std::printf("\n");
        }
    }
    return 0;
}
