// The write path: one write through ConvertAndProcess in each mode, 576
// frames of 16-bit noise-like PCM at 44100 Hz, 16-bit output. And the cost
// of building the engine, which every load of the plug-in pays: 21 plans
// measured with FFTW_MEASURE and six tables transformed.
#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <cstdint>
#include <vector>

#include "engine/engine.h"
#include "engine/pcm_conversion.h"
#include "signal/processor.h"
#include "tests/support/engine_settings.h"
#include "tests/support/test_engine.h"

namespace {

constexpr uint32_t kFrames = 576;

void WriteInMode(benchmark::State& state, uint32_t channels)
{
    // A 10 ms surround delay and bass redirection on, the rest as the test defaults.
    SettingsWords settings;
    settings.Mode = int32_t(state.range(0));
    settings.Surround_Delay = 10;
    settings.Bass_Redir_Enable = 1;
    ProcessorSettingsRecord record;
    ApplySettings(settings, record);
    Engine engine;
    const StreamWords stream = {channels, 16, 44100, 16};
    std::vector<int16_t> pcm(kFrames * channels);
    uint32_t seed = 12345;
    for (int16_t& s : pcm) {
        seed = seed * 1664525u + 1013904223u;
        s = int16_t(seed >> 17);
    }
    for (auto _ : state) {
        uint32_t frames = kFrames;
        ConvertWholeFrames(engine, record, stream, reinterpret_cast<const uint8_t*>(pcm.data()), frames);
        benchmark::DoNotOptimize(engine.PcmBlock.data);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kFrames);
}

void BM_StereoWrite(benchmark::State& state) { WriteInMode(state, 2); }

void BM_EngineConstruction(benchmark::State& state)
{
    for (auto _ : state) {
        // Forget what the planner learned, so that each construction
        // measures its plans anew as a fresh process does.
        fftwf_forget_wisdom();
        Engine* engine = new Engine();
        benchmark::DoNotOptimize(engine);
        delete engine;
    }
}
void BM_SixChannelWrite(benchmark::State& state) { WriteInMode(state, 6); }

}  // namespace

BENCHMARK(BM_StereoWrite)->DenseRange(0, 5)->ArgName("mode");
BENCHMARK(BM_SixChannelWrite)->Arg(0)->Arg(4)->Arg(5)->ArgName("mode");
BENCHMARK(BM_EngineConstruction)->Unit(benchmark::kMillisecond)->Iterations(3);
