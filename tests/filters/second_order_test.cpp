// Second-order sections: coefficients, the single-precision recursion, the
// resting points of the 7.95 Hz smoother, and the response against the
// textbook Butterworth magnitude.
//
// Expected values are either the known figures of these sections or a
// reference written out here: the coefficient steps and the recursion
// spelled out in float in their fixed order, or a double-precision formula.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "filters/second_order.h"
#include "engine/engine.h"
#include "signal/frame.h"
#include "signal/processor.h"
#include "signal/sample_block.h"
#include "tests/support/direct_dft.h"
#include "tests/support/frame_block.h"
#include "tests/support/reference_filters.h"
#include "tests/support/test_signal.h"
#include "tests/support/test_engine.h"

namespace {

constexpr float kSmootherCutoff = 7.95f;  // 7.949999809265137 Hz
constexpr SignalMix kSignal{0.5, 0.031, 0.3, 0.47, 0.2};

std::vector<float> TestSignal(uint32_t count, uint32_t seed)
{
    return MixedSignal(count, seed, kSignal);
}

ProcessorBlock MakeBlock(SampleBlock& frames, uint32_t count, int32_t rate)
{
    return StereoRecord(frames, count, rate, 3);
}

// Runs a constant through LowPass2 at the smoother's cut-off from zero memory,
// in blocks of 8192 samples, and returns the last `window` outputs.
std::vector<float> SmootherConstantRun(float input, int32_t rate, uint32_t total, uint32_t window)
{
    constexpr uint32_t kChunk = 8192;
    FilterState memory{};
    std::vector<float> buffer(kChunk);
    std::vector<float> tail;
    tail.reserve(window);
    SampleBlock unused;
    for (uint32_t done = 0; done < total; done += kChunk) {
        std::fill(buffer.begin(), buffer.end(), input);
        ProcessorBlock block = MakeBlock(unused, kChunk, rate);
        LowPass2(memory, buffer.data(), 0, kSmootherCutoff, 1, block);
        for (uint32_t i = 0; i < kChunk; ++i) {
            if (done + i >= total - window)
                tail.push_back(buffer[i]);
        }
    }
    return tail;
}

void ExpectRestsAt(float input, int32_t rate, double expected)
{
    // 49 blocks of 8192: the values settle within some 12000 samples.
    const std::vector<float> tail = SmootherConstantRun(input, rate, 49 * 8192, 100000);
    for (float y : tail)
        ASSERT_NEAR(y, expected, 5e-7) << "input " << input << " at " << rate << " Hz";
}

// "Wanders slowly between about lo and hi": over a late window every value
// lies within two units of the last quoted digit of the range, its lowest
// and highest values lie that close to the quoted ends, and it does move.
void ExpectWandersBetween(float input, int32_t rate, double lo, double hi, double unit)
{
    const std::vector<float> tail = SmootherConstantRun(input, rate, 49 * 8192, 200000);
    const auto [minIt, maxIt] = std::minmax_element(tail.begin(), tail.end());
    const double tolerance = 2.0 * unit;
    EXPECT_GE(*minIt, lo - tolerance);
    EXPECT_LE(*minIt, lo + tolerance);
    EXPECT_GE(*maxIt, hi - tolerance);
    EXPECT_LE(*maxIt, hi + tolerance);
    EXPECT_GE(double(*maxIt) - double(*minIt), 0.5 * (hi - lo));
}

// Every coefficient of `got` equal to the float of `want`.
void ExpectCoefficients(const SectionCoefficients& got, const SectionCoefficients& want, const std::string& label)
{
    EXPECT_EQ(got.c, want.c) << label;
    EXPECT_EQ(got.a, want.a) << label;
    EXPECT_EQ(got.B1, want.B1) << label;
    EXPECT_EQ(got.B2, want.B2) << label;
}

// Magnitude of the float impulse response at frequency f.
double ResponseMagnitude(const std::vector<float>& h, double f, int32_t rate)
{
    double re;
    double im;
    DirectDft(h, f, double(rate), re, im);
    return std::hypot(re, im);
}

}  // namespace

// ---- Coefficients ----------------------------------------------------------

// Each of these decimals names exactly one float at these magnitudes, so
// equality with that float checks every quoted digit.
TEST(SectionCoefficients, SmootherAt44100IsC1765_71875A3_2048604eMinus7B1Minus1_9983982B2_0_9983995)
{
    ExpectCoefficients(LowPassCoefficients(kSmootherCutoff, 44100),
                       SectionCoefficients{1765.71875f, 3.2048604e-07f, -1.9983982f, 0.9983995f}, "");
}

TEST(SectionCoefficients, SmootherAt48000IsC1921_8708A2_7054034eMinus7B1Minus1_9985282B2_0_9985294)
{
    ExpectCoefficients(LowPassCoefficients(kSmootherCutoff, 48000),
                       SectionCoefficients{1921.8708f, 2.7054034e-07f, -1.9985282f, 0.9985294f}, "");
}

TEST(SectionCoefficients, SmootherDcGainOfRoundedCoefficientsFallsShortOfOne)
{
    const SectionCoefficients k44 = LowPassCoefficients(kSmootherCutoff, 44100);
    const SectionCoefficients k48 = LowPassCoefficients(kSmootherCutoff, 48000);
    const double gain44 = 4.0 * k44.a / (1.0 + double(k44.B1) + double(k44.B2));
    const double gain48 = 4.0 * k48.a / (1.0 + double(k48.B1) + double(k48.B2));
    EXPECT_NEAR(gain44, 0.9776, 5e-5);
    EXPECT_NEAR(gain48, 0.9556, 5e-5);
}

TEST(SectionCoefficients, BothFormsFollowTheFloatStepsExactly)
{
    struct Case {
        float cutoff;
        int32_t rate;
    };
    const Case cases[] = {{1200.0f, 44100}, {100.0f, 48000}, {7000.0f, 44100}, {120.0f, 32000},
                          {7.95f, 22050},   {7000.0f, 14000}, {20000.0f, 44100}, {55.0f, 96000}};
    for (const Case& c : cases) {
        const std::string at = std::to_string(c.cutoff) + " Hz at " + std::to_string(c.rate);
        ExpectCoefficients(HighPassCoefficients(c.cutoff, c.rate), ReferenceCoefficients(c.cutoff, c.rate, false),
                           "high-pass " + at);
        ExpectCoefficients(LowPassCoefficients(c.cutoff, c.rate), ReferenceCoefficients(c.cutoff, c.rate, true),
                           "low-pass " + at);
    }
}

TEST(SectionCoefficients, HighPassAtCutOffZeroIsTheIdentitySection)
{
    ExpectCoefficients(HighPassCoefficients(0.0f, 44100), SectionCoefficients{0.0f, 1.0f, -2.0f, 1.0f}, "");
}

// ---- The recursion -----------------------------------------------------------

TEST(HighPass2, WalksOneSlotOfFramesLikeTheFloatRecursion)
{
    EngineReset(TestEngine());
    constexpr uint32_t kFrames = 700;
    const std::vector<float> signal = TestSignal(kFrames * kFrameFloats, 1);
    FrameBlock frames(kFrames, 44100, 3);
    frames.Load(signal);

    FilterState memory{};
    HighPass2(memory, frames.block.data, kSlotC, 1200.0f, 6, frames.pb);

    const SectionCoefficients k = ReferenceCoefficients(1200.0f, 44100, false);
    FilterState ref{};
    for (uint32_t i = 0; i < kFrames; ++i) {
        for (uint32_t s = 0; s < kFrameFloats; ++s) {
            const float in = signal[6 * i + s];
            const float expected = s == kSlotC ? ReferenceHighPassStep(ref, in, k) : in;
            ASSERT_EQ(frames.block.data[6 * i + s], expected) << "frame " << i << " slot " << s;
        }
    }
    EXPECT_TRUE(SameMemory(memory, ref));
}

TEST(LowPass2, WalksEverySecondFloatLikeTheFloatRecursion)
{
    EngineReset(TestEngine());
    constexpr uint32_t kCount = 900;
    std::vector<float> data = TestSignal(2 * kCount, 2);
    const std::vector<float> original = data;
    SampleBlock unused;
    ProcessorBlock block = MakeBlock(unused, kCount, 48000);

    FilterState memory{};
    LowPass2(memory, data.data(), 1, 7000.0f, 2, block);

    const SectionCoefficients k = ReferenceCoefficients(7000.0f, 48000, true);
    FilterState ref{};
    for (uint32_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(data[2 * i], original[2 * i]) << "sample " << i;
        ASSERT_EQ(data[2 * i + 1], ReferenceLowPassStep(ref, original[2 * i + 1], k)) << "sample " << i;
    }
    EXPECT_TRUE(SameMemory(memory, ref));
}

TEST(SplitHighPass2, HighPassesTheSlotAndAddsInputMinusOutputToTheSide)
{
    EngineReset(TestEngine());
    constexpr uint32_t kFrames = 500;
    const std::vector<float> signal = TestSignal(kFrames * kFrameFloats, 3);
    FrameBlock frames(kFrames, 44100, 3);
    frames.Load(signal);
    const std::vector<float> sideStart = TestSignal(kFrames, 4);
    std::vector<float> side = sideStart;

    FilterState memory{};
    SplitHighPass2(memory, kSlotR, side.data(), 120.0f, frames.pb);

    const SectionCoefficients k = ReferenceCoefficients(120.0f, 44100, false);
    FilterState ref{};
    for (uint32_t i = 0; i < kFrames; ++i) {
        const float x = signal[6 * i + kSlotR];
        const float y = ReferenceHighPassStep(ref, x, k);
        const float d = x - y;
        ASSERT_EQ(frames.block.data[6 * i + kSlotR], y) << "frame " << i;
        ASSERT_EQ(side[i], d + sideStart[i]) << "frame " << i;
        for (uint32_t s = 0; s < kFrameFloats; ++s) {
            if (s != kSlotR) {
                ASSERT_EQ(frames.block.data[6 * i + s], signal[6 * i + s]);
            }
        }
    }
    EXPECT_TRUE(SameMemory(memory, ref));
}

// ---- Resting points of the 7.95 Hz smoother ----------------------------------

TEST(SmootherRestingPoint, Ln10At44100RestsAt2_181663)
{
    ExpectRestsAt(2.302585f, 44100, 2.181663);
}

TEST(SmootherRestingPoint, OneAt44100RestsAt0_999981)
{
    ExpectRestsAt(1.0f, 44100, 0.999981);
}

TEST(SmootherRestingPoint, HalfAt44100RestsAt0_499991)
{
    ExpectRestsAt(0.5f, 44100, 0.499991);
}

TEST(SmootherRestingPoint, TenthAt44100RestsAt0_102327)
{
    ExpectRestsAt(0.1f, 44100, 0.102327);
}

TEST(SmootherRestingPoint, Ln10At48000RestsAt2_106999)
{
    ExpectRestsAt(2.302585f, 48000, 2.106999);
}

TEST(SmootherRestingPoint, OneAt48000WandersBetween0_947And0_948)
{
    ExpectWandersBetween(1.0f, 48000, 0.947, 0.948, 0.001);
}

TEST(SmootherRestingPoint, HalfAt48000WandersBetween0_4735And0_4741)
{
    ExpectWandersBetween(0.5f, 48000, 0.4735, 0.4741, 0.0001);
}

TEST(SmootherRestingPoint, TenthAt48000WandersBetween0_0920And0_0922)
{
    ExpectWandersBetween(0.1f, 48000, 0.0920, 0.0922, 0.0001);
}

// Round-to-nearest is symmetric, so a negated input gives the negated output
// sample for sample, and the resting points with the sign changed.
TEST(SmootherRestingPoint, NegativeInputsGiveTheSameValuesWithSignChanged)
{
    const float inputs[] = {2.302585f, 1.0f, 0.5f, 0.1f};
    for (int32_t rate : {44100, 48000}) {
        for (float input : inputs) {
            const std::vector<float> pos = SmootherConstantRun(input, rate, 30 * 8192, 30 * 8192);
            const std::vector<float> neg = SmootherConstantRun(-input, rate, 30 * 8192, 30 * 8192);
            ASSERT_EQ(pos.size(), neg.size());
            for (size_t i = 0; i < pos.size(); ++i)
                ASSERT_EQ(neg[i], -pos[i]) << "input " << input << " at " << rate << ", sample " << i;
        }
    }
    ExpectRestsAt(-2.302585f, 44100, -2.181663);
    ExpectRestsAt(-1.0f, 44100, -0.999981);
    ExpectRestsAt(-2.302585f, 48000, -2.106999);
}

// The smoother follows the float recursion exactly, so its resting point is
// the float recursion's and not that of the exact filter.
TEST(SmootherRestingPoint, FollowsTheFloatRecursionSampleForSample)
{
    for (int32_t rate : {44100, 48000}) {
        const std::vector<float> run = SmootherConstantRun(1.0f, rate, 3 * 8192, 3 * 8192);
        const SectionCoefficients k = ReferenceCoefficients(kSmootherCutoff, rate, true);
        FilterState ref{};
        for (size_t i = 0; i < run.size(); ++i)
            ASSERT_EQ(run[i], ReferenceLowPassStep(ref, 1.0f, k)) << "sample " << i << " at " << rate;
    }
}

// ---- Edge cases -------------------------------------------------------------

TEST(SecondOrderEdge, FramesZeroTouchesNoSampleNoMemoryNoSide)
{
    EngineReset(TestEngine());
    SampleBlock frames;
    frames.Resize(12 * kFrameFloats, true);
    const std::vector<float> signal = TestSignal(12 * kFrameFloats, 5);
    std::copy(signal.begin(), signal.end(), frames.data);
    std::vector<float> side = TestSignal(12, 6);
    const std::vector<float> sideBefore = side;
    ProcessorBlock block = MakeBlock(frames, 0, 44100);

    const FilterState start{0.25f, -0.5f, 0.125f, 0.75f};
    FilterState hp = start;
    FilterState lp = start;
    FilterState split = start;
    HighPass2(hp, frames.data, 0, 1200.0f, 6, block);
    LowPass2(lp, frames.data, 1, 7000.0f, 6, block);
    SplitHighPass2(split, 2, side.data(), 120.0f, block);

    EXPECT_TRUE(SameMemory(hp, start));
    EXPECT_TRUE(SameMemory(lp, start));
    EXPECT_TRUE(SameMemory(split, start));
    for (size_t i = 0; i < signal.size(); ++i)
        ASSERT_EQ(frames.data[i], signal[i]);
    for (size_t i = 0; i < side.size(); ++i)
        ASSERT_EQ(side[i], sideBefore[i]);
}

TEST(SecondOrderEdge, SeparateMemoriesKeepChannelsApartASharedOneMixesThem)
{
    EngineReset(TestEngine());
    constexpr uint32_t kFrames = 400;
    const std::vector<float> signal = TestSignal(kFrames * kFrameFloats, 7);
    SampleBlock unused;
    ProcessorBlock block = MakeBlock(unused, kFrames, 44100);

    // Slot 0 alone.
    std::vector<float> alone = signal;
    FilterState aloneMemory{};
    LowPass2(aloneMemory, alone.data(), 0, 7000.0f, 6, block);

    // Slots 0 and 1 with their own memories: slot 0 comes out as alone.
    std::vector<float> both = signal;
    FilterState first{};
    FilterState second{};
    LowPass2(first, both.data(), 0, 7000.0f, 6, block);
    LowPass2(second, both.data(), 1, 7000.0f, 6, block);
    for (uint32_t i = 0; i < kFrames; ++i)
        ASSERT_EQ(both[6 * i], alone[6 * i]) << "frame " << i;
    EXPECT_TRUE(SameMemory(first, aloneMemory));

    // Slot 1 with its own memory against slot 1 after slot 0 on one shared memory.
    std::vector<float> shared = signal;
    FilterState one{};
    LowPass2(one, shared.data(), 0, 7000.0f, 6, block);
    LowPass2(one, shared.data(), 1, 7000.0f, 6, block);
    bool differs = false;
    for (uint32_t i = 0; i < kFrames; ++i)
        differs = differs || shared[6 * i + 1] != both[6 * i + 1];
    EXPECT_TRUE(differs);
}

TEST(SecondOrderEdge, BlockSplitGivesTheSameSamplesAsOneBlock)
{
    EngineReset(TestEngine());
    constexpr uint32_t kFrames = 1600;
    const std::vector<float> signal = TestSignal(kFrames * kFrameFloats, 8);
    const uint32_t pieces[] = {1, 576, 4, 1000, 19};

    // HighPass2 and LowPass2 on slots 0 and 4 of frames.
    SampleBlock whole;
    whole.Resize(kFrames * kFrameFloats, true);
    std::copy(signal.begin(), signal.end(), whole.data);
    std::vector<float> sideWhole(kFrames, 0.0f);
    {
        ProcessorBlock block = MakeBlock(whole, kFrames, 44100);
        FilterState hp{};
        FilterState lp{};
        FilterState split{};
        HighPass2(hp, whole.data, 0, 1200.0f, 6, block);
        LowPass2(lp, whole.data, 4, 7000.0f, 6, block);
        SplitHighPass2(split, 2, sideWhole.data(), 120.0f, block);
    }

    std::vector<float> pieced = signal;
    std::vector<float> sidePieced(kFrames, 0.0f);
    FilterState hp{};
    FilterState lp{};
    FilterState split{};
    uint32_t start = 0;
    for (uint32_t n : pieces) {
        SampleBlock piece;
        piece.Resize(n * kFrameFloats, false);
        std::copy(pieced.begin() + 6 * start, pieced.begin() + 6 * (start + n), piece.data);
        ProcessorBlock block = MakeBlock(piece, n, 44100);
        HighPass2(hp, piece.data, 0, 1200.0f, 6, block);
        LowPass2(lp, piece.data, 4, 7000.0f, 6, block);
        SplitHighPass2(split, 2, sidePieced.data() + start, 120.0f, block);
        std::copy(piece.data, piece.data + 6 * n, pieced.begin() + 6 * start);
        start += n;
    }
    ASSERT_EQ(start, kFrames);
    for (uint32_t i = 0; i < kFrames * kFrameFloats; ++i)
        ASSERT_EQ(pieced[i], whole.data[i]) << "float " << i;
    for (uint32_t i = 0; i < kFrames; ++i)
        ASSERT_EQ(sidePieced[i], sideWhole[i]) << "frame " << i;
}

// With c = 0 the section is y = x exactly for values whose sums are exact
// in float (small multiples of a quarter), and nothing reaches the side.
TEST(SecondOrderEdge, SplitHighPassAtCutOffZeroPassesEverythingAndAddsNothing)
{
    EngineReset(TestEngine());
    constexpr uint32_t kFrames = 64;
    SampleBlock frames;
    frames.Resize(kFrames * kFrameFloats, true);
    for (uint32_t i = 0; i < kFrames * kFrameFloats; ++i)
        frames.data[i] = 0.25f * float(int32_t((i * 37u) % 23u) - 11);
    std::vector<float> original(frames.data, frames.data + kFrames * kFrameFloats);
    std::vector<float> side(kFrames, 0.0f);
    ProcessorBlock block = MakeBlock(frames, kFrames, 44100);

    FilterState memory{};
    SplitHighPass2(memory, 0, side.data(), 0.0f, block);
    for (uint32_t i = 0; i < kFrames; ++i) {
        ASSERT_EQ(frames.data[6 * i], original[6 * i]) << "frame " << i;
        ASSERT_EQ(side[i], 0.0f) << "frame " << i;
    }
}

TEST(SecondOrderEdge, SplitHighPassThreeCallsSumThreeResiduals)
{
    EngineReset(TestEngine());
    constexpr uint32_t kFrames = 800;
    const std::vector<float> signal = TestSignal(kFrames * kFrameFloats, 9);
    FrameBlock frames(kFrames, 44100, 3);
    frames.Load(signal);
    std::vector<float> side(kFrames, 0.0f);

    FilterState memory[3] = {};
    for (uint32_t s = 0; s < 3; ++s)
        SplitHighPass2(memory[s], s, side.data(), 150.0f, frames.pb);

    const SectionCoefficients k = ReferenceCoefficients(150.0f, 44100, false);
    FilterState ref[3] = {};
    std::vector<float> expected(kFrames, 0.0f);
    for (uint32_t s = 0; s < 3; ++s) {
        for (uint32_t i = 0; i < kFrames; ++i) {
            const float x = signal[6 * i + s];
            const float y = ReferenceHighPassStep(ref[s], x, k);
            const float d = x - y;
            expected[i] = d + expected[i];
        }
    }
    for (uint32_t i = 0; i < kFrames; ++i)
        ASSERT_EQ(side[i], expected[i]) << "frame " << i;
}

TEST(SecondOrderEdge, SplitHighPassResidualPlusOutputGivesBackTheInput)
{
    EngineReset(TestEngine());
    constexpr uint32_t kFrames = 2000;
    const std::vector<float> signal = TestSignal(kFrames * kFrameFloats, 10);
    FrameBlock frames(kFrames, 44100, 3);
    frames.Load(signal);
    std::vector<float> side(kFrames, 0.0f);

    FilterState memory{};
    SplitHighPass2(memory, 1, side.data(), 200.0f, frames.pb);
    for (uint32_t i = 0; i < kFrames; ++i) {
        const float x = signal[6 * i + 1];
        const float y = frames.block.data[6 * i + 1];
        const float back = side[i] + y;
        const double bound = double(FLT_EPSILON) * (std::fabs(double(x)) + std::fabs(double(y)));
        ASSERT_LE(std::fabs(double(back) - double(x)), bound) << "frame " << i;
    }
}

// ---- Response against the textbook formula -----------------------------------

// |H|^2 = 1 / (1 + (tan(pi fc / fs) / tan(pi f / fs))^4) for the high-pass,
// the ratio inverted for the low-pass. The bound covers the rounding of the
// coefficients and of the recursion, in units of the float epsilon.
TEST(SecondOrderResponse, HighPass1200HzFollowsTheButterworthMagnitude)
{
    constexpr uint32_t kLength = 4096;
    std::vector<float> h(kLength, 0.0f);
    h[0] = 1.0f;
    SampleBlock unused;
    ProcessorBlock block = MakeBlock(unused, kLength, 44100);
    FilterState memory{};
    HighPass2(memory, h.data(), 0, 1200.0f, 1, block);

    const double tc = std::tan(kPi * 1200.0 / 44100.0);
    for (double f : {50.0, 300.0, 600.0, 1200.0, 2400.0, 5000.0, 10000.0, 20000.0}) {
        const double r = tc / std::tan(kPi * f / 44100.0);
        const double expected = 1.0 / std::sqrt(1.0 + r * r * r * r);
        EXPECT_NEAR(ResponseMagnitude(h, f, 44100), expected, 32.0 * FLT_EPSILON) << f << " Hz";
    }
    EXPECT_NEAR(ResponseMagnitude(h, 1200.0, 44100), std::sqrt(0.5), 32.0 * FLT_EPSILON);
}

TEST(SecondOrderResponse, LowPass7000HzFollowsTheButterworthMagnitude)
{
    constexpr uint32_t kLength = 4096;
    std::vector<float> h(kLength, 0.0f);
    h[0] = 1.0f;
    SampleBlock unused;
    ProcessorBlock block = MakeBlock(unused, kLength, 48000);
    FilterState memory{};
    LowPass2(memory, h.data(), 0, 7000.0f, 1, block);

    const double tc = std::tan(kPi * 7000.0 / 48000.0);
    for (double f : {50.0, 1000.0, 3500.0, 7000.0, 10000.0, 15000.0, 20000.0}) {
        const double r = std::tan(kPi * f / 48000.0) / tc;
        const double expected = 1.0 / std::sqrt(1.0 + r * r * r * r);
        EXPECT_NEAR(ResponseMagnitude(h, f, 48000), expected, 32.0 * FLT_EPSILON) << f << " Hz";
    }
}
