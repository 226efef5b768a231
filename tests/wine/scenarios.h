// The streams that the comparison between the Windows DLL under Wine and the
// Linux build renders: the settings, the source format, the input PCM and the
// sizes of the host's writes. Both sides take everything from here, and the
// input is made of whole-number arithmetic only, so that it is the same byte
// for byte on both.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Scenario {
    std::string name;       // file name of its output, e.g. "m3_2ch_16to24"
    int32_t channels;       // source channels, 1 to 6
    int32_t bits;           // source bits per sample: 8, 16, 24, 32
    int32_t rate;           // hertz
    uint32_t frames;        // source frames in all
    // The sixteen number settings in the order of the record: Mode, Out_Bits,
    // Surround_Delay, Centre_Width, Centre_Trim, Surround_Trim_00, Bass_Redir,
    // Bass_Redir_Enable, Bass_Trim, Bass_Invert, Virtual_C, L, R, C, SL, SR.
    int32_t settings[16];
};

constexpr int kSettingCount = 16;
extern const char* const kSettingNames[kSettingCount];

// Every scenario, in the order in which both sides render them. The order
// matters: the engine's buffers run on from stream to stream.
std::vector<Scenario> MakeScenarios();

// The host's PCM for a scenario: frames x channels little-endian words of
// `bits` bits, 8-bit words unsigned with 128 as zero.
std::vector<uint8_t> MakeInput(const Scenario& scenario);

// Byte lengths of the host's writes, in order; they add up to the input's
// size. Most are whole frames, a few carry a partial frame that the plug-in
// drops.
std::vector<uint32_t> MakeWriteLengths(const Scenario& scenario);
