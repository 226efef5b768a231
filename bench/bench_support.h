// What the benchmarks share: a settings record, noise-like PCM, and the
// multiple of real time as a counter.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "signal/processor.h"
#include "tests/support/engine_settings.h"

constexpr uint32_t kBenchRate = 44100;
constexpr uint32_t kWriteFrames = 576;  // a player's write

// The defaults of the benchmarks: a 10 ms surround delay, the rest as the
// tests' defaults; bass redirection as asked.
inline ProcessorSettingsRecord BenchSettings(int32_t mode, bool bassRedirect)
{
    SettingsWords settings;
    settings.Mode = mode;
    settings.Surround_Delay = 10;
    settings.Bass_Redir_Enable = bassRedirect ? 1 : 0;
    ProcessorSettingsRecord record;
    ApplySettings(settings, record);
    return record;
}

// 16-bit noise of `samples` samples from a fixed seed.
inline std::vector<int16_t> NoisePcm(size_t samples)
{
    std::vector<int16_t> pcm(samples);
    uint32_t seed = 12345;
    for (int16_t& s : pcm) {
        seed = seed * 1664525u + 1013904223u;
        s = int16_t(seed >> 17);
    }
    return pcm;
}

// Frames per second and how many times faster than real time at 44100 Hz.
inline void CountFrames(benchmark::State& state, uint64_t frames)
{
    state.counters["frames/s"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
    state.counters["x realtime"] = benchmark::Counter(double(frames) / kBenchRate, benchmark::Counter::kIsRate);
}
