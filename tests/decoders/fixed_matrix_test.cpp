// Fixed matrix decoder: stereo to L, R, C and one surround through a
// constant six-by-two matrix, then trims, switches and the surround tail.
//
// Expected frames are the float steps written out here in their fixed order;
// at 32000 Hz the tail has no low-pass, so with no delay the matrix output
// is seen as it is.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "decoders/fixed_matrix.h"
#include "filters/second_order.h"
#include "filters/surround_tail.h"
#include "engine/dispatch.h"
#include "engine/engine.h"
#include "signal/frame.h"
#include "signal/processor.h"
#include "signal/sample_block.h"
#include "tests/support/frame_block.h"
#include "tests/support/test_signal.h"
#include "tests/support/trim_gain.h"
#include "tests/support/test_engine.h"

namespace {

constexpr float kMatrixGain = 0.707f;  // 0.7070000171661377

constexpr SignalMix kSignal{0.6, 0.021, 0.0, 0.0, 0.4};

std::vector<float> TestSignal(uint32_t count, uint32_t seed)
{
    return MixedSignal(count, seed, kSignal);
}

struct Frames : FrameBlock {
    Frames(uint32_t count, int32_t rate) : FrameBlock(count, rate, 1) { pb.Bass_Redir = 120; }
    // Stereo input with stale values in slots 2 to 5, which the matrix overwrites unread.
    void FillStereo(const std::vector<float>& left, const std::vector<float>& right)
    {
        FrameBlock::FillStereo(left, right, 100.0f);
    }
};

// The decoder written out for one frame, before the tail.
void ReferenceFrame(const ProcessorBlock& pb, float lin, float rin, float out[6])
{
    const float m[6][2] = {{1.0f, 0.0f},          {0.0f, 1.0f},          {kMatrixGain, kMatrixGain},
                           {0.0f, 0.0f},          {kMatrixGain, -kMatrixGain}, {kMatrixGain, -kMatrixGain}};
    const float l = lin * 0.5f;
    const float r = rin * 0.5f;
    for (int k = 0; k < 6; ++k)
        out[k] = (m[k][0] * l) + (m[k][1] * r);
    const float gc = Gain(pb.Centre_Trim);
    const float gs = Gain(pb.Surround_Trim_00);
    if (pb.Virtual_C != 0) {
        const float c = (out[2] * gc) * 0.5f;
        out[0] = out[0] + c;
        out[1] = c + out[1];
        out[2] = 0.0f;
    }
    out[0] = float(pb.L) * out[0];
    out[1] = float(pb.R) * out[1];
    out[2] = (float(pb.C) * out[2]) * gc;
    out[4] = (float(pb.SL) * out[4]) * gs;
    out[5] = (float(pb.SR) * out[5]) * gs;
}

void ExpectMatchesReference(Frames& f, const std::vector<float>& left, const std::vector<float>& right)
{
    for (uint32_t i = 0; i < f.pb.Frames; ++i) {
        float expected[6];
        ReferenceFrame(f.pb, left[i], right[i], expected);
        for (uint32_t s = 0; s < kFrameFloats; ++s)
            ASSERT_EQ(f.at(i, s), expected[s]) << "frame " << i << " slot " << s;
    }
}

}  // namespace

TEST(LoadFixedMatrix, StoresTheEightCoefficientsAndZerosTheRest)
{
    float m[kMatrixFloats];
    for (float& v : m)
        v = 9.0f;
    LoadFixedMatrix(m);
    const float expected[kMatrixFloats] = {1.0f, 0.0f, 0.0f, 1.0f, 0.707f, 0.707f,
                                           0.0f, 0.0f, 0.707f, -0.707f, 0.707f, -0.707f};
    for (int i = 0; i < kMatrixFloats; ++i)
        EXPECT_EQ(m[i], expected[i]) << "float " << i;
    EXPECT_EQ(double(m[4]), 0.7070000171661377);
}

TEST(ApplyMatrix6x2, HalvesTheInputAndWritesEveryRow)
{
    Frames f(300, 44100);
    const std::vector<float> left = TestSignal(300, 1);
    const std::vector<float> right = TestSignal(300, 2);
    f.FillStereo(left, right);
    float m[kMatrixFloats];
    LoadFixedMatrix(m);
    ApplyMatrix6x2(m, f.pb);
    for (uint32_t i = 0; i < 300; ++i) {
        const float l = left[i] * 0.5f;
        const float r = right[i] * 0.5f;
        for (uint32_t k = 0; k < 6; ++k)
            ASSERT_EQ(f.at(i, k), (m[2 * k] * l) + (m[2 * k + 1] * r)) << "frame " << i << " row " << k;
    }
}

TEST(FixedMatrixDecode, EqualInputsGiveHalfFrontsAndCentre0_707)
{
    FreshEngine();
    Frames f(16, 44100);
    f.FillStereo(std::vector<float>(16, 1.0f), std::vector<float>(16, 1.0f));
    FixedMatrixDecode(TestEngine().Surround, f.pb);
    for (uint32_t i = 0; i < 16; ++i) {
        EXPECT_EQ(f.at(i, kSlotL), 0.5f);
        EXPECT_EQ(f.at(i, kSlotR), 0.5f);
        EXPECT_EQ(f.at(i, kSlotC), 0.707f);
        EXPECT_EQ(f.at(i, kSlotLFE), 0.0f);
        EXPECT_EQ(f.at(i, kSlotSL), 0.0f);
        EXPECT_EQ(f.at(i, kSlotSR), 0.0f);
    }
}

// At 32000 Hz there is no low-pass and with no delay the surrounds are seen
// as the matrix leaves them.
TEST(FixedMatrixDecode, OppositeInputsGiveSurroundsOf0_707TimesTenToThe0_15)
{
    FreshEngine();
    Frames f(16, 32000);
    f.FillStereo(std::vector<float>(16, 1.0f), std::vector<float>(16, -1.0f));
    FixedMatrixDecode(TestEngine().Surround, f.pb);
    const float gs = Gain(3);
    EXPECT_NEAR(gs, 1.41254, 5e-6);
    for (uint32_t i = 0; i < 16; ++i) {
        EXPECT_EQ(f.at(i, kSlotL), 0.5f);
        EXPECT_EQ(f.at(i, kSlotR), -0.5f);
        EXPECT_EQ(f.at(i, kSlotC), 0.0f);
        EXPECT_EQ(f.at(i, kSlotLFE), 0.0f);
        EXPECT_EQ(f.at(i, kSlotSL), 0.707f * gs);
        EXPECT_EQ(f.at(i, kSlotSR), 0.707f * gs);
    }
}

// The stored trim 0 reaches the stage as 3 dB through the dispatcher.
TEST(FixedMatrixDecode, StoredSurroundTrimZeroArrivesAsThreeDecibelsThroughTheDispatcher)
{
    FreshEngine();
    SampleBlock frames;
    frames.Resize(49152, true);
    for (uint32_t i = 0; i < 16; ++i) {
        frames.data[6 * i] = 1.0f;
        frames.data[6 * i + 1] = -1.0f;
    }
    Frames settings(0, 32000);
    ProcessorBlock block = settings.pb;
    block.Surround_Trim_00 = 0;
    block.Frames = 16;
    block.Block = &frames;
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Surround_Trim_00, 3);
    EXPECT_EQ(block.Out_Channels, 6);
    for (uint32_t i = 0; i < 16; ++i) {
        EXPECT_EQ(frames.data[6 * i + kSlotSL], 0.707f * Gain(3));
        EXPECT_EQ(frames.data[6 * i + kSlotSR], 0.707f * Gain(3));
    }
}

TEST(FixedMatrixDecode, CentreSwitchOffWithVirtualCentreStillReachesTheFronts)
{
    FreshEngine();
    constexpr uint32_t kCount = 400;
    Frames f(kCount, 32000);
    f.pb.C = 0;
    f.pb.Virtual_C = 1;
    f.pb.Centre_Trim = -6;
    const std::vector<float> left = TestSignal(kCount, 3);
    const std::vector<float> right = TestSignal(kCount, 4);
    f.FillStereo(left, right);
    FixedMatrixDecode(TestEngine().Surround, f.pb);
    ExpectMatchesReference(f, left, right);
    for (uint32_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(f.at(i, kSlotC), 0.0f);
        // The centre part is in the front: left is more than half its input.
        const float phantom = ((kMatrixGain * (left[i] * 0.5f)) + (kMatrixGain * (right[i] * 0.5f))) * Gain(-6);
        ASSERT_EQ(f.at(i, kSlotL), (left[i] * 0.5f) + phantom * 0.5f) << "frame " << i;
    }
}

TEST(FixedMatrixDecode, VirtualCentreMatchesTheFloatStepsWithEveryTrim)
{
    constexpr uint32_t kCount = 200;
    const std::vector<float> left = TestSignal(kCount, 5);
    const std::vector<float> right = TestSignal(kCount, 6);
    for (int32_t virtualC : {0, 1}) {
        for (int32_t trim : {-12, -1, 0, 7, 12}) {
            FreshEngine();
            Frames f(kCount, 32000);
            f.pb.Virtual_C = virtualC;
            f.pb.Centre_Trim = trim;
            f.pb.Surround_Trim_00 = trim + 3;
            f.FillStereo(left, right);
            FixedMatrixDecode(TestEngine().Surround, f.pb);
            SCOPED_TRACE(testing::Message() << "Virtual_C " << virtualC << ", trim " << trim);
            ExpectMatchesReference(f, left, right);
        }
    }
}

TEST(FixedMatrixDecode, SurroundSwitchesOffLeaveSurroundsSilentAndTheTailStill)
{
    FreshEngine();
    Frames warm(1000, 44100);
    warm.pb.Surround_Delay = 10;
    warm.FillStereo(TestSignal(1000, 7), TestSignal(1000, 8));
    FixedMatrixDecode(TestEngine().Surround, warm.pb);
    const uint32_t position0 = TestEngine().Surround.SurroundDelayLine[0].position;
    const uint32_t position1 = TestEngine().Surround.SurroundDelayLine[1].position;
    const FilterState filter0 = TestEngine().Surround.SurroundFilter[0];
    const FilterState filter1 = TestEngine().Surround.SurroundFilter[1];

    Frames f(500, 44100);
    f.pb.Surround_Delay = 10;
    f.pb.SL = 0;
    f.pb.SR = 0;
    f.FillStereo(TestSignal(500, 9), TestSignal(500, 10));
    FixedMatrixDecode(TestEngine().Surround, f.pb);
    for (uint32_t i = 0; i < 500; ++i) {
        ASSERT_EQ(f.at(i, kSlotSL), 0.0f) << "frame " << i;
        ASSERT_EQ(f.at(i, kSlotSR), 0.0f) << "frame " << i;
    }
    EXPECT_EQ(TestEngine().Surround.SurroundDelayLine[0].position, position0);
    EXPECT_EQ(TestEngine().Surround.SurroundDelayLine[1].position, position1);
    EXPECT_EQ(TestEngine().Surround.SurroundFilter[0].y1, filter0.y1);
    EXPECT_EQ(TestEngine().Surround.SurroundFilter[1].y1, filter1.y1);
    EXPECT_EQ(TestEngine().Surround.SurroundFilter[0].x1, filter0.x1);
    EXPECT_EQ(TestEngine().Surround.SurroundFilter[1].x1, filter1.x1);
}

TEST(FixedMatrixDecode, SwitchWordOfTwoActsAsAGainOfTwo)
{
    FreshEngine();
    constexpr uint32_t kCount = 100;
    Frames f(kCount, 32000);
    f.pb.L = 2;
    f.pb.C = 2;
    f.pb.SR = 2;
    const std::vector<float> left = TestSignal(kCount, 11);
    const std::vector<float> right = TestSignal(kCount, 12);
    f.FillStereo(left, right);
    FixedMatrixDecode(TestEngine().Surround, f.pb);
    ExpectMatchesReference(f, left, right);
    for (uint32_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(f.at(i, kSlotL), 2.0f * (left[i] * 0.5f));
        ASSERT_EQ(f.at(i, kSlotSR), 2.0f * f.at(i, kSlotSL));
    }
}

// The tail runs last: at 44100 Hz with 10 ms the surrounds are the matrix
// output low-passed and 440 samples late.
TEST(FixedMatrixDecode, EndsWithTheSurroundTail)
{
    FreshEngine();
    constexpr uint32_t kCount = 1152;
    const std::vector<float> left = TestSignal(kCount, 13);
    const std::vector<float> right = TestSignal(kCount, 14);

    Frames plain(kCount, 32000);  // the matrix output, untouched by the tail
    plain.FillStereo(left, right);
    FixedMatrixDecode(TestEngine().Surround, plain.pb);

    FreshEngine();
    Frames f(kCount, 44100);
    f.pb.Surround_Delay = 10;
    f.FillStereo(left, right);
    FixedMatrixDecode(TestEngine().Surround, f.pb);

    // The same low-pass and delay applied to the plain surrounds by the tail alone.
    FreshEngine();
    Frames tail(kCount, 44100);
    tail.pb.Surround_Delay = 10;
    for (uint32_t i = 0; i < kCount; ++i) {
        tail.at(i, kSlotSL) = plain.at(i, kSlotSL);
        tail.at(i, kSlotSR) = plain.at(i, kSlotSR);
    }
    SurroundTail(TestEngine().Surround, tail.pb);
    for (uint32_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(f.at(i, kSlotL), plain.at(i, kSlotL));
        ASSERT_EQ(f.at(i, kSlotC), plain.at(i, kSlotC));
        ASSERT_EQ(f.at(i, kSlotSL), tail.at(i, kSlotSL)) << "frame " << i;
        ASSERT_EQ(f.at(i, kSlotSR), tail.at(i, kSlotSR)) << "frame " << i;
        if (i < 440) {
            ASSERT_EQ(f.at(i, kSlotSL), 0.0f);
        }
    }
}

TEST(FixedMatrixDecode, FramesZeroTouchesNoFrame)
{
    FreshEngine();
    Frames f(4, 44100);
    f.FillStereo(TestSignal(4, 15), TestSignal(4, 16));
    const std::vector<float> before(f.block.data, f.block.data + 24);
    f.pb.Frames = 0;
    FixedMatrixDecode(TestEngine().Surround, f.pb);
    for (uint32_t i = 0; i < 24; ++i)
        ASSERT_EQ(f.block.data[i], before[i]);
}
