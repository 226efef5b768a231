// kelvane-hrir-wav FILE [RATE]: the six binaural tables as one 12-channel
// float WAV file, the response file of ffmpeg's headphone filter with
// hrir=multich. Channels 2k and 2k + 1 are the left- and right-ear responses
// of speaker k in the order L, R, C, LFE, SL, SR, each routed as our
// convolver routes it; LFE reaches neither ear, so its pair is silent.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "encoders/impulse_tables.h"

namespace {

constexpr int kChannels = 12;
constexpr int kSilent = -1;

// Per speaker: the tables of its left and right ear.
constexpr int kPairs[6][2] = {
    {ImpulseFrontNear, ImpulseFrontFar},        // L
    {ImpulseFrontFar, ImpulseFrontNear},        // R
    {ImpulseCentreLeft, ImpulseCentreRight},    // C
    {kSilent, kSilent},                         // LFE
    {ImpulseSurroundNear, ImpulseSurroundFar},  // SL
    {ImpulseSurroundFar, ImpulseSurroundNear},  // SR
};

void PutWord(std::vector<uint8_t>& out, uint32_t value, int bytes)
{
    for (int b = 0; b < bytes; ++b)
        out.push_back(uint8_t(value >> (8 * b)));
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: kelvane-hrir-wav FILE [RATE]\n");
        return 2;
    }
    const uint32_t rate = argc == 3 ? uint32_t(std::strtoul(argv[2], nullptr, 10)) : 44100;
    std::vector<float> tables(kImpulseTableCount * kImpulseTableLength);
    for (int t = 0; t < kImpulseTableCount; ++t)
        CopyImpulseTable(t, &tables[size_t(t) * kImpulseTableLength]);

    const uint32_t dataBytes = kImpulseTableLength * kChannels * 4;
    std::vector<uint8_t> file;
    // RIFF header with a plain IEEE-float format chunk (tag 3).
    for (char c : {'R', 'I', 'F', 'F'}) file.push_back(uint8_t(c));
    PutWord(file, 36 + dataBytes, 4);
    for (char c : {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '}) file.push_back(uint8_t(c));
    PutWord(file, 16, 4);
    PutWord(file, 3, 2);
    PutWord(file, kChannels, 2);
    PutWord(file, rate, 4);
    PutWord(file, rate * kChannels * 4, 4);
    PutWord(file, kChannels * 4, 2);
    PutWord(file, 32, 2);
    for (char c : {'d', 'a', 't', 'a'}) file.push_back(uint8_t(c));
    PutWord(file, dataBytes, 4);
    for (uint32_t i = 0; i < kImpulseTableLength; ++i)
        for (int speaker = 0; speaker < 6; ++speaker)
            for (int ear = 0; ear < 2; ++ear) {
                const int t = kPairs[speaker][ear];
                const float v = t == kSilent ? 0.0f : tables[size_t(t) * kImpulseTableLength + i];
                uint32_t bits;
                static_assert(sizeof bits == sizeof v);
                __builtin_memcpy(&bits, &v, sizeof bits);
                PutWord(file, bits, 4);
            }

    std::FILE* out = std::fopen(argv[1], "wb");
    if (out == nullptr || std::fwrite(file.data(), 1, file.size(), out) != file.size() || std::fclose(out) != 0) {
        std::fprintf(stderr, "kelvane-hrir-wav: cannot write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
