// The scenarios of the comparison and their input, in whole numbers only.
#include "tests/wine/scenarios.h"

const char* const kSettingNames[kSettingCount] = {
    "Mode",      "Out_Bits",    "Surround_Delay", "Centre_Width", "Centre_Trim", "Surround_Trim_00",
    "Bass_Redir", "Bass_Redir_Enable", "Bass_Trim", "Bass_Invert", "Virtual_C", "L",
    "R",         "C",           "SL",             "SR"};

namespace {

// 0.55 s at 44100 Hz: long enough for the headphone convolver, which gives
// its frames in lumps of 8192, to hand out two of them.
constexpr uint32_t kFrames = 24000;

Scenario Make(int mode, int channels, int bits, int outBits, int rate, int variant)
{
    Scenario s;
    s.name = "m" + std::to_string(mode) + "_" + std::to_string(channels) + "ch_" + std::to_string(bits) + "to" +
             std::to_string(outBits) + "_" + std::to_string(rate) + "_v" + std::to_string(variant);
    s.channels = channels;
    s.bits = bits;
    s.rate = rate;
    s.frames = kFrames;
    // Defaults of the store, then a variant that moves every control.
    int32_t* v = s.settings;
    v[0] = mode;
    v[1] = outBits;
    v[2] = 10;   // Surround_Delay
    v[3] = 0;    // Centre_Width
    v[4] = 0;    // Centre_Trim
    v[5] = 0;    // Surround_Trim_00
    v[6] = 120;  // Bass_Redir
    v[7] = 0;    // Bass_Redir_Enable
    v[8] = 0;    // Bass_Trim
    v[9] = 0;    // Bass_Invert
    v[10] = 0;   // Virtual_C
    v[11] = v[12] = v[13] = v[14] = v[15] = 1;
    switch (variant) {
    case 1:
        v[2] = 23;
        v[3] = 40;
        v[4] = -5;
        v[5] = 4;
        v[6] = 90;
        v[7] = 1;
        v[8] = 3;
        break;
    case 2:
        v[2] = 0;
        v[3] = 100;
        v[4] = 7;
        v[5] = -12;
        v[6] = 200;
        v[7] = 1;
        v[8] = -9;
        v[9] = 1;
        v[10] = 1;
        v[13] = 0;
        break;
    case 3:
        v[2] = 100;
        v[3] = 65;
        v[4] = 12;
        v[5] = -3;
        v[6] = 10;
        v[7] = 1;
        v[8] = 12;
        v[12] = 0;
        v[15] = 0;
        break;
    default:
        break;
    }
    return s;
}

// A triangle of whole numbers between -peak and +peak with period `period`.
int64_t Triangle(int64_t i, int64_t period, int64_t peak)
{
    const int64_t phase = i % period;
    const int64_t quarter = period / 4;
    if (phase < quarter)
        return phase * peak / quarter;
    if (phase < 3 * quarter)
        return (2 * quarter - phase) * peak / quarter;
    return (phase - 4 * quarter) * peak / quarter;
}

}  // namespace

std::vector<Scenario> MakeScenarios()
{
    std::vector<Scenario> list;
    // Every mode from stereo at every source depth, each to another output depth.
    const int depths[4] = {16, 8, 24, 32};
    const int outDepths[4] = {16, 24, 32, 16};
    for (int mode = 0; mode <= 5; ++mode) {
        for (int d = 0; d < 4; ++d)
            list.push_back(Make(mode, 2, depths[d], outDepths[d], 44100, d));
    }
    // Multichannel sources, where the headphone and encode modes work on
    // them directly and the others pass them through.
    for (int mode = 0; mode <= 5; ++mode) {
        list.push_back(Make(mode, 4, 24, 16, 44100, 1));
        list.push_back(Make(mode, 5, 16, 32, 48000, 2));
        list.push_back(Make(mode, 6, 32, 24, 44100, 3));
    }
    // Mono, and rates at the edges of the headphone mode's range and beyond.
    list.push_back(Make(3, 1, 8, 16, 44100, 0));
    list.push_back(Make(4, 2, 16, 16, 48000, 1));
    list.push_back(Make(4, 2, 16, 32, 46000, 2));
    list.push_back(Make(4, 2, 16, 24, 32000, 3));
    list.push_back(Make(2, 2, 16, 16, 96000, 1));
    return list;
}

std::vector<uint8_t> MakeInput(const Scenario& s)
{
    const int bytesPerSample = s.bits / 8;
    std::vector<uint8_t> pcm(static_cast<size_t>(s.frames) * s.channels * bytesPerSample);
    uint32_t noise = 0x12345678u + static_cast<uint32_t>(s.channels * 977 + s.bits * 131 + s.rate);
    size_t at = 0;
    for (uint32_t i = 0; i < s.frames; ++i) {
        for (int c = 0; c < s.channels; ++c) {
            // A tone per channel under a slow envelope whose phase differs
            // from channel to channel, so that the balance between the
            // channels wanders and the steering has something to follow,
            // with a little noise beneath. The peak stays near 0.7 of full
            // scale.
            const int64_t tone = Triangle(i + 37 * c, 60 + 23 * c, 1000000000);
            const int64_t envelope = 1024 + Triangle(i + 3001 * c, 9000 + 1700 * c, 1023);  // 1 .. 2047
            noise = noise * 1664525u + 1013904223u;
            const int64_t hiss = static_cast<int32_t>(noise) >> 6;
            const int64_t value = tone * envelope / 2048 + hiss;
            const auto word = static_cast<uint32_t>(static_cast<int32_t>(value));
            switch (s.bits) {
            case 8:
                pcm[at++] = static_cast<uint8_t>((word >> 24) + 128u);
                break;
            case 16:
                pcm[at++] = static_cast<uint8_t>(word >> 16);
                pcm[at++] = static_cast<uint8_t>(word >> 24);
                break;
            case 24:
                pcm[at++] = static_cast<uint8_t>(word >> 8);
                pcm[at++] = static_cast<uint8_t>(word >> 16);
                pcm[at++] = static_cast<uint8_t>(word >> 24);
                break;
            default:
                pcm[at++] = static_cast<uint8_t>(word);
                pcm[at++] = static_cast<uint8_t>(word >> 8);
                pcm[at++] = static_cast<uint8_t>(word >> 16);
                pcm[at++] = static_cast<uint8_t>(word >> 24);
                break;
            }
        }
    }
    return pcm;
}

std::vector<uint32_t> MakeWriteLengths(const Scenario& s)
{
    const uint32_t frameBytes = static_cast<uint32_t>(s.channels * (s.bits / 8));
    const uint32_t total = s.frames * frameBytes;
    // Frame counts of the player's usual blocks and some odd ones; every
    // fifth write has a partial frame at its end.
    const uint32_t pattern[6] = {576, 1152, 4000, 333, 8192, 1};
    std::vector<uint32_t> lengths;
    uint32_t done = 0;
    for (uint32_t n = 0; done < total; ++n) {
        uint32_t length = pattern[n % 6] * frameBytes;
        if (n % 5 == 4 && frameBytes > 1)
            length += frameBytes - 1;
        if (length > total - done)
            length = total - done;
        lengths.push_back(length);
        done += length;
    }
    return lengths;
}
