// Steering detector: the 1200 Hz band split and, per band, the two smoothed
// log-ratio signals.
//
// Raw values are checked against the ratio and logarithm formed here in
// double precision and rounded once; the smoothing against the 7.95 Hz
// low-pass recursion spelled out in float.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <vector>

#include "decoders/steering_detect.h"
#include "filters/second_order.h"
#include "engine/engine.h"
#include "signal/frame.h"
#include "signal/processor.h"
#include "signal/sample_block.h"
#include "tests/support/frame_block.h"
#include "tests/support/reference_filters.h"
#include "tests/support/test_signal.h"
#include "tests/support/test_engine.h"

namespace {

constexpr float kLeak = 0.1f;  // 0.10000000149011612
constexpr float kSmoother = 7.95f;
constexpr double kLn10 = 2.302585092994046;

float Magnitude(float v)
{
    return v >= 0.0f ? v : -0.0f - v;
}

// ln((a + g b) / (b + g a)) in double from two float magnitudes, one rounding.
float LogRatio(float a, float b)
{
    if (a == 0.0f && b == 0.0f)
        return 0.0f;
    const double g = double(kLeak);
    return float(std::log((double(a) + g * double(b)) / (double(b) + g * double(a))));
}

void ReferencePair(float l, float r, float& x, float& y)
{
    const float p = r + l;
    const float m = l - r;
    x = LogRatio(Magnitude(l), Magnitude(r));
    y = LogRatio(Magnitude(p), Magnitude(m));
}

// One float unit in the last place of v.
double Ulp(float v)
{
    return double(std::nextafter(std::fabs(v), FLT_MAX)) - double(std::fabs(v));
}

constexpr SignalMix kSignal{0.6, 0.017, 0.0, 0.0, 0.4};

std::vector<float> TestSignal(uint32_t count, uint32_t seed)
{
    return MixedSignal(count, seed, kSignal);
}

ProcessorBlock MakeBlock(SampleBlock& frames, uint32_t count, int32_t rate)
{
    return StereoRecord(frames, count, rate, 3);
}

// Runs a constant stereo pair through SteeringDetect for `total` frames in
// blocks of 8192 and returns the smoothed x and y of the last block.
void DetectConstant(float l, float r, int32_t rate, uint32_t total, std::vector<float>& x, std::vector<float>& y)
{
    constexpr uint32_t kChunk = 8192;
    std::vector<float> band(2 * kChunk);
    for (uint32_t i = 0; i < kChunk; ++i) {
        band[2 * i] = l;
        band[2 * i + 1] = r;
    }
    x.assign(kChunk, 0.0f);
    y.assign(kChunk, 0.0f);
    FilterState xState{};
    FilterState yState{};
    SampleBlock unused;
    for (uint32_t done = 0; done < total; done += kChunk) {
        const ProcessorBlock block = MakeBlock(unused, kChunk, rate);
        SteeringDetect(block, band.data(), xState, yState, x.data(), y.data());
    }
}

}  // namespace

// ---- Raw steering of one pair ------------------------------------------------

TEST(SteeringPair, SilenceGivesZeroForBoth)
{
    float x = 1.0f;
    float y = 1.0f;
    SteeringPair(0.0f, 0.0f, x, y);
    EXPECT_EQ(x, 0.0f);
    EXPECT_EQ(y, 0.0f);
    SteeringPair(-0.0f, 0.0f, x, y);
    EXPECT_EQ(x, 0.0f);
    EXPECT_EQ(y, 0.0f);
}

TEST(SteeringPair, OppositeUnitsGiveXZeroAndYMinusLn10)
{
    float x = 1.0f;
    float y = 1.0f;
    SteeringPair(1.0f, -1.0f, x, y);
    EXPECT_EQ(x, 0.0f);
    // p = 0, m = 2: ln(0.2 / 2.0) with the float leakage.
    const float expected = float(std::log((0.0 + double(kLeak) * 2.0) / (2.0 + double(kLeak) * 0.0)));
    EXPECT_EQ(y, expected);
    EXPECT_NEAR(y, -kLn10, 1e-6);
}

TEST(SteeringPair, LeftOnlyGivesLn10AndYZero)
{
    float x = 0.0f;
    float y = 1.0f;
    SteeringPair(1.0f, 0.0f, x, y);
    EXPECT_EQ(x, float(std::log(1.0 / double(kLeak))));
    EXPECT_NEAR(x, kLn10, 1e-6);
    EXPECT_EQ(y, 0.0f);
}

TEST(SteeringPair, RightOnlyGivesMinusLn10AndYZero)
{
    float x = 0.0f;
    float y = 1.0f;
    SteeringPair(0.0f, 1.0f, x, y);
    EXPECT_EQ(x, -float(std::log(1.0 / double(kLeak))));
    EXPECT_EQ(y, 0.0f);
}

TEST(SteeringPair, EqualUnitsGiveXZeroAndYLn10)
{
    float x = 1.0f;
    float y = 0.0f;
    SteeringPair(1.0f, 1.0f, x, y);
    EXPECT_EQ(x, 0.0f);
    EXPECT_EQ(y, float(std::log(2.0 / (double(kLeak) * 2.0))));
    EXPECT_NEAR(y, kLn10, 1e-6);
}

TEST(SteeringPair, TinyLeftAloneAlreadyGivesLn10)
{
    float x = 0.0f;
    float y = 1.0f;
    SteeringPair(1e-30f, 0.0f, x, y);
    EXPECT_EQ(x, float(std::log(double(1e-30f) / (double(kLeak) * double(1e-30f)))));
    EXPECT_NEAR(x, kLn10, 1e-6);
    EXPECT_EQ(y, 0.0f);
}

// The log is taken of the double ratio and rounded once; a logarithm formed
// as ln 2 x log2 may land one float away at a rounding boundary, no further.
TEST(SteeringPair, FollowsTheDoubleRatioAndItsSigns)
{
    const std::vector<float> left = TestSignal(5000, 1);
    const std::vector<float> right = TestSignal(5000, 2);
    for (size_t i = 0; i < left.size(); ++i) {
        float x = 0.0f;
        float y = 0.0f;
        float xr = 0.0f;
        float yr = 0.0f;
        SteeringPair(left[i], right[i], x, y);
        ReferencePair(left[i], right[i], xr, yr);
        ASSERT_LE(std::fabs(double(x) - double(xr)), Ulp(xr)) << left[i] << ", " << right[i];
        ASSERT_LE(std::fabs(double(y) - double(yr)), Ulp(yr)) << left[i] << ", " << right[i];
        ASSERT_LE(std::fabs(x), 2.3025852f);
        ASSERT_LE(std::fabs(y), 2.3025852f);
        if (std::fabs(left[i]) > std::fabs(right[i])) {
            ASSERT_GT(x, 0.0f);
        }
        if (std::fabs(left[i] + right[i]) < std::fabs(left[i] - right[i])) {
            ASSERT_LT(y, 0.0f);
        }
    }
}

// ---- Smoothing ---------------------------------------------------------------

TEST(SteeringDetect, SmoothsTheRawValuesWithTheFloat7_95HzLowPass)
{
    constexpr uint32_t kCount = 3000;
    const std::vector<float> signal = TestSignal(2 * kCount, 3);
    std::vector<float> x(kCount);
    std::vector<float> y(kCount);
    FilterState xState{};
    FilterState yState{};
    SampleBlock unused;
    for (int32_t rate : {44100, 48000, 22050}) {
        xState = FilterState{};
        yState = FilterState{};
        const ProcessorBlock block = MakeBlock(unused, kCount, rate);
        SteeringDetect(block, signal.data(), xState, yState, x.data(), y.data());
        ReferenceSection xs = ReferenceLowPass(kSmoother, rate);
        ReferenceSection ys = ReferenceLowPass(kSmoother, rate);
        for (uint32_t i = 0; i < kCount; ++i) {
            float xr = 0.0f;
            float yr = 0.0f;
            SteeringPair(signal[2 * i], signal[2 * i + 1], xr, yr);
            ASSERT_EQ(x[i], ReferenceStep(xs, xr)) << rate << " Hz, frame " << i;
            ASSERT_EQ(y[i], ReferenceStep(ys, yr)) << rate << " Hz, frame " << i;
        }
        EXPECT_EQ(xState.y1, xs.m.y1);
        EXPECT_EQ(yState.y1, ys.m.y1);
    }
}

TEST(SteeringDetect, BlockSplitGivesTheSameSteeringAsOneBlock)
{
    constexpr uint32_t kCount = 2000;
    const std::vector<float> signal = TestSignal(2 * kCount, 4);
    SampleBlock unused;
    std::vector<float> x(kCount);
    std::vector<float> y(kCount);
    FilterState xState{};
    FilterState yState{};
    SteeringDetect(MakeBlock(unused, kCount, 44100), signal.data(), xState, yState, x.data(), y.data());

    std::vector<float> xp(kCount);
    std::vector<float> yp(kCount);
    FilterState xpState{};
    FilterState ypState{};
    uint32_t start = 0;
    for (uint32_t n : {1u, 576u, 1000u, 423u}) {
        SteeringDetect(MakeBlock(unused, n, 44100), signal.data() + 2 * start, xpState, ypState, xp.data() + start,
                       yp.data() + start);
        start += n;
    }
    ASSERT_EQ(start, kCount);
    for (uint32_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(xp[i], x[i]) << "frame " << i;
        ASSERT_EQ(yp[i], y[i]) << "frame " << i;
    }
}

// The smoother of the detector, LowPass2 at 7.95 Hz with stride 1, takes a
// constant 2.302585 to 2.181663 at 44100 Hz and to 2.106999 at 48000 Hz.
TEST(SteeringSmoother, ConstantLn10RestsAt2_181663At44100And2_106999At48000)
{
    const struct {
        int32_t rate;
        double rest;
    } cases[] = {{44100, 2.181663}, {48000, 2.106999}};
    for (const auto& c : cases) {
        FilterState memory{};
        std::vector<float> data(8192);
        SampleBlock unused;
        for (int block = 0; block < 40; ++block) {
            std::fill(data.begin(), data.end(), 2.302585f);
            LowPass2(memory, data.data(), 0, kSteeringSmoother, 1, MakeBlock(unused, 8192, c.rate));
        }
        for (float v : data)
            ASSERT_NEAR(v, c.rest, 5e-7) << c.rate;
    }
}

// The detector's own bound is ln(1 / 0.1f) rounded, 2.30258512, one float
// above 2.302585; the level-dependent smoother does not rest at the same
// place for it: by the float recursion it settles at 2.182407 at 44100 Hz
// and wanders between about 2.10053 and 2.10068 at 48000 Hz.
TEST(SteeringDetect, HardLeftFollowsTheFloatSmootherOfTheBound)
{
    constexpr uint32_t kChunk = 8192;
    constexpr uint32_t kTotal = 40 * kChunk;
    for (int32_t rate : {44100, 48000}) {
        std::vector<float> x;
        std::vector<float> y;
        DetectConstant(1.0f, 0.0f, rate, kTotal, x, y);

        float bound = 0.0f;
        float zero = 1.0f;
        SteeringPair(1.0f, 0.0f, bound, zero);
        ASSERT_EQ(bound, 2.30258512f);
        ReferenceSection ref = ReferenceLowPass(kSmoother, rate);
        std::vector<float> expected;
        for (uint32_t i = 0; i < kTotal; ++i) {
            const float v = ReferenceStep(ref, bound);
            if (i >= kTotal - kChunk)
                expected.push_back(v);
        }
        for (uint32_t i = 0; i < kChunk; ++i) {
            ASSERT_EQ(x[i], expected[i]) << rate << " Hz, frame " << i;
            ASSERT_EQ(y[i], 0.0f) << rate << " Hz, frame " << i;
        }
        if (rate == 44100) {
            for (float v : x)
                ASSERT_NEAR(v, 2.182407, 5e-7);
        } else {
            for (float v : x)
                ASSERT_NEAR(v, 2.1006, 2e-4);
        }
    }
}

// ---- Band split --------------------------------------------------------------

TEST(BandSplit, HighBandIsThe1200HzHighPassAndLowBandTheRest)
{
    EngineReset(TestEngine());
    constexpr uint32_t kCount = 1500;
    const std::vector<float> signal = TestSignal(kCount * kFrameFloats, 5);
    FrameBlock frames(kCount, 44100, 3);
    frames.Load(signal);
    TestEngine().Steering.HighBand.Resize(2 * kCount, false);
    TestEngine().Steering.LowBand.Resize(2 * kCount, false);
    BandSplit(TestEngine().Steering, frames.pb);

    ReferenceSection left = ReferenceHighPass(1200.0f, 44100);
    ReferenceSection right = ReferenceHighPass(1200.0f, 44100);
    for (uint32_t i = 0; i < kCount; ++i) {
        const float l = signal[6 * i];
        const float r = signal[6 * i + 1];
        const float hl = ReferenceStep(left, l);
        const float hr = ReferenceStep(right, r);
        ASSERT_EQ(TestEngine().Steering.HighBand.data[2 * i], hl) << "frame " << i;
        ASSERT_EQ(TestEngine().Steering.HighBand.data[2 * i + 1], hr) << "frame " << i;
        ASSERT_EQ(TestEngine().Steering.LowBand.data[2 * i], l - hl) << "frame " << i;
        ASSERT_EQ(TestEngine().Steering.LowBand.data[2 * i + 1], r - hr) << "frame " << i;
    }
    for (uint32_t i = 0; i < kCount * kFrameFloats; ++i)
        ASSERT_EQ(frames.block.data[i], signal[i]);
    EXPECT_EQ(TestEngine().Steering.BandFilter[0].y1, left.m.y1);
    EXPECT_EQ(TestEngine().Steering.BandFilter[1].y1, right.m.y1);
}

// A constant input: the high band dies away to tiny residues and the low band
// takes the whole signal. While the residues are still normal floats the
// right one is exactly a quarter of the left, so the high band's steering,
// formed from these tiny values, is the steering of the whole signal; x
// exactly so, y up to the rounding of the residues' sum and difference.
TEST(BandSplit, DcHighBandDiesAwayAndItsSteeringComesFromTheResidues)
{
    EngineReset(TestEngine());
    constexpr uint32_t kCount = 4096;
    SampleBlock frames;
    frames.Resize(kCount * kFrameFloats, true);
    for (uint32_t i = 0; i < kCount; ++i) {
        frames.data[6 * i] = 1.0f;
        frames.data[6 * i + 1] = 0.25f;
    }
    ProcessorBlock block = MakeBlock(frames, kCount, 44100);
    TestEngine().Steering.HighBand.Resize(2 * kCount, false);
    TestEngine().Steering.LowBand.Resize(2 * kCount, false);
    BandSplit(TestEngine().Steering, block);
    const float* high = TestEngine().Steering.HighBand.data;
    const float* low = TestEngine().Steering.LowBand.data;

    float xWhole = 0.0f;
    float yWhole = 0.0f;
    SteeringPair(1.0f, 0.25f, xWhole, yWhole);
    uint32_t residues = 0;
    for (uint32_t i = 0; i < kCount; ++i) {
        const float hl = high[2 * i];
        const float hr = high[2 * i + 1];
        if (std::fabs(hl) < 1e-6f && std::fabs(hr) >= FLT_MIN) {
            float x = 0.0f;
            float y = 0.0f;
            SteeringPair(hl, hr, x, y);
            ASSERT_LE(std::fabs(double(x) - double(xWhole)), 2.0 * Ulp(xWhole)) << "frame " << i;
            // p and m are float sums of the residues, rounded where 1.25 and
            // 0.75 are exact, so y agrees to a few units of the last place.
            ASSERT_NEAR(y, yWhole, 1e-6) << "frame " << i;
            ++residues;
        }
    }
    EXPECT_GT(residues, 100u);
    for (uint32_t i = kCount - 1000; i < kCount; ++i) {
        ASSERT_LT(std::fabs(high[2 * i]), 1e-30f) << "frame " << i;
        ASSERT_LT(std::fabs(high[2 * i + 1]), 1e-30f) << "frame " << i;
        ASSERT_EQ(low[2 * i], 1.0f) << "frame " << i;
        ASSERT_EQ(low[2 * i + 1], 0.25f) << "frame " << i;
    }
}
