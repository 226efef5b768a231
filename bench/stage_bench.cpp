// Each stage alone on one write of 576 frames (the headphone convolver on a
// whole block of 8192), in place on frames filled afresh from noise before
// every run; the refill, a copy of the block, is part of every figure. And
// the block logarithm and exponential against the C library's, element by
// element.
#include <cmath>
#include <cstring>
#include <vector>

#include "bench/bench_support.h"
#include "decoders/fixed_matrix.h"
#include "decoders/steered_matrix.h"
#include "engine/engine.h"
#include "encoders/headphone_convolver.h"
#include "encoders/matrix_encoder.h"
#include "filters/bass_redirect.h"
#include "filters/surround_tail.h"
#include "signal/block_math.h"
#include "signal/frame.h"

namespace {

// Frames of noise in every slot, and a block record over a copy of them.
struct StageRun {
    std::vector<float> source;
    SampleBlock frames;
    ProcessorBlock block;

    StageRun(int32_t mode, uint32_t count, int32_t channels)
    {
        const std::vector<int16_t> pcm = NoisePcm(size_t(count) * kFrameFloats);
        source.resize(pcm.size());
        for (size_t i = 0; i < pcm.size(); ++i)
            source[i] = float(pcm[i]) * 3.0517578125e-05f;
        frames.Resize(uint32_t(source.size()), true);
        const ProcessorSettingsRecord s = BenchSettings(mode, true);
        block = ProcessorBlock{s.Mode, s.Surround_Delay, s.Centre_Width, s.Centre_Trim, s.Surround_Trim_00 + 3,
                               s.Bass_Redir, s.Bass_Redir_Enable, s.Bass_Trim, s.Bass_Invert, s.Virtual_C,
                               s.L, s.R, s.C, s.SL, s.SR, 0, channels, int32_t(kBenchRate), count, &frames};
    }

    ProcessorBlock& Refill()
    {
        std::memcpy(frames.data, source.data(), source.size() * sizeof(float));
        block.Frames = uint32_t(source.size() / kFrameFloats);
        return block;
    }
};

void BM_SteeringDetect(benchmark::State& state)
{
    StageRun run(3, kWriteFrames, 2);
    SteeringState steering;
    for (auto _ : state) {
        ProcessorBlock& block = run.Refill();
        steering.HighBand.Resize(2 * kWriteFrames, false);
        steering.LowBand.Resize(2 * kWriteFrames, false);
        steering.SteerHighLR.Resize(kWriteFrames, false);
        steering.SteerHighCS.Resize(kWriteFrames, false);
        steering.SteerLowLR.Resize(kWriteFrames, false);
        steering.SteerLowCS.Resize(kWriteFrames, false);
        BandSplit(steering, block);
        SteeringDetectBands(steering, block);
        benchmark::DoNotOptimize(steering.SteerLowCS.data);
    }
    CountFrames(state, uint64_t(state.iterations()) * kWriteFrames);
}

// A stage on fresh frames in every run, with its own state.
template <class Stage>
void TimeStage(benchmark::State& state, int32_t mode, int32_t channels, uint32_t frames, Stage stage)
{
    StageRun run(mode, frames, channels);
    for (auto _ : state) {
        stage(run.Refill());
        benchmark::DoNotOptimize(run.frames.data);
    }
    CountFrames(state, uint64_t(state.iterations()) * frames);
}

void BM_SteeredMatrixDecode(benchmark::State& state)
{
    SteeringState steering;
    SurroundTailState tail;
    TimeStage(state, int32_t(state.range(0)), 2, kWriteFrames,
              [&](ProcessorBlock& block) { SteeredMatrixDecode(steering, tail, block); });
}

void BM_FixedMatrixDecode(benchmark::State& state)
{
    SurroundTailState tail;
    TimeStage(state, 1, 2, kWriteFrames, [&](ProcessorBlock& block) { FixedMatrixDecode(tail, block); });
}

void BM_SurroundTail(benchmark::State& state)
{
    SurroundTailState tail;
    TimeStage(state, 3, 2, kWriteFrames, [&](ProcessorBlock& block) { SurroundTail(tail, block); });
}

void BM_BassRedirect(benchmark::State& state)
{
    BassRedirectState bass;
    TimeStage(state, 3, 2, kWriteFrames, [&](ProcessorBlock& block) { BassRedirect(bass, block); });
}

void BM_Encode(benchmark::State& state)
{
    MatrixEncoderState encoder;
    TimeStage(state, 5, 6, kWriteFrames, [&](ProcessorBlock& block) {
        DownmixSix(block);
        EncodeMix(encoder, block);
    });
}

// One whole block through the convolver: collection, five forward and ten
// inverse transforms, the products, the overlap-add and the ears.
void BM_ConvolveHeadphoneBlock(benchmark::State& state)
{
    Engine engine;
    TimeStage(state, 4, 6, kBlockFrames, [&](ProcessorBlock& block) { ConvolveHeadphone(engine.Headphone, block); });
}

// A function over arguments from a range that occurs: the detector's
// quotients lie between 0.1 and 10, the decoder's exponents between -2.2
// and 0.
template <class Function>
void TimeArray(benchmark::State& state, double low, double high, Function function)
{
    std::vector<double> x(4 * kWriteFrames);
    for (size_t i = 0; i < x.size(); ++i)
        x[i] = low + (high - low) * double((i * 2654435761u) % 1000003u) / 1000003.0;
    std::vector<float> out(x.size());
    for (auto _ : state) {
        function(x, out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * x.size()));
}

void BM_LogToFloat(benchmark::State& state)
{
    TimeArray(state, 0.1, 10.0, [](const std::vector<double>& x, std::vector<float>& out) {
        LogToFloat(x.data(), out.data(), uint32_t(x.size()));
    });
}

void BM_LibraryLog(benchmark::State& state)
{
    TimeArray(state, 0.1, 10.0, [](const std::vector<double>& x, std::vector<float>& out) {
        for (size_t i = 0; i < x.size(); ++i)
            out[i] = float(std::log(x[i]));
    });
}

void BM_ExpToFloat(benchmark::State& state)
{
    TimeArray(state, -2.2, 0.0, [](const std::vector<double>& x, std::vector<float>& out) {
        ExpToFloat(x.data(), out.data(), uint32_t(x.size()));
    });
}

void BM_LibraryExp(benchmark::State& state)
{
    TimeArray(state, -2.2, 0.0, [](const std::vector<double>& x, std::vector<float>& out) {
        for (size_t i = 0; i < x.size(); ++i)
            out[i] = float(std::exp(x[i]));
    });
}

}  // namespace

BENCHMARK(BM_SteeringDetect);
BENCHMARK(BM_SteeredMatrixDecode)->Arg(2)->Arg(3)->ArgName("mode");
BENCHMARK(BM_FixedMatrixDecode);
BENCHMARK(BM_SurroundTail);
BENCHMARK(BM_BassRedirect);
BENCHMARK(BM_Encode);
BENCHMARK(BM_ConvolveHeadphoneBlock)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LogToFloat);
BENCHMARK(BM_LibraryLog);
BENCHMARK(BM_ExpToFloat);
BENCHMARK(BM_LibraryExp);
