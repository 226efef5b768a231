// Steered matrix decoder: exponential terms from the smoothed steering, the
// six rows per band, band sums, centre distribution and switches.
//
// Expected values are the rows at rest and at the bound (to four decimals)
// or the decoder written out here in float in its fixed order, from the
// band split to the write; raw steering comes from SteeringPair, which its
// own tests check against the double-precision ratio.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "decoders/steered_matrix.h"
#include "decoders/steering_detect.h"
#include "filters/second_order.h"
#include "filters/surround_tail.h"
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

constexpr float kTermRate = 0.839f;   // 0.838999987
constexpr float kInputGain = 0.707f;  // 0.7070000171661377
constexpr float kWidthStep = 0.00666666683f;
constexpr float kCentreFloor = 0.333f;

SteeringTerms ReferenceTerms(float x, float y)
{
    SteeringTerms e{};
    float t = x >= 0.0f ? -0.0f - x : 0.0f;
    e.eL = float(std::exp(double(kTermRate) * double(t)));
    t = x < 0.0f ? x : 0.0f;
    e.eR = float(std::exp(double(kTermRate) * double(t)));
    t = y >= 0.0f ? -0.0f - y : 0.0f;
    e.eC = float(std::exp(double(kTermRate) * double(t)));
    t = y < 0.0f ? y : 0.0f;
    e.eS = float(std::exp(double(kTermRate) * double(t)));
    return e;
}

SteeredRows ReferenceRows(const SteeringTerms& e)
{
    const float eL = e.eL;
    const float eR = e.eR;
    const float eC = e.eC;
    const float eS = e.eS;
    SteeredRows w{};
    w.frontLeft[0] = ((0.13f * eR + 0.299f * (eS + eC)) - 0.293f * eL) + 0.273f;
    w.frontLeft[1] = 0.408f * eC - 0.408f * eS;
    w.frontRight[0] = 0.408f * eC - 0.408f * eS;
    w.frontRight[1] = ((0.299f * (eS + eC) - 0.293f * eR) + 0.13f * eL) + 0.273f;
    w.centre[0] = (((0.092f * eS - 0.207f * eC) - 0.077f * eR) + 0.5f * eL) + 0.193f;
    w.centre[1] = ((0.5f * eR + (0.092f * eS - 0.207f * eC)) - 0.077f * eL) + 0.193f;
    w.surround[0] = (((0.092f * eC - 0.207f * eS) - 0.077f * eR) + 0.5f * eL) + 0.193f;
    w.surround[1] = (((0.207f * eS - 0.092f * eC) - 0.5f * eR) + 0.077f * eL) - 0.193f;
    w.leftSurround[0] = (((0.324f * eC - 0.254f * eS) + 0.204f * eR) + 0.612f * eL) - 0.274f;
    w.leftSurround[1] = (((0.146f * eS - 0.0649f * eC) - 0.354f * eR) + 0.0547f * eL) - 0.136f;
    w.rightSurround[0] = (((0.0649f * eC - 0.146f * eS) - 0.0547f * eR) + 0.354f * eL) + 0.136f;
    w.rightSurround[1] = (((0.254f * eS - 0.324f * eC) - 0.612f * eR) - 0.204f * eL) + 0.274f;
    return w;
}

constexpr SignalMix kSignal{0.5, 0.009, 0.3, 0.31, 0.2};

std::vector<float> TestSignal(uint32_t count, uint32_t seed)
{
    return MixedSignal(count, seed, kSignal);
}

struct Frames : FrameBlock {
    Frames(uint32_t count, int32_t rate, int32_t mode) : FrameBlock(count, rate, mode) { pb.Bass_Redir = 120; }
    void FillStereo(const std::vector<float>& left, const std::vector<float>& right)
    {
        FrameBlock::FillStereo(left, right, 50.0f);  // overwritten unread
    }
};

// The decoder written out for a block from zero memories, before the tail.
std::vector<float> ReferenceDecode(const ProcessorBlock& pb, const std::vector<float>& left,
                                   const std::vector<float>& right)
{
    const uint32_t n = pb.Frames;
    const int32_t rate = pb.Sample_Rate;
    ReferenceSection splitL = ReferenceHighPass(1200.0f, rate);
    ReferenceSection splitR = ReferenceHighPass(1200.0f, rate);
    ReferenceSection smooth[4] = {ReferenceLowPass(7.95f, rate), ReferenceLowPass(7.95f, rate),
                                  ReferenceLowPass(7.95f, rate), ReferenceLowPass(7.95f, rate)};
    const float gc = Gain(pb.Centre_Trim);
    const float gs = Gain(pb.Surround_Trim_00);
    const float W = float(pb.Centre_Width);
    std::vector<float> out(n * kFrameFloats);
    for (uint32_t i = 0; i < n; ++i) {
        const float hl = ReferenceStep(splitL, left[i]);
        const float hr = ReferenceStep(splitR, right[i]);
        const float ll = left[i] - hl;
        const float lr = right[i] - hr;
        float x[2];
        float y[2];
        SteeringPair(hl, hr, x[0], y[0]);
        SteeringPair(ll, lr, x[1], y[1]);
        x[0] = ReferenceStep(smooth[0], x[0]);
        y[0] = ReferenceStep(smooth[1], y[0]);
        x[1] = ReferenceStep(smooth[2], x[1]);
        y[1] = ReferenceStep(smooth[3], y[1]);
        // Index 0 is the high band, 1 the low band.
        const float bandL[2] = {kInputGain * hl, kInputGain * ll};
        const float bandR[2] = {kInputGain * hr, kInputGain * lr};
        float fl[2], fr[2], c[2], s[2], ls[2], rs[2];
        for (int b = 0; b < 2; ++b) {
            const SteeredRows w = ReferenceRows(ReferenceTerms(x[b], y[b]));
            const float l = bandL[b];
            const float r = bandR[b];
            fl[b] = (w.frontLeft[0] * l) + (w.frontLeft[1] * r);
            fr[b] = (w.frontRight[0] * l) + (w.frontRight[1] * r);
            c[b] = (w.centre[0] * l) + (w.centre[1] * r);
            s[b] = (w.surround[0] * l) + (w.surround[1] * r);
            ls[b] = (w.leftSurround[0] * l) + (w.leftSurround[1] * r);
            rs[b] = (w.rightSurround[0] * l) + (w.rightSurround[1] * r);
        }
        const float FL = fl[1] + fl[0];
        const float FR = fr[1] + fr[0];
        const float craw = (c[1] + c[0]) * gc;
        float slo;
        float sro;
        if (pb.Mode == 2) {
            slo = ((s[1] + s[0]) * gs) * kInputGain;
            sro = slo;
        } else {
            slo = (ls[1] + ls[0]) * gs;
            sro = (rs[1] + rs[0]) * gs;
        }
        float lo;
        float ro;
        float co;
        if (pb.Virtual_C != 0) {
            const float p = craw * 0.5f;
            lo = FL + p;
            ro = FR + p;
            co = 0.0f;
        } else {
            const float p = (W * kWidthStep) * craw;
            lo = FL + p;
            ro = FR + p;
            co = (((100.0f - W) * kWidthStep) + kCentreFloor) * craw;
        }
        out[6 * i + 0] = lo * float(pb.L);
        out[6 * i + 1] = ro * float(pb.R);
        out[6 * i + 2] = co * float(pb.C);
        out[6 * i + 3] = 0.0f;
        out[6 * i + 4] = slo * float(pb.SL);
        out[6 * i + 5] = sro * float(pb.SR);
    }
    return out;
}

void ExpectRow(const float got[2], double l, double r, const char* name)
{
    // Four decimals: within half a unit of the fourth.
    EXPECT_NEAR(got[0], l, 5e-5 + 1e-7) << name << " (l)";
    EXPECT_NEAR(got[1], r, 5e-5 + 1e-7) << name << " (r)";
}

float BoundTerm()
{
    return float(std::exp(-double(kTermRate) * std::log(10.0)));
}

}  // namespace

// ---- Terms ---------------------------------------------------------------------

TEST(MakeSteeringTerms, ZeroSteeringGivesExactlyOneForAllFour)
{
    for (float x : {0.0f, -0.0f}) {
        for (float y : {0.0f, -0.0f}) {
            const SteeringTerms e = MakeSteeringTerms(x, y);
            EXPECT_EQ(e.eL, 1.0f);
            EXPECT_EQ(e.eR, 1.0f);
            EXPECT_EQ(e.eC, 1.0f);
            EXPECT_EQ(e.eS, 1.0f);
        }
    }
}

TEST(MakeSteeringTerms, EachHalfOfTheSteeringLowersOneTermToTheBound)
{
    const float ln10 = 2.302585f;
    const SteeringTerms left = MakeSteeringTerms(ln10, 0.0f);
    const SteeringTerms right = MakeSteeringTerms(-ln10, 0.0f);
    const SteeringTerms centre = MakeSteeringTerms(0.0f, ln10);
    const SteeringTerms surround = MakeSteeringTerms(0.0f, -ln10);
    EXPECT_NEAR(left.eL, 0.14488, 5e-6);
    EXPECT_EQ(left.eR, 1.0f);
    EXPECT_EQ(left.eC, 1.0f);
    EXPECT_EQ(left.eS, 1.0f);
    EXPECT_NEAR(right.eR, 0.14488, 5e-6);
    EXPECT_EQ(right.eL, 1.0f);
    EXPECT_NEAR(centre.eC, 0.14488, 5e-6);
    EXPECT_EQ(centre.eS, 1.0f);
    EXPECT_NEAR(surround.eS, 0.14488, 5e-6);
    EXPECT_EQ(surround.eC, 1.0f);
    EXPECT_EQ(left.eL, right.eR);
    EXPECT_EQ(centre.eC, surround.eS);
}

TEST(MakeSteeringTerms, FollowTheDoubleExponentialOfTheFloatArgument)
{
    const std::vector<float> xs = TestSignal(3000, 1);
    const std::vector<float> ys = TestSignal(3000, 2);
    for (size_t i = 0; i < xs.size(); ++i) {
        const float x = xs[i] * 4.0f;
        const float y = ys[i] * 4.0f;
        const SteeringTerms got = MakeSteeringTerms(x, y);
        const SteeringTerms ref = ReferenceTerms(x, y);
        ASSERT_EQ(got.eL, ref.eL) << x;
        ASSERT_EQ(got.eR, ref.eR) << x;
        ASSERT_EQ(got.eC, ref.eC) << y;
        ASSERT_EQ(got.eS, ref.eS) << y;
    }
}

// ---- Rows at rest and at the bound ------------------------------------------------

TEST(MakeSteeredRows, RestRowsAreThePassiveMatrix)
{
    const SteeredRows w = MakeSteeredRows(SteeringTerms{1.0f, 1.0f, 1.0f, 1.0f});
    ExpectRow(w.frontLeft, 0.7080, 0.0, "front left");
    ExpectRow(w.frontRight, 0.0, 0.7080, "front right");
    ExpectRow(w.centre, 0.5010, 0.5010, "centre");
    ExpectRow(w.surround, 0.5010, -0.5010, "surround");
    ExpectRow(w.leftSurround, 0.6120, -0.3542, "left surround");
    ExpectRow(w.rightSurround, 0.3542, -0.6120, "right surround");
    // A front row takes nothing of the opposite channel at rest.
    EXPECT_EQ(w.frontLeft[1], 0.0f);
    EXPECT_EQ(w.frontRight[0], 0.0f);
}

TEST(MakeSteeredRows, LeftBoundRows)
{
    const SteeredRows w = MakeSteeredRows(SteeringTerms{BoundTerm(), 1.0f, 1.0f, 1.0f});
    ExpectRow(w.frontLeft, 0.9586, 0.0, "front left");
    ExpectRow(w.frontRight, 0.0, 0.5968, "front right");
    ExpectRow(w.centre, 0.0734, 0.5668, "centre");
    ExpectRow(w.surround, 0.0734, -0.5668, "surround");
    ExpectRow(w.leftSurround, 0.0887, -0.4010, "left surround");
    ExpectRow(w.rightSurround, 0.0515, -0.4376, "right surround");
}

TEST(MakeSteeredRows, RightBoundRows)
{
    const SteeredRows w = MakeSteeredRows(SteeringTerms{1.0f, BoundTerm(), 1.0f, 1.0f});
    ExpectRow(w.frontLeft, 0.5968, 0.0, "front left");
    ExpectRow(w.frontRight, 0.0, 0.9586, "front right");
    ExpectRow(w.centre, 0.5668, 0.0734, "centre");
    ExpectRow(w.surround, 0.5668, -0.0734, "surround");
    ExpectRow(w.leftSurround, 0.4376, -0.0515, "left surround");
    ExpectRow(w.rightSurround, 0.4010, -0.0887, "right surround");
}

TEST(MakeSteeredRows, CentreBoundRows)
{
    const SteeredRows w = MakeSteeredRows(SteeringTerms{1.0f, 1.0f, BoundTerm(), 1.0f});
    ExpectRow(w.frontLeft, 0.4523, -0.3489, "front left");
    ExpectRow(w.frontRight, -0.3489, 0.4523, "front right");
    ExpectRow(w.centre, 0.6780, 0.6780, "centre");
    ExpectRow(w.surround, 0.4223, -0.4223, "surround");
    ExpectRow(w.leftSurround, 0.3349, -0.2987, "left surround");
    ExpectRow(w.rightSurround, 0.2987, -0.3349, "right surround");
    // The surround rows of mode 2 cancel exactly on equal l and r.
    EXPECT_EQ(w.surround[0], -w.surround[1]);
}

TEST(MakeSteeredRows, SurroundBoundRows)
{
    const SteeredRows w = MakeSteeredRows(SteeringTerms{1.0f, 1.0f, 1.0f, BoundTerm()});
    ExpectRow(w.frontLeft, 0.4523, 0.3489, "front left");
    ExpectRow(w.frontRight, 0.3489, 0.4523, "front right");
    ExpectRow(w.centre, 0.4223, 0.4223, "centre");
    ExpectRow(w.surround, 0.6780, -0.6780, "surround");
    ExpectRow(w.leftSurround, 0.8292, -0.4790, "left surround");
    ExpectRow(w.rightSurround, 0.4790, -0.8292, "right surround");
}

TEST(MakeSteeredRows, FollowTheFloatOrderOfEveryRow)
{
    const std::vector<float> a = TestSignal(4000, 3);
    for (size_t i = 0; i + 3 < a.size(); i += 4) {
        // Terms between the bound and 1.
        const SteeringTerms e{0.57f + 0.43f * a[i], 0.57f + 0.43f * a[i + 1], 0.57f + 0.43f * a[i + 2],
                              0.57f + 0.43f * a[i + 3]};
        const SteeredRows got = MakeSteeredRows(e);
        const SteeredRows ref = ReferenceRows(e);
        for (int k = 0; k < 2; ++k) {
            ASSERT_EQ(got.frontLeft[k], ref.frontLeft[k]) << i;
            ASSERT_EQ(got.frontRight[k], ref.frontRight[k]) << i;
            ASSERT_EQ(got.centre[k], ref.centre[k]) << i;
            ASSERT_EQ(got.surround[k], ref.surround[k]) << i;
            ASSERT_EQ(got.leftSurround[k], ref.leftSurround[k]) << i;
            ASSERT_EQ(got.rightSurround[k], ref.rightSurround[k]) << i;
        }
    }
}

// ---- The decoder -------------------------------------------------------------------

TEST(SteeredMatrixDecode, SilenceFromResetGivesZeroSteeringAndZeroOutputs)
{
    for (int32_t mode : {2, 3}) {
        FreshEngine();
        Frames f(1152, 44100, mode);
        f.pb.Surround_Delay = 10;
        f.FillStereo(std::vector<float>(1152, 0.0f), std::vector<float>(1152, 0.0f));
        SteeredMatrixDecode(TestEngine().Steering, TestEngine().Surround, f.pb);
        for (uint32_t i = 0; i < 1152 * kFrameFloats; ++i)
            ASSERT_EQ(f.block.data[i], 0.0f) << "mode " << mode << ", float " << i;
        for (const SampleBlock* steer : {&TestEngine().Steering.SteerHighLR, &TestEngine().Steering.SteerHighCS,
                                         &TestEngine().Steering.SteerLowLR, &TestEngine().Steering.SteerLowCS}) {
            ASSERT_EQ(steer->size, 1152u);
            for (uint32_t i = 0; i < 1152; ++i)
                ASSERT_EQ(steer->data[i], 0.0f);
        }
    }
}

// At 32000 Hz with no delay the tail leaves the surrounds alone, so the
// whole frame is the decoder's.
TEST(SteeredMatrixDecode, FollowsTheFloatStepsFromBandSplitToTheWrite)
{
    constexpr uint32_t kCount = 1500;
    const std::vector<float> left = TestSignal(kCount, 4);
    const std::vector<float> right = TestSignal(kCount, 5);
    struct Case {
        int32_t mode;
        int32_t width;
        int32_t virtualC;
        int32_t centreTrim;
        int32_t surroundTrim;
        int32_t switches[5];
    };
    const Case cases[] = {
        {2, 0, 0, 0, 3, {1, 1, 1, 1, 1}},  {3, 0, 0, 0, 3, {1, 1, 1, 1, 1}},   {3, 37, 0, -5, 9, {1, 0, 1, 2, 1}},
        {2, 100, 0, 4, -9, {1, 1, 0, 1, 1}}, {3, 50, 1, 12, 15, {2, 1, 1, 1, 0}}, {2, 0, 1, -12, 0, {1, 1, 1, 1, 1}},
    };
    for (const Case& c : cases) {
        FreshEngine();
        Frames f(kCount, 32000, c.mode);
        f.pb.Centre_Width = c.width;
        f.pb.Virtual_C = c.virtualC;
        f.pb.Centre_Trim = c.centreTrim;
        f.pb.Surround_Trim_00 = c.surroundTrim;
        f.pb.L = c.switches[0];
        f.pb.R = c.switches[1];
        f.pb.C = c.switches[2];
        f.pb.SL = c.switches[3];
        f.pb.SR = c.switches[4];
        f.FillStereo(left, right);
        const std::vector<float> expected = ReferenceDecode(f.pb, left, right);
        SteeredMatrixDecode(TestEngine().Steering, TestEngine().Surround, f.pb);
        SCOPED_TRACE(testing::Message() << "mode " << c.mode << ", width " << c.width << ", Virtual_C "
                                        << c.virtualC);
        for (uint32_t i = 0; i < kCount * kFrameFloats; ++i)
            ASSERT_EQ(f.block.data[i], expected[i]) << "frame " << i / 6 << " slot " << i % 6;
    }
}

TEST(SteeredMatrixDecode, Mode2SurroundsAreIdenticalSampleForSample)
{
    FreshEngine();
    const std::vector<float> left = TestSignal(3 * 1152, 6);
    const std::vector<float> right = TestSignal(3 * 1152, 7);
    for (uint32_t block = 0; block < 3; ++block) {
        Frames f(1152, 44100, 2);
        f.pb.Surround_Delay = 10;
        f.FillStereo(std::vector<float>(left.begin() + 1152 * block, left.begin() + 1152 * (block + 1)),
                     std::vector<float>(right.begin() + 1152 * block, right.begin() + 1152 * (block + 1)));
        SteeredMatrixDecode(TestEngine().Steering, TestEngine().Surround, f.pb);
        bool sound = false;
        for (uint32_t i = 0; i < 1152; ++i) {
            ASSERT_EQ(f.at(i, kSlotSL), f.at(i, kSlotSR)) << "block " << block << ", frame " << i;
            sound = sound || f.at(i, kSlotSL) != 0.0f;
        }
        if (block > 0) {
            EXPECT_TRUE(sound);
        }
    }
}

// The first frame after a reset sees steering of the order of 1e-6 (the
// smoother's a times the raw value), so the terms are 1 to about 1e-6 and
// the closed form of the rest state holds to that precision.
TEST(SteeredMatrixDecode, RestStateMode2FollowsTheClosedForm)
{
    const float pairs[][2] = {{0.8f, -0.3f}, {0.25f, 0.6f}, {-0.5f, -0.45f}, {0.9f, 0.1f}};
    const double gs = 1.41254;
    for (const auto& pair : pairs) {
        FreshEngine();
        Frames f(1, 32000, 2);
        f.FillStereo({pair[0]}, {pair[1]});
        SteeredMatrixDecode(TestEngine().Steering, TestEngine().Surround, f.pb);
        const double lin = pair[0];
        const double rin = pair[1];
        const double lo = 0.708 * 0.707 * lin;
        const double ro = 0.708 * 0.707 * rin;
        const double co = 0.99966669 * 0.501 * 0.707 * (lin + rin);
        const double s = gs * 0.707 * 0.501 * 0.707 * (lin - rin);
        EXPECT_NEAR(f.at(0, kSlotL), lo, 1e-5);
        EXPECT_NEAR(f.at(0, kSlotR), ro, 1e-5);
        EXPECT_NEAR(f.at(0, kSlotC), co, 1e-5);
        EXPECT_EQ(f.at(0, kSlotLFE), 0.0f);
        EXPECT_NEAR(f.at(0, kSlotSL), s, 1e-5);
        EXPECT_NEAR(f.at(0, kSlotSR), s, 1e-5);
    }
    EXPECT_NEAR(Gain(3), gs, 5e-6);
    EXPECT_EQ((100.0f * kWidthStep) + kCentreFloor, 0.99966669f);
}

TEST(SteeredMatrixDecode, VirtualCentreSilencesSlot2AndIgnoresTheWidth)
{
    constexpr uint32_t kCount = 1000;
    const std::vector<float> left = TestSignal(kCount, 8);
    const std::vector<float> right = TestSignal(kCount, 9);
    std::vector<float> first;
    for (int32_t width : {0, 63, 100}) {
        FreshEngine();
        Frames f(kCount, 44100, 3);
        f.pb.Virtual_C = 1;
        f.pb.Centre_Width = width;
        f.FillStereo(left, right);
        SteeredMatrixDecode(TestEngine().Steering, TestEngine().Surround, f.pb);
        for (uint32_t i = 0; i < kCount; ++i)
            ASSERT_EQ(f.at(i, kSlotC), 0.0f) << "width " << width << ", frame " << i;
        if (first.empty())
            first = f.Copy();
        for (uint32_t i = 0; i < kCount * kFrameFloats; ++i)
            ASSERT_EQ(f.block.data[i], first[i]) << "width " << width << ", float " << i;
    }
}

// With silence on the left the steering y is exactly 0 in both bands (|p| =
// |m|), so the front-left rows take nothing of the right and FL is 0: slot 0
// is the centre share p alone. The virtual centre gives p = Craw x 0.5, which
// recovers Craw exactly; width 100 must then give 0.666666687 x Craw to the
// front and 0.333 x Craw to the centre.
TEST(SteeredMatrixDecode, Width100GivesTheFrontsTwoThirdsAndTheCentre0_333)
{
    constexpr uint32_t kCount = 1000;
    const std::vector<float> silence(kCount, 0.0f);
    const std::vector<float> right = TestSignal(kCount, 10);

    FreshEngine();
    Frames virtualCentre(kCount, 44100, 3);
    virtualCentre.pb.Virtual_C = 1;
    virtualCentre.FillStereo(silence, right);
    SteeredMatrixDecode(TestEngine().Steering, TestEngine().Surround, virtualCentre.pb);

    FreshEngine();
    Frames wide(kCount, 44100, 3);
    wide.pb.Centre_Width = 100;
    wide.FillStereo(silence, right);
    SteeredMatrixDecode(TestEngine().Steering, TestEngine().Surround, wide.pb);

    const float frontShare = 100.0f * kWidthStep;
    EXPECT_EQ(frontShare, 0.666666687f);
    bool sound = false;
    for (uint32_t i = 0; i < kCount; ++i) {
        const float craw = 2.0f * virtualCentre.at(i, kSlotL);
        ASSERT_EQ(wide.at(i, kSlotL), frontShare * craw) << "frame " << i;
        ASSERT_EQ(wide.at(i, kSlotC), ((0.0f * kWidthStep) + kCentreFloor) * craw) << "frame " << i;
        ASSERT_EQ(wide.at(i, kSlotC), kCentreFloor * craw) << "frame " << i;
        sound = sound || craw != 0.0f;
    }
    EXPECT_TRUE(sound);
}

// Mode 4 takes the rows of mode 3; only Mode 2 has the single surround.
TEST(SteeredMatrixDecode, Mode4TakesTheSurroundRowsOfMode3)
{
    constexpr uint32_t kCount = 1152;
    const std::vector<float> left = TestSignal(kCount, 11);
    const std::vector<float> right = TestSignal(kCount, 12);
    std::vector<float> outputs[3];
    const int32_t modes[3] = {2, 3, 4};
    for (int k = 0; k < 3; ++k) {
        FreshEngine();
        Frames f(kCount, 44100, modes[k]);
        f.pb.Surround_Delay = 10;
        f.FillStereo(left, right);
        SteeredMatrixDecode(TestEngine().Steering, TestEngine().Surround, f.pb);
        outputs[k] = f.Copy();
    }
    EXPECT_EQ(outputs[2], outputs[1]);
    EXPECT_NE(outputs[0], outputs[1]);
}

// Through the dispatcher at 44100 Hz: width 0, Virtual_C 0, Gc = 1, Gs at
// 3 dB, while the switches and the delay stay in force.
TEST(SteeredMatrixDecode, Mode4AtTheDispatcherClearsTheCentreSettingsAndKeepsSwitchesAndDelay)
{
    for (int32_t rate : {44100, 48000}) {
        FreshEngine();
        SampleBlock frames;
        frames.Resize(49152, true);
        const std::vector<float> signal = TestSignal(2 * 1152, 13);
        for (uint32_t i = 0; i < 1152; ++i) {
            frames.data[6 * i] = signal[2 * i];
            frames.data[6 * i + 1] = signal[2 * i + 1];
        }
        Frames settings(0, rate, 4);
        ProcessorBlock block = settings.pb;
        block.Surround_Delay = 20;
        block.Centre_Width = 70;
        block.Virtual_C = 1;
        block.Centre_Trim = 6;
        block.Surround_Trim_00 = -4;
        block.Bass_Redir_Enable = 1;
        block.SL = 0;
        block.C = 2;
        block.Frames = 1152;
        block.Block = &frames;
        DispatchMode(TestEngine(), block);
        EXPECT_EQ(block.Centre_Width, 0);
        EXPECT_EQ(block.Virtual_C, 0);
        EXPECT_EQ(block.Centre_Trim, 0);
        EXPECT_EQ(block.Surround_Trim_00, 3);
        EXPECT_EQ(block.Bass_Redir_Enable, 0);
        EXPECT_EQ(block.Surround_Delay, 20);
        EXPECT_EQ(block.SL, 0);
        EXPECT_EQ(block.C, 2);
        // The decoder ran with its tail: the rings took the 20 ms length.
        EXPECT_EQ(TestEngine().Surround.SurroundDelayLine[0].size, rate == 44100 ? 881u : 959u);
        EXPECT_EQ(TestEngine().Steering.SteerHighLR.size, 1152u);
    }
    EngineReset(TestEngine());
}

TEST(SteeredMatrixDecode, BlockSplitGivesTheSameFramesAsOneBlock)
{
    constexpr uint32_t kCount = 3000;
    const std::vector<float> left = TestSignal(kCount, 14);
    const std::vector<float> right = TestSignal(kCount, 15);
    FreshEngine();
    Frames whole(kCount, 44100, 3);
    whole.pb.Surround_Delay = 15;
    whole.pb.Centre_Width = 30;
    whole.FillStereo(left, right);
    SteeredMatrixDecode(TestEngine().Steering, TestEngine().Surround, whole.pb);

    FreshEngine();
    uint32_t start = 0;
    for (uint32_t n : {1u, 576u, 1000u, 1423u}) {
        Frames piece(n, 44100, 3);
        piece.pb.Surround_Delay = 15;
        piece.pb.Centre_Width = 30;
        piece.FillStereo(std::vector<float>(left.begin() + start, left.begin() + start + n),
                         std::vector<float>(right.begin() + start, right.begin() + start + n));
        SteeredMatrixDecode(TestEngine().Steering, TestEngine().Surround, piece.pb);
        for (uint32_t i = 0; i < n * kFrameFloats; ++i)
            ASSERT_EQ(piece.block.data[i], whole.block.data[6 * start + i]) << "frame " << start + i / 6;
        start += n;
    }
    ASSERT_EQ(start, kCount);
}
