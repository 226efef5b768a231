// Headphone convolver: hold-back and block counts, the routing of speakers
// to ears through the six tables, the 0.708 net gain, overlap across blocks,
// switches, and resets. Expected ear signals come from a direct time-domain
// convolution in double precision of the tables as stored.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "decoders/steered_matrix.h"
#include "encoders/headphone_convolver.h"
#include "encoders/impulse_tables.h"
#include "engine/engine.h"
#include "signal/frame.h"
#include "engine/pcm_conversion.h"
#include "signal/processor.h"
#include "tests/support/engine_settings.h"
#include "tests/support/test_engine.h"

namespace {

constexpr double kNetGain = 0.708;  // 2 x 0.354: overlap scale 1/8192 against the 16384 of a transform pair
constexpr double kRelativeError = 1e-5;  // of the table's peak, for a single impulse
constexpr double kFullScaleError = 1e-5; // of full scale, for long signals

std::vector<float> Table(int index)
{
    std::vector<float> t(kImpulseTableLength);
    CopyImpulseTable(index, t.data());
    return t;
}

struct Fixture {
    SampleBlock frames;
    ProcessorBlock block{};

    explicit Fixture(uint32_t capacityFrames = 8192)
    {
        EngineReset(TestEngine());
        frames.Resize(capacityFrames * kFrameFloats, true);
        block.Mode = 4;
        block.L = block.R = block.C = block.SL = block.SR = 1;
        block.In_Channels = 6;
        block.Sample_Rate = 44100;
        block.Block = &frames;
    }

    // Runs the convolver on `count` frames that the caller put at the start.
    uint32_t Run(uint32_t count)
    {
        block.Frames = count;
        ConvolveHeadphone(TestEngine().Headphone, block);
        return block.Frames;
    }

    float& At(uint32_t frame, uint32_t slot) { return frames.data[frame * kFrameFloats + slot]; }

    void Clear() { std::memset(frames.data, 0, std::size_t(frames.capacity) * sizeof(float)); }
};

// Checks slot `slot` of output frames [first, first + count) against
// `gain` x table[k + offset] for k = 0..count-1 (and 0 outside the table).
void ExpectTable(Fixture& fx, uint32_t slot, const std::vector<float>& table, double gain,
                 uint32_t first, uint32_t count, int offset)
{
    double peak = 0.0;
    for (float v : table)
        peak = std::max(peak, std::fabs(double(v)));
    const double bound = kRelativeError * kNetGain * std::fabs(gain) * peak;
    double worst = 0.0;
    uint32_t worstAt = 0;
    for (uint32_t k = 0; k < count; ++k) {
        const int index = int(k) + offset;
        const double expected =
            index >= 0 && index < int(table.size()) ? kNetGain * gain * double(table[index]) : 0.0;
        const double error = std::fabs(double(fx.At(first + k, slot)) - expected);
        if (error > worst)
            worst = error, worstAt = k;
    }
    EXPECT_LE(worst, bound) << "slot " << slot << " at output frame " << first + worstAt;
}

}  // namespace

TEST(ConvolveHeadphone, HoldsBack8191FramesAndReleasesTheBlockOnTheNext)
{
    Fixture fx;
    EXPECT_EQ(fx.Run(8191), 0u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 8191u);
    EXPECT_EQ(fx.Run(1), 8192u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
}

TEST(ConvolveHeadphone, CompletesABlockAndKeepsTheRestAtTheStartOfTheInputBlocks)
{
    Fixture fx;
    TestEngine().Headphone.Pending_Frames = 8000;
    for (uint32_t i = 0; i < 1152; ++i) {
        fx.At(i, kSlotL) = float(i) + 1.0f;
        fx.At(i, kSlotSR) = -float(i);
    }
    fx.block.SR = 2;
    EXPECT_EQ(fx.Run(1152), 8192u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 960u);
    // Input frames 192..1151 wait in floats 0..959, times their switches.
    for (uint32_t m = 0; m < 960; ++m) {
        ASSERT_EQ(TestEngine().Headphone.InputBlock[0].data[m], float(192 + m) + 1.0f) << m;
        ASSERT_EQ(TestEngine().Headphone.InputBlock[4].data[m], -2.0f * float(192 + m)) << m;
    }
}

TEST(ConvolveHeadphone, ZeroFramesWithPendingChangesNothing)
{
    Fixture fx;
    TestEngine().Headphone.Pending_Frames = 100;
    fx.At(0, kSlotL) = 0.25f;
    EXPECT_EQ(fx.Run(0), 0u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 100u);
    EXPECT_EQ(fx.At(0, kSlotL), 0.25f);
    EXPECT_EQ(fx.frames.size, 8192u * kFrameFloats);
}

TEST(ConvolveHeadphone, EarBlockIsEmptyAfterACallWithoutAWholeBlock)
{
    Fixture fx;
    fx.Run(100);
    EXPECT_EQ(TestEngine().Headphone.EarBlock.size, 0u);
    EXPECT_EQ(fx.block.Frames, 0u);
}

TEST(ConvolveHeadphone, CentreImpulseInFirstFrameGivesBothCentreTablesInTheFirstBlock)
{
    Fixture fx;
    fx.At(0, kSlotC) = 1.0f;
    ASSERT_EQ(fx.Run(8192), 8192u);
    ExpectTable(fx, kSlotL, Table(ImpulseCentreLeft), 1.0, 0, 8192, 0);
    ExpectTable(fx, kSlotR, Table(ImpulseCentreRight), 1.0, 0, 8192, 0);
}

TEST(ConvolveHeadphone, ImpulseInTheLastFrameRingsOnIntoTheNextBlockFromTheOverlap)
{
    Fixture fx;
    fx.At(8191, kSlotC) = 1.0f;
    ASSERT_EQ(fx.Run(8192), 8192u);
    const std::vector<float> left = Table(ImpulseCentreLeft);
    const std::vector<float> right = Table(ImpulseCentreRight);
    ExpectTable(fx, kSlotL, left, 1.0, 0, 8192, -8191);
    ExpectTable(fx, kSlotR, right, 1.0, 0, 8192, -8191);
    fx.Clear();
    ASSERT_EQ(fx.Run(8192), 8192u);
    ExpectTable(fx, kSlotL, left, 1.0, 0, 8192, 1);
    ExpectTable(fx, kSlotR, right, 1.0, 0, 8192, 1);
}

TEST(ConvolveHeadphone, EachSpeakerReachesEachEarThroughItsTable)
{
    struct Route {
        uint32_t slot;
        int leftEar;
        int rightEar;
    };
    const Route routes[] = {
        {kSlotL, ImpulseFrontNear, ImpulseFrontFar},
        {kSlotR, ImpulseFrontFar, ImpulseFrontNear},
        {kSlotSL, ImpulseSurroundNear, ImpulseSurroundFar},
        {kSlotSR, ImpulseSurroundFar, ImpulseSurroundNear},
    };
    for (const Route& route : routes) {
        Fixture fx;
        fx.At(0, route.slot) = 1.0f;
        ASSERT_EQ(fx.Run(8192), 8192u);
        ExpectTable(fx, kSlotL, Table(route.leftEar), 1.0, 0, 8192, 0);
        ExpectTable(fx, kSlotR, Table(route.rightEar), 1.0, 0, 8192, 0);
    }
}

TEST(ConvolveHeadphone, LfeSlotHasNoEffect)
{
    Fixture a;
    a.At(10, kSlotL) = 0.5f;
    a.Run(8192);
    const std::vector<float> without(a.frames.data, a.frames.data + 8192 * kFrameFloats);
    Fixture b;
    b.At(10, kSlotL) = 0.5f;
    for (uint32_t i = 0; i < 8192; ++i)
        b.At(i, kSlotLFE) = 0.9f;
    b.Run(8192);
    for (uint32_t k = 0; k < 8192 * kFrameFloats; ++k)
        ASSERT_EQ(b.frames.data[k], without[k]) << k;
}

TEST(ConvolveHeadphone, SwitchesAreMultipliersAtCollection)
{
    const std::vector<float> left = Table(ImpulseCentreLeft);
    const int32_t switches[] = {0, 2, -1};
    for (int32_t c : switches) {
        Fixture fx;
        fx.block.C = c;
        fx.At(0, kSlotC) = 1.0f;
        ASSERT_EQ(fx.Run(8192), 8192u);
        if (c == 0) {
            for (uint32_t i = 0; i < 8192; ++i)
                ASSERT_EQ(fx.At(i, kSlotL), 0.0f) << i;
        } else {
            ExpectTable(fx, kSlotL, left, double(c), 0, 8192, 0);
        }
    }
}

TEST(ConvolveHeadphone, SlotsTwoToFiveOfReturnedFramesAreExactlyZero)
{
    Fixture fx;
    for (uint32_t i = 0; i < 8192; ++i)
        for (uint32_t s = 0; s < kFrameFloats; ++s)
            fx.At(i, s) = 0.1f * float(s + 1);
    ASSERT_EQ(fx.Run(8192), 8192u);
    for (uint32_t i = 0; i < 8192; ++i)
        for (uint32_t s = kSlotC; s <= kSlotSR; ++s)
            ASSERT_EQ(fx.At(i, s), 0.0f) << i << " " << s;
}

TEST(ConvolveHeadphone, TwoBlocksInOneCallCarryTheOverlapIntoTheSecond)
{
    Fixture fx(16384);
    fx.At(8191, kSlotC) = 1.0f;
    ASSERT_EQ(fx.Run(16384), 16384u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
    const std::vector<float> left = Table(ImpulseCentreLeft);
    ExpectTable(fx, kSlotL, left, 1.0, 0, 16384, -8191);
}

TEST(ConvolveHeadphone, ResetClearsTheOverlapSoTheNextBlockHasNoTail)
{
    Fixture fx;
    fx.At(8191, kSlotC) = 1.0f;
    ASSERT_EQ(fx.Run(8192), 8192u);
    EngineReset(TestEngine());
    fx.Clear();
    ASSERT_EQ(fx.Run(8192), 8192u);
    for (uint32_t i = 0; i < 8192; ++i) {
        ASSERT_EQ(fx.At(i, kSlotL), 0.0f) << i;
        ASSERT_EQ(fx.At(i, kSlotR), 0.0f) << i;
    }
}

TEST(ConvolveHeadphone, WritesAcrossATrackChangeLoseAndDoubleNothing)
{
    // Frames in and out over many uneven writes: what comes out is what went
    // in, less what waits in Pending_Frames.
    Fixture fx;
    const uint32_t writes[] = {576, 1152, 4000, 1, 8192, 3000, 7, 576, 5000};
    uint64_t in = 0, out = 0;
    for (uint32_t w : writes) {
        in += w;
        out += fx.Run(w);
        EXPECT_EQ(fx.block.Frames % 8192u, 0u);
    }
    EXPECT_EQ(out + TestEngine().Headphone.Pending_Frames, in);
}

TEST(ConvolveHeadphone, FiveSpeakersOfNoiseMatchADirectConvolution)
{
    // 256 frames of noise on every slot, then silence; two blocks out hold
    // the whole response. Reference: each ear as the sum of five direct
    // convolutions in double precision, times 0.708.
    constexpr uint32_t kNoiseFrames = 256;
    Fixture fx;
    uint32_t seed = 2024;
    std::vector<double> in[6];
    for (auto& v : in)
        v.assign(kNoiseFrames, 0.0);
    for (uint32_t i = 0; i < kNoiseFrames; ++i)
        for (uint32_t s = 0; s < kFrameFloats; ++s) {
            seed = seed * 1664525u + 1013904223u;
            const float v = float(int32_t(seed >> 8) - (1 << 23)) / float(1 << 23);
            fx.At(i, s) = v;
            in[s][i] = v;
        }
    const std::vector<float> near = Table(ImpulseFrontNear), far = Table(ImpulseFrontFar);
    const std::vector<float> cl = Table(ImpulseCentreLeft), cr = Table(ImpulseCentreRight);
    const std::vector<float> sn = Table(ImpulseSurroundNear), sf = Table(ImpulseSurroundFar);
    const std::vector<float>* leftEar[6] = {&near, &far, &cl, nullptr, &sn, &sf};
    const std::vector<float>* rightEar[6] = {&far, &near, &cr, nullptr, &sf, &sn};

    std::vector<float> outL, outR;
    for (int b = 0; b < 2; ++b) {
        ASSERT_EQ(fx.Run(8192), 8192u);
        for (uint32_t i = 0; i < 8192; ++i) {
            outL.push_back(fx.At(i, kSlotL));
            outR.push_back(fx.At(i, kSlotR));
        }
        fx.Clear();
    }
    double worst = 0.0;
    for (uint32_t n = 0; n < kNoiseFrames + kImpulseTableLength - 1; ++n) {
        double l = 0.0, r = 0.0;
        for (uint32_t s = 0; s < kFrameFloats; ++s) {
            if (leftEar[s] == nullptr)
                continue;
            const uint32_t lo = n >= kImpulseTableLength ? n - kImpulseTableLength + 1 : 0;
            for (uint32_t k = lo; k <= n && k < kNoiseFrames; ++k) {
                l += in[s][k] * double((*leftEar[s])[n - k]);
                r += in[s][k] * double((*rightEar[s])[n - k]);
            }
        }
        worst = std::max(worst, std::fabs(double(outL[n]) - kNetGain * l));
        worst = std::max(worst, std::fabs(double(outR[n]) - kNetGain * r));
    }
    EXPECT_LT(worst, kFullScaleError);
}

namespace {

// A long stream through ConvertAndProcess in the Headphone mode, written in
// uneven pieces, against a direct convolution in double precision.
struct PathRun {
    std::vector<std::vector<double>> speakers;  // the five inputs to the convolver, L R C SL SR
    std::vector<double> outL, outR;             // the ears as they left in 32-bit PCM
};

constexpr uint32_t kWriteSizes[] = {576, 1, 4096, 1152, 333, 8192, 2000, 7};
constexpr float kOutputFullScale = 1825361152.0f;  // a float of 1.0 in 32-bit output

std::vector<int16_t> Noise(uint32_t samples, uint32_t seed)
{
    std::vector<int16_t> v(samples);
    for (int16_t& x : v) {
        seed = seed * 1664525u + 1013904223u;
        x = int16_t(int32_t(seed >> 16) / 4 - 8192);  // a quarter of full scale
    }
    return v;
}

// Writes the PCM in pieces; collects the ears of every frame that comes out.
void WriteStream(const StreamWords& stream, const std::vector<int16_t>& pcm, PathRun& run)
{
    const uint32_t frames = uint32_t(pcm.size() / stream.Stream_Channels);
    uint32_t done = 0;
    for (uint32_t w = 0; done < frames; ++w) {
        uint32_t count = std::min(kWriteSizes[w % std::size(kWriteSizes)], frames - done);
        const uint8_t* source = reinterpret_cast<const uint8_t*>(pcm.data() + done * stream.Stream_Channels);
        done += count;
        ConvertWholeFrames(TestEngine(), TestSettings(), stream, source, count);
        const int32_t* out = reinterpret_cast<const int32_t*>(TestEngine().PcmBlock.data);
        for (uint32_t i = 0; i < count; ++i) {
            run.outL.push_back(double(out[6 * i]) / double(kOutputFullScale));
            run.outR.push_back(double(out[6 * i + 1]) / double(kOutputFullScale));
        }
    }
}

// The ears at a set of output positions by direct convolution, against what
// came out; returns the largest difference.
double WorstAgainstDirectConvolution(const PathRun& run)
{
    const std::vector<float> near = Table(ImpulseFrontNear), far = Table(ImpulseFrontFar);
    const std::vector<float> cl = Table(ImpulseCentreLeft), cr = Table(ImpulseCentreRight);
    const std::vector<float> sn = Table(ImpulseSurroundNear), sf = Table(ImpulseSurroundFar);
    const std::vector<float>* leftEar[5] = {&near, &far, &cl, &sn, &sf};
    const std::vector<float>* rightEar[5] = {&far, &near, &cr, &sf, &sn};

    std::vector<uint32_t> positions;
    const uint32_t total = uint32_t(run.outL.size());
    for (uint32_t n = 0; n < 64; ++n)
        positions.push_back(n);
    for (uint32_t edge = 8192; edge < total; edge += 8192)
        for (uint32_t n = edge - 8; n < edge + 8; ++n)
            positions.push_back(n);
    for (uint32_t n = 101; n < total; n += 37)
        positions.push_back(n);

    double worst = 0.0;
    for (uint32_t n : positions) {
        double l = 0.0, r = 0.0;
        const uint32_t lo = n >= kImpulseTableLength ? n - kImpulseTableLength + 1 : 0;
        for (int s = 0; s < 5; ++s)
            for (uint32_t k = lo; k <= n; ++k) {
                l += run.speakers[s][k] * double((*leftEar[s])[n - k]);
                r += run.speakers[s][k] * double((*rightEar[s])[n - k]);
            }
        worst = std::max(worst, std::fabs(run.outL[n] - kNetGain * l));
        worst = std::max(worst, std::fabs(run.outR[n] - kNetGain * r));
    }
    return worst;
}

}  // namespace

TEST(HeadphonePath, LongSixChannelNoiseMatchesADirectConvolutionAcrossBlocksAndWriteSizes)
{
    constexpr uint32_t kFrames = 30000;
    SettingsWords settings;
    settings.Mode = 4;
    settings.Out_Bits = 32;
    ApplySettings(settings);
    EngineReset(TestEngine());
    const StreamWords stream = {6, 16, 44100, 32};
    const std::vector<int16_t> pcm = Noise(6 * kFrames, 77);

    PathRun run;
    const uint32_t slots[5] = {kSlotL, kSlotR, kSlotC, kSlotSL, kSlotSR};
    run.speakers.assign(5, std::vector<double>(kFrames));
    for (uint32_t i = 0; i < kFrames; ++i)
        for (int s = 0; s < 5; ++s)
            run.speakers[s][i] = double(pcm[6 * i + slots[s]]) / 32768.0;
    WriteStream(stream, pcm, run);

    EXPECT_EQ(run.outL.size(), 24576u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, kFrames - 24576u);
    EXPECT_LT(WorstAgainstDirectConvolution(run), kFullScaleError);
}

TEST(HeadphonePath, LongStereoNoiseIsDecodedThenMatchesADirectConvolution)
{
    // A stereo source is decoded first (surround rows of two surrounds, 3 dB
    // surround level, the delay in force); the decoder's own frames, made by
    // running it alone on the same converted input, are the convolver's input.
    constexpr uint32_t kFrames = 20000;
    SettingsWords settings;
    settings.Mode = 4;
    settings.Out_Bits = 32;
    settings.Surround_Delay = 10;
    ApplySettings(settings);
    const std::vector<int16_t> pcm = Noise(2 * kFrames, 31);

    EngineReset(TestEngine());
    SampleBlock frames;
    frames.Resize(kFrames * kFrameFloats, true);
    for (uint32_t i = 0; i < kFrames; ++i) {
        frames.data[6 * i + kSlotL] = float(pcm[2 * i]) * (1.0f / 32768.0f);
        frames.data[6 * i + kSlotR] = float(pcm[2 * i + 1]) * (1.0f / 32768.0f);
    }
    ProcessorBlock block{};
    block.Mode = 4;
    block.Surround_Delay = 10;
    block.Surround_Trim_00 = 3;
    block.L = block.R = block.C = block.SL = block.SR = 1;
    block.In_Channels = 2;
    block.Sample_Rate = 44100;
    block.Frames = kFrames;
    block.Block = &frames;
    SteeredMatrixDecode(TestEngine().Steering, TestEngine().Surround, block);

    PathRun run;
    const uint32_t slots[5] = {kSlotL, kSlotR, kSlotC, kSlotSL, kSlotSR};
    run.speakers.assign(5, std::vector<double>(kFrames));
    for (uint32_t i = 0; i < kFrames; ++i)
        for (int s = 0; s < 5; ++s)
            run.speakers[s][i] = double(frames.data[6 * i + slots[s]]);

    EngineReset(TestEngine());
    WriteStream({2, 16, 44100, 32}, pcm, run);
    EXPECT_EQ(run.outL.size(), 16384u);
    EXPECT_LT(WorstAgainstDirectConvolution(run), kFullScaleError);
}

// With a helper thread taking SL and SR of each block beside the caller,
// every output float is the one the caller alone gives: the shares write
// separate blocks, and the sums over the products wait for both. Twelve
// blocks of noise in all five speakers, written in uneven lengths, through
// two engines side by side, one of them helped; then the helper is stopped
// and the same engine goes on alone.
TEST(ConvolveHeadphone, AHelperThreadTakingSlAndSrGivesEveryFloatOfTheCallerAlone)
{
    Engine alone;
    Engine helped;
    BlockHelper helper;
    ASSERT_TRUE(StartBlockHelper(helper));
    helped.Headphone.Helper = &helper;

    SampleBlock aloneFrames, helpedFrames;
    uint32_t state = 20261122u;
    const uint32_t lengths[] = {576, 8192, 1, 4000, 8191, 3000};
    std::vector<float> input(8192 * kFrameFloats);
    uint32_t blocks = 0;
    for (int write = 0; blocks < 12; ++write) {
        if (write == 16)
            helped.Headphone.Helper = nullptr, StopBlockHelper(helper);
        const uint32_t count = lengths[write % 6];
        for (float& x : input) {
            state = state * 1664525u + 1013904223u;
            x = float(int32_t(state >> 8) - (1 << 23)) * (1.0f / 8388608.0f);
        }
        std::vector<float> outputs[2];
        Engine* engines[2] = {&alone, &helped};
        SampleBlock* frames[2] = {&aloneFrames, &helpedFrames};
        for (int e = 0; e < 2; ++e) {
            float* f = frames[e]->Resize(8192 * kFrameFloats, false);
            std::memcpy(f, input.data(), std::size_t(count) * kFrameFloats * sizeof(float));
            ProcessorBlock block{};
            block.Mode = 4;
            block.L = block.R = block.C = block.SL = block.SR = 1;
            block.In_Channels = 6;
            block.Sample_Rate = 44100;
            block.Block = frames[e];
            block.Frames = count;
            ConvolveHeadphone(engines[e]->Headphone, block);
            outputs[e].assign(frames[e]->data, frames[e]->data + std::size_t(block.Frames) * kFrameFloats);
        }
        ASSERT_EQ(outputs[0].size(), outputs[1].size()) << "write " << write;
        if (!outputs[0].empty()) {
            ASSERT_EQ(std::memcmp(outputs[0].data(), outputs[1].data(), outputs[0].size() * sizeof(float)), 0)
                << "write " << write;
        }
        blocks += uint32_t(outputs[0].size() / (kBlockFrames * kFrameFloats));
    }
    EXPECT_FALSE(helper.running);
}
