// Whole writes through ConvertAndProcess, as the plug-in's Write runs them:
// every mode on stereo and on six-channel 16-bit PCM at 44100 Hz, 576
// frames a write, 16-bit output. Also the single worst write of a headphone
// stream (the one that completes a convolver block), alone and with the
// helper thread, silence after signal
// against signal (filter memories decaying through the subnormal range),
// and building the engine, cold and with the planner's wisdom at hand.
#include <fftw3.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "engine/engine.h"
#include "engine/pcm_conversion.h"
#include "signal/block_helper.h"

namespace {

using Clock = std::chrono::steady_clock;

void Write(benchmark::State& state, uint32_t channels, bool bassRedirect)
{
    const ProcessorSettingsRecord settings = BenchSettings(int32_t(state.range(0)), bassRedirect);
    Engine engine;
    const StreamWords stream = {channels, 16, int32_t(kBenchRate), 16};
    const std::vector<int16_t> pcm = NoisePcm(kWriteFrames * channels);
    for (auto _ : state) {
        uint32_t frames = kWriteFrames;
        ConvertAndProcess(engine, settings, stream, reinterpret_cast<const uint8_t*>(pcm.data()),
                          uint32_t(pcm.size() * sizeof(pcm[0])), frames);
        benchmark::DoNotOptimize(engine.PcmBlock.data);
    }
    CountFrames(state, uint64_t(state.iterations()) * kWriteFrames);
}

void BM_StereoWrite(benchmark::State& state) { Write(state, 2, false); }
void BM_StereoWriteBassRedirect(benchmark::State& state) { Write(state, 2, true); }
void BM_SixChannelWrite(benchmark::State& state) { Write(state, 6, false); }

// Only the write that completes a block is timed; the counters hold the
// median, the 99th percentile and the slowest one seen. On a machine shared
// with other work the slowest one mostly measures the scheduler. With
// helper:1 a second thread takes SL and SR of each block, as in the plug-in
// between Init and Quit.
void HeadphoneWorstWrite(benchmark::State& state, uint32_t channels)
{
    const ProcessorSettingsRecord settings = BenchSettings(4, false);
    Engine engine;
    BlockHelper helper;
    if (state.range(0) != 0 && StartBlockHelper(helper))
        engine.Headphone.Helper = &helper;
    const StreamWords stream = {channels, 16, int32_t(kBenchRate), 16};
    const std::vector<int16_t> pcm = NoisePcm(kWriteFrames * channels);
    std::vector<double> times;
    for (auto _ : state) {
        for (;;) {
            uint32_t frames = kWriteFrames;
            const Clock::time_point start = Clock::now();
            ConvertAndProcess(engine, settings, stream, reinterpret_cast<const uint8_t*>(pcm.data()),
                              uint32_t(pcm.size() * sizeof(pcm[0])), frames);
            const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            if (frames != 0) {
                state.SetIterationTime(seconds);
                times.push_back(seconds);
                break;
            }
        }
    }
    std::sort(times.begin(), times.end());
    if (!times.empty()) {
        state.counters["median ms"] = times[times.size() / 2] * 1e3;
        state.counters["p99 ms"] = times[times.size() * 99 / 100] * 1e3;
        state.counters["worst ms"] = times.back() * 1e3;
    }
}

void BM_HeadphoneBlockWriteStereo(benchmark::State& state) { HeadphoneWorstWrite(state, 2); }
void BM_HeadphoneBlockWriteSixChannel(benchmark::State& state) { HeadphoneWorstWrite(state, 6); }

// A steered decode of silence right after a second of signal, against the
// signal itself: the filter memories fall through the subnormal range.
void BM_SilenceAfterSignal(benchmark::State& state)
{
    const ProcessorSettingsRecord settings = BenchSettings(3, true);
    const StreamWords stream = {2, 16, int32_t(kBenchRate), 16};
    const std::vector<int16_t> signal = NoisePcm(kWriteFrames * 2);
    const std::vector<int16_t> silence(kWriteFrames * 2, 0);
    const bool silent = state.range(0) != 0;
    Engine engine;
    for (auto _ : state) {
        state.PauseTiming();
        EngineReset(engine);
        for (uint32_t w = 0; w < kBenchRate / kWriteFrames; ++w) {
            uint32_t frames = kWriteFrames;
            ConvertAndProcess(engine, settings, stream, reinterpret_cast<const uint8_t*>(signal.data()),
                              uint32_t(signal.size() * sizeof(signal[0])), frames);
        }
        state.ResumeTiming();
        // The next second, of silence or of more signal.
        for (uint32_t w = 0; w < kBenchRate / kWriteFrames; ++w) {
            uint32_t frames = kWriteFrames;
            const std::vector<int16_t>& pcm = silent ? silence : signal;
            ConvertAndProcess(engine, settings, stream, reinterpret_cast<const uint8_t*>(pcm.data()),
                              uint32_t(pcm.size() * sizeof(pcm[0])), frames);
            benchmark::DoNotOptimize(engine.PcmBlock.data);
        }
    }
    CountFrames(state, uint64_t(state.iterations()) * (kBenchRate / kWriteFrames) * kWriteFrames);
}

// Building the engine: 21 plans with FFTW_MEASURE and six tables
// transformed. Cold, the planner measures every plan as a fresh process
// does; warm, it has the wisdom that a first build left, as the renderer's
// cache hands it over.
void BM_EngineConstruction(benchmark::State& state)
{
    const bool warm = state.range(0) != 0;
    fftwf_forget_wisdom();
    std::string wisdom;
    if (warm) {
        Engine first;
        char* text = fftwf_export_wisdom_to_string();
        wisdom = text;
        std::free(text);
    }
    for (auto _ : state) {
        fftwf_forget_wisdom();
        if (warm)
            fftwf_import_wisdom_from_string(wisdom.c_str());
        Engine* engine = new Engine();
        benchmark::DoNotOptimize(engine);
        delete engine;
    }
}

}  // namespace

BENCHMARK(BM_StereoWrite)->DenseRange(0, 5)->ArgName("mode");
BENCHMARK(BM_StereoWriteBassRedirect)->DenseRange(1, 3)->ArgName("mode");
BENCHMARK(BM_SixChannelWrite)->Arg(0)->Arg(4)->Arg(5)->ArgName("mode");
BENCHMARK(BM_HeadphoneBlockWriteStereo)->Arg(0)->Arg(1)->ArgName("helper")->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HeadphoneBlockWriteSixChannel)->Arg(0)->Arg(1)->ArgName("helper")->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SilenceAfterSignal)->Arg(0)->Arg(1)->ArgName("silent")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EngineConstruction)->Arg(0)->ArgName("warm")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_EngineConstruction)->Arg(1)->ArgName("warm")->Unit(benchmark::kMillisecond)->Iterations(20);
