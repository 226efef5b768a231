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

void BM_SteeredMatrixDecode(benchmark::State& state)
{
    StageRun run(int32_t(state.range(0)), kWriteFrames, 2);
    SteeringState steering;
    SurroundTailState tail;
    for (auto _ : state) {
        SteeredMatrixDecode(steering, tail, run.Refill());
        benchmark::DoNotOptimize(run.frames.data);
    }
    CountFrames(state, uint64_t(state.iterations()) * kWriteFrames);
}

void BM_FixedMatrixDecode(benchmark::State& state)
{
    StageRun run(1, kWriteFrames, 2);
    SurroundTailState tail;
    for (auto _ : state) {
        FixedMatrixDecode(tail, run.Refill());
        benchmark::DoNotOptimize(run.frames.data);
    }
    CountFrames(state, uint64_t(state.iterations()) * kWriteFrames);
}

void BM_SurroundTail(benchmark::State& state)
{
    StageRun run(3, kWriteFrames, 2);
    SurroundTailState tail;
    for (auto _ : state) {
        SurroundTail(tail, run.Refill());
        benchmark::DoNotOptimize(run.frames.data);
    }
    CountFrames(state, uint64_t(state.iterations()) * kWriteFrames);
}

void BM_BassRedirect(benchmark::State& state)
{
    StageRun run(3, kWriteFrames, 2);
    BassRedirectState bass;
    for (auto _ : state) {
        BassRedirect(bass, run.Refill());
        benchmark::DoNotOptimize(run.frames.data);
    }
    CountFrames(state, uint64_t(state.iterations()) * kWriteFrames);
}

void BM_Encode(benchmark::State& state)
{
    StageRun run(5, kWriteFrames, 6);
    MatrixEncoderState encoder;
    for (auto _ : state) {
        ProcessorBlock& block = run.Refill();
        DownmixSix(block);
        EncodeMix(encoder, block);
        benchmark::DoNotOptimize(run.frames.data);
    }
    CountFrames(state, uint64_t(state.iterations()) * kWriteFrames);
}

// One whole block through the convolver: collection, five forward and ten
// inverse transforms, the products, the overlap-add and the ears.
void BM_ConvolveHeadphoneBlock(benchmark::State& state)
{
    Engine engine;
    StageRun run(4, kBlockFrames, 6);
    for (auto _ : state) {
        ConvolveHeadphone(engine.Headphone, run.Refill());
        benchmark::DoNotOptimize(run.frames.data);
    }
    CountFrames(state, uint64_t(state.iterations()) * kBlockFrames);
}

// Arguments from the ranges that occur: quotients between 0.1 and 10, and
// exponents between -2.2 and 0.
std::vector<double> Arguments(double low, double high)
{
    std::vector<double> x(4 * kWriteFrames);
    for (size_t i = 0; i < x.size(); ++i)
        x[i] = low + (high - low) * double((i * 2654435761u) % 1000003u) / 1000003.0;
    return x;
}

void BM_LogToFloat(benchmark::State& state)
{
    const std::vector<double> x = Arguments(0.1, 10.0);
    std::vector<float> out(x.size());
    for (auto _ : state) {
        LogToFloat(x.data(), out.data(), uint32_t(x.size()));
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * x.size()));
}

void BM_LibraryLog(benchmark::State& state)
{
    const std::vector<double> x = Arguments(0.1, 10.0);
    std::vector<float> out(x.size());
    for (auto _ : state) {
        for (size_t i = 0; i < x.size(); ++i)
            out[i] = float(std::log(x[i]));
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * x.size()));
}

void BM_ExpToFloat(benchmark::State& state)
{
    const std::vector<double> x = Arguments(-2.2, 0.0);
    std::vector<float> out(x.size());
    for (auto _ : state) {
        ExpToFloat(x.data(), out.data(), uint32_t(x.size()));
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * x.size()));
}

void BM_LibraryExp(benchmark::State& state)
{
    const std::vector<double> x = Arguments(-2.2, 0.0);
    std::vector<float> out(x.size());
    for (auto _ : state) {
        for (size_t i = 0; i < x.size(); ++i)
            out[i] = float(std::exp(x[i]));
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * x.size()));
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
