// Surround tail: the 7000 Hz low-pass and the ring delay on slots 4 and 5.
//
// Lengths come from the table of whole-sample delays that come out one
// short; the audio is checked against a float reference of the low-pass and
// an exact delay written out here. Heap allocations are counted by replacing
// the global allocation functions of this test binary.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <vector>

#include "filters/second_order.h"
#include "filters/surround_tail.h"
#include "engine/engine.h"
#include "signal/frame.h"
#include "signal/processor.h"
#include "signal/sample_block.h"
#include "tests/support/counting_heap.h"
#include "tests/support/frame_block.h"
#include "tests/support/reference_filters.h"
#include "tests/support/test_signal.h"
#include "tests/support/test_engine.h"

namespace {

constexpr float kSurroundCutoff = 7000.0f;
constexpr SignalMix kSignal{0.6, 0.05, 0.0, 0.0, 0.3};

std::vector<float> LowPassed(const std::vector<float>& in, int32_t rate)
{
    ReferenceSection f = ReferenceLowPass(kSurroundCutoff, rate);
    std::vector<float> out(in.size());
    for (size_t i = 0; i < in.size(); ++i)
        out[i] = ReferenceStep(f, in[i]);
    return out;
}

std::vector<float> TestSignal(uint32_t count, uint32_t seed)
{
    return MixedSignal(count, seed, kSignal);
}

// Frames whose slot s of frame i holds channel s of the given signals.
struct Frames : FrameBlock {
    Frames(uint32_t count, int32_t rate) : FrameBlock(count, rate, 3) {}
};

// DelayRun at a new delay over no frames, which may change only the length;
// returns the allocations that it made.
std::size_t EmptyRunAllocations(SampleBlock& line, uint32_t microseconds)
{
    Frames empty(0, 44100);
    const std::size_t before = g_allocations;
    DelayRun(line, microseconds, empty.pb, empty.block.data, kSlotSL);
    return g_allocations - before;
}

void ExpectClearedCells(const SampleBlock& line, uint32_t cells)
{
    for (uint32_t i = 0; i < cells; ++i)
        ASSERT_EQ(line.data[i], 0.0f) << "cell " << i;
}

struct TableRow {
    int32_t delayMs;
    int32_t rate;
    uint32_t length;
};

const TableRow kLengthTable[] = {
    {10, 44100, 440}, {20, 44100, 881}, {15, 44100, 661}, {10, 48000, 479},
    {1, 48000, 47},   {1, 8000, 7},     {25, 44100, 1102},
};

}  // namespace

// ---- Lengths -----------------------------------------------------------------

TEST(DelayLength, WholeSampleDelaysComeOutOneShortAndHalvesAreTruncated)
{
    for (const TableRow& row : kLengthTable) {
        EXPECT_EQ(DelayLength(row.rate, uint32_t(row.delayMs) * 1000u), row.length)
            << row.delayMs << " ms at " << row.rate << " Hz";
    }
}

TEST(DelayRun, TenMsAt44100IsOneSampleShort)
{
    SampleBlock line;
    Frames f(0, 44100);
    DelayRun(line, 10000, f.pb, f.block.data, kSlotSL);
    EXPECT_EQ(line.size, 440u);
    EXPECT_EQ(line.position, 0u);
}

TEST(DelayRun, RingSizeFollowsTheLengthTable)
{
    for (const TableRow& row : kLengthTable) {
        SampleBlock line;
        Frames f(16, row.rate);
        DelayRun(line, uint32_t(row.delayMs) * 1000u, f.pb, f.block.data, kSlotSL);
        EXPECT_EQ(line.size, row.length) << row.delayMs << " ms at " << row.rate << " Hz";
        EXPECT_GE(line.capacity, row.length);
    }
}

// ---- The tail from the start -------------------------------------------------

TEST(SurroundTail, TenMsAt44100GivesSilenceFor440SamplesThenTheLowPassedInput)
{
    FreshEngine();
    constexpr uint32_t kCount = 1152;
    Frames f(kCount, 44100);
    f.pb.Surround_Delay = 10;
    const std::vector<float> left = TestSignal(kCount, 1);
    const std::vector<float> right = TestSignal(kCount, 2);
    const std::vector<float> front = TestSignal(kCount, 3);
    f.Fill(kSlotSL, left);
    f.Fill(kSlotSR, right);
    f.Fill(kSlotL, front);
    SurroundTail(TestEngine().Surround, f.pb);

    const std::vector<float> leftLp = LowPassed(left, 44100);
    const std::vector<float> rightLp = LowPassed(right, 44100);
    for (uint32_t i = 0; i < 440; ++i) {
        ASSERT_EQ(f.at(i, kSlotSL), 0.0f) << "frame " << i;
        ASSERT_EQ(f.at(i, kSlotSR), 0.0f) << "frame " << i;
    }
    // From zero memory the first low-passed sample is the input times a.
    EXPECT_EQ(f.at(440, kSlotSL), left[0] * ReferenceLowPass(kSurroundCutoff, 44100).k.a);
    for (uint32_t i = 440; i < kCount; ++i) {
        ASSERT_EQ(f.at(i, kSlotSL), leftLp[i - 440]) << "frame " << i;
        ASSERT_EQ(f.at(i, kSlotSR), rightLp[i - 440]) << "frame " << i;
    }
    for (uint32_t i = 0; i < kCount; ++i)
        ASSERT_EQ(f.at(i, kSlotL), front[i]);
    EXPECT_EQ(TestEngine().Surround.SurroundDelayLine[0].size, 440u);
    EXPECT_EQ(TestEngine().Surround.SurroundDelayLine[1].size, 440u);
}

TEST(DelayRun, DelaysByExactlyTheLengthAcrossBlocksOfAnySize)
{
    SampleBlock line;
    const std::vector<float> input = TestSignal(3000, 4);
    const uint32_t pieces[] = {1, 576, 37, 1000, 4, 1382};
    std::vector<float> output;
    uint32_t start = 0;
    for (uint32_t n : pieces) {
        Frames f(n, 44100);
        for (uint32_t i = 0; i < n; ++i)
            f.at(i, kSlotSR) = input[start + i];
        DelayRun(line, 15000, f.pb, f.block.data, kSlotSR);
        for (uint32_t i = 0; i < n; ++i)
            output.push_back(f.at(i, kSlotSR));
        start += n;
    }
    ASSERT_EQ(start, 3000u);
    for (uint32_t i = 0; i < 3000; ++i)
        ASSERT_EQ(output[i], i < 661 ? 0.0f : input[i - 661]) << "frame " << i;
}

TEST(DelayRun, LengthOneDelaysByOneSample)
{
    SampleBlock line;
    // 44100 x k x 23 = 1.014...: one sample.
    ASSERT_EQ(DelayLength(44100, 23), 1u);
    Frames f(50, 44100);
    const std::vector<float> input = TestSignal(50, 5);
    f.Fill(kSlotSL, input);
    DelayRun(line, 23, f.pb, f.block.data, kSlotSL);
    EXPECT_EQ(f.at(0, kSlotSL), 0.0f);
    for (uint32_t i = 1; i < 50; ++i)
        ASSERT_EQ(f.at(i, kSlotSL), input[i - 1]) << "frame " << i;
}

// ---- Changes of length ---------------------------------------------------------

TEST(DelayRun, TwentyToTenMsAt44100KeepsTheArrayAndClearsTheFirst440Cells)
{
    SampleBlock line;
    Frames f(1000, 44100);
    f.Fill(kSlotSL, TestSignal(1000, 6));
    DelayRun(line, 20000, f.pb, f.block.data, kSlotSL);
    ASSERT_EQ(line.size, 881u);
    ASSERT_EQ(line.capacity, 881u);
    const float* array = line.data;

    EXPECT_EQ(EmptyRunAllocations(line, 10000), 0u);
    EXPECT_EQ(line.data, array);
    EXPECT_EQ(line.size, 440u);
    EXPECT_EQ(line.capacity, 881u);
    EXPECT_EQ(line.position, 0u);
    ExpectClearedCells(line, 440);
}

TEST(DelayRun, TenToTwentyMsWithCapacityAlreadyThereClearsWithoutAllocating)
{
    SampleBlock line;
    Frames f(1000, 44100);
    f.Fill(kSlotSL, TestSignal(1000, 7));
    DelayRun(line, 20000, f.pb, f.block.data, kSlotSL);
    f.Fill(kSlotSL, TestSignal(1000, 8));
    DelayRun(line, 10000, f.pb, f.block.data, kSlotSL);
    ASSERT_EQ(line.size, 440u);
    ASSERT_EQ(line.capacity, 881u);
    const float* array = line.data;

    EXPECT_EQ(EmptyRunAllocations(line, 20000), 0u);
    EXPECT_EQ(line.data, array);
    EXPECT_EQ(line.size, 881u);
    EXPECT_EQ(line.capacity, 881u);
    EXPECT_EQ(line.position, 0u);
    ExpectClearedCells(line, 881);
}

TEST(DelayRun, TenToTwentyMsFromCapacity440GrowsToExactly881)
{
    SampleBlock line;
    Frames f(100, 44100);
    DelayRun(line, 10000, f.pb, f.block.data, kSlotSL);
    ASSERT_EQ(line.capacity, 440u);
    const std::size_t before = g_allocations;
    DelayRun(line, 20000, f.pb, f.block.data, kSlotSL);
    EXPECT_EQ(g_allocations, before + 1);
    EXPECT_EQ(line.size, 881u);
    EXPECT_EQ(line.capacity, 881u);
}

TEST(DelayRun, SameLengthKeepsContentsAndPosition)
{
    SampleBlock line;
    const std::vector<float> input = TestSignal(1000, 9);
    Frames f(1000, 44100);
    f.Fill(kSlotSL, input);
    DelayRun(line, 10000, f.pb, f.block.data, kSlotSL);
    EXPECT_EQ(line.position, 1000u % 440u);
    const std::vector<float> ring(line.data, line.data + 440);

    EXPECT_EQ(EmptyRunAllocations(line, 10000), 0u);
    EXPECT_EQ(line.position, 1000u % 440u);
    for (uint32_t i = 0; i < 440; ++i)
        ASSERT_EQ(line.data[i], ring[i]) << "cell " << i;
}

TEST(DelayRun, FramesZeroChangesTheLengthClearsTheRingAndMovesNoSample)
{
    SampleBlock line;
    Frames f(1000, 44100);
    f.Fill(kSlotSL, TestSignal(1000, 10));
    DelayRun(line, 10000, f.pb, f.block.data, kSlotSL);
    ASSERT_NE(line.position, 0u);

    Frames empty(4, 44100);
    const std::vector<float> sentinel = TestSignal(4 * kFrameFloats, 11);
    for (uint32_t i = 0; i < 4 * kFrameFloats; ++i)
        empty.block.data[i] = sentinel[i];
    empty.pb.Frames = 0;
    DelayRun(line, 15000, empty.pb, empty.block.data, kSlotSL);
    EXPECT_EQ(line.size, 661u);
    EXPECT_EQ(line.position, 0u);
    ExpectClearedCells(line, 661);
    for (uint32_t i = 0; i < 4 * kFrameFloats; ++i)
        ASSERT_EQ(empty.block.data[i], sentinel[i]) << "float " << i;
}

// ---- Rate, switches and the gate -------------------------------------------------

TEST(SurroundTail, At32000HzNoLowPassButTheDelayStillRuns)
{
    FreshEngine();
    const FilterState sentinel{0.25f, -0.125f, 0.5f, -0.75f};
    TestEngine().Surround.SurroundFilter[0] = sentinel;
    TestEngine().Surround.SurroundFilter[1] = sentinel;
    constexpr uint32_t kCount = 800;
    Frames f(kCount, 32000);
    f.pb.Surround_Delay = 10;
    const std::vector<float> left = TestSignal(kCount, 12);
    const std::vector<float> right = TestSignal(kCount, 13);
    f.Fill(kSlotSL, left);
    f.Fill(kSlotSR, right);
    SurroundTail(TestEngine().Surround, f.pb);

    // 32000 x k x 10000 = 319.99...: 319 samples.
    const uint32_t n = DelayLength(32000, 10000);
    ASSERT_EQ(n, 319u);
    for (uint32_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(f.at(i, kSlotSL), i < n ? 0.0f : left[i - n]) << "frame " << i;
        ASSERT_EQ(f.at(i, kSlotSR), i < n ? 0.0f : right[i - n]) << "frame " << i;
    }
    for (const FilterState& m : TestEngine().Surround.SurroundFilter)
        EXPECT_TRUE(SameMemory(m, sentinel));
}

TEST(SurroundTail, BothSurroundSwitchesZeroLeaveSlotsFiltersAndRingsStill)
{
    FreshEngine();
    Frames warm(1000, 44100);
    warm.pb.Surround_Delay = 10;
    warm.Fill(kSlotSL, TestSignal(1000, 14));
    warm.Fill(kSlotSR, TestSignal(1000, 15));
    SurroundTail(TestEngine().Surround, warm.pb);
    const uint32_t position0 = TestEngine().Surround.SurroundDelayLine[0].position;
    const uint32_t position1 = TestEngine().Surround.SurroundDelayLine[1].position;
    ASSERT_EQ(position0, 1000u % 440u);
    const FilterState filter0 = TestEngine().Surround.SurroundFilter[0];
    const std::vector<float> ring0(TestEngine().Surround.SurroundDelayLine[0].data,
                                   TestEngine().Surround.SurroundDelayLine[0].data + 440);

    // The decoder has written 0.0 into both surround slots.
    Frames f(500, 44100);
    f.pb.Surround_Delay = 10;
    f.pb.SL = 0;
    f.pb.SR = 0;
    SurroundTail(TestEngine().Surround, f.pb);
    for (uint32_t i = 0; i < 500; ++i) {
        ASSERT_EQ(f.at(i, kSlotSL), 0.0f) << "frame " << i;
        ASSERT_EQ(f.at(i, kSlotSR), 0.0f) << "frame " << i;
    }
    EXPECT_EQ(TestEngine().Surround.SurroundDelayLine[0].position, position0);
    EXPECT_EQ(TestEngine().Surround.SurroundDelayLine[1].position, position1);
    EXPECT_EQ(TestEngine().Surround.SurroundFilter[0].x1, filter0.x1);
    EXPECT_EQ(TestEngine().Surround.SurroundFilter[0].y1, filter0.y1);
    EXPECT_EQ(TestEngine().Surround.SurroundFilter[0].y2, filter0.y2);
    for (uint32_t i = 0; i < 440; ++i)
        ASSERT_EQ(TestEngine().Surround.SurroundDelayLine[0].data[i], ring0[i]) << "cell " << i;
}

TEST(SurroundTail, OnlySrOnCarriesZerosThroughSlot4AndAdvancesItsRing)
{
    FreshEngine();
    constexpr uint32_t kCount = 1000;
    Frames f(kCount, 44100);
    f.pb.Surround_Delay = 10;
    f.pb.SL = 0;
    const std::vector<float> right = TestSignal(kCount, 16);
    f.Fill(kSlotSR, right);  // slot 4 holds the decoder's 0.0
    SurroundTail(TestEngine().Surround, f.pb);

    const std::vector<float> rightLp = LowPassed(right, 44100);
    for (uint32_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(f.at(i, kSlotSL), 0.0f) << "frame " << i;
        ASSERT_EQ(f.at(i, kSlotSR), i < 440 ? 0.0f : rightLp[i - 440]) << "frame " << i;
    }
    EXPECT_EQ(TestEngine().Surround.SurroundDelayLine[0].size, 440u);
    EXPECT_EQ(TestEngine().Surround.SurroundDelayLine[0].position, kCount % 440u);
    EXPECT_EQ(TestEngine().Surround.SurroundDelayLine[1].position, kCount % 440u);
}

TEST(SurroundTail, DelayOffPassesUndelayedAndTheSameDelayBackPlaysTheStaleRing)
{
    FreshEngine();
    constexpr uint32_t kCount = 1000;
    const std::vector<float> first = TestSignal(kCount, 17);
    const std::vector<float> second = TestSignal(kCount, 18);
    const std::vector<float> third = TestSignal(kCount, 19);
    std::vector<float> all = first;
    all.insert(all.end(), second.begin(), second.end());
    all.insert(all.end(), third.begin(), third.end());
    const std::vector<float> lp = LowPassed(all, 44100);  // one filter runs through all three

    Frames a(kCount, 44100);
    a.pb.Surround_Delay = 10;
    a.Fill(kSlotSL, first);
    SurroundTail(TestEngine().Surround, a.pb);
    const uint32_t position = TestEngine().Surround.SurroundDelayLine[0].position;

    Frames b(kCount, 44100);
    b.pb.Surround_Delay = 0;
    b.Fill(kSlotSL, second);
    SurroundTail(TestEngine().Surround, b.pb);
    for (uint32_t i = 0; i < kCount; ++i)
        ASSERT_EQ(b.at(i, kSlotSL), lp[kCount + i]) << "frame " << i;
    EXPECT_EQ(TestEngine().Surround.SurroundDelayLine[0].position, position);

    Frames c(kCount, 44100);
    c.pb.Surround_Delay = 10;
    c.Fill(kSlotSL, third);
    SurroundTail(TestEngine().Surround, c.pb);
    for (uint32_t i = 0; i < kCount; ++i) {
        // The first 440 outputs are the last 440 of the first block, still in the ring.
        const float expected = i < 440 ? lp[kCount - 440 + i] : lp[2 * kCount + i - 440];
        ASSERT_EQ(c.at(i, kSlotSL), expected) << "frame " << i;
    }
}

// ---- Length zero -----------------------------------------------------------------

TEST(DelayRun, LengthZeroAt1000HzAndBelowIsNoDelay)
{
    for (int32_t rate : {1000, 800, 500}) {
        ASSERT_EQ(DelayLength(rate, 1000), 0u) << rate;
        SampleBlock line;
        Frames f(64, rate);
        const std::vector<float> input = TestSignal(64, 20);
        f.Fill(kSlotSL, input);
        DelayRun(line, 1000, f.pb, f.block.data, kSlotSL);
        DelayRun(line, 1000, f.pb, f.block.data, kSlotSL);
        for (uint32_t i = 0; i < 64; ++i)
            ASSERT_EQ(f.at(i, kSlotSL), input[i]) << rate << " Hz, frame " << i;
    }
}

TEST(SurroundTail, OneMsAt1000HzPassesTheSurroundsUnchanged)
{
    FreshEngine();
    Frames f(64, 1000);
    f.pb.Surround_Delay = 1;
    const std::vector<float> left = TestSignal(64, 21);
    const std::vector<float> right = TestSignal(64, 22);
    f.Fill(kSlotSL, left);
    f.Fill(kSlotSR, right);
    SurroundTail(TestEngine().Surround, f.pb);
    for (uint32_t i = 0; i < 64; ++i) {
        ASSERT_EQ(f.at(i, kSlotSL), left[i]) << "frame " << i;
        ASSERT_EQ(f.at(i, kSlotSR), right[i]) << "frame " << i;
    }
}
