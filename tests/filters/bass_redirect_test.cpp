// Bass redirection: the lows of L, R and C, removed by complementary
// high-pass sections, summed into the LFE slot at 0.316 times the trim.
//
// The gain is checked against the double product rounded once; the stage
// against a float reference of the split high-pass written out here.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "filters/bass_redirect.h"
#include "filters/second_order.h"
#include "engine/dispatch.h"
#include "engine/engine.h"
#include "signal/frame.h"
#include "signal/processor.h"
#include "signal/sample_block.h"
#include "tests/support/frame_block.h"
#include "tests/support/reference_filters.h"
#include "tests/support/test_signal.h"
#include "tests/support/trim_gain.h"
#include "tests/support/test_engine.h"

namespace {

constexpr float kBassDrop = 0.316f;  // 0.316000015

// pow(10, trim x 0.05) x sign x 0.316 in double, one rounding.
float ExpectedGain(int32_t trim, int32_t invert)
{
    const double sign = invert != 0 ? -1.0 : 1.0;
    return float(std::pow(10.0, double(trim) * double(kDecibelStep)) * sign * double(kBassDrop));
}

constexpr SignalMix kSignal{0.6, 0.013, 0.0, 0.0, 0.3};

std::vector<float> TestSignal(uint32_t count, uint32_t seed)
{
    return MixedSignal(count, seed, kSignal);
}

struct Frames : FrameBlock {
    Frames(uint32_t count, int32_t rate) : FrameBlock(count, rate, 3)
    {
        pb.Bass_Redir = 120;
        pb.Bass_Redir_Enable = 1;
    }
    void FillAll(uint32_t seed)
    {
        Load(TestSignal(pb.Frames * kFrameFloats, seed));
    }
};

// The whole stage written out: split high-pass on slots 0, 1, 2 from zero
// memory, the residuals summed per frame, slot 3 = (sum x gain) + slot 3.
std::vector<float> ReferenceStage(const std::vector<float>& in, uint32_t frames, int32_t cutoff, int32_t rate,
                                  float gain)
{
    std::vector<float> out = in;
    std::vector<float> sum(frames, 0.0f);
    for (uint32_t s = 0; s < 3; ++s) {
        ReferenceSection f = ReferenceHighPass(float(cutoff), rate);
        for (uint32_t i = 0; i < frames; ++i) {
            const float x = out[6 * i + s];
            const float y = ReferenceStep(f, x);
            out[6 * i + s] = y;
            const float d = x - y;
            sum[i] = d + sum[i];
        }
    }
    for (uint32_t i = 0; i < frames; ++i)
        out[6 * i + 3] = (sum[i] * gain) + out[6 * i + 3];
    return out;
}

void ExpectStageMatchesReference(int32_t trim, int32_t invert)
{
    EngineReset(TestEngine());
    constexpr uint32_t kCount = 1500;
    Frames f(kCount, 44100);
    f.pb.Bass_Trim = trim;
    f.pb.Bass_Invert = invert;
    f.FillAll(uint32_t(40 + trim + invert));  // slot 3 non-zero: the bass is added to it
    const std::vector<float> expected = ReferenceStage(f.Copy(), kCount, 120, 44100, ExpectedGain(trim, invert));
    BassRedirect(TestEngine().Bass, f.pb);
    for (uint32_t i = 0; i < kCount * kFrameFloats; ++i)
        ASSERT_EQ(f.block.data[i], expected[i]) << "frame " << i / 6 << " slot " << i % 6;
}

}  // namespace

// ---- Gains -------------------------------------------------------------------

TEST(BassRedirectGain, TrimZeroIs0_316)
{
    EXPECT_EQ(BassRedirectGain(0, 0), 0.316f);
}

TEST(BassRedirectGain, InvertWithTrimZeroIsMinus0_316)
{
    EXPECT_EQ(BassRedirectGain(0, 1), -0.316f);
}

// 0.316 x 10^0.5 = 0.99927974 with the decimal 0.316; with the float
// 0.316000015 and 0.05 the float 0.0500000007 the double product is
// 0.9992798037, stored as the float
// 0.99927979707717896. Within 1e-7 of the rounded figure 0.9992797.
TEST(BassRedirectGain, TrimTenIsTheDoubleProductRoundedOnce)
{
    const float expected = float(std::pow(10.0, 10.0 * double(kDecibelStep)) * 1.0 * double(kBassDrop));
    EXPECT_EQ(BassRedirectGain(10, 0), expected);
    EXPECT_NEAR(BassRedirectGain(10, 0), 0.9992797, 1e-7);
    EXPECT_EQ(BassRedirectGain(10, 1), -expected);
}

TEST(BassRedirectGain, EveryDialogTrimFollowsThePowerRule)
{
    for (int32_t trim = -12; trim <= 12; ++trim) {
        EXPECT_EQ(BassRedirectGain(trim, 0), ExpectedGain(trim, 0)) << trim << " dB";
        EXPECT_EQ(BassRedirectGain(trim, 1), ExpectedGain(trim, 1)) << trim << " dB";
    }
}

// ---- The stage -----------------------------------------------------------------

TEST(BassRedirect, TrimZeroMatchesTheSplitHighPassReference)
{
    ExpectStageMatchesReference(0, 0);
}

TEST(BassRedirect, InvertAndTrimZeroAddsTheBassAtMinus0_316)
{
    ExpectStageMatchesReference(0, 1);
}

TEST(BassRedirect, TrimTenAddsTheBassAtTheRoundedProduct)
{
    ExpectStageMatchesReference(10, 0);
}

TEST(BassRedirect, InvertedBassIsTheNegativeOfTheUninvertedBass)
{
    constexpr uint32_t kCount = 700;
    EngineReset(TestEngine());
    Frames plain(kCount, 48000);
    plain.FillAll(50);
    for (uint32_t i = 0; i < kCount; ++i)
        plain.at(i, kSlotLFE) = 0.0f;  // as the decoders leave it
    EngineReset(TestEngine());
    Frames inverted(kCount, 48000);
    inverted.pb.Bass_Invert = 1;
    for (uint32_t i = 0; i < kCount * kFrameFloats; ++i)
        inverted.block.data[i] = plain.block.data[i];

    EngineReset(TestEngine());
    BassRedirect(TestEngine().Bass, plain.pb);
    EngineReset(TestEngine());
    BassRedirect(TestEngine().Bass, inverted.pb);
    for (uint32_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(inverted.at(i, kSlotLFE), -plain.at(i, kSlotLFE)) << "frame " << i;
        for (uint32_t s = 0; s < 3; ++s)
            ASSERT_EQ(inverted.at(i, s), plain.at(i, s)) << "frame " << i;
    }
}

TEST(BassRedirect, DisabledLeavesTheSlotsAndClearsBassSum)
{
    EngineReset(TestEngine());
    Frames warm(300, 44100);
    warm.FillAll(60);
    BassRedirect(TestEngine().Bass, warm.pb);  // BassSum now holds residuals
    const FilterState memory[3] = {TestEngine().Bass.BassFilter[0], TestEngine().Bass.BassFilter[1],
                                   TestEngine().Bass.BassFilter[2]};

    Frames f(300, 44100);
    f.pb.Bass_Redir_Enable = 0;
    f.FillAll(61);
    const std::vector<float> before = f.Copy();
    BassRedirect(TestEngine().Bass, f.pb);
    for (uint32_t i = 0; i < 300 * kFrameFloats; ++i)
        ASSERT_EQ(f.block.data[i], before[i]) << "frame " << i / 6 << " slot " << i % 6;
    ASSERT_EQ(TestEngine().Bass.BassSum.size, 300u);
    for (uint32_t i = 0; i < 300; ++i)
        ASSERT_EQ(TestEngine().Bass.BassSum.data[i], 0.0f) << "frame " << i;
    for (int k = 0; k < 3; ++k)
        EXPECT_TRUE(SameMemory(TestEngine().Bass.BassFilter[k], memory[k])) << "record " << k;
}

TEST(BassRedirect, ConstantLeftOnlySettlesToNoLeftAnd0_316OfItInTheLfe)
{
    EngineReset(TestEngine());
    constexpr uint32_t kCount = 20000;
    constexpr float kInput = 0.8f;
    Frames f(kCount, 44100);
    for (uint32_t i = 0; i < kCount; ++i)
        f.at(i, kSlotL) = kInput;
    BassRedirect(TestEngine().Bass, f.pb);
    for (uint32_t i = kCount - 2000; i < kCount; ++i) {
        ASSERT_NEAR(f.at(i, kSlotL), 0.0, 1e-6) << "frame " << i;
        ASSERT_NEAR(f.at(i, kSlotLFE), double(kBassDrop) * kInput, 1e-6) << "frame " << i;
        ASSERT_EQ(f.at(i, kSlotR), 0.0f);
        ASSERT_EQ(f.at(i, kSlotC), 0.0f);
    }
}

// With dyadic inputs every sum of the section is exact, so the high-pass at
// cut-off 0 passes them unchanged and nothing reaches the LFE.
TEST(BassRedirect, CutOffZeroPassesEverythingAndRedirectsNothing)
{
    EngineReset(TestEngine());
    constexpr uint32_t kCount = 64;
    Frames f(kCount, 44100);
    f.pb.Bass_Redir = 0;
    for (uint32_t i = 0; i < kCount; ++i)
        for (uint32_t s = 0; s < 3; ++s)
            f.at(i, s) = 0.125f * float(int32_t((i * 7u + s * 3u) % 17u) - 8);
    const std::vector<float> before = f.Copy();
    BassRedirect(TestEngine().Bass, f.pb);
    for (uint32_t i = 0; i < kCount * kFrameFloats; ++i)
        ASSERT_EQ(f.block.data[i], before[i]) << "frame " << i / 6 << " slot " << i % 6;
}

TEST(BassRedirect, FramesZeroChangesNothingButTheSizeOfBassSum)
{
    EngineReset(TestEngine());
    Frames warm(200, 44100);
    warm.FillAll(70);
    BassRedirect(TestEngine().Bass, warm.pb);
    ASSERT_EQ(TestEngine().Bass.BassSum.size, 200u);
    const FilterState memory[3] = {TestEngine().Bass.BassFilter[0], TestEngine().Bass.BassFilter[1],
                                   TestEngine().Bass.BassFilter[2]};

    Frames f(8, 44100);
    f.FillAll(71);
    const std::vector<float> before = f.Copy();
    f.pb.Frames = 0;
    BassRedirect(TestEngine().Bass, f.pb);
    EXPECT_EQ(TestEngine().Bass.BassSum.size, 0u);
    for (uint32_t i = 0; i < 8 * kFrameFloats; ++i)
        ASSERT_EQ(f.block.data[i], before[i]) << "float " << i;
    for (int k = 0; k < 3; ++k)
        EXPECT_TRUE(SameMemory(TestEngine().Bass.BassFilter[k], memory[k])) << "record " << k;
}

TEST(BassRedirect, BlockSplitGivesTheSameFramesAsOneBlock)
{
    constexpr uint32_t kCount = 1600;
    EngineReset(TestEngine());
    Frames whole(kCount, 44100);
    whole.FillAll(80);
    const std::vector<float> input = whole.Copy();
    BassRedirect(TestEngine().Bass, whole.pb);

    EngineReset(TestEngine());
    const uint32_t pieces[] = {1, 576, 1023};
    uint32_t start = 0;
    for (uint32_t n : pieces) {
        Frames piece(n, 44100);
        for (uint32_t i = 0; i < n * kFrameFloats; ++i)
            piece.block.data[i] = input[6 * start + i];
        BassRedirect(TestEngine().Bass, piece.pb);
        for (uint32_t i = 0; i < n * kFrameFloats; ++i)
            ASSERT_EQ(piece.block.data[i], whole.block.data[6 * start + i]) << "frame " << start + i / 6;
        start += n;
    }
    ASSERT_EQ(start, kCount);
}

// ---- Headphone mode ----------------------------------------------------------------

// The dispatcher clears Bass_Redir_Enable in mode 4 and never calls the stage:
// the bass memories stand still and BassSum keeps its size, at a rate the
// convolver takes and at one it refuses.
TEST(BassRedirect, Mode4NeverCallsTheStage)
{
    for (int32_t rate : {44100, 48000, 44099}) {
        EngineReset(TestEngine());
        const FilterState sentinel{0.125f, -0.25f, 0.5f, -0.0625f};
        for (FilterState& m : TestEngine().Bass.BassFilter)
            m = sentinel;
        Frames warm(33, rate);
        warm.pb.Bass_Redir_Enable = 0;
        BassRedirect(TestEngine().Bass, warm.pb);
        ASSERT_EQ(TestEngine().Bass.BassSum.size, 33u);

        SampleBlock frames;
        frames.Resize(49152, true);
        const std::vector<float> signal = TestSignal(1152 * 2, 90);
        for (uint32_t i = 0; i < 1152; ++i) {
            frames.data[6 * i] = signal[2 * i];
            frames.data[6 * i + 1] = signal[2 * i + 1];
        }
        ProcessorBlock block = warm.pb;
        block.Mode = 4;
        block.Surround_Trim_00 = 0;
        block.Bass_Redir_Enable = 1;
        block.Frames = 1152;
        block.Block = &frames;
        DispatchMode(TestEngine(), block);
        EXPECT_EQ(block.Bass_Redir_Enable, 0) << rate;
        EXPECT_EQ(TestEngine().Bass.BassSum.size, 33u) << rate;
        for (const FilterState& m : TestEngine().Bass.BassFilter)
            EXPECT_TRUE(SameMemory(m, sentinel)) << rate;
    }
    EngineReset(TestEngine());
}

// Against that, mode 3 on a stereo source does run it.
TEST(BassRedirect, Mode3ThroughTheDispatcherFillsTheLfe)
{
    EngineReset(TestEngine());
    SampleBlock frames;
    frames.Resize(49152, true);
    const std::vector<float> signal = TestSignal(1152 * 2, 91);
    for (uint32_t i = 0; i < 1152; ++i) {
        frames.data[6 * i] = signal[2 * i];
        frames.data[6 * i + 1] = signal[2 * i + 1];
    }
    Frames settings(0, 44100);
    ProcessorBlock block = settings.pb;
    block.Surround_Trim_00 = 0;
    block.Frames = 1152;
    block.Block = &frames;
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(TestEngine().Bass.BassSum.size, 1152u);
    bool lfe = false;
    for (uint32_t i = 0; i < 1152; ++i)
        lfe = lfe || frames.data[6 * i + 3] != 0.0f;
    EXPECT_TRUE(lfe);
    EngineReset(TestEngine());
}
