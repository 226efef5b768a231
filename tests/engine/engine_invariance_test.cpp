// Block-split invariance: the host cuts its stream into writes as it likes,
// and in every mode but the five-channel encoder the output bytes must not
// depend on the cut. Each case writes one signal in one write and then in
// writes of 1, 576 and 4096 frames, resetting the engine before each run,
// and compares the concatenated output streams byte for byte. (The Headphone
// mode hands its frames out in different writes, so only the concatenated
// stream can match there; that is what is compared in every mode.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "engine/engine.h"
#include "engine/pcm_conversion.h"
#include "signal/processor.h"
#include "tests/support/engine_settings.h"
#include "tests/support/moving_signal.h"
#include "tests/support/pcm_words.h"
#include "tests/support/test_engine.h"

namespace {

struct Case {
    SettingsWords settings;  // Out_Bits is taken from outputBits
    uint32_t channels;
    uint32_t bits;
    int32_t rate;
    uint32_t outputBits;
    uint32_t frames = 8192;  // the signal's length
};

// Writes the signal in writes of `chunk` frames from a reset engine and
// returns the concatenated output bytes.
std::vector<uint8_t> RunInWrites(const Case& c, const std::vector<uint8_t>& source, uint32_t chunk)
{
    EngineReset(TestEngine());
    SettingsWords settings = c.settings;
    settings.Out_Bits = int32_t(c.outputBits);
    ApplySettings(settings);
    const StreamWords stream{c.channels, c.bits, c.rate, c.outputBits};
    const std::size_t inFrameBytes = std::size_t(c.channels) * (c.bits / 8);
    std::vector<uint8_t> out;
    for (uint32_t start = 0; start < c.frames; start += chunk) {
        uint32_t frames = std::min(chunk, c.frames - start);
        ConvertWholeFrames(TestEngine(), TestSettings(), stream, source.data() + start * inFrameBytes, frames);
        const std::size_t bytes = std::size_t(c.outputBits / 8) * frames * 6;
        const uint8_t* pcm = reinterpret_cast<const uint8_t*>(TestEngine().PcmBlock.data);
        out.insert(out.end(), pcm, pcm + bytes);
    }
    return out;
}

::testing::AssertionResult SameBytes(const std::vector<uint8_t>& whole, const std::vector<uint8_t>& split,
                                     uint32_t outputBits)
{
    if (whole.size() != split.size())
        return ::testing::AssertionFailure()
               << "lengths differ: " << whole.size() << " bytes against " << split.size();
    for (std::size_t i = 0; i < whole.size(); ++i)
        if (whole[i] != split[i]) {
            const std::size_t sample = i / (outputBits / 8);
            return ::testing::AssertionFailure() << "first difference at byte " << i << ", frame "
                                                 << sample / 6 << " slot " << sample % 6;
        }
    return ::testing::AssertionSuccess();
}

// `reference` frames per write for the reference run: the whole signal in
// one write when it fits (at most 8192 frames).
void ExpectSplitInvariant(const Case& c, uint32_t reference = 8192)
{
    const std::vector<uint8_t> source = MakeSource(c.frames, c.channels, c.bits);
    const std::vector<uint8_t> whole = RunInWrites(c, source, reference);
    // Something must come out, or the comparison says nothing.
    ASSERT_FALSE(whole.empty());
    bool anyNonZero = false;
    for (uint8_t b : whole)
        anyNonZero = anyNonZero || b != 0;
    ASSERT_TRUE(anyNonZero);
    for (uint32_t chunk : {1u, 576u, 4096u}) {
        SCOPED_TRACE(::testing::Message() << "writes of " << chunk << " frames");
        EXPECT_TRUE(SameBytes(whole, RunInWrites(c, source, chunk), c.outputBits));
    }
}

SettingsWords Mode(int32_t mode)
{
    SettingsWords s;
    s.Mode = mode;
    return s;
}

TEST(BlockSplit, Bypass_StereoIsInvariant)
{
    ExpectSplitInvariant(Case{Mode(0), 2, 16, 44100, 16});
}

TEST(BlockSplit, Bypass_EightBitMonoToTwentyFourBitsIsInvariant)
{
    ExpectSplitInvariant(Case{Mode(0), 1, 8, 22050, 24});
}

TEST(BlockSplit, FixedMatrix_WithDelayAndBassIsInvariant)
{
    SettingsWords s = Mode(1);
    s.Surround_Delay = 10;
    s.Bass_Redir_Enable = 1;
    s.Bass_Redir = 90;
    s.Centre_Trim = 2;
    s.Surround_Trim_00 = -3;
    ExpectSplitInvariant(Case{s, 2, 16, 44100, 16});
}

TEST(BlockSplit, FixedMatrix_VirtualCentreInvertedBassThirtyTwoBitsIsInvariant)
{
    SettingsWords s = Mode(1);
    s.Surround_Delay = 25;
    s.Virtual_C = 1;
    s.Bass_Redir_Enable = 1;
    s.Bass_Invert = 1;
    s.Bass_Trim = 6;
    ExpectSplitInvariant(Case{s, 2, 32, 48000, 32});
}

TEST(BlockSplit, SteeredOneSurround_IsInvariant)
{
    SettingsWords s = Mode(2);
    s.Surround_Delay = 15;
    s.Centre_Width = 40;
    s.Bass_Redir_Enable = 1;
    s.Surround_Trim_00 = 4;
    ExpectSplitInvariant(Case{s, 2, 16, 44100, 16});
}

TEST(BlockSplit, SteeredTwoSurrounds_IsInvariant)
{
    SettingsWords s = Mode(3);
    s.Surround_Delay = 20;
    s.Centre_Width = 100;
    s.Centre_Trim = -5;
    s.Bass_Redir_Enable = 1;
    s.Bass_Redir = 150;
    ExpectSplitInvariant(Case{s, 2, 24, 48000, 24});
}

TEST(BlockSplit, SteeredTwoSurrounds_VirtualCentreAt32000IsInvariant)
{
    SettingsWords s = Mode(3);
    s.Surround_Delay = 7;
    s.Virtual_C = 1;
    s.SR = 0;
    ExpectSplitInvariant(Case{s, 2, 16, 32000, 16});
}

TEST(BlockSplit, OutOfRangeMode_StereoIsInvariant)
{
    SettingsWords s = Mode(7);
    s.Surround_Delay = 10;
    s.Bass_Redir_Enable = 1;
    ExpectSplitInvariant(Case{s, 2, 16, 44100, 16});
}

TEST(BlockSplit, Headphone_StereoAt44100IsInvariant)
{
    SettingsWords s = Mode(4);
    s.Surround_Delay = 10;
    ExpectSplitInvariant(Case{s, 2, 16, 44100, 16});
}

TEST(BlockSplit, Headphone_StereoOverSeveralBlocksIsInvariant)
{
    // 20000 frames: two whole blocks out, the rest held; the reference
    // writes 8192 frames at a time, the most that one write may carry.
    SettingsWords s = Mode(4);
    Case c{s, 2, 16, 48000, 16};
    c.frames = 20000;
    ExpectSplitInvariant(c, 8192);
}

TEST(BlockSplit, Headphone_FourFiveAndSixChannelsAreInvariant)
{
    for (uint32_t channels : {4u, 5u, 6u}) {
        SCOPED_TRACE(::testing::Message() << channels << " channels");
        ExpectSplitInvariant(Case{Mode(4), channels, 16, 44100, 16});
    }
}

TEST(BlockSplit, Headphone_OutOfRangeRateIsInvariant)
{
    ExpectSplitInvariant(Case{Mode(4), 2, 16, 32000, 16});
}

TEST(BlockSplit, Encode_StereoPassThroughIsInvariant)
{
    ExpectSplitInvariant(Case{Mode(5), 2, 16, 44100, 16});
}

TEST(BlockSplit, Encode_FourChannelsIsInvariant)
{
    ExpectSplitInvariant(Case{Mode(5), 4, 16, 44100, 16});
}

TEST(BlockSplit, Encode_SixChannelsIsInvariant)
{
    ExpectSplitInvariant(Case{Mode(5), 6, 24, 48000, 32});
}

TEST(BlockSplit, PassThrough_SixChannelsInModes0To3AreInvariant)
{
    for (int32_t mode : {0, 1, 2, 3}) {
        SCOPED_TRACE(::testing::Message() << "mode " << mode);
        ExpectSplitInvariant(Case{Mode(mode), 6, 16, 44100, 16});
    }
}

TEST(BlockSplit, PassThrough_MonoInSteeredModeIsInvariant)
{
    ExpectSplitInvariant(Case{Mode(2), 1, 16, 44100, 16});
}


TEST(BlockSplit, Encode_FiveChannelsDependsOnTheCut)
{
    // The five-float walk starts again at float 5 in every write, so here the
    // cut shows in the output: the one mode without the promise.
    const Case c{Mode(5), 5, 16, 44100, 16};
    const std::vector<uint8_t> source = MakeSource(c.frames, c.channels, c.bits);
    const std::vector<uint8_t> whole = RunInWrites(c, source, 8192);
    for (uint32_t chunk : {576u, 4096u}) {
        SCOPED_TRACE(::testing::Message() << "writes of " << chunk << " frames");
        const std::vector<uint8_t> split = RunInWrites(c, source, chunk);
        ASSERT_EQ(whole.size(), split.size());
        EXPECT_NE(whole, split);
    }
}

}  // namespace
