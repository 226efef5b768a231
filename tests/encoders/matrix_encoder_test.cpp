// Matrix encoder: the three front-ends, the band-limited and phase-shifted
// surround sum, and the mix into two channels.
//
// Expected values are the known figures (fold, impulse response, phase
// table, magnitude bound), or the float steps written out here in their
// fixed order; phase and magnitude come from a double-precision DFT of the
// chain's impulse response.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "encoders/matrix_encoder.h"
#include "filters/second_order.h"
#include "engine/dispatch.h"
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

constexpr float kMixGain = 0.707f;         // 0.7070000171661377
constexpr float kLfeShare = 0.33333334f;   // 0.3333333432674408
constexpr float kLfeGain = 3.162f;         // 3.1619999408721924
constexpr float kChain[4] = {0.1617585f, 0.7330289f, 0.94534963f, 0.99059916f};

// The four all-pass steps of one sample on one shared memory.
float ChainStep(FilterState& m, float v)
{
    for (float k : kChain) {
        const float x = v;
        float t = m.y2 + x;
        t = k * t;
        const float y = t - m.x2;
        m.x2 = m.x1;
        m.x1 = x;
        m.y2 = m.y1;
        m.y1 = y;
        v = y;
    }
    return v;
}

constexpr SignalMix kSignal{0.5, 0.023, 0.3, 0.4, 0.2};

std::vector<float> TestSignal(uint32_t count, uint32_t seed)
{
    return MixedSignal(count, seed, kSignal);
}

struct Frames : FrameBlock {
    Frames(uint32_t count, int32_t rate, int32_t channels) : FrameBlock(count, rate, 5)
    {
        pb.Bass_Redir = 120;
        pb.In_Channels = channels;
    }
    // Source frames as the conversion leaves them for the channel count.
    void FillSource(uint32_t seed)
    {
        Load(TestSignal(pb.Frames * kFrameFloats, seed));
        for (uint32_t i = 0; i < pb.Frames; ++i) {
            if (pb.In_Channels == 4)
                at(i, kSlotC) = 0.0f;
            if (pb.In_Channels != 6)
                at(i, kSlotLFE) = 0.0f;
        }
    }
};

void FrontEnd(ProcessorBlock& pb)
{
    switch (pb.In_Channels) {
    case 4:
        DownmixFour(pb);
        break;
    case 5:
        DownmixFive(pb);
        break;
    default:
        DownmixSix(pb);
        break;
    }
}

// EncodeMix written out over a block, with its three memories.
void ReferenceEncodeMix(std::vector<float>& f, uint32_t frames, int32_t rate, ReferenceSection& hp, ReferenceSection& lp,
                        FilterState& chain)
{
    for (uint32_t i = 0; i < frames; ++i)
        f[6 * i + 3] = ReferenceStep(hp, f[6 * i + 3]);
    for (uint32_t i = 0; i < frames; ++i)
        f[6 * i + 3] = ReferenceStep(lp, f[6 * i + 3]);
    for (uint32_t i = 0; i < frames; ++i)
        f[6 * i + 3] = ChainStep(chain, f[6 * i + 3]);
    for (uint32_t i = 0; i < frames; ++i) {
        const float c = f[6 * i + 2] * kMixGain;
        const float s = f[6 * i + 3] * kMixGain;
        f[6 * i + 0] = (s + f[6 * i + 0]) + c;
        f[6 * i + 1] = (c - s) + f[6 * i + 1];
        for (uint32_t k = 2; k < 6; ++k)
            f[6 * i + k] = 0.0f;
    }
    (void)rate;
}

std::vector<float> ChainImpulseResponse(uint32_t length)
{
    EngineReset(TestEngine());
    Frames f(length, 44100, 6);
    f.at(0, kSlotLFE) = 1.0f;
    FilterState memory{};
    SurroundPhaseChain(memory, f.pb);
    std::vector<float> h(length);
    for (uint32_t i = 0; i < length; ++i)
        h[i] = f.at(i, kSlotLFE);
    return h;
}

const FilterState kSentinel{0.125f, -0.25f, 0.375f, -0.5f};

}  // namespace

// ---- Front-ends ------------------------------------------------------------------

TEST(DownmixSix, LfeAloneFolds1_0540000IntoEachFrontAndNotIntoTheSurroundSum)
{
    EngineReset(TestEngine());
    Frames f(1, 44100, 6);
    f.at(0, kSlotLFE) = 1.0f;
    DownmixSix(f.pb);
    EXPECT_EQ((1.0f * kLfeShare) * kLfeGain, 1.054f);
    EXPECT_EQ(f.at(0, kSlotL), 1.054f);
    EXPECT_EQ(f.at(0, kSlotR), 1.054f);
    EXPECT_EQ(f.at(0, kSlotC), 1.054f);
    EXPECT_EQ(f.at(0, kSlotLFE), 0.0f);
    EXPECT_NEAR(f.at(0, kSlotL), 1.0540000, 5e-8);
}

TEST(DownmixSix, FollowsTheFloatSteps)
{
    Frames f(500, 44100, 6);
    f.FillSource(1);
    const std::vector<float> in = f.Copy();
    DownmixSix(f.pb);
    for (uint32_t i = 0; i < 500; ++i) {
        const float* s = &in[6 * i];
        const float t = (s[3] * kLfeShare) * kLfeGain;
        ASSERT_EQ(f.at(i, 0), s[0] + t) << "frame " << i;
        ASSERT_EQ(f.at(i, 1), s[1] + t) << "frame " << i;
        ASSERT_EQ(f.at(i, 2), t + s[2]) << "frame " << i;
        ASSERT_EQ(f.at(i, 3), (s[5] + s[4]) * kMixGain) << "frame " << i;
        ASSERT_EQ(f.at(i, 4), s[4]);
        ASSERT_EQ(f.at(i, 5), s[5]);
    }
}

TEST(DownmixFour, MakesTheCentreFromTheFrontsAndTheSumFromTheSurrounds)
{
    Frames f(500, 44100, 4);
    f.FillSource(2);
    const std::vector<float> in = f.Copy();
    DownmixFour(f.pb);
    for (uint32_t i = 0; i < 500; ++i) {
        const float* s = &in[6 * i];
        ASSERT_EQ(f.at(i, 0), s[0]);
        ASSERT_EQ(f.at(i, 1), s[1]);
        ASSERT_EQ(f.at(i, 2), (s[0] + s[1]) * kMixGain) << "frame " << i;
        ASSERT_EQ(f.at(i, 3), (s[5] + s[4]) * kMixGain) << "frame " << i;
        ASSERT_EQ(f.at(i, 4), s[4]);
        ASSERT_EQ(f.at(i, 5), s[5]);
    }
}

// Frame i reads float 5i + 5 as its second term: the table of the walk for
// frames 0 to 8, the last of which reads slot 3 of frame 7 as just rewritten.
TEST(DownmixFive, SecondTermWalksFiveFloatsPerFrame)
{
    constexpr uint32_t kCount = 12;
    Frames f(kCount, 44100, 5);
    for (uint32_t i = 0; i < kCount * kFrameFloats; ++i)
        f.block.data[i] = 1.0f + 0.5f * float(i);  // every float distinct, slot 3 too
    std::vector<float> walk = f.Copy();
    DownmixFive(f.pb);

    const uint32_t table[9][2] = {{0, 5}, {1, 4}, {2, 3}, {3, 2}, {4, 1}, {5, 0}, {5, 5}, {6, 4}, {7, 3}};
    for (uint32_t i = 0; i < 9; ++i) {
        const uint32_t index = 6 * table[i][0] + table[i][1];
        ASSERT_EQ(index, 5 * i + 5);
        const float expected = (walk[6 * i + 4] + walk[index]) * kMixGain;
        walk[6 * i + 3] = expected;
        ASSERT_EQ(f.at(i, kSlotLFE), expected) << "frame " << i;
    }
    for (uint32_t i = 9; i < kCount; ++i) {
        walk[6 * i + 3] = (walk[6 * i + 4] + walk[5 * i + 5]) * kMixGain;
        ASSERT_EQ(f.at(i, kSlotLFE), walk[6 * i + 3]) << "frame " << i;
    }
    for (uint32_t i = 0; i < kCount * kFrameFloats; ++i)
        ASSERT_EQ(f.block.data[i], walk[i]) << "float " << i;
}

TEST(DownmixFive, TwoIdenticalCallsDifferFromOneCallOfTwiceTheLength)
{
    constexpr uint32_t kCount = 40;
    const std::vector<float> half = TestSignal(kCount * kFrameFloats, 3);

    Frames once(2 * kCount, 44100, 5);
    for (uint32_t i = 0; i < 2 * kCount * kFrameFloats; ++i)
        once.block.data[i] = half[i % (kCount * kFrameFloats)];
    DownmixFive(once.pb);

    Frames first(kCount, 44100, 5);
    Frames second(kCount, 44100, 5);
    for (uint32_t i = 0; i < kCount * kFrameFloats; ++i) {
        first.block.data[i] = half[i];
        second.block.data[i] = half[i];
    }
    DownmixFive(first.pb);
    DownmixFive(second.pb);

    // Each call starts again at float 5, so the second half equals the first...
    for (uint32_t i = 0; i < kCount * kFrameFloats; ++i)
        ASSERT_EQ(second.block.data[i], first.block.data[i]);
    // ...but not what the long call made of the same frames.
    bool differs = false;
    for (uint32_t i = 0; i < kCount; ++i)
        differs = differs || once.at(kCount + i, kSlotLFE) != second.at(i, kSlotLFE);
    EXPECT_TRUE(differs);
    for (uint32_t i = 0; i < kCount * kFrameFloats; ++i)
        ASSERT_EQ(once.block.data[i], first.block.data[i]) << "float " << i;
}

// ---- The phase chain ------------------------------------------------------------

TEST(SurroundPhaseChain, ImpulseResponseStartsMinus0_772378Then0_00496Then0_406199)
{
    const std::vector<float> h = ChainImpulseResponse(8);
    const double known[8] = {-0.772378, 0.00496, 0.406199, 0.003499, 0.312279, 0.002448, 0.240076, 0.001696};
    const double halfUnit[8] = {5e-7, 5e-6, 5e-7, 5e-7, 5e-7, 5e-7, 5e-7, 5e-7};
    for (int n = 0; n < 8; ++n)
        EXPECT_NEAR(h[n], known[n], halfUnit[n]) << "sample " << n;
}

TEST(SurroundPhaseChain, FourStepsShareOneMemory)
{
    const std::vector<float> h = ChainImpulseResponse(512);
    FilterState shared{};
    std::vector<float> separate(512);
    FilterState own[4] = {};
    bool differs = false;
    for (uint32_t n = 0; n < 512; ++n) {
        const float x = n == 0 ? 1.0f : 0.0f;
        ASSERT_EQ(h[n], ChainStep(shared, x)) << "sample " << n;
        // Four sections with four memories make a different filter.
        float v = x;
        for (int k = 0; k < 4; ++k) {
            const float y = kChain[k] * (own[k].y2 + v) - own[k].x2;
            own[k].x2 = own[k].x1;
            own[k].x1 = v;
            own[k].y2 = own[k].y1;
            own[k].y1 = y;
            v = y;
        }
        differs = differs || v != h[n];
    }
    EXPECT_TRUE(differs);
}

TEST(SurroundPhaseChain, PhaseAt44100FollowsTheTable)
{
    const std::vector<float> h = ChainImpulseResponse(4096);
    const double table[7][2] = {{100, -12.4},   {500, -57.1},   {1000, -95.2}, {2000, -131.8},
                                {5000, -162.7}, {7000, -170.2}, {10000, -177.6}};
    for (const auto& row : table) {
        double re = 0.0;
        double im = 0.0;
        DirectDft(h, row[0], 44100.0, re, im);
        const double degrees = std::atan2(im, re) * 180.0 / kPi;
        EXPECT_NEAR(degrees, row[1], 0.05) << row[0] << " Hz";
    }
}

TEST(SurroundPhaseChain, MagnitudeWithin0_03dBFrom20HzTo20kHz)
{
    const std::vector<float> h = ChainImpulseResponse(4096);
    std::vector<double> grid;
    for (double f = 20.0; f < 20000.0; f *= std::pow(2.0, 1.0 / 24.0))
        grid.push_back(f);
    grid.push_back(20000.0);
    for (double f : grid) {
        double re = 0.0;
        double im = 0.0;
        DirectDft(h, f, 44100.0, re, im);
        const double db = 20.0 * std::log10(std::hypot(re, im));
        EXPECT_LE(std::fabs(db), 0.03) << f << " Hz";
    }
}

// ---- The mix --------------------------------------------------------------------

TEST(EncodeMix, FollowsTheFloatStepsForEveryFrontEnd)
{
    for (int32_t channels : {4, 5, 6}) {
        for (int32_t rate : {44100, 48000, 22050}) {
            EngineReset(TestEngine());
            Frames f(1500, rate, channels);
            f.FillSource(uint32_t(channels + rate));
            FrontEnd(f.pb);
            std::vector<float> expected = f.Copy();
            EncodeMix(TestEngine().Encoder, f.pb);
            ReferenceSection hp = ReferenceHighPass(100.0f, rate);
            ReferenceSection lp = ReferenceLowPass(7000.0f, rate);
            FilterState chain{};
            ReferenceEncodeMix(expected, 1500, rate, hp, lp, chain);
            for (uint32_t i = 0; i < 1500 * kFrameFloats; ++i)
                ASSERT_EQ(f.block.data[i], expected[i])
                    << channels << " channels at " << rate << " Hz, frame " << i / 6 << " slot " << i % 6;
            EXPECT_TRUE(SameMemory(TestEngine().Encoder.LfeHighPass, hp.m));
            EXPECT_TRUE(SameMemory(TestEngine().Encoder.LfeLowPass, lp.m));
            EXPECT_TRUE(SameMemory(TestEngine().Encoder.LfeChain, chain));
        }
    }
}

TEST(EncodeMix, FourChannelsWithSilentSurroundsGiveEachSideItsOwnPlusTheCentre)
{
    EngineReset(TestEngine());
    Frames f(800, 44100, 4);
    f.FillSource(4);
    for (uint32_t i = 0; i < 800; ++i) {
        f.at(i, kSlotSL) = 0.0f;
        f.at(i, kSlotSR) = 0.0f;
    }
    const std::vector<float> in = f.Copy();
    DownmixFour(f.pb);
    EncodeMix(TestEngine().Encoder, f.pb);
    for (uint32_t i = 0; i < 800; ++i) {
        const float l = in[6 * i];
        const float r = in[6 * i + 1];
        const float c = ((l + r) * kMixGain) * kMixGain;
        ASSERT_EQ(f.at(i, kSlotL), (0.0f + l) + c) << "frame " << i;
        ASSERT_EQ(f.at(i, kSlotR), (c - 0.0f) + r) << "frame " << i;
        ASSERT_EQ(f.at(i, kSlotL), l + c);
        ASSERT_EQ(f.at(i, kSlotR), c + r);
    }
}

// A 1000 Hz surround alone: left is +s, right is -s, and the level is the
// product of the magnitudes of the two Butterworth sections (the chain is an
// all-pass to 0.03 dB) times 0.707 x 0.707 x 2 for equal surrounds.
TEST(EncodeMix, SurroundOnlyComesOutEqualAndOppositeOnBothSides)
{
    for (int32_t channels : {4, 6}) {
        EngineReset(TestEngine());
        constexpr uint32_t kCount = 8192;
        Frames f(kCount, 44100, channels);
        for (uint32_t i = 0; i < kCount; ++i) {
            const float v = float(0.5 * std::sin(2.0 * kPi * 1000.0 * i / 44100.0));
            f.at(i, kSlotSL) = v;
            f.at(i, kSlotSR) = v;
        }
        FrontEnd(f.pb);
        EncodeMix(TestEngine().Encoder, f.pb);
        double peak = 0.0;
        for (uint32_t i = 0; i < kCount; ++i) {
            ASSERT_EQ(f.at(i, kSlotR), -f.at(i, kSlotL)) << channels << " channels, frame " << i;
            if (i >= kCount / 2)
                peak = std::max(peak, std::fabs(double(f.at(i, kSlotL))));
        }
        const double w = std::tan(kPi * 1000.0 / 44100.0);
        const double hp = 1.0 / std::sqrt(1.0 + std::pow(std::tan(kPi * 100.0 / 44100.0) / w, 4));
        const double lp = 1.0 / std::sqrt(1.0 + std::pow(w / std::tan(kPi * 7000.0 / 44100.0), 4));
        const double expected = 0.5 * 2.0 * 0.707 * 0.707 * hp * lp;
        EXPECT_NEAR(20.0 * std::log10(peak / expected), 0.0, 0.1) << channels << " channels";
    }
}

TEST(EncodeMix, LeavesSlots2To5ExactlyZero)
{
    for (int32_t channels : {4, 5, 6}) {
        EngineReset(TestEngine());
        Frames f(1000, 48000, channels);
        f.FillSource(5);
        FrontEnd(f.pb);
        EncodeMix(TestEngine().Encoder, f.pb);
        for (uint32_t i = 0; i < 1000; ++i) {
            for (uint32_t s = 2; s < kFrameFloats; ++s) {
                ASSERT_EQ(f.at(i, s), 0.0f) << channels << " channels, frame " << i << " slot " << s;
                ASSERT_FALSE(std::signbit(f.at(i, s)));
            }
        }
    }
}

TEST(EncodeMix, StereoSourceInMode5IsOnlyScaledBy0_707)
{
    EngineReset(TestEngine());
    TestEngine().Encoder.LfeHighPass = kSentinel;
    TestEngine().Encoder.LfeLowPass = kSentinel;
    TestEngine().Encoder.LfeChain = kSentinel;
    SampleBlock frames;
    frames.Resize(49152, true);
    const std::vector<float> signal = TestSignal(2 * 1152, 6);
    for (uint32_t i = 0; i < 1152; ++i) {
        frames.data[6 * i] = signal[2 * i];
        frames.data[6 * i + 1] = signal[2 * i + 1];
    }
    Frames settings(0, 44100, 2);
    ProcessorBlock block = settings.pb;
    block.Frames = 1152;
    block.Block = &frames;
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Frames, 1152u);
    EXPECT_EQ(block.Out_Channels, 2);
    for (uint32_t i = 0; i < 1152; ++i) {
        ASSERT_EQ(frames.data[6 * i], signal[2 * i] * kMixGain) << "frame " << i;
        ASSERT_EQ(frames.data[6 * i + 1], signal[2 * i + 1] * kMixGain) << "frame " << i;
        for (uint32_t s = 2; s < kFrameFloats; ++s)
            ASSERT_EQ(frames.data[6 * i + s], 0.0f);
    }
    EXPECT_TRUE(SameMemory(TestEngine().Encoder.LfeHighPass, kSentinel));
    EXPECT_TRUE(SameMemory(TestEngine().Encoder.LfeLowPass, kSentinel));
    EXPECT_TRUE(SameMemory(TestEngine().Encoder.LfeChain, kSentinel));
    EngineReset(TestEngine());
}

// One-frame writes carry on from the memories like any other: the frames
// come out as from one write, and as many as went in.
TEST(EncodeMix, WritesOfOneFrameGiveTheSameFramesAsOneWrite)
{
    constexpr uint32_t kCount = 1200;
    for (int32_t channels : {4, 6}) {
        EngineReset(TestEngine());
        Frames whole(kCount, 44100, channels);
        whole.FillSource(7);
        const std::vector<float> in = whole.Copy();
        FrontEnd(whole.pb);
        EncodeMix(TestEngine().Encoder, whole.pb);
        EXPECT_EQ(whole.pb.Frames, kCount);

        EngineReset(TestEngine());
        uint32_t start = 0;
        const uint32_t pieces[] = {1, 1, 1, 576, 1, 300, 320};
        for (uint32_t n : pieces) {
            Frames piece(n, 44100, channels);
            for (uint32_t i = 0; i < n * kFrameFloats; ++i)
                piece.block.data[i] = in[6 * start + i];
            FrontEnd(piece.pb);
            EncodeMix(TestEngine().Encoder, piece.pb);
            EXPECT_EQ(piece.pb.Frames, n);
            for (uint32_t i = 0; i < n * kFrameFloats; ++i)
                ASSERT_EQ(piece.block.data[i], whole.block.data[6 * start + i])
                    << channels << " channels, frame " << start + i / 6;
            start += n;
        }
        ASSERT_EQ(start, kCount);
    }
}

TEST(EncodeMix, SixChannelsInMode5ThroughTheDispatcherKeepTheFrameCount)
{
    EngineReset(TestEngine());
    SampleBlock frames;
    frames.Resize(49152, true);
    const std::vector<float> signal = TestSignal(1152 * kFrameFloats, 8);
    for (uint32_t i = 0; i < 1152 * kFrameFloats; ++i)
        frames.data[i] = signal[i];
    Frames settings(0, 44100, 6);
    ProcessorBlock block = settings.pb;
    block.Frames = 1152;
    block.Block = &frames;
    DispatchMode(TestEngine(), block);
    EXPECT_EQ(block.Frames, 1152u);
    EXPECT_EQ(block.Out_Channels, 2);

    EngineReset(TestEngine());
    Frames direct(1152, 44100, 6);
    for (uint32_t i = 0; i < 1152 * kFrameFloats; ++i)
        direct.block.data[i] = signal[i];
    DownmixSix(direct.pb);
    EncodeMix(TestEngine().Encoder, direct.pb);
    for (uint32_t i = 0; i < 1152 * kFrameFloats; ++i)
        ASSERT_EQ(frames.data[i], direct.block.data[i]) << "frame " << i / 6 << " slot " << i % 6;
    EngineReset(TestEngine());
}

TEST(EncodeMix, FrameCountZeroChangesNeitherFramesNorMemories)
{
    EngineReset(TestEngine());
    TestEngine().Encoder.LfeHighPass = kSentinel;
    TestEngine().Encoder.LfeLowPass = kSentinel;
    TestEngine().Encoder.LfeChain = kSentinel;
    Frames f(10, 44100, 6);
    f.FillSource(9);
    const std::vector<float> before = f.Copy();
    f.pb.Frames = 0;
    DownmixFour(f.pb);
    DownmixFive(f.pb);
    DownmixSix(f.pb);
    EncodeMix(TestEngine().Encoder, f.pb);
    FilterState chain = kSentinel;
    SurroundPhaseChain(chain, f.pb);
    EXPECT_EQ(f.pb.Frames, 0u);
    for (uint32_t i = 0; i < 10 * kFrameFloats; ++i)
        ASSERT_EQ(f.block.data[i], before[i]) << "float " << i;
    EXPECT_TRUE(SameMemory(TestEngine().Encoder.LfeHighPass, kSentinel));
    EXPECT_TRUE(SameMemory(TestEngine().Encoder.LfeLowPass, kSentinel));
    EXPECT_TRUE(SameMemory(TestEngine().Encoder.LfeChain, kSentinel));
    EXPECT_TRUE(SameMemory(chain, kSentinel));
    EngineReset(TestEngine());
}
