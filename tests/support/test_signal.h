// Deterministic test signals: one or two sines and a little pseudo-random
// noise from a linear congruential generator, so that every run of a test
// sees the same samples.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

// Sample i is toneGain sin(toneRate i + seed) + secondGain sin(secondRate i)
// + noiseGain n, n uniform in -0.5..0.5; rates in radians per sample.
struct SignalMix {
    double toneGain;
    double toneRate;
    double secondGain;  // 0 for a single sine
    double secondRate;
    double noiseGain;
};

inline std::vector<float> MixedSignal(uint32_t count, uint32_t seed, const SignalMix& mix)
{
    std::vector<float> out(count);
    uint32_t state = seed * 2654435761u + 1u;
    for (uint32_t i = 0; i < count; ++i) {
        state = state * 1664525u + 1013904223u;
        const double noise = double(state >> 8) / double(1u << 24) - 0.5;
        double v = mix.toneGain * std::sin(mix.toneRate * i + seed);
        if (mix.secondGain != 0.0)
            v = v + mix.secondGain * std::sin(mix.secondRate * i);
        out[i] = float(v + mix.noiseGain * noise);
    }
    return out;
}
