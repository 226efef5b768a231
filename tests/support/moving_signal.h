// A test signal that moves, as PCM of any depth: tones that pan across the
// channels, a noise floor, a stretch of digital silence and a stretch of one
// channel alone, so that the steering, the filters, the delay and the
// convolver all carry state from one write to the next.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "tests/support/pcm_words.h"

// A signal that moves: tones that pan across the channels, a noise floor,
// a stretch of digital silence and a stretch of one channel alone, so that
// the steering, the filters and the delay all have something to carry over
// a cut. Values in -0.9..0.9 of full scale.
inline double SignalValue(uint32_t frame, uint32_t channel)
{
    // A small integer hash of (frame, channel) for the noise floor.
    uint32_t h = frame * 8u + channel + 0x9E3779B9u;
    h ^= h >> 16;
    h *= 0x7FEB352Du;
    h ^= h >> 15;
    h *= 0x846CA68Bu;
    h ^= h >> 16;
    const double noise = (double(h >> 8) / double(1u << 24) - 0.5) * 0.1;
    if (frame >= 3000 && frame < 3400)
        return 0.0;  // silence
    const double t = double(frame);
    const double pan = 0.5 + 0.5 * std::sin(t * 0.0007 + channel);
    double v = 0.55 * pan * std::sin(t * (0.013 + 0.004 * channel)) +
               0.25 * std::sin(t * 0.0021 + 1.3 * channel) + noise;
    if (frame >= 5000 && frame < 5600 && channel != 0)
        v = 0.0;  // the first channel alone
    return std::clamp(v, -0.9, 0.9);
}

inline std::vector<uint8_t> MakeSource(uint32_t frames, uint32_t channels, uint32_t bits)
{
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < frames; ++i) {
        for (uint32_t k = 0; k < channels; ++k) {
            const double v = SignalValue(i, k);
            switch (bits) {
            case 8:
                Put8(bytes, uint8_t(128 + int(std::lround(v * 127.0))));
                break;
            case 16:
                Put16(bytes, int16_t(std::lround(v * 32767.0)));
                break;
            case 24:
                Put24(bytes, int32_t(std::lround(v * 8388607.0)));
                break;
            default:
                Put32(bytes, int32_t(std::lround(v * 2147483647.0)));
                break;
            }
        }
    }
    return bytes;
}
