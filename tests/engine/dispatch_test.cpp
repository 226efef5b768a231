// The mode dispatcher and the engine's lifecycle: every row of the decision
// table, the clearings and the +3 dB surround offset made in the record, the
// tail that makes up for frames the convolver held back, the reset, and the
// two queries BlockLength and OutputFrames.
//
// Rows are told apart by what the stages leave behind: the pass-through's
// 0.707, the fixed decoder's closed form, the steered decoder's rest rows,
// the encoder's mix, the scratch sizes that a stage sets at its top
// (HighBand for the steered decoder, BassSum for the bass redirection), and
// the convolver's hold-back. Headphone output is checked for its frame count
// and its silent slots 2..5 only.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include "engine/dispatch.h"
#include "engine/engine.h"
#include "engine/pcm_conversion.h"
#include "signal/processor.h"
#include "tests/support/engine_settings.h"
#include "tests/support/pcm_words.h"
#include "tests/support/trim_gain.h"
#include "tests/support/test_engine.h"

namespace {

constexpr int32_t kHeadphoneMode = 4;
constexpr int32_t kEncodeMode = 5;
constexpr int32_t kRawRate = 8000;  // outside the Headphone range

// 16-bit source of `channels` channels; sample k of frame i from `sample`.
template <typename Sample>
std::vector<uint8_t> Source16(uint32_t frames, uint32_t channels, Sample sample)
{
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < frames; ++i)
        for (uint32_t k = 0; k < channels; ++k)
            Put16(bytes, sample(i, k));
    return bytes;
}

class Dispatch : public ::testing::Test {
protected:
    SampleBlock frames_;  // the frames of a directly dispatched block

    void SetUp() override
    {
        EngineReset(TestEngine());
        SetSettings(0);
        frames_.Resize(kFrameBlockFloats, true);
    }

    // A record as the conversion would fill it from the settings of SetSettings.
    ProcessorBlock MakeBlock(int32_t mode, int32_t channels, int32_t rate, uint32_t frames)
    {
        ProcessorBlock block;
        block.Mode = mode;
        block.Surround_Delay = 0;
        block.Centre_Width = 0;
        block.Centre_Trim = 0;
        block.Surround_Trim_00 = 0;
        block.Bass_Redir = 120;
        block.Bass_Redir_Enable = 0;
        block.Bass_Trim = 0;
        block.Bass_Invert = 0;
        block.Virtual_C = 0;
        block.L = 1;
        block.R = 1;
        block.C = 1;
        block.SL = 1;
        block.SR = 1;
        block.Out_Channels = -99;  // unset
        block.In_Channels = channels;
        block.Sample_Rate = rate;
        block.Frames = frames;
        block.Block = &frames_;
        return block;
    }

    float& Slot(uint32_t frame, uint32_t slot) { return frames_.data[frame * 6 + slot]; }

    // Distinct, non-zero values in all six slots of the first `count` frames.
    void FillAllSlots(uint32_t count)
    {
        for (uint32_t i = 0; i < count; ++i)
            for (uint32_t s = 0; s < 6; ++s)
                Slot(i, s) = 0.01f * float(int(i % 37) - 18) + 0.001f * float(s + 1);
    }

    // Slots as a source of `channels` channels would leave them.
    void FillSource(uint32_t count, int32_t channels)
    {
        FillAllSlots(count);
        for (uint32_t i = 0; i < count; ++i) {
            switch (channels) {
            case 2:
                Slot(i, 2) = Slot(i, 3) = Slot(i, 4) = Slot(i, 5) = 0.0f;
                break;
            case 4:
                Slot(i, 2) = Slot(i, 3) = 0.0f;
                break;
            case 5:
                Slot(i, 3) = 0.0f;
                break;
            default:
                break;
            }
        }
    }

    std::vector<float> Snapshot(uint32_t count) const
    {
        return std::vector<float>(frames_.data, frames_.data + std::size_t(count) * 6);
    }

    // Marks the scratch that the steered decoder and the bass redirection
    // resize at their top, so that a stage that ran shows.
    void MarkScratch()
    {
        TestEngine().Steering.HighBand.Resize(2, false);
        TestEngine().Bass.BassSum.Resize(3, false);
    }
};

void ExpectPassThrough(const std::vector<float>& before, const SampleBlock& block, uint32_t frames)
{
    for (uint32_t i = 0; i < frames * 6; ++i)
        ASSERT_EQ(block.data[i], before[i] * 0.707f) << "float " << i;
}

void ExpectUnchanged(const std::vector<float>& before, const SampleBlock& block, uint32_t frames)
{
    for (uint32_t i = 0; i < frames * 6; ++i)
        ASSERT_EQ(block.data[i], before[i]) << "float " << i;
}

// ---------------------------------------------------------------------------
// PassThrough, BlockLength, OutputFrames

TEST_F(Dispatch, PassThrough_MultipliesAllSixSlotsOfFramesFramesOnly)
{
    FillAllSlots(10);
    const std::vector<float> before = Snapshot(10);
    ProcessorBlock block = MakeBlock(0, 2, 44100, 4);
    PassThrough(block);
    for (uint32_t i = 0; i < 10 * 6; ++i) {
        const float expected = i < 4 * 6 ? before[i] * 0.707f : before[i];
        EXPECT_EQ(frames_.data[i], expected) << "float " << i;
    }
    EXPECT_EQ(block.Frames, 4u);
    EXPECT_EQ(kPassThroughGain, 0.707f);
    EXPECT_EQ(double(kPassThroughGain), 0.7070000171661377);
}

TEST_F(Dispatch, BlockLength_Is8192)
{
    EXPECT_EQ(BlockLength(), 8192u);
}

TEST_F(Dispatch, OutputFrames_Mode4KeepsWholeBlocksOf8192)
{
    struct Case {
        uint32_t frames;
        uint32_t pending;
        uint32_t expected;
    };
    const Case cases[] = {
        {8191, 0, 0},       {8192, 0, 8192}, {16383, 0, 8192}, {16384, 0, 16384},
        {1000, 7191, 0},    {1, 8191, 8192}, {8192, 8191, 8192}, {0, 100, 0},
        {1152, 8000, 8192},
    };
    for (const Case& c : cases) {
        TestEngine().Headphone.Pending_Frames = c.pending;
        ProcessorBlock block = MakeBlock(kHeadphoneMode, 2, 44100, c.frames);
        EXPECT_EQ(OutputFrames(TestEngine(), block), c.expected) << c.frames << " + " << c.pending;
        EXPECT_EQ(TestEngine().Headphone.Pending_Frames, c.pending);
        EXPECT_EQ(block.Frames, c.frames);
    }
}

TEST_F(Dispatch, OutputFrames_OtherModesAddThePendingFrames)
{
    TestEngine().Headphone.Pending_Frames = 3000;
    for (int32_t mode : {0, 1, 2, 3, 5, 7}) {
        ProcessorBlock block = MakeBlock(mode, 2, 44100, 1152);
        EXPECT_EQ(OutputFrames(TestEngine(), block), 4152u) << "mode " << mode;
    }
    TestEngine().Headphone.Pending_Frames = 0;
    ProcessorBlock block = MakeBlock(0, 2, 44100, 8191);
    EXPECT_EQ(OutputFrames(TestEngine(), block), 8191u);
}

// ---------------------------------------------------------------------------
// The record: clearings of mode 4 and the surround offset

TEST_F(Dispatch, Mode4_ClearsCentreAndBassWordsAndLeavesTheOthers)
{
    FillSource(8, 2);
    ProcessorBlock block = MakeBlock(kHeadphoneMode, 2, kRawRate, 8);
    block.Surround_Delay = 25;
    block.Centre_Width = 60;
    block.Centre_Trim = -7;
    block.Surround_Trim_00 = 9;
    block.Bass_Redir = 80;
    block.Bass_Redir_Enable = 1;
    block.Bass_Trim = 4;
    block.Bass_Invert = 1;
    block.Virtual_C = 1;
    block.L = 1;
    block.R = 0;
    block.C = 2;
    block.SL = 0;
    block.SR = 1;
    DispatchMode(TestEngine(), block);

    EXPECT_EQ(block.Mode, kHeadphoneMode);
    EXPECT_EQ(block.Centre_Width, 0);
    EXPECT_EQ(block.Bass_Redir_Enable, 0);
    EXPECT_EQ(block.Virtual_C, 0);
    EXPECT_EQ(block.Centre_Trim, 0);
    EXPECT_EQ(block.Surround_Trim_00, 3);  // cleared, then 3 added
    EXPECT_EQ(block.Surround_Delay, 25);
    EXPECT_EQ(block.Bass_Redir, 80);
    EXPECT_EQ(block.Bass_Trim, 4);
    EXPECT_EQ(block.Bass_Invert, 1);
    EXPECT_EQ(block.L, 1);
    EXPECT_EQ(block.R, 0);
    EXPECT_EQ(block.C, 2);
    EXPECT_EQ(block.SL, 0);
    EXPECT_EQ(block.SR, 1);
    EXPECT_EQ(block.In_Channels, 2);
    EXPECT_EQ(block.Sample_Rate, kRawRate);
}

TEST_F(Dispatch, SurroundTrim_StoredTwoShowsFiveInModes01235AndThreeInMode4)
{
    struct Case {
        int32_t mode;
        int32_t channels;
        int32_t rate;
        int32_t expected;
    };
    const Case cases[] = {
        {0, 2, 44100, 5}, {1, 2, 44100, 5}, {2, 2, 44100, 5}, {3, 2, 44100, 5},
        {5, 2, 44100, 5}, {5, 6, 44100, 5}, {0, 6, 44100, 5}, {1, 1, 44100, 5},
        {7, 2, 44100, 5}, {4, 2, 44100, 3}, {4, 2, kRawRate, 3}, {4, 6, 48000, 3},
        {4, 1, 44100, 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "mode " << c.mode << ", " << c.channels << " channels, "
                                          << c.rate << " Hz");
        EngineReset(TestEngine());
        FillSource(64, c.channels);
        ProcessorBlock block = MakeBlock(c.mode, c.channels, c.rate, 64);
        block.Surround_Trim_00 = 2;
        DispatchMode(TestEngine(), block);
        EXPECT_EQ(block.Surround_Trim_00, c.expected);
    }
}

TEST_F(Dispatch, SurroundTrim_OffsetWrapsAtTheTopOfTheWord)
{
    // The stored word plus 3 in 32-bit two's complement: 0x7FFFFFFD + 3 is
    // 0x80000000, the most negative word.
    const std::pair<int32_t, int32_t> cases[] = {
        {0x7FFFFFFD, INT32_MIN}, {0x7FFFFFFE, INT32_MIN + 1}, {0x7FFFFFFF, INT32_MIN + 2}, {INT32_MIN, INT32_MIN + 3}};
    for (const auto& [stored, expected] : cases) {
        for (int32_t mode : {0, 1, 4}) {
            SCOPED_TRACE(::testing::Message() << "stored " << stored << ", mode " << mode);
            EngineReset(TestEngine());
            FillSource(64, 2);
            ProcessorBlock block = MakeBlock(mode, 2, kRawRate, 64);
            block.Surround_Trim_00 = stored;
            DispatchMode(TestEngine(), block);
            EXPECT_EQ(block.Surround_Trim_00, mode == 4 ? 3 : expected);
        }
    }
}

TEST_F(Dispatch, SteeredDecoder_FirstWriteOfZeroFramesMakesNoArrays)
{
    // A fresh engine: the band arrays are not made yet, and a write of 0
    // frames leaves them so and changes no memory.
    Engine engine;
    FillSource(64, 2);
    for (int32_t mode : {2, 3}) {
        ProcessorBlock block = MakeBlock(mode, 2, 44100, 0);
        DispatchMode(engine, block);
        EXPECT_EQ(block.Frames, 0u);
        EXPECT_EQ(block.Out_Channels, 6);
    }
    EXPECT_EQ(engine.Steering.HighBand.data, nullptr);
    EXPECT_EQ(engine.Steering.LowBand.data, nullptr);
    EXPECT_EQ(engine.Steering.BandFilter[0].y1, 0.0f);
    EXPECT_EQ(engine.Steering.SteerFilter[0].y1, 0.0f);
}

TEST_F(Dispatch, SurroundTrim_FixedDecoderSurroundGainIsTenToThePower0Point15)
{
    // Input (1.0, -1.0): SL = SR = 0.707 x Gs, with the stored 0 reaching the
    // stage as 3 dB. At 32000 Hz there is no low-pass; no delay is set.
    Slot(0, 0) = 1.0f;
    Slot(0, 1) = -1.0f;
    ProcessorBlock block = MakeBlock(1, 2, 32000, 1);
    DispatchMode(TestEngine(), block);
    const float gs = Gain(3);
    EXPECT_NEAR(gs, 1.41254f, 1e-5f);
    EXPECT_EQ(Slot(0, 4), 0.707f * gs);
    EXPECT_EQ(Slot(0, 5), 0.707f * gs);
}

TEST_F(Dispatch, SurroundTrim_StoredValueStaysAndTheOffsetDoesNotAccumulate)
{
    SetSettings(1);
    TestSettings().Surround_Trim_00 = 2;
    std::vector<uint8_t> source = Source16(1, 2, [](uint32_t, uint32_t k) { return int16_t(k == 0 ? 16384 : -16384); });
    const float expected = (1.0f * ((0.707f * 0.25f) + (-0.707f * -0.25f))) * Gain(5);
    for (int write = 0; write < 3; ++write) {
        uint32_t frames = 1;
        ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{2, 16, 32000, 16}, source.data(), frames);
        ASSERT_EQ(frames, 1u);
        EXPECT_EQ(TestEngine().FrameBlock.data[4], expected) << "write " << write;
        EXPECT_EQ(TestEngine().FrameBlock.data[5], expected) << "write " << write;
        EXPECT_EQ(TestSettings().Surround_Trim_00, 2);
    }
}

// ---------------------------------------------------------------------------
// The record filled from the settings, seen through the stages

TEST_F(Dispatch, SettingsWordsReachTheStagesThroughTheRecord)
{
    // Fixed decoder at 32000 Hz (no low-pass), every word set to something
    // that shows: odd switch values, both trims, a 1 ms delay, the bass
    // redirection inverted with a trim. Input (0.5, -0.25).
    SetSettings(1);
    TestSettings().Centre_Trim = -6;
    TestSettings().Surround_Trim_00 = 2;
    TestSettings().Surround_Delay = 1;
    TestSettings().Bass_Redir = 150;
    TestSettings().Bass_Redir_Enable = 1;
    TestSettings().Bass_Trim = 4;
    TestSettings().Bass_Invert = 1;
    TestSettings().L = 2;
    TestSettings().R = 3;
    TestSettings().C = -1;
    TestSettings().SL = 0;
    TestSettings().SR = 1;
    const uint32_t count = 40;
    std::vector<uint8_t> source =
        Source16(count, 2, [](uint32_t, uint32_t k) { return int16_t(k == 0 ? 16384 : -8192); });
    uint32_t frames = count;
    ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{2, 16, 32000, 16}, source.data(), frames);
    ASSERT_EQ(frames, count);

    // Matrix, then the switches and gains, in the order the decoder takes them.
    const float l = 0.5f * 0.5f;
    const float r = -0.25f * 0.5f;
    const float gc = Gain(-6);
    const float gs = Gain(5);  // stored 2, plus 3
    const float left = 2.0f * ((1.0f * l) + (0.0f * r));
    const float right = 3.0f * ((0.0f * l) + (1.0f * r));
    const float centre = (-1.0f * ((0.707f * l) + (0.707f * r))) * gc;
    const float surround = (1.0f * ((0.707f * l) + (-0.707f * r))) * gs;

    // The bass stage on frame 0, from clear memory: each high-pass gives
    // y = x a, so the removed part is x - x a. Coefficient a from the
    // cut-off 150 Hz at 32000 Hz: c = tan(w) rounded once, a = 1 / ((c + s) c + 1).
    const double w = double(150.0f) * double(3.14159274f) / 32000.0;
    const float c = float(std::tan(w));
    const float s = 1.41421354f;
    const float a = 1.0f / (((c + s) * c) + 1.0f);
    float side = 0.0f;
    for (float x : {left, right, centre})
        side = (x - x * a) + side;
    const float bassGain = float(std::pow(10.0, 4.0 * double(0.05f)) * -1.0 * double(0.316f));
    const float lfe = (side * bassGain) + 0.0f;

    const float* f = TestEngine().FrameBlock.data;
    EXPECT_EQ(f[0], left * a);    // high-passed in place
    EXPECT_EQ(f[1], right * a);
    EXPECT_EQ(f[2], centre * a);
    EXPECT_EQ(f[3], lfe);
    EXPECT_LT(f[3], 0.0f);  // inverted
    // A 1 ms ring at 32000 Hz is 31 samples: SL carries zeros, SR arrives late.
    for (uint32_t i = 0; i < 31; ++i) {
        EXPECT_EQ(f[6 * i + 4], 0.0f) << "frame " << i;
        EXPECT_EQ(f[6 * i + 5], 0.0f) << "frame " << i;
    }
    EXPECT_EQ(f[6 * 31 + 5], surround);
    EXPECT_EQ(f[6 * 31 + 4], 0.0f);
}

TEST_F(Dispatch, CentreWidthAndVirtualCentreReachTheSteeredDecoder)
{
    // Rest rows on the first frame after a reset, 22050 Hz, no delay.
    std::vector<uint8_t> source =
        Source16(1, 2, [](uint32_t, uint32_t k) { return int16_t(k == 0 ? 16384 : 8192); });
    const double l = 0.707 * 0.5;
    const double r = 0.707 * 0.25;
    const double craw = 0.501 * (l + r);

    SetSettings(3);
    TestSettings().Centre_Width = 100;
    uint32_t frames = 1;
    ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{2, 16, 22050, 16}, source.data(), frames);
    ASSERT_EQ(frames, 1u);
    EXPECT_NEAR(TestEngine().FrameBlock.data[0], 0.708 * l + 0.666666687 * craw, 1e-5);
    EXPECT_NEAR(TestEngine().FrameBlock.data[1], 0.708 * r + 0.666666687 * craw, 1e-5);
    EXPECT_NEAR(TestEngine().FrameBlock.data[2], 0.333 * craw, 1e-5);

    EngineReset(TestEngine());
    TestSettings().Centre_Width = 100;
    TestSettings().Virtual_C = 1;
    frames = 1;
    ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{2, 16, 22050, 16}, source.data(), frames);
    ASSERT_EQ(frames, 1u);
    EXPECT_NEAR(TestEngine().FrameBlock.data[0], 0.708 * l + 0.5 * craw, 1e-5);
    EXPECT_NEAR(TestEngine().FrameBlock.data[1], 0.708 * r + 0.5 * craw, 1e-5);
    EXPECT_EQ(TestEngine().FrameBlock.data[2], 0.0f);
}

// ---------------------------------------------------------------------------
// Stereo rows

TEST_F(Dispatch, Stereo_Mode0_PassThroughWithOutChannels2)
{
    FillAllSlots(100);
    const std::vector<float> before = Snapshot(100);
    MarkScratch();
    ProcessorBlock block = MakeBlock(0, 2, 44100, 100);
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Out_Channels, 2);
    EXPECT_EQ(block.Frames, 100u);
    ExpectPassThrough(before, frames_, 100);
    EXPECT_EQ(TestEngine().Steering.HighBand.size, 2u);
    EXPECT_EQ(TestEngine().Bass.BassSum.size, 3u);
}

TEST_F(Dispatch, Stereo_Mode5_PassThroughAndEncoderMemoriesStandStill)
{
    FillSource(100, 2);
    const std::vector<float> before = Snapshot(100);
    TestEngine().Encoder.LfeHighPass = FilterState{0.1f, 0.2f, 0.3f, 0.4f};
    TestEngine().Encoder.LfeLowPass = FilterState{0.5f, 0.6f, 0.7f, 0.8f};
    TestEngine().Encoder.LfeChain = FilterState{0.9f, 1.0f, 1.1f, 1.2f};
    ProcessorBlock block = MakeBlock(kEncodeMode, 2, 44100, 100);
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Out_Channels, 2);
    EXPECT_EQ(block.Frames, 100u);
    ExpectPassThrough(before, frames_, 100);
    EXPECT_EQ(TestEngine().Encoder.LfeHighPass.x1, 0.1f);
    EXPECT_EQ(TestEngine().Encoder.LfeHighPass.y2, 0.4f);
    EXPECT_EQ(TestEngine().Encoder.LfeLowPass.x1, 0.5f);
    EXPECT_EQ(TestEngine().Encoder.LfeLowPass.y2, 0.8f);
    EXPECT_EQ(TestEngine().Encoder.LfeChain.x1, 0.9f);
    EXPECT_EQ(TestEngine().Encoder.LfeChain.y2, 1.2f);
}

TEST_F(Dispatch, Stereo_Mode3At22050_IsDecoded)
{
    // From a reset the steering starts at 0, so the first frames meet the
    // rest rows; at 22050 Hz the surrounds get no low-pass, and no delay is set.
    const float lin = 0.5f;
    const float rin = 0.25f;
    for (uint32_t i = 0; i < 2; ++i) {
        Slot(i, 0) = lin;
        Slot(i, 1) = rin;
    }
    MarkScratch();
    ProcessorBlock block = MakeBlock(3, 2, 22050, 2);
    DispatchMode(TestEngine(), block);

    EXPECT_EQ(block.Out_Channels, 6);
    EXPECT_EQ(block.Frames, 2u);
    EXPECT_EQ(TestEngine().Steering.HighBand.size, 4u);  // the decoder ran
    EXPECT_EQ(TestEngine().Bass.BassSum.size, 2u);   // and the bass redirection after it
    const double gs = std::pow(10.0, 3 * 0.05);
    const double l = 0.707 * lin;
    const double r = 0.707 * rin;
    for (uint32_t i = 0; i < 2; ++i) {
        SCOPED_TRACE(::testing::Message() << "frame " << i);
        EXPECT_NEAR(Slot(i, 0), 0.708 * l, 1e-5);
        EXPECT_NEAR(Slot(i, 1), 0.708 * r, 1e-5);
        EXPECT_NEAR(Slot(i, 2), 0.99966669 * 0.501 * (l + r), 1e-5);
        EXPECT_EQ(Slot(i, 3), 0.0f);
        EXPECT_NEAR(Slot(i, 4), gs * (0.612 * l - 0.3542 * r), 1e-5);
        EXPECT_NEAR(Slot(i, 5), gs * (0.3542 * l - 0.612 * r), 1e-5);
    }
}

TEST_F(Dispatch, Stereo_Mode2At22050_IsDecodedWithOneSurround)
{
    const float lin = 0.5f;
    const float rin = -0.125f;
    Slot(0, 0) = lin;
    Slot(0, 1) = rin;
    ProcessorBlock block = MakeBlock(2, 2, 22050, 1);
    DispatchMode(TestEngine(), block);

    EXPECT_EQ(block.Out_Channels, 6);
    const double gs = std::pow(10.0, 3 * 0.05);
    EXPECT_NEAR(Slot(0, 0), 0.708 * 0.707 * lin, 1e-5);
    EXPECT_NEAR(Slot(0, 1), 0.708 * 0.707 * rin, 1e-5);
    EXPECT_NEAR(Slot(0, 2), 0.99966669 * 0.501 * 0.707 * (lin + rin), 1e-5);
    EXPECT_NEAR(Slot(0, 4), gs * 0.707 * 0.501 * 0.707 * (lin - rin), 1e-5);
    EXPECT_EQ(Slot(0, 4), Slot(0, 5));
}

TEST_F(Dispatch, Stereo_Mode2And3_BassRedirectionFollowsTheDecoder)
{
    for (int32_t mode : {2, 3}) {
        SCOPED_TRACE(::testing::Message() << "mode " << mode);
        EngineReset(TestEngine());
        FillSource(256, 2);
        ProcessorBlock block = MakeBlock(mode, 2, 44100, 256);
        block.Bass_Redir_Enable = 1;
        DispatchMode(TestEngine(), block);
        EXPECT_EQ(block.Out_Channels, 6);
        EXPECT_EQ(TestEngine().Bass.BassSum.size, 256u);
        float lfe = 0.0f;
        for (uint32_t i = 0; i < 256; ++i)
            lfe += std::fabs(Slot(i, 3));
        EXPECT_GT(lfe, 0.0f);
    }
}

TEST_F(Dispatch, Stereo_Mode4At44100And48000_DecoderThenConvolver)
{
    for (int32_t rate : {44100, 48000}) {
        SCOPED_TRACE(::testing::Message() << rate << " Hz");
        EngineReset(TestEngine());
        MarkScratch();
        FillSource(1152, 2);
        ProcessorBlock block = MakeBlock(kHeadphoneMode, 2, rate, 1152);
        block.Bass_Redir_Enable = 1;  // cleared in mode 4: the bass stage does not run
        DispatchMode(TestEngine(), block);
        EXPECT_EQ(block.Out_Channels, 2);
        EXPECT_EQ(block.Frames, 0u);
        EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 1152u);
        EXPECT_EQ(TestEngine().Steering.HighBand.size, 2u * 1152u);  // the decoder ran
        EXPECT_EQ(TestEngine().Bass.BassSum.size, 3u);          // the bass redirection did not

        // 7040 more frames complete the block; nothing is added by a tail.
        FillSource(7040, 2);
        block = MakeBlock(kHeadphoneMode, 2, rate, 7040);
        DispatchMode(TestEngine(), block);
        EXPECT_EQ(block.Frames, 8192u);
        EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
        EXPECT_EQ(block.Out_Channels, 2);
        for (uint32_t i = 0; i < 8192; ++i)
            for (uint32_t s = 2; s < 6; ++s)
                ASSERT_EQ(Slot(i, s), 0.0f) << "frame " << i << " slot " << s;
    }
}

TEST_F(Dispatch, Stereo_Mode4At44099And48001_FramesLeaveUnchangedWithout0707)
{
    for (int32_t rate : {44099, 48001, kRawRate, 22050, 96000, 0, -44100}) {
        SCOPED_TRACE(::testing::Message() << rate << " Hz");
        EngineReset(TestEngine());
        TestEngine().Headphone.Pending_Frames = 100;
        MarkScratch();
        FillSource(500, 2);
        const std::vector<float> before = Snapshot(500);
        ProcessorBlock block = MakeBlock(kHeadphoneMode, 2, rate, 500);
        DispatchMode(TestEngine(), block);
        EXPECT_EQ(block.Out_Channels, 2);
        EXPECT_EQ(block.Frames, 500u);
        EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 100u);
        EXPECT_EQ(TestEngine().Steering.HighBand.size, 2u);  // the range test also skips the decoder
        ExpectUnchanged(before, frames_, 500);
    }
}

TEST_F(Dispatch, Stereo_Mode1_FixedMatrixThenBassRedirection)
{
    // (1, 1) and (1, -1) as in the fixed decoder's closed form.
    Slot(0, 0) = 1.0f;
    Slot(0, 1) = 1.0f;
    Slot(1, 0) = 1.0f;
    Slot(1, 1) = -1.0f;
    MarkScratch();
    ProcessorBlock block = MakeBlock(1, 2, 32000, 2);
    DispatchMode(TestEngine(), block);

    EXPECT_EQ(block.Out_Channels, 6);
    EXPECT_EQ(block.Frames, 2u);
    EXPECT_EQ(TestEngine().Bass.BassSum.size, 2u);  // the bass stage ran (switched off)
    EXPECT_EQ(TestEngine().Steering.HighBand.size, 2u);
    EXPECT_EQ(Slot(0, 0), 0.5f);
    EXPECT_EQ(Slot(0, 1), 0.5f);
    EXPECT_EQ(Slot(0, 2), 0.707f);
    EXPECT_EQ(Slot(0, 3), 0.0f);
    EXPECT_EQ(Slot(0, 4), 0.0f);
    EXPECT_EQ(Slot(0, 5), 0.0f);
    EXPECT_EQ(Slot(1, 0), 0.5f);
    EXPECT_EQ(Slot(1, 1), -0.5f);
    EXPECT_EQ(Slot(1, 2), 0.0f);
    EXPECT_EQ(Slot(1, 3), 0.0f);
    EXPECT_EQ(Slot(1, 4), 0.707f * Gain(3));
    EXPECT_EQ(Slot(1, 5), 0.707f * Gain(3));
}

TEST_F(Dispatch, Stereo_Mode1WithBassRedirection_FillsLfe)
{
    for (uint32_t i = 0; i < 64; ++i) {
        Slot(i, 0) = 0.5f;
        Slot(i, 1) = 0.25f;
    }
    ProcessorBlock block = MakeBlock(1, 2, 44100, 64);
    block.Bass_Redir_Enable = 1;
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Out_Channels, 6);
    for (uint32_t i = 0; i < 64; ++i)
        ASSERT_GT(Slot(i, 3), 0.0f) << "frame " << i;  // constant input: the lows go to LFE
}

TEST_F(Dispatch, Stereo_Mode7AndOtherValuesActAsMode1)
{
    for (int32_t mode : {7, 6, -1, 100, std::numeric_limits<int32_t>::min()}) {
        SCOPED_TRACE(::testing::Message() << "mode " << mode);
        EngineReset(TestEngine());
        MarkScratch();
        Slot(0, 0) = 1.0f;
        Slot(0, 1) = -1.0f;
        ProcessorBlock block = MakeBlock(mode, 2, 32000, 1);
        DispatchMode(TestEngine(), block);
        EXPECT_EQ(block.Out_Channels, 6);
        EXPECT_EQ(block.Surround_Trim_00, 3);
        EXPECT_EQ(TestEngine().Bass.BassSum.size, 1u);
        EXPECT_EQ(Slot(0, 0), 0.5f);
        EXPECT_EQ(Slot(0, 1), -0.5f);
        EXPECT_EQ(Slot(0, 2), 0.0f);
        EXPECT_EQ(Slot(0, 4), 0.707f * Gain(3));
        EXPECT_EQ(Slot(0, 5), 0.707f * Gain(3));
    }
}

// ---------------------------------------------------------------------------
// Rows of four to six channels

TEST_F(Dispatch, MultiChannel_Mode4At44100And48000_ConvolverAlone)
{
    for (int32_t channels : {4, 5, 6}) {
        for (int32_t rate : {44100, 48000}) {
            SCOPED_TRACE(::testing::Message() << channels << " channels, " << rate << " Hz");
            EngineReset(TestEngine());
            MarkScratch();
            FillSource(8191, channels);
            ProcessorBlock block = MakeBlock(kHeadphoneMode, channels, rate, 8191);
            DispatchMode(TestEngine(), block);
            EXPECT_EQ(block.Out_Channels, 2);
            EXPECT_EQ(block.Frames, 0u);
            EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 8191u);
            EXPECT_EQ(TestEngine().Steering.HighBand.size, 2u);  // no decoder
            EXPECT_EQ(TestEngine().Bass.BassSum.size, 3u);

            FillSource(1, channels);
            block = MakeBlock(kHeadphoneMode, channels, rate, 1);
            DispatchMode(TestEngine(), block);
            EXPECT_EQ(block.Frames, 8192u);
            EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
            for (uint32_t i = 0; i < 8192; ++i)
                for (uint32_t s = 2; s < 6; ++s)
                    ASSERT_EQ(Slot(i, s), 0.0f) << "frame " << i << " slot " << s;
        }
    }
}

TEST_F(Dispatch, MultiChannel_Mode4OutOfRange_CallEndsWithInChannels)
{
    for (int32_t channels : {4, 5, 6}) {
        for (int32_t rate : {44099, 48001, kRawRate}) {
            SCOPED_TRACE(::testing::Message() << channels << " channels, " << rate << " Hz");
            EngineReset(TestEngine());
            TestEngine().Headphone.Pending_Frames = 2000;
            FillSource(300, channels);
            const std::vector<float> before = Snapshot(300);
            ProcessorBlock block = MakeBlock(kHeadphoneMode, channels, rate, 300);
            DispatchMode(TestEngine(), block);
            EXPECT_EQ(block.Out_Channels, channels);
            EXPECT_EQ(block.Frames, 300u);
            EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 2000u);
            ExpectUnchanged(before, frames_, 300);
        }
    }
}

TEST_F(Dispatch, FourChannels_Mode5_DownmixFourThenEncodeMix)
{
    // Silent surrounds: left = L + 0.707 x 0.707 x (L + R), and so right.
    for (uint32_t i = 0; i < 200; ++i) {
        Slot(i, 0) = 0.003f * float(int(i % 50) - 20);
        Slot(i, 1) = -0.002f * float(int(i % 30) - 11);
        Slot(i, 2) = Slot(i, 3) = Slot(i, 4) = Slot(i, 5) = 0.0f;
    }
    const std::vector<float> before = Snapshot(200);
    ProcessorBlock block = MakeBlock(kEncodeMode, 4, 44100, 200);
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Out_Channels, 2);
    EXPECT_EQ(block.Frames, 200u);
    for (uint32_t i = 0; i < 200; ++i) {
        const float l = before[6 * i + 0];
        const float r = before[6 * i + 1];
        const float centre = (l + r) * 0.707f;
        const float c = centre * 0.707f;
        const float s = 0.0f;
        ASSERT_EQ(Slot(i, 0), (s + l) + c) << "frame " << i;
        ASSERT_EQ(Slot(i, 1), (c - s) + r) << "frame " << i;
        for (uint32_t k = 2; k < 6; ++k)
            ASSERT_EQ(Slot(i, k), 0.0f) << "frame " << i << " slot " << k;
    }
}

TEST_F(Dispatch, FiveChannels_Mode5_DownmixFiveWalkThenEncodeMix)
{
    // Centre only. The five-float walk reads frame 3's centre into its
    // surround sum, so left and right part from frame 3 on; before that the
    // two carry the centre alone, alike.
    for (uint32_t i = 0; i < 12; ++i) {
        for (uint32_t s = 0; s < 6; ++s)
            Slot(i, s) = 0.0f;
        Slot(i, 2) = 0.25f;
    }
    ProcessorBlock block = MakeBlock(kEncodeMode, 5, 44100, 12);
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Out_Channels, 2);
    EXPECT_EQ(block.Frames, 12u);
    const float c = 0.25f * 0.707f;
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(Slot(i, 0), c) << "frame " << i;
        EXPECT_EQ(Slot(i, 1), c) << "frame " << i;
    }
    EXPECT_NE(Slot(3, 0), Slot(3, 1));
    for (uint32_t i = 0; i < 12; ++i)
        for (uint32_t k = 2; k < 6; ++k)
            EXPECT_EQ(Slot(i, k), 0.0f) << "frame " << i << " slot " << k;
}

TEST_F(Dispatch, SixChannels_Mode5_DownmixSixThenEncodeMix)
{
    // LFE alone: 1.0540000 into each front channel, nothing into the surround sum.
    for (uint32_t i = 0; i < 16; ++i) {
        for (uint32_t s = 0; s < 6; ++s)
            Slot(i, s) = 0.0f;
        Slot(i, 3) = 1.0f;
    }
    ProcessorBlock block = MakeBlock(kEncodeMode, 6, 44100, 16);
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Out_Channels, 2);
    EXPECT_EQ(block.Frames, 16u);
    const float t = (1.0f * 0.33333334f) * 3.162f;
    EXPECT_FLOAT_EQ(t, 1.054f);
    const float c = t * 0.707f;
    for (uint32_t i = 0; i < 16; ++i) {
        EXPECT_EQ(Slot(i, 0), (0.0f + t) + c) << "frame " << i;
        EXPECT_EQ(Slot(i, 1), (c - 0.0f) + t) << "frame " << i;
        for (uint32_t k = 2; k < 6; ++k)
            EXPECT_EQ(Slot(i, k), 0.0f) << "frame " << i << " slot " << k;
    }
}

TEST_F(Dispatch, MultiChannel_OtherModes_PassThroughWithAllChannels)
{
    for (int32_t channels : {4, 5, 6}) {
        for (int32_t mode : {0, 1, 2, 3, 7, -1}) {
            SCOPED_TRACE(::testing::Message() << channels << " channels, mode " << mode);
            EngineReset(TestEngine());
            MarkScratch();
            FillSource(300, channels);
            const std::vector<float> before = Snapshot(300);
            ProcessorBlock block = MakeBlock(mode, channels, 44100, 300);
            DispatchMode(TestEngine(), block);
            EXPECT_EQ(block.Out_Channels, channels);
            EXPECT_EQ(block.Frames, 300u);
            EXPECT_EQ(TestEngine().Steering.HighBand.size, 2u);  // no decoding
            EXPECT_EQ(TestEngine().Bass.BassSum.size, 3u);
            ExpectPassThrough(before, frames_, 300);
        }
    }
}

TEST_F(Dispatch, FourChannels_Mode1_PassThroughAt0707NoDecoding)
{
    FillSource(64, 4);
    const std::vector<float> before = Snapshot(64);
    MarkScratch();
    ProcessorBlock block = MakeBlock(1, 4, 44100, 64);
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Out_Channels, 4);
    EXPECT_EQ(TestEngine().Bass.BassSum.size, 3u);
    ExpectPassThrough(before, frames_, 64);
}

TEST_F(Dispatch, SixChannels_Mode7_PassThrough)
{
    FillSource(64, 6);
    const std::vector<float> before = Snapshot(64);
    ProcessorBlock block = MakeBlock(7, 6, 44100, 64);
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Out_Channels, 6);
    ExpectPassThrough(before, frames_, 64);
}

// ---------------------------------------------------------------------------
// Mono, three channels and above six

TEST_F(Dispatch, OtherChannelCounts_AnyMode_PassThrough)
{
    for (int32_t channels : {1, 3, 7, 8}) {
        for (int32_t mode : {0, 1, 2, 3, 4, 5, 7}) {
            SCOPED_TRACE(::testing::Message() << channels << " channels, mode " << mode);
            EngineReset(TestEngine());
            FillAllSlots(300);
            const std::vector<float> before = Snapshot(300);
            ProcessorBlock block = MakeBlock(mode, channels, 44100, 300);
            DispatchMode(TestEngine(), block);
            EXPECT_EQ(block.Out_Channels, channels);
            EXPECT_EQ(block.Frames, 300u);
            ExpectPassThrough(before, frames_, 300);
        }
    }
}

TEST_F(Dispatch, Mono_Mode4AtAnyRate_PassThroughAndPendingUnchanged)
{
    for (int32_t rate : {44100, 48000, 44099, kRawRate}) {
        SCOPED_TRACE(::testing::Message() << rate << " Hz");
        EngineReset(TestEngine());
        TestEngine().Headphone.Pending_Frames = 500;
        FillAllSlots(300);
        const std::vector<float> before = Snapshot(300);
        ProcessorBlock block = MakeBlock(kHeadphoneMode, 1, rate, 300);
        DispatchMode(TestEngine(), block);
        EXPECT_EQ(block.Out_Channels, 1);
        EXPECT_EQ(block.Frames, 300u);
        EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 500u);
        ExpectPassThrough(before, frames_, 300);
    }
}

// ---------------------------------------------------------------------------
// Headphone hold-back, counts only

TEST_F(Dispatch, Headphone_8191FramesHeldThenOneMoreGives8192)
{
    FillSource(8191, 2);
    ProcessorBlock block = MakeBlock(kHeadphoneMode, 2, 44100, 8191);
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Frames, 0u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 8191u);
    EXPECT_EQ(TestEngine().Headphone.EarBlock.size, 0u);

    FillSource(1, 2);
    block = MakeBlock(kHeadphoneMode, 2, 44100, 1);
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Frames, 8192u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
}

TEST_F(Dispatch, Headphone_ZeroFramesWithPending100ChangesNothing)
{
    TestEngine().Headphone.Pending_Frames = 100;
    ProcessorBlock block = MakeBlock(kHeadphoneMode, 2, 44100, 0);
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Frames, 0u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 100u);
    EXPECT_EQ(block.Out_Channels, 2);
}

TEST_F(Dispatch, Headphone_Pending8000Plus1152Gives8192AndLeaves960)
{
    TestEngine().Headphone.Pending_Frames = 8000;
    FillSource(1152, 6);
    ProcessorBlock block = MakeBlock(kHeadphoneMode, 6, 48000, 1152);
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Frames, 8192u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 960u);
}

// ---------------------------------------------------------------------------
// The tail, end to end through the conversion

class DispatchTail : public Dispatch {
protected:
    // The old contents of the frame block: 8192 frames converted from a 16-bit
    // stereo source and left unprocessed (Headphone mode, rate out of range).
    static int16_t OldLeft(uint32_t i) { return int16_t(int(i % 1000) * 23 - 11000); }
    static int16_t OldRight(uint32_t i) { return int16_t(9000 - int(i % 700) * 19); }
    static int16_t NewLeft(uint32_t i) { return int16_t(int(i % 300) * 71 - 10000); }
    static int16_t NewRight(uint32_t i) { return int16_t(int(i % 90) * -201 + 9000); }

    void WriteOldContents()
    {
        SetSettings(kHeadphoneMode);
        std::vector<uint8_t> old =
            Source16(8192, 2, [](uint32_t i, uint32_t k) { return k == 0 ? OldLeft(i) : OldRight(i); });
        uint32_t frames = 8192;
        ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{2, 16, kRawRate, 16}, old.data(), frames);
        ASSERT_EQ(frames, 8192u);
    }

    uint32_t WriteNew(uint32_t count)
    {
        SetSettings(0);
        std::vector<uint8_t> fresh =
            Source16(count, 2, [](uint32_t i, uint32_t k) { return k == 0 ? NewLeft(i) : NewRight(i); });
        uint32_t frames = count;
        ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{2, 16, 44100, 16}, fresh.data(), frames);
        return frames;
    }

    void ExpectNewFrame(uint32_t i)
    {
        ASSERT_EQ(OutputSample(16, i, 0), ExpectedWord((float(NewLeft(i)) / 32768.0f) * 0.707f, 16)) << "frame " << i;
        ASSERT_EQ(OutputSample(16, i, 1), ExpectedWord((float(NewRight(i)) / 32768.0f) * 0.707f, 16)) << "frame " << i;
        for (uint32_t s = 2; s < 6; ++s)
            ASSERT_EQ(OutputSample(16, i, s), 0) << "frame " << i << " slot " << s;
    }

    // An old frame, as it stood in the array: no pass-through gain.
    void ExpectOldFrame(uint32_t i)
    {
        ASSERT_EQ(OutputSample(16, i, 0), ExpectedWord(float(OldLeft(i)) / 32768.0f, 16)) << "frame " << i;
        ASSERT_EQ(OutputSample(16, i, 1), ExpectedWord(float(OldRight(i)) / 32768.0f, 16)) << "frame " << i;
        for (uint32_t s = 2; s < 6; ++s)
            ASSERT_EQ(OutputSample(16, i, s), 0) << "frame " << i << " slot " << s;
    }

    void ExpectSilentFrame(uint32_t i)
    {
        for (uint32_t s = 0; s < 6; ++s)
            ASSERT_EQ(OutputSample(16, i, s), 0) << "frame " << i << " slot " << s;
    }
};

TEST_F(DispatchTail, Pending3000Plus1152Gives4152FramesWithStaleFrames)
{
    WriteOldContents();
    TestEngine().Headphone.Pending_Frames = 3000;
    const uint32_t frames = WriteNew(1152);
    ASSERT_EQ(frames, 4152u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
    EXPECT_EQ(TestEngine().PcmBlock.size, (2u * 4152u * 6u) / 4u + 1u);
    for (uint32_t i = 0; i < 1152; ++i)
        ExpectNewFrame(i);
    for (uint32_t i = 1152; i < 4152; ++i)
        ExpectOldFrame(i);
}

TEST_F(DispatchTail, Pending6000Plus4000Gives10000FramesWithSilenceFrom8192)
{
    WriteOldContents();
    TestEngine().Headphone.Pending_Frames = 6000;
    const uint32_t frames = WriteNew(4000);
    ASSERT_EQ(frames, 10000u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
    EXPECT_EQ(TestEngine().FrameBlock.size, 49152u + 6u * 6000u);  // the zeros went in from float 49152
    for (uint32_t i = 0; i < 4000; ++i)
        ExpectNewFrame(i);
    for (uint32_t i = 4000; i < 8192; ++i)
        ExpectOldFrame(i);
    for (uint32_t i = 8192; i < 10000; ++i)
        ExpectSilentFrame(i);
}

TEST_F(DispatchTail, Pending8191Plus8192Gives16383Frames)
{
    WriteOldContents();
    TestEngine().Headphone.Pending_Frames = 8191;
    const uint32_t frames = WriteNew(8192);
    ASSERT_EQ(frames, 16383u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
    EXPECT_EQ(TestEngine().PcmBlock.size, (2u * 16383u * 6u) / 4u + 1u);
    for (uint32_t i = 0; i < 8192; ++i)
        ExpectNewFrame(i);
    for (uint32_t i = 8192; i < 16383; ++i)
        ExpectSilentFrame(i);

    // The next write asks for 49152 floats again and finds them without the tail.
    EXPECT_EQ(WriteNew(10), 10u);
    EXPECT_EQ(TestEngine().FrameBlock.size, 49152u);
}

TEST_F(DispatchTail, LeavingHeadphoneModeAddsTheFramesItHeldBack)
{
    // The old contents first, then 3000 six-channel frames held back by the
    // convolver, which leaves the frame block as converted.
    WriteOldContents();
    SetSettings(kHeadphoneMode);
    auto held = [](uint32_t i, uint32_t k) { return int16_t(int((i * 7 + k * 13) % 400) * 50 - 10000); };
    std::vector<uint8_t> source = Source16(3000, 6, held);
    uint32_t frames = 3000;
    ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{6, 16, 44100, 16}, source.data(), frames);
    ASSERT_EQ(frames, 0u);
    ASSERT_EQ(TestEngine().Headphone.Pending_Frames, 3000u);

    // Bypass now, 1152 six-channel frames.
    SetSettings(0);
    auto fresh = [](uint32_t i, uint32_t k) { return int16_t(int((i * 3 + k * 29) % 500) * 40 - 10000); };
    source = Source16(1152, 6, fresh);
    frames = 1152;
    ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{6, 16, 44100, 16}, source.data(), frames);
    ASSERT_EQ(frames, 4152u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
    for (uint32_t i = 0; i < 1152; ++i)
        for (uint32_t s = 0; s < 6; ++s)
            ASSERT_EQ(OutputSample(16, i, s), ExpectedWord((float(fresh(i, s)) / 32768.0f) * 0.707f, 16))
                << "frame " << i << " slot " << s;
    // What the held-back write converted, without any gain.
    for (uint32_t i = 1152; i < 3000; ++i)
        for (uint32_t s = 0; s < 6; ++s)
            ASSERT_EQ(OutputSample(16, i, s), ExpectedWord(float(held(i, s)) / 32768.0f, 16))
                << "frame " << i << " slot " << s;
    for (uint32_t i = 3000; i < 4152; ++i)
        ExpectOldFrame(i);
}

TEST_F(DispatchTail, NoTailInMode4)
{
    // Stereo at a rate out of range ends the call; a mono source passes
    // through; neither adds the held frames.
    WriteOldContents();
    TestEngine().Headphone.Pending_Frames = 3000;
    SetSettings(kHeadphoneMode);
    std::vector<uint8_t> source = Source16(1152, 2, [](uint32_t i, uint32_t) { return int16_t(i); });
    uint32_t frames = 1152;
    ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{2, 16, kRawRate, 16}, source.data(), frames);
    EXPECT_EQ(frames, 1152u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 3000u);

    frames = 1152;
    ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{1, 16, 44100, 16}, source.data(), frames);
    EXPECT_EQ(frames, 1152u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 3000u);
}

TEST_F(DispatchTail, AfterFlushWithPending3000LeavingMode4AddsNothing)
{
    SetSettings(kHeadphoneMode);
    std::vector<uint8_t> source = Source16(3000, 2, [](uint32_t i, uint32_t k) { return int16_t(i * 5 + k); });
    uint32_t frames = 3000;
    ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{2, 16, 44100, 16}, source.data(), frames);
    ASSERT_EQ(frames, 0u);
    ASSERT_EQ(TestEngine().Headphone.Pending_Frames, 3000u);

    EngineReset(TestEngine());  // what Flush does
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);

    EXPECT_EQ(WriteNew(1152), 1152u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
    for (uint32_t i = 0; i < 1152; ++i)
        ExpectNewFrame(i);
}

// ---------------------------------------------------------------------------
// EngineReset and the engine's members

TEST_F(Dispatch, EngineReset_BeforeFirstUseLeavesNullDelayLines)
{
    // As at load: no decoder has run, so the rings were never made. (Release
    // is a no-op then; it only restores that state if another test ran here.)
    TestEngine().Surround.SurroundDelayLine[0].Release();
    TestEngine().Surround.SurroundDelayLine[1].Release();
    EngineReset(TestEngine());
    for (int k = 0; k < 2; ++k) {
        const SampleBlock& line = TestEngine().Surround.SurroundDelayLine[k];
        EXPECT_EQ(line.data, nullptr) << "line " << k;
        EXPECT_EQ(line.size, 0u) << "line " << k;
        EXPECT_EQ(line.capacity, 0u) << "line " << k;
        EXPECT_EQ(line.position, 0u) << "line " << k;
    }
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
}

// Runs the steered decoder with a 10 ms delay and bass redirection over 1000
// frames at 44100 Hz, the encoder over 300, and puts marks in the overlap:
// every memory that a reset clears is then non-zero.
void StageBusyEngine(SampleBlock& frames)
{
    for (uint32_t i = 0; i < 1000; ++i) {
        frames.data[6 * i + 0] = 0.4f * std::sin(0.05f * float(i)) + 0.1f;
        frames.data[6 * i + 1] = 0.3f * std::cos(0.031f * float(i)) - 0.05f;
        for (uint32_t s = 2; s < 6; ++s)
            frames.data[6 * i + s] = 0.0f;
    }
    ProcessorBlock block{};
    block.Mode = 3;
    block.Surround_Delay = 10;
    block.Bass_Redir = 120;
    block.Bass_Redir_Enable = 1;
    block.L = block.R = block.C = block.SL = block.SR = 1;
    block.In_Channels = 2;
    block.Sample_Rate = 44100;
    block.Frames = 1000;
    block.Block = &frames;
    DispatchMode(TestEngine(), block);

    for (uint32_t i = 0; i < 300; ++i)
        for (uint32_t s = 0; s < 6; ++s)
            frames.data[6 * i + s] = 0.2f * std::sin(0.07f * float(i * 6 + s));
    block.Mode = kEncodeMode;
    block.In_Channels = 6;
    block.Frames = 300;
    DispatchMode(TestEngine(), block);

    for (uint32_t i = 0; i < TestEngine().Headphone.OverlapBlock.size; ++i)
        TestEngine().Headphone.OverlapBlock.data[i] = 0.5f;
    TestEngine().Headphone.Pending_Frames = 1234;
}

// The engine's fourteen filter memories, wherever each stage keeps them.
static std::vector<FilterState*> AllMemories(Engine& engine)
{
    return {&engine.Bass.BassFilter[0],       &engine.Bass.BassFilter[1],       &engine.Bass.BassFilter[2],
            &engine.Surround.SurroundFilter[0], &engine.Surround.SurroundFilter[1], &engine.Encoder.LfeHighPass,
            &engine.Encoder.LfeLowPass,       &engine.Encoder.LfeChain,         &engine.Steering.BandFilter[0],
            &engine.Steering.BandFilter[1],   &engine.Steering.SteerFilter[0],  &engine.Steering.SteerFilter[1],
            &engine.Steering.SteerFilter[2],  &engine.Steering.SteerFilter[3]};
}

TEST_F(Dispatch, EngineReset_ClearsMemoriesRingsOverlapAndPendingKeepsPositionAndScratch)
{
    StageBusyEngine(frames_);
    // 10 ms at 44100 Hz is a ring of 440; 1000 frames leave it at 1000 mod 440.
    ASSERT_EQ(TestEngine().Surround.SurroundDelayLine[0].size, 440u);
    ASSERT_EQ(TestEngine().Surround.SurroundDelayLine[0].position, 120u);
    ASSERT_EQ(TestEngine().Surround.SurroundDelayLine[1].position, 120u);
    const float* ringData[2] = {TestEngine().Surround.SurroundDelayLine[0].data, TestEngine().Surround.SurroundDelayLine[1].data};
    const uint32_t ringCapacity[2] = {TestEngine().Surround.SurroundDelayLine[0].capacity,
                                      TestEngine().Surround.SurroundDelayLine[1].capacity};
    const std::vector<float> highBand(TestEngine().Steering.HighBand.data,
                                      TestEngine().Steering.HighBand.data + TestEngine().Steering.HighBand.size);
    const std::vector<float> input0(TestEngine().Headphone.InputBlock[0].data, TestEngine().Headphone.InputBlock[0].data + 16386);
    bool anyMemory = false;
    const std::vector<FilterState*> memories = AllMemories(TestEngine());
    ASSERT_EQ(memories.size(), 14u);
    for (const FilterState* m : memories)
        anyMemory = anyMemory || m->x1 != 0.0f || m->y1 != 0.0f;
    ASSERT_TRUE(anyMemory);

    EngineReset(TestEngine());

    for (std::size_t k = 0; k < memories.size(); ++k) {
        EXPECT_EQ(memories[k]->x1, 0.0f) << "filter " << k;
        EXPECT_EQ(memories[k]->x2, 0.0f) << "filter " << k;
        EXPECT_EQ(memories[k]->y1, 0.0f) << "filter " << k;
        EXPECT_EQ(memories[k]->y2, 0.0f) << "filter " << k;
    }
    for (int k = 0; k < 2; ++k) {
        const SampleBlock& line = TestEngine().Surround.SurroundDelayLine[k];
        EXPECT_EQ(line.data, ringData[k]) << "line " << k;
        EXPECT_EQ(line.size, 440u) << "line " << k;
        EXPECT_EQ(line.capacity, ringCapacity[k]) << "line " << k;
        EXPECT_EQ(line.position, 120u) << "line " << k;
        for (uint32_t i = 0; i < 440; ++i)
            ASSERT_EQ(line.data[i], 0.0f) << "line " << k << " cell " << i;
    }
    EXPECT_EQ(TestEngine().Headphone.OverlapBlock.size, 16384u);
    for (uint32_t i = 0; i < 16384; ++i)
        ASSERT_EQ(TestEngine().Headphone.OverlapBlock.data[i], 0.0f) << "overlap " << i;
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
    // Scratch is left as it was.
    for (std::size_t i = 0; i < highBand.size(); ++i)
        ASSERT_EQ(TestEngine().Steering.HighBand.data[i], highBand[i]) << "high band " << i;
    for (std::size_t i = 0; i < input0.size(); ++i)
        ASSERT_EQ(TestEngine().Headphone.InputBlock[0].data[i], input0[i]) << "input block " << i;
}

TEST_F(Dispatch, EngineReset_TwiceHasTheEffectOfOnce)
{
    StageBusyEngine(frames_);
    EngineReset(TestEngine());

    const std::vector<FilterState*> memories = AllMemories(TestEngine());
    std::vector<FilterState> filtersOnce;
    for (const FilterState* m : memories)
        filtersOnce.push_back(*m);
    struct Words {
        float* data;
        uint32_t size, capacity, position;
    };
    Words lines[2];
    std::vector<float> ringsOnce[2];
    for (int k = 0; k < 2; ++k) {
        const SampleBlock& line = TestEngine().Surround.SurroundDelayLine[k];
        lines[k] = Words{line.data, line.size, line.capacity, line.position};
        ringsOnce[k].assign(line.data, line.data + line.capacity);
    }
    const std::vector<float> overlapOnce(TestEngine().Headphone.OverlapBlock.data, TestEngine().Headphone.OverlapBlock.data + 16384);

    EngineReset(TestEngine());

    for (std::size_t k = 0; k < memories.size(); ++k)
        EXPECT_EQ(std::memcmp(memories[k], &filtersOnce[k], sizeof(FilterState)), 0) << "filter " << k;
    for (int k = 0; k < 2; ++k) {
        const SampleBlock& line = TestEngine().Surround.SurroundDelayLine[k];
        EXPECT_EQ(line.data, lines[k].data);
        EXPECT_EQ(line.size, lines[k].size);
        EXPECT_EQ(line.capacity, lines[k].capacity);
        EXPECT_EQ(line.position, lines[k].position);
        EXPECT_EQ(std::memcmp(line.data, ringsOnce[k].data(), ringsOnce[k].size() * sizeof(float)), 0);
    }
    EXPECT_EQ(std::memcmp(TestEngine().Headphone.OverlapBlock.data, overlapOnce.data(), 16384 * sizeof(float)), 0);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
}

TEST_F(Dispatch, EngineState_FourteenFiltersAndThirtyTwoBlocksInTheStagesRecords)
{
    // Each stage's record holds its filter memories first, then its blocks,
    // in the order of the engine's table; together 14 memories (3 + 2 + 3 +
    // 6) and 32 blocks (1 + 2 + 6 + 23).
    static_assert(sizeof(FilterState) == 16);
    const std::size_t b = sizeof(SampleBlock);

    static_assert(std::is_standard_layout_v<BassRedirectState>);
    EXPECT_EQ(offsetof(BassRedirectState, BassFilter), 0u);
    EXPECT_EQ(offsetof(BassRedirectState, BassSum), 3u * 16u);
    EXPECT_EQ(sizeof(TestEngine().Bass.BassFilter) / sizeof(FilterState), 3u);

    static_assert(std::is_standard_layout_v<SurroundTailState>);
    EXPECT_EQ(offsetof(SurroundTailState, SurroundFilter), 0u);
    EXPECT_EQ(offsetof(SurroundTailState, SurroundDelayLine), 2u * 16u);
    EXPECT_EQ(sizeof(SurroundTailState), 2u * 16u + 2u * b);

    static_assert(std::is_standard_layout_v<MatrixEncoderState>);
    EXPECT_EQ(offsetof(MatrixEncoderState, LfeHighPass), 0u);
    EXPECT_EQ(offsetof(MatrixEncoderState, LfeLowPass), 16u);
    EXPECT_EQ(offsetof(MatrixEncoderState, LfeChain), 32u);
    EXPECT_EQ(sizeof(MatrixEncoderState), 3u * 16u);

    static_assert(std::is_standard_layout_v<SteeringState>);
    const std::size_t steerBlocks = 6u * 16u;  // BandFilter[2], SteerFilter[4]; aligned for a pointer
    EXPECT_EQ(offsetof(SteeringState, BandFilter), 0u);
    EXPECT_EQ(offsetof(SteeringState, SteerFilter), 2u * 16u);
    EXPECT_EQ(offsetof(SteeringState, HighBand), steerBlocks);
    EXPECT_EQ(offsetof(SteeringState, LowBand), steerBlocks + b);
    EXPECT_EQ(offsetof(SteeringState, SteerHighLR), steerBlocks + 2 * b);
    EXPECT_EQ(offsetof(SteeringState, SteerHighCS), steerBlocks + 3 * b);
    EXPECT_EQ(offsetof(SteeringState, SteerLowLR), steerBlocks + 4 * b);
    EXPECT_EQ(offsetof(SteeringState, SteerLowCS), steerBlocks + 5 * b);
    EXPECT_EQ(sizeof(SteeringState), steerBlocks + 6 * b);

    static_assert(std::is_standard_layout_v<HeadphoneConvolver>);
    EXPECT_EQ(offsetof(HeadphoneConvolver, ImpulseSpectrum), 0u);
    EXPECT_EQ(offsetof(HeadphoneConvolver, EarBlock), 6 * b);
    EXPECT_EQ(offsetof(HeadphoneConvolver, InputBlock), 7 * b);
    EXPECT_EQ(offsetof(HeadphoneConvolver, OverlapBlock), 12 * b);
    EXPECT_EQ(offsetof(HeadphoneConvolver, ProductBlock), 13 * b);
    EXPECT_EQ(offsetof(HeadphoneConvolver, Pending_Frames), 23 * b);
    static_assert(std::is_same_v<decltype(HeadphoneConvolver::Pending_Frames), uint32_t>);
}

TEST_F(Dispatch, EngineState_ConstructorGivesTheTransformBlocksTheirSizes)
{
    for (int k = 0; k < 6; ++k) {
        EXPECT_NE(TestEngine().Headphone.ImpulseSpectrum[k].data, nullptr) << "impulse " << k;
        EXPECT_EQ(TestEngine().Headphone.ImpulseSpectrum[k].size, 16386u) << "impulse " << k;
    }
    for (int k = 0; k < 5; ++k) {
        EXPECT_NE(TestEngine().Headphone.InputBlock[k].data, nullptr) << "input " << k;
        EXPECT_EQ(TestEngine().Headphone.InputBlock[k].size, 16386u) << "input " << k;
    }
    for (int k = 0; k < 10; ++k) {
        EXPECT_NE(TestEngine().Headphone.ProductBlock[k].data, nullptr) << "product " << k;
        EXPECT_EQ(TestEngine().Headphone.ProductBlock[k].size, 16386u) << "product " << k;
    }
    EXPECT_EQ(TestEngine().Headphone.OverlapBlock.size, 16384u);
    EXPECT_NE(TestEngine().Headphone.OverlapBlock.data, nullptr);
}

}  // namespace
