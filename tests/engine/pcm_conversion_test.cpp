// PCM conversion end to end through ConvertAndProcess: every source depth and
// channel count into frames, every output word size out of them, the two
// passes that run on into the next, and the odd stream words (0 frames,
// 3 channels, 12 bits, 8-bit output).
//
// Two routes reach the conversions without any gain stage in between:
// Headphone mode at a sample rate outside 44100..48000 leaves a source of 2,
// 4, 5 or 6 channels as converted, and a 12-bit stream converts nothing, so
// floats placed in the engine's FrameBlock by the test go straight to the output.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "engine/dispatch.h"
#include "engine/engine.h"
#include "engine/pcm_conversion.h"
#include "signal/processor.h"
#include "tests/support/engine_settings.h"
#include "tests/support/pcm_words.h"
#include "tests/support/test_engine.h"

#if defined(__unix__)
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace {

constexpr int32_t kPlainRate = 44100;
constexpr int32_t kRawRate = 8000;  // outside the Headphone range: mode 4 leaves frames as converted
constexpr int32_t kHeadphoneMode = 4;

StreamWords Stream(uint32_t channels, uint32_t bits, int32_t rate, uint32_t outputBits)
{
    return StreamWords{channels, bits, rate, outputBits};
}

float FrameSlot(uint32_t frame, uint32_t slot) { return TestEngine().FrameBlock.data[frame * 6 + slot]; }

// Frame i holds words 5i..5i+4 of the source, w(k) the value of word k, with
// LFE silent: the four-channel source read by the five-channel pass.
template <typename WordValue>
void ExpectStrideOfFive(uint32_t frameCount, WordValue w)
{
    for (uint32_t i = 0; i < frameCount; ++i) {
        EXPECT_EQ(FrameSlot(i, 0), w(5 * i)) << "frame " << i;
        EXPECT_EQ(FrameSlot(i, 1), w(5 * i + 1)) << "frame " << i;
        EXPECT_EQ(FrameSlot(i, 2), w(5 * i + 2)) << "frame " << i;
        EXPECT_EQ(FrameSlot(i, 3), 0.0f) << "frame " << i;
        EXPECT_EQ(FrameSlot(i, 4), w(5 * i + 3)) << "frame " << i;
        EXPECT_EQ(FrameSlot(i, 5), w(5 * i + 4)) << "frame " << i;
    }
}

class PcmConversion : public ::testing::Test {
protected:
    void SetUp() override
    {
        EngineReset(TestEngine());
        SetSettings(0);
    }

    // Places six floats per frame in the engine's FrameBlock and sends them through a
    // 12-bit write in Headphone mode at a rate out of range, which neither
    // converts nor processes them. Returns the frame count that comes back.
    uint32_t ConvertPlacedFloats(const std::vector<float>& floats, uint32_t outputBits)
    {
        SetSettings(kHeadphoneMode);
        TestEngine().FrameBlock.Resize(kFrameBlockFloats, false);  // what every write asks for first
        std::memcpy(TestEngine().FrameBlock.data, floats.data(), floats.size() * sizeof(float));
        uint32_t frames = uint32_t(floats.size() / 6);
        const uint8_t unused[4] = {0x11, 0x22, 0x33, 0x44};
        ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 12, kRawRate, outputBits), unused, frames);
        return frames;
    }
};

// ---------------------------------------------------------------------------
// The Bypass example at 16 bits

TEST_F(PcmConversion, Bypass16_Sample16384LeavesAs9845)
{
    std::vector<uint8_t> source;
    Put16(source, 16384);
    Put16(source, 16384);
    uint32_t frames = 1;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, 16), source.data(), frames);

    ASSERT_EQ(frames, 1u);
    // 0.5 after the input scale, then 0.35350001 after the pass-through.
    EXPECT_EQ(FrameSlot(0, 0), 0.5f * 0.707f);
    EXPECT_FLOAT_EQ(FrameSlot(0, 0), 0.35350001f);
    EXPECT_EQ(OutputSample(16, 0, 0), 9845);
    EXPECT_EQ(OutputSample(16, 0, 1), 9845);
    for (uint32_t s = 2; s < 6; ++s)
        EXPECT_EQ(OutputSample(16, 0, s), 0) << "slot " << s;
}

TEST_F(PcmConversion, Bypass16_FullScaleSamplesLeaveAs19691)
{
    // The shell's example: 4608 bytes of 16-bit stereo, 1152 frames.
    std::vector<uint8_t> source;
    for (int i = 0; i < 1152; ++i) {
        Put16(source, i % 2 == 0 ? int16_t(32767) : int16_t(-32768));
        Put16(source, i % 2 == 0 ? int16_t(-32768) : int16_t(32767));
    }
    ASSERT_EQ(source.size(), 4608u);
    uint32_t frames = 1152;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, 16), source.data(), frames);

    ASSERT_EQ(frames, 1152u);
    EXPECT_EQ(TestEngine().PcmBlock.size, 3457u);  // (2 x 1152 x 6) / 4 + 1
    for (uint32_t i = 0; i < 1152; ++i) {
        const int32_t high = 19691;
        const int32_t low = -19691;
        EXPECT_EQ(OutputSample(16, i, 0), i % 2 == 0 ? high : low) << "frame " << i;
        EXPECT_EQ(OutputSample(16, i, 1), i % 2 == 0 ? low : high) << "frame " << i;
        for (uint32_t s = 2; s < 6; ++s)
            ASSERT_EQ(OutputSample(16, i, s), 0) << "frame " << i << " slot " << s;
    }
}

// ---------------------------------------------------------------------------
// Source depths

TEST_F(PcmConversion, Input8_ByteZeroIsSilenceAndOneIsAlmostFullNegative)
{
    SetSettings(kHeadphoneMode);
    std::vector<uint8_t> source = {0, 1, 128, 255, 2, 129};
    uint32_t frames = 3;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 8, kRawRate, 16), source.data(), frames);

    ASSERT_EQ(frames, 3u);
    EXPECT_EQ(FrameSlot(0, 0), 0.0f);  // a byte of 0 is silence, not full negative scale
    EXPECT_EQ(FrameSlot(0, 1), -0.9921875f);
    EXPECT_EQ(FrameSlot(1, 0), 0.0f);
    EXPECT_EQ(FrameSlot(1, 1), 0.9921875f);
    EXPECT_EQ(FrameSlot(2, 0), -126.0f / 128.0f);
    EXPECT_EQ(FrameSlot(2, 1), 1.0f / 128.0f);
    for (uint32_t i = 0; i < 3; ++i)
        for (uint32_t s = 2; s < 6; ++s)
            EXPECT_EQ(FrameSlot(i, s), 0.0f) << "frame " << i << " slot " << s;
}

TEST_F(PcmConversion, Input24_BottomAndTopBytesGiveMinusOneAndJustBelowOne)
{
    SetSettings(kHeadphoneMode);
    std::vector<uint8_t> source = {0x00, 0x00, 0x80, 0xFF, 0xFF, 0x7F,
                                   0x00, 0x00, 0x40, 0x01, 0x00, 0x00};
    uint32_t frames = 2;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 24, kRawRate, 16), source.data(), frames);

    ASSERT_EQ(frames, 2u);
    EXPECT_EQ(FrameSlot(0, 0), -1.0f);
    EXPECT_EQ(FrameSlot(0, 1), 1.0f - 0x1p-23f);  // 0x7FFFFF00 / 2^31
    EXPECT_FLOAT_EQ(FrameSlot(0, 1), 0.99999988f);
    EXPECT_EQ(FrameSlot(1, 0), 0.5f);
    EXPECT_EQ(FrameSlot(1, 1), 0x1p-23f);  // 256 / 2^31: the sample is top-aligned
    for (uint32_t i = 0; i < 2; ++i)
        for (uint32_t s = 2; s < 6; ++s)
            EXPECT_EQ(FrameSlot(i, s), 0.0f) << "frame " << i << " slot " << s;
}

TEST_F(PcmConversion, Input32_ExtremesBothReachFullScale)
{
    SetSettings(kHeadphoneMode);
    std::vector<uint8_t> source;
    Put32(source, 2147483647);  // rounds up to 2^31 on conversion to float
    Put32(source, std::numeric_limits<int32_t>::min());
    Put32(source, 1 << 30);
    Put32(source, 1);
    uint32_t frames = 2;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 32, kRawRate, 16), source.data(), frames);

    ASSERT_EQ(frames, 2u);
    EXPECT_EQ(FrameSlot(0, 0), 1.0f);
    EXPECT_EQ(FrameSlot(0, 1), -1.0f);
    EXPECT_EQ(FrameSlot(1, 0), 0.5f);
    EXPECT_EQ(FrameSlot(1, 1), 0x1p-31f);
}

TEST_F(PcmConversion, Input16_SamplesScaleByOneOver32768)
{
    SetSettings(kHeadphoneMode);
    std::vector<uint8_t> source;
    Put16(source, 16384);
    Put16(source, -32768);
    Put16(source, 1);
    Put16(source, 32767);
    uint32_t frames = 2;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kRawRate, 16), source.data(), frames);

    ASSERT_EQ(frames, 2u);
    EXPECT_EQ(FrameSlot(0, 0), 0.5f);
    EXPECT_EQ(FrameSlot(0, 1), -1.0f);
    EXPECT_EQ(FrameSlot(1, 0), 0x1p-15f);
    EXPECT_EQ(FrameSlot(1, 1), 32767.0f / 32768.0f);
}

// ---------------------------------------------------------------------------
// Channel counts at each depth. Sample k of a frame is (k + 1) units, exact in
// float at every depth; frame i adds 10 i units to tell the frames apart.

struct DepthCase {
    uint32_t bits;
    float unit;  // the float of one unit
};

void PutUnits(std::vector<uint8_t>& source, uint32_t bits, int32_t units)
{
    switch (bits) {
    case 8:
        Put8(source, uint8_t(128 + units));  // units/128
        break;
    case 16:
        Put16(source, int16_t(units * 256));  // units/128
        break;
    case 24:
        Put24(source, units * 65536);  // units/128
        break;
    default:
        Put32(source, units * 16777216);  // units/128
        break;
    }
}

// Runs `channels` channels of `bits` through the unprocessed route and checks
// the slots against the channel table.
void CheckChannelTable(uint32_t bits, uint32_t channels)
{
    SCOPED_TRACE(::testing::Message() << bits << " bits, " << channels << " channels");
    const uint32_t frameCount = 4;
    std::vector<uint8_t> source;
    for (uint32_t i = 0; i < frameCount; ++i)
        for (uint32_t k = 0; k < channels; ++k)
            PutUnits(source, bits, int32_t(10 * i + k + 1));
    // Bytes behind the source that a correct pass never reads.
    for (int i = 0; i < 64; ++i)
        source.push_back(0x5A);

    EngineReset(TestEngine());
    SetSettings(kHeadphoneMode);
    uint32_t frames = frameCount;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(channels, bits, kRawRate, 16), source.data(), frames);
    ASSERT_EQ(frames, frameCount);

    // Slot of each source channel; -1 = written as 0.0.
    static const int kSlotOf[7][6] = {
        {},
        {0, -1, -1, -1, -1, -1},  // mono goes to slots 0 and 1, see below
        {0, 1},
        {},
        {0, 1, 4, 5},
        {0, 1, 2, 4, 5},
        {0, 1, 2, 3, 4, 5},
    };
    for (uint32_t i = 0; i < frameCount; ++i) {
        float expected[6] = {0, 0, 0, 0, 0, 0};
        for (uint32_t k = 0; k < channels; ++k)
            expected[kSlotOf[channels][k]] = float(10 * i + k + 1) / 128.0f;
        if (channels == 1) {
            // Mono passes the dispatcher's pass-through at every rate.
            const float s0 = float(10 * i + 1) / 128.0f;
            expected[0] = s0 * 0.707f;
            expected[1] = s0 * 0.707f;
        }
        for (uint32_t s = 0; s < 6; ++s)
            EXPECT_EQ(FrameSlot(i, s), expected[s]) << "frame " << i << " slot " << s;
    }
}

TEST_F(PcmConversion, ChannelTable_8BitFollowsTheSlotTable)
{
    for (uint32_t channels : {1u, 2u, 4u, 5u, 6u})
        CheckChannelTable(8, channels);
}

TEST_F(PcmConversion, ChannelTable_16BitFollowsTheSlotTable)
{
    for (uint32_t channels : {1u, 2u, 4u, 5u, 6u})
        CheckChannelTable(16, channels);
}

TEST_F(PcmConversion, ChannelTable_24BitFollowsTheSlotTableExceptFiveChannels)
{
    for (uint32_t channels : {1u, 2u, 4u, 6u})
        CheckChannelTable(24, channels);
}

TEST_F(PcmConversion, ChannelTable_32BitFollowsTheSlotTableExceptFourChannels)
{
    for (uint32_t channels : {1u, 2u, 5u, 6u})
        CheckChannelTable(32, channels);
}

TEST_F(PcmConversion, Mono_CopiedToLeftAndRightAtFullLevel)
{
    SetSettings(0);
    std::vector<uint8_t> source;
    Put16(source, 16384);
    Put16(source, -8192);
    uint32_t frames = 2;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(1, 16, kPlainRate, 16), source.data(), frames);

    ASSERT_EQ(frames, 2u);
    // Each slot is the sample itself times the pass-through gain alone.
    EXPECT_EQ(FrameSlot(0, 0), 0.5f * 0.707f);
    EXPECT_EQ(FrameSlot(0, 1), 0.5f * 0.707f);
    EXPECT_EQ(FrameSlot(1, 0), -0.25f * 0.707f);
    EXPECT_EQ(FrameSlot(1, 1), -0.25f * 0.707f);
    EXPECT_EQ(OutputSample(16, 0, 0), 9845);
    EXPECT_EQ(OutputSample(16, 0, 1), 9845);
    for (uint32_t i = 0; i < 2; ++i)
        for (uint32_t s = 2; s < 6; ++s)
            EXPECT_EQ(OutputSample(16, i, s), 0) << "frame " << i << " slot " << s;
}

TEST_F(PcmConversion, ThreeChannels_SilentInEveryModeWithTheFrameCount)
{
    for (uint32_t bits : {8u, 16u, 24u, 32u}) {
        for (int32_t mode : {0, 1, 2, 3, 4, 5, 7}) {
            for (int32_t rate : {kPlainRate, kRawRate}) {
                SCOPED_TRACE(::testing::Message() << bits << " bits, mode " << mode << ", rate " << rate);
                const uint32_t frameCount = 300;
                std::vector<uint8_t> source;
                for (uint32_t i = 0; i < frameCount * 3; ++i)
                    PutUnits(source, bits, int32_t(i % 100) - 49);
                EngineReset(TestEngine());
                SetSettings(mode);
                uint32_t frames = frameCount;
                ConvertWholeFrames(TestEngine(), TestSettings(), Stream(3, bits, rate, 16), source.data(), frames);
                ASSERT_EQ(frames, frameCount);
                EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
                for (uint32_t i = 0; i < frameCount; ++i)
                    for (uint32_t s = 0; s < 6; ++s)
                        ASSERT_EQ(OutputSample(16, i, s), 0) << "frame " << i << " slot " << s;
            }
        }
    }
}

TEST_F(PcmConversion, SevenChannels_SilentWithTheFrameCount)
{
    for (uint32_t bits : {8u, 16u, 24u, 32u}) {
        SCOPED_TRACE(::testing::Message() << bits << " bits");
        const uint32_t frameCount = 50;
        std::vector<uint8_t> source;
        for (uint32_t i = 0; i < frameCount * 7; ++i)
            PutUnits(source, bits, 40);
        SetSettings(0);
        uint32_t frames = frameCount;
        ConvertWholeFrames(TestEngine(), TestSettings(), Stream(7, bits, kPlainRate, 16), source.data(), frames);
        ASSERT_EQ(frames, frameCount);
        for (uint32_t i = 0; i < frameCount; ++i)
            for (uint32_t s = 0; s < 6; ++s)
                ASSERT_EQ(OutputSample(16, i, s), 0) << "frame " << i << " slot " << s;
    }
}

// ---------------------------------------------------------------------------
// The two passes that run on into the next

TEST_F(PcmConversion, RunOn32BitFourChannels_ReadsWithAStrideOfFive)
{
    const uint32_t frameCount = 8;
    std::vector<uint8_t> source;
    // w(k) = (k + 1) x 2^20, so float(w(k)) x 2^-31 = (k + 1) / 2048 exactly.
    for (uint32_t k = 0; k < frameCount * 4; ++k)
        Put32(source, int32_t((k + 1) << 20));
    // What lies behind the source is not to be read: this build reads it as 0.
    for (int i = 0; i < 256; ++i)
        source.push_back(0x3C);

    SetSettings(kHeadphoneMode);
    uint32_t frames = frameCount;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(4, 32, kRawRate, 16), source.data(), frames);
    ASSERT_EQ(frames, frameCount);

    auto w = [&](uint32_t k) { return k < frameCount * 4 ? float(k + 1) / 2048.0f : 0.0f; };
    ExpectStrideOfFive(frameCount, w);
    // And so at the output: frame 1 starts with w5 = 6 / 2048.
    EXPECT_EQ(OutputSample(16, 1, 0), ExpectedWord(6.0f / 2048.0f, 16));
    EXPECT_EQ(OutputSample(16, 7, 0), 0);
}

TEST_F(PcmConversion, RunOn24BitFiveChannels_FramesReplacedByWhatLiesBehindTheSource)
{
    const uint32_t frameCount = 6;
    std::vector<uint8_t> source;
    for (uint32_t k = 0; k < frameCount * 5; ++k)
        Put24(source, int32_t(k + 1) * 65536);
    ASSERT_EQ(source.size(), 15u * frameCount);
    // The six-channel pass reads 18 x frames bytes from here on; this build
    // reads them as 0 rather than what follows in memory.
    for (uint32_t i = 0; i < 18 * frameCount + 16; ++i)
        source.push_back(0x6B);

    SetSettings(kHeadphoneMode);
    uint32_t frames = frameCount;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(5, 24, kRawRate, 24), source.data(), frames);
    ASSERT_EQ(frames, frameCount);
    for (uint32_t i = 0; i < frameCount; ++i)
        for (uint32_t s = 0; s < 6; ++s) {
            EXPECT_EQ(FrameSlot(i, s), 0.0f) << "frame " << i << " slot " << s;
            EXPECT_EQ(OutputSample(24, i, s), 0) << "frame " << i << " slot " << s;
        }
}

TEST_F(PcmConversion, RunOn32BitFourChannels_ReadsThePartialFrameInsideTheBuffer)
{
    // Eight whole frames (words 0..31) and three words of a ninth frame in
    // the host's buffer: 140 bytes, so the shell's count is 8 frames. The
    // five-channel pass reads words 0..39: 32..34 are the partial frame's, as
    // they are; 35..39 lie behind the buffer and read as 0.
    const uint32_t frameCount = 8;
    std::vector<uint8_t> source;
    for (uint32_t k = 0; k < frameCount * 4 + 3; ++k)
        Put32(source, int32_t((k + 1) << 20));
    const uint32_t length = uint32_t(source.size());
    ASSERT_EQ(length, 140u);
    for (int i = 0; i < 64; ++i)
        source.push_back(0x3C);  // behind the buffer: never read

    SetSettings(kHeadphoneMode);
    uint32_t frames = frameCount;
    ConvertAndProcess(TestEngine(), TestSettings(), Stream(4, 32, kRawRate, 16), source.data(), length, frames);
    ASSERT_EQ(frames, frameCount);

    // w(k) = (k + 1) x 2^20 reads as (k + 1) / 2048 exactly.
    auto w = [](uint32_t k) { return k < 35 ? float(k + 1) / 2048.0f : 0.0f; };
    // Frame 6 holds words 30..34: two of the whole frames, three of the partial one.
    EXPECT_EQ(FrameSlot(6, 0), 31.0f / 2048.0f);
    EXPECT_EQ(FrameSlot(6, 1), 32.0f / 2048.0f);
    EXPECT_EQ(FrameSlot(6, 2), 33.0f / 2048.0f);
    EXPECT_EQ(FrameSlot(6, 4), 34.0f / 2048.0f);
    EXPECT_EQ(FrameSlot(6, 5), 35.0f / 2048.0f);
    ExpectStrideOfFive(frameCount, w);
    // And at the output: frame 6 leaves with w30 = 31 / 2048 in its first slot.
    EXPECT_EQ(OutputSample(16, 6, 0), ExpectedWord(31.0f / 2048.0f, 16));
    EXPECT_EQ(OutputSample(16, 7, 0), 0);
}

TEST_F(PcmConversion, RunOn32BitFourChannels_AWordCutByTheBufferEndKeepsItsBytesInside)
{
    // One whole frame (words 0..3) and a word of which only two bytes are in
    // the buffer (18 bytes): word 4 is read from 11 22 and two zero bytes,
    // 0x2211, and words 5..9 lie behind the buffer.
    std::vector<uint8_t> source;
    for (uint32_t k = 0; k < 4; ++k)
        Put32(source, int32_t((k + 1) << 20));
    source.push_back(0x11);
    source.push_back(0x22);
    const uint32_t length = uint32_t(source.size());
    source.push_back(0x33);  // behind the buffer: never read
    source.push_back(0x44);

    SetSettings(kHeadphoneMode);
    uint32_t frames = 1;
    ConvertAndProcess(TestEngine(), TestSettings(), Stream(4, 32, kRawRate, 16), source.data(), length, frames);
    ASSERT_EQ(frames, 1u);
    EXPECT_EQ(FrameSlot(0, 0), 1.0f / 2048.0f);
    EXPECT_EQ(FrameSlot(0, 1), 2.0f / 2048.0f);
    EXPECT_EQ(FrameSlot(0, 2), 3.0f / 2048.0f);
    EXPECT_EQ(FrameSlot(0, 4), 4.0f / 2048.0f);
    // 0x2211 = 8721, exact in a float, times 2^-31.
    EXPECT_EQ(FrameSlot(0, 5), float(8721.0 / 2147483648.0));
}

TEST_F(PcmConversion, RunOn24BitFiveChannels_ReadsThePartialFrameInsideTheBuffer)
{
    // Six whole frames (90 bytes) and 14 bytes of a seventh in the host's
    // buffer (104 bytes). The six-channel pass starts at byte 90: frame 0
    // takes its samples from the partial frame's bytes, the fifth sample
    // from two bytes inside and one behind, and everything after reads 0.
    const uint32_t frameCount = 6;
    std::vector<uint8_t> source;
    for (uint32_t k = 0; k < frameCount * 5; ++k)
        Put24(source, int32_t(k + 1) * 65536);
    const uint8_t partial[14] = {0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07};
    source.insert(source.end(), partial, partial + 14);
    const uint32_t length = uint32_t(source.size());
    ASSERT_EQ(length, 104u);
    for (uint32_t i = 0; i < 18 * frameCount + 16; ++i)
        source.push_back(0x6B);  // behind the buffer: never read

    SetSettings(kHeadphoneMode);
    uint32_t frames = frameCount;
    ConvertAndProcess(TestEngine(), TestSettings(), Stream(5, 24, kRawRate, 24), source.data(), length, frames);
    ASSERT_EQ(frames, frameCount);

    // Each sample is its three bytes as the top of a 32-bit word, over 2^31;
    // every one of these words is exact in a float.
    EXPECT_EQ(FrameSlot(0, 0), float(double(0x30201000) / 2147483648.0));
    EXPECT_EQ(FrameSlot(0, 1), float(double(0x60504000) / 2147483648.0));
    EXPECT_EQ(FrameSlot(0, 2), float(double(0x02017000) / 2147483648.0));
    EXPECT_EQ(FrameSlot(0, 3), float(double(0x05040300) / 2147483648.0));
    EXPECT_EQ(FrameSlot(0, 4), float(double(0x00070600) / 2147483648.0));
    EXPECT_EQ(FrameSlot(0, 5), 0.0f);
    for (uint32_t i = 1; i < frameCount; ++i)
        for (uint32_t s = 0; s < 6; ++s)
            EXPECT_EQ(FrameSlot(i, s), 0.0f) << "frame " << i << " slot " << s;
    // At the output, 24 bits: 0x30201000 / 2^31 x 7130317, truncated.
    EXPECT_EQ(OutputSample(24, 0, 0), int32_t(std::trunc(double(0x30201000) / 2147483648.0 * 7130317.0)));
}

// ---------------------------------------------------------------------------
// Reads stay within the host's buffer

#if defined(__unix__)
// The source bytes placed so that they end exactly where a page begins that
// may not be read: a fetch behind the buffer ends the process.
class GuardedSource {
public:
    explicit GuardedSource(const std::vector<uint8_t>& bytes)
    {
        page_ = std::size_t(sysconf(_SC_PAGESIZE));
        const std::size_t dataPages = (bytes.size() + page_ - 1) / page_ + 1;
        total_ = (dataPages + 1) * page_;
        void* map = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        base_ = map == MAP_FAILED ? nullptr : static_cast<uint8_t*>(map);
        if (base_ == nullptr)
            return;
        mprotect(base_ + dataPages * page_, page_, PROT_NONE);
        start_ = base_ + dataPages * page_ - bytes.size();
        std::memcpy(start_, bytes.data(), bytes.size());
    }
    ~GuardedSource()
    {
        if (base_ != nullptr)
            munmap(base_, total_);
    }
    GuardedSource(const GuardedSource&) = delete;
    GuardedSource& operator=(const GuardedSource&) = delete;

    const uint8_t* data() const { return start_; }
    bool ok() const { return base_ != nullptr; }

private:
    std::size_t page_ = 0;
    std::size_t total_ = 0;
    uint8_t* base_ = nullptr;
    uint8_t* start_ = nullptr;
};

TEST_F(PcmConversion, Reads_NeverLeaveTheHostBuffer)
{
    // Every depth and channel count, the two run-on passes and the last
    // 24-bit sample among them, with the buffer's end against a guard page.
    auto convertAll = [] {
        for (uint32_t bits : {8u, 16u, 24u, 32u}) {
            for (uint32_t channels = 1; channels <= 7; ++channels) {
                const uint32_t frameCount = 37;
                std::vector<uint8_t> bytes(std::size_t(frameCount) * channels * (bits / 8));
                for (std::size_t i = 0; i < bytes.size(); ++i)
                    bytes[i] = uint8_t(i * 29 + 7);
                GuardedSource source(bytes);
                if (!source.ok())
                    std::exit(2);
                SetSettings(kHeadphoneMode);
                uint32_t frames = frameCount;
                ConvertWholeFrames(TestEngine(), TestSettings(), Stream(channels, bits, kRawRate, 16), source.data(), frames);
                if (frames != frameCount)
                    std::exit(3);
            }
        }
        std::exit(0);
    };
    EXPECT_EXIT(convertAll(), ::testing::ExitedWithCode(0), "");
}
#endif

// ---------------------------------------------------------------------------
// Output word sizes

TEST_F(PcmConversion, Output16_OneAndMinusOneLeaveAs27852AndMinus27852)
{
    // Reached without placing floats: 32-bit extremes convert to exactly +-1.0.
    SetSettings(kHeadphoneMode);
    std::vector<uint8_t> source;
    Put32(source, 2147483647);
    Put32(source, std::numeric_limits<int32_t>::min());
    uint32_t frames = 1;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 32, kRawRate, 16), source.data(), frames);
    ASSERT_EQ(frames, 1u);
    EXPECT_EQ(OutputSample(16, 0, 0), 27852);
    EXPECT_EQ(OutputSample(16, 0, 1), -27852);  // truncation toward zero on both sides
    EXPECT_EQ(TestEngine().PcmBlock.size, 4u);                // 12 bytes / 4 + 1
}

TEST_F(PcmConversion, Output24_OneLeavesAs7130317InBytesCDCC6C)
{
    const uint32_t frames = ConvertPlacedFloats({1.0f, -1.0f, 0.5f, -0.5f, 0.0f, 0.25f}, 24);
    ASSERT_EQ(frames, 1u);
    const uint8_t* b = PcmBytes();
    EXPECT_EQ(b[0], 0xCD);
    EXPECT_EQ(b[1], 0xCC);
    EXPECT_EQ(b[2], 0x6C);
    EXPECT_EQ(OutputSample(24, 0, 0), 7130317);
    EXPECT_EQ(OutputSample(24, 0, 1), -7130317);
    EXPECT_EQ(OutputSample(24, 0, 2), 3565158);  // 3565158.5 truncated
    EXPECT_EQ(OutputSample(24, 0, 3), -3565158);
    EXPECT_EQ(OutputSample(24, 0, 4), 0);
    EXPECT_EQ(OutputSample(24, 0, 5), ExpectedWord(0.25f, 24));
    EXPECT_EQ(TestEngine().PcmBlock.size, 5u);  // 18 bytes / 4 + 1
}

TEST_F(PcmConversion, Output32_OneLeavesAs1825361152)
{
    const uint32_t frames = ConvertPlacedFloats({1.0f, -1.0f, 0.5f, -0.5f, 0.0f, 0x1p-20f}, 32);
    ASSERT_EQ(frames, 1u);
    EXPECT_EQ(OutputSample(32, 0, 0), 1825361152);
    EXPECT_EQ(OutputSample(32, 0, 1), -1825361152);
    EXPECT_EQ(OutputSample(32, 0, 2), 912680576);
    EXPECT_EQ(OutputSample(32, 0, 3), -912680576);
    EXPECT_EQ(OutputSample(32, 0, 4), 0);
    EXPECT_EQ(OutputSample(32, 0, 5), 1740);  // 1740.76... truncated
    EXPECT_EQ(TestEngine().PcmBlock.size, 7u);             // 24 bytes / 4 + 1
}

TEST_F(PcmConversion, Output16_OnePointTwoFiveWrapsToMinus30720)
{
    const uint32_t frames = ConvertPlacedFloats({1.25f, -1.25f, 0.0f, 0.0f, 0.0f, 0.0f}, 16);
    ASSERT_EQ(frames, 1u);
    EXPECT_EQ(OutputSample(16, 0, 0), -30720);  // 34816 keeps its low 16 bits
    EXPECT_EQ(OutputSample(16, 0, 1), 30720);
}

TEST_F(PcmConversion, Output16_JumpsToTheOtherExtremeFrom1Point1764706)
{
    // The smallest float whose single-precision product reaches 32768.
    float edge = 1.1764706f;
    while (edge * 27852.80078125f >= 32768.0f)
        edge = std::nextafter(edge, 0.0f);
    while (edge * 27852.80078125f < 32768.0f)
        edge = std::nextafter(edge, 2.0f);
    const float below = std::nextafter(edge, 0.0f);
    EXPECT_NEAR(edge, 1.1764706f, 2e-7f);

    const uint32_t frames = ConvertPlacedFloats({below, edge, -below, -edge, 0.0f, 0.0f}, 16);
    ASSERT_EQ(frames, 1u);
    EXPECT_EQ(OutputSample(16, 0, 0), 32767);
    EXPECT_EQ(OutputSample(16, 0, 1), -32768);
    EXPECT_EQ(OutputSample(16, 0, 2), -32767);
    EXPECT_EQ(OutputSample(16, 0, 3), -32768);  // -32768 is still in range
    EXPECT_EQ(OutputSample(16, 0, 1), ExpectedWord(edge, 16));
}

TEST_F(PcmConversion, Output24_OnePointTwoFiveWrapsToTheOtherSide)
{
    const uint32_t frames = ConvertPlacedFloats({1.25f, -1.25f, 1.0f, 0.0f, 0.0f, 0.0f}, 24);
    ASSERT_EQ(frames, 1u);
    // 8912896 = 0x880000: bytes 00 00 88, read back as a negative 24-bit sample.
    const uint8_t* b = PcmBytes();
    EXPECT_EQ(b[0], 0x00);
    EXPECT_EQ(b[1], 0x00);
    EXPECT_EQ(b[2], 0x88);
    EXPECT_EQ(OutputSample(24, 0, 0), 8912896 - 16777216);
    EXPECT_EQ(OutputSample(24, 0, 1), 16777216 - 8912896);
}

TEST_F(PcmConversion, Output32_OvershootInEitherDirectionGivesMostNegative)
{
    const float overshoot = 1.1764706f;  // 1825361152 x 1.1764706 is beyond 2^31 in float
    ASSERT_GE(overshoot * 1825361152.0f, 2147483648.0f);
    const uint32_t frames =
        ConvertPlacedFloats({1.25f, -1.25f, overshoot, -overshoot, 2.0f, -3.0f}, 32);
    ASSERT_EQ(frames, 1u);
    for (uint32_t s = 0; s < 6; ++s)
        EXPECT_EQ(OutputSample(32, 0, s), std::numeric_limits<int32_t>::min()) << "slot " << s;
}

TEST_F(PcmConversion, Output16And24_BeyondTheInt32RangeStoreZero)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    // 100000 x 27852.8 and 1000 x 7130317 both lie beyond 2^31.
    std::vector<float> floats = {100000.0f, -100000.0f, nan, inf, -inf, 1e30f};
    ASSERT_EQ(ConvertPlacedFloats(floats, 16), 1u);
    for (uint32_t s = 0; s < 6; ++s)
        EXPECT_EQ(OutputSample(16, 0, s), 0) << "16 bits, slot " << s;

    floats = {1000.0f, -1000.0f, nan, inf, -inf, 1e30f};
    ASSERT_EQ(ConvertPlacedFloats(floats, 24), 1u);
    for (uint32_t s = 0; s < 6; ++s)
        EXPECT_EQ(OutputSample(24, 0, s), 0) << "24 bits, slot " << s;
}

TEST_F(PcmConversion, Output32_NaNBecomesMostNegative)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    ASSERT_EQ(ConvertPlacedFloats({nan, -nan, 0.0f, 0.0f, 0.0f, 0.0f}, 32), 1u);
    EXPECT_EQ(OutputSample(32, 0, 0), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(OutputSample(32, 0, 1), std::numeric_limits<int32_t>::min());
}

TEST_F(PcmConversion, Output_TruncatesTowardZeroInEveryWordSize)
{
    const std::vector<float> floats = {0.3f, -0.3f, 0.77777f, -0.77777f, 0x1p-16f, -0x1p-16f};
    for (uint32_t bits : {16u, 24u, 32u}) {
        SCOPED_TRACE(::testing::Message() << bits << " bits");
        ASSERT_EQ(ConvertPlacedFloats(floats, bits), 1u);
        for (uint32_t s = 0; s < 6; ++s)
            EXPECT_EQ(OutputSample(bits, 0, s), ExpectedWord(floats[s], bits)) << "slot " << s;
    }
    // One value by hand: 0.3 x 27852.80078125 = 8355.84..., truncated to 8355.
    ASSERT_EQ(ConvertPlacedFloats(floats, 16), 1u);
    EXPECT_EQ(OutputSample(16, 0, 0), 8355);
    EXPECT_EQ(OutputSample(16, 0, 1), -8355);
}

TEST(PcmTruncation, TruncateToInt32_TowardZeroAndOutOfRangeToMostNegative)
{
    EXPECT_EQ(TruncateToInt32(9845.96f), 9845);
    EXPECT_EQ(TruncateToInt32(-9845.96f), -9845);
    EXPECT_EQ(TruncateToInt32(0.999f), 0);
    EXPECT_EQ(TruncateToInt32(-0.999f), 0);
    EXPECT_EQ(TruncateToInt32(2147483520.0f), 2147483520);  // largest float below 2^31
    EXPECT_EQ(TruncateToInt32(-2147483648.0f), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(TruncateToInt32(2147483648.0f), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(TruncateToInt32(-2147483904.0f), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(TruncateToInt32(std::numeric_limits<float>::quiet_NaN()),
              std::numeric_limits<int32_t>::min());
    EXPECT_EQ(TruncateToInt32(std::numeric_limits<float>::infinity()),
              std::numeric_limits<int32_t>::min());
}

// ---------------------------------------------------------------------------
// Odd stream words

TEST_F(PcmConversion, ZeroFrames_ReadsNothingAndNIsOne)
{
    SetSettings(0);
    uint32_t frames = 0;
    // A null source: a block of 0 frames fetches nothing.
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, 16), nullptr, frames);
    EXPECT_EQ(frames, 0u);
    EXPECT_EQ(TestEngine().PcmBlock.size, 1u);
    EXPECT_NE(TestEngine().PcmBlock.data, nullptr);
    EXPECT_EQ((16u / 8u) * frames * 6u, 0u);  // the byte count the shell hands on
    EXPECT_EQ(TestEngine().FrameBlock.size, kFrameBlockFloats);
}

TEST_F(PcmConversion, ZeroFrames_DispatcherStillRuns)
{
    // The tail of the dispatcher shows that it ran: held-back frames are added.
    SetSettings(0);
    TestEngine().Headphone.Pending_Frames = 3000;
    uint32_t frames = 0;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, 16), nullptr, frames);
    EXPECT_EQ(frames, 3000u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 0u);
    EXPECT_EQ(TestEngine().PcmBlock.size, (2u * 3000u * 6u) / 4u + 1u);
}

TEST_F(PcmConversion, TwelveBits_StaleFramesGoThroughTheDispatcherAgain)
{
    // First write: 16384 left as 0.5 in the frame block, unprocessed.
    SetSettings(kHeadphoneMode);
    std::vector<uint8_t> source;
    Put16(source, 16384);
    Put16(source, -8192);
    Put16(source, 32767);
    Put16(source, 0);
    uint32_t frames = 2;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kRawRate, 16), source.data(), frames);
    ASSERT_EQ(frames, 2u);
    ASSERT_EQ(FrameSlot(0, 0), 0.5f);

    // Second write: 12 bits, Bypass. Nothing is converted; the same frames
    // are multiplied by 0.707 and leave as the Bypass example says.
    SetSettings(0);
    std::vector<uint8_t> other(64, 0x77);
    frames = 2;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 12, kPlainRate, 16), other.data(), frames);
    ASSERT_EQ(frames, 2u);
    EXPECT_EQ(OutputSample(16, 0, 0), 9845);
    EXPECT_EQ(OutputSample(16, 0, 1), ExpectedWord(-0.25f * 0.707f, 16));
    EXPECT_EQ(OutputSample(16, 1, 0), 19691);  // the Bypass example's 32767
    EXPECT_EQ(OutputSample(16, 1, 0), ExpectedWord((32767.0f / 32768.0f) * 0.707f, 16));
    EXPECT_EQ(OutputSample(16, 1, 1), 0);

    // A third 12-bit write runs the pass-through once more on what is there.
    frames = 1;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 12, kPlainRate, 16), other.data(), frames);
    ASSERT_EQ(frames, 1u);
    EXPECT_EQ(FrameSlot(0, 0), (0.5f * 0.707f) * 0.707f);
    EXPECT_EQ(OutputSample(16, 0, 0), ExpectedWord((0.5f * 0.707f) * 0.707f, 16));
}

TEST_F(PcmConversion, OutputBits8_PcmBlockKeepsItsSizeAndBytes)
{
    SetSettings(0);
    std::vector<uint8_t> source;
    for (int i = 0; i < 10; ++i) {
        Put16(source, int16_t(1000 * i));
        Put16(source, int16_t(-700 * i));
    }
    uint32_t frames = 10;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, 16), source.data(), frames);
    ASSERT_EQ(frames, 10u);
    const float* data = TestEngine().PcmBlock.data;
    const uint32_t size = TestEngine().PcmBlock.size;
    const uint32_t capacity = TestEngine().PcmBlock.capacity;
    // The bytes the block holds, without its spare four at the end, which
    // are never written and so hold nothing to compare.
    std::vector<uint8_t> before(PcmBytes(), PcmBytes() + (std::size_t(size) - 1) * 4);

    for (uint32_t outputBits : {8u, 12u, 20u, 0u}) {
        SCOPED_TRACE(::testing::Message() << "Output_Bits " << outputBits);
        std::vector<uint8_t> other(4 * 40, 0x42);
        frames = 40;
        ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, outputBits), other.data(), frames);
        EXPECT_EQ(frames, 40u);
        EXPECT_EQ(TestEngine().PcmBlock.data, data);
        EXPECT_EQ(TestEngine().PcmBlock.size, size);
        EXPECT_EQ(TestEngine().PcmBlock.capacity, capacity);
        EXPECT_EQ(std::memcmp(before.data(), PcmBytes(), before.size()), 0);
    }
}

TEST_F(PcmConversion, OutputBits8_NoConversionEverRunLeavesANullPointer)
{
    TestEngine().PcmBlock.Release();  // as at library load
    SetSettings(0);
    std::vector<uint8_t> source(4 * 16, 0x10);
    uint32_t frames = 16;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, 8), source.data(), frames);
    EXPECT_EQ(frames, 16u);
    EXPECT_EQ(TestEngine().PcmBlock.data, nullptr);
    EXPECT_EQ(TestEngine().PcmBlock.size, 0u);
    EXPECT_EQ(TestEngine().PcmBlock.capacity, 0u);
}

TEST_F(PcmConversion, SpareBytes_FourAtTheEndAreNeverWritten)
{
    // A first, larger write gives the PCM block room; then every byte of the
    // array gets a mark that only the conversion could overwrite.
    SetSettings(0);
    std::vector<uint8_t> big(4 * 64, 0x01);
    uint32_t frames = 64;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, 32), big.data(), frames);
    ASSERT_GE(TestEngine().PcmBlock.capacity, 7u);

    struct Case {
        uint32_t outputBits;
        uint32_t frames;
        uint32_t bytes;  // written bytes
        uint32_t n;      // four-byte units given by Resize
    };
    const Case cases[] = {{16, 2, 24, 7}, {32, 1, 24, 7}, {24, 2, 36, 10}, {24, 1, 18, 5}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.outputBits << " bits, " << c.frames << " frames");
        std::memset(TestEngine().PcmBlock.data, 0xA5, std::size_t(TestEngine().PcmBlock.capacity) * 4);
        std::vector<uint8_t> source;
        for (uint32_t i = 0; i < c.frames; ++i) {
            Put16(source, int16_t(12000 + int16_t(i)));
            Put16(source, int16_t(-9000));
        }
        frames = c.frames;
        ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, c.outputBits), source.data(), frames);
        ASSERT_EQ(frames, c.frames);
        EXPECT_EQ(TestEngine().PcmBlock.size, c.n);
        // Frame 0 left is written, so the mark is gone there.
        EXPECT_EQ(OutputSample(c.outputBits, 0, 0),
                  ExpectedWord((12000.0f / 32768.0f) * 0.707f, c.outputBits));
        for (uint32_t b = c.bytes; b < 4 * c.n; ++b)
            EXPECT_EQ(PcmBytes()[b], 0xA5) << "byte " << b;
    }
}

// ---------------------------------------------------------------------------
// Settings and stream words

TEST_F(PcmConversion, SettingChangedBetweenWritesShowsInTheNextWrite)
{
    std::vector<uint8_t> source;
    Put16(source, 16384);
    Put16(source, 16384);

    SetSettings(0);
    uint32_t frames = 1;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kRawRate, 16), source.data(), frames);
    EXPECT_EQ(OutputSample(16, 0, 0), 9845);

    // Headphone mode at a rate out of range: the same sample without the 0.707.
    TestSettings().Mode = kHeadphoneMode;
    frames = 1;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kRawRate, 16), source.data(), frames);
    EXPECT_EQ(OutputSample(16, 0, 0), 13926);  // 0.5 x 27852.8 = 13926.4

    TestSettings().Mode = 0;
    frames = 1;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kRawRate, 16), source.data(), frames);
    EXPECT_EQ(OutputSample(16, 0, 0), 9845);
}

TEST_F(PcmConversion, OutputWordSizeComesFromTheStreamWordsNotTheSetting)
{
    SetSettings(0);
    TestSettings().Out_Bits = 32;  // changed in the dialog after Open
    std::vector<uint8_t> source;
    Put16(source, 16384);
    Put16(source, 16384);
    uint32_t frames = 1;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, 16), source.data(), frames);
    EXPECT_EQ(TestEngine().PcmBlock.size, 4u);
    EXPECT_EQ(OutputSample(16, 0, 0), 9845);
}

TEST_F(PcmConversion, FrameBlockIsAskedFor49152FloatsAtEveryWrite)
{
    SetSettings(0);
    std::vector<uint8_t> source(4 * 10, 0);
    uint32_t frames = 10;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, 16), source.data(), frames);
    EXPECT_EQ(TestEngine().FrameBlock.size, 49152u);
    EXPECT_GE(TestEngine().FrameBlock.capacity, 49152u);
}

// ---------------------------------------------------------------------------
// Headphone mode at the conversion's boundary

TEST_F(PcmConversion, Headphone_MostWritesReturnZeroFramesThenOneReturns8192)
{
    SetSettings(kHeadphoneMode);
    std::vector<uint8_t> source;
    for (int i = 0; i < 1152; ++i) {
        Put16(source, int16_t((i * 37) % 20000 - 10000));
        Put16(source, int16_t((i * 91) % 16000 - 8000));
    }
    for (int write = 0; write < 7; ++write) {
        uint32_t frames = 1152;
        ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, 16), source.data(), frames);
        EXPECT_EQ(frames, 0u) << "write " << write;
        EXPECT_EQ(TestEngine().PcmBlock.size, 1u) << "write " << write;
        EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 1152u * uint32_t(write + 1)) << "write " << write;
    }
    uint32_t frames = 1152;
    ConvertWholeFrames(TestEngine(), TestSettings(), Stream(2, 16, kPlainRate, 16), source.data(), frames);
    ASSERT_EQ(frames, 8192u);
    EXPECT_EQ(TestEngine().Headphone.Pending_Frames, 8u * 1152u - 8192u);
    EXPECT_EQ(TestEngine().PcmBlock.size, (2u * 8192u * 6u) / 4u + 1u);
    for (uint32_t i = 0; i < 8192; ++i)
        for (uint32_t s = 2; s < 6; ++s)
            ASSERT_EQ(OutputSample(16, i, s), 0) << "frame " << i << " slot " << s;
}

}  // namespace
