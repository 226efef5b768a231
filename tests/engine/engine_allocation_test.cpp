// No allocation in the steady state: once the first writes have grown every
// array to its size, a thousand further writes must not touch the heap, in
// any mode. The global allocation functions are replaced in this binary and
// count every call; a test reads the count before and after its writes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "engine/engine.h"
#include "engine/pcm_conversion.h"
#include "signal/processor.h"
#include "tests/support/counting_heap.h"
#include "tests/support/engine_settings.h"
#include "tests/support/pcm_words.h"
#include "tests/support/test_engine.h"

namespace {

// Every stage that the mode has is switched on: delay, bass, width, trims.
void SetSettings(int32_t mode)
{
    SettingsWords s;
    s.Mode = mode;
    s.Surround_Delay = 10;
    s.Centre_Width = 30;
    s.Centre_Trim = -2;
    s.Surround_Trim_00 = 1;
    s.Bass_Redir_Enable = 1;
    s.Bass_Trim = 3;
    ApplySettings(s);
}

// Write sizes, cycled: a host's usual 576 and 1152, single frames, and the
// larger writes of 4096 frames. The warm-up goes through the same cycle.
constexpr uint32_t kWriteSizes[] = {1152, 576, 1, 4096, 1152, 333};
constexpr uint32_t kLargestWrite = 4096;
constexpr int kWarmUpWrites = 24;
constexpr int kCountedWrites = 1000;

std::vector<uint8_t> MakeSource(uint32_t channels)
{
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < kLargestWrite; ++i)
        for (uint32_t k = 0; k < channels; ++k)
            Put16(bytes, int16_t(int((i * (7 + k) + 1000 * k) % 2000) * 15 - 15000));
    return bytes;
}

// Returns the allocations counted over kCountedWrites writes after the warm-up.
std::size_t CountSteadyStateAllocations(int32_t mode, uint32_t channels, int32_t rate, uint32_t outputBits)
{
    EngineReset(TestEngine());
    SetSettings(mode);
    const std::vector<uint8_t> source = MakeSource(channels);
    const StreamWords stream{channels, 16, rate, outputBits};
    int write = 0;
    for (; write < kWarmUpWrites; ++write) {
        uint32_t frames = kWriteSizes[write % 6];
        ConvertWholeFrames(TestEngine(), TestSettings(), stream, source.data(), frames);
    }
    const std::size_t before = g_allocations;
    for (int counted = 0; counted < kCountedWrites; ++counted, ++write) {
        uint32_t frames = kWriteSizes[write % 6];
        ConvertWholeFrames(TestEngine(), TestSettings(), stream, source.data(), frames);
    }
    return g_allocations - before;
}

TEST(SteadyState, CountingSeesTheFirstWriteAllocate)
{
    // The check of the count itself: blocks released as at load must grow again.
    TestEngine().FrameBlock.Release();
    TestEngine().PcmBlock.Release();
    SetSettings(0);
    const std::vector<uint8_t> source = MakeSource(2);
    const std::size_t before = g_allocations;
    uint32_t frames = 576;
    ConvertWholeFrames(TestEngine(), TestSettings(), StreamWords{2, 16, 44100, 16}, source.data(), frames);
    EXPECT_GE(g_allocations - before, 2u);
}

TEST(SteadyState, Bypass_NoAllocation)
{
    EXPECT_EQ(CountSteadyStateAllocations(0, 2, 44100, 16), 0u);
    EXPECT_EQ(CountSteadyStateAllocations(0, 6, 44100, 24), 0u);
}

TEST(SteadyState, FixedMatrix_NoAllocation)
{
    EXPECT_EQ(CountSteadyStateAllocations(1, 2, 44100, 16), 0u);
    EXPECT_EQ(CountSteadyStateAllocations(1, 6, 44100, 16), 0u);
}

TEST(SteadyState, SteeredOneSurround_NoAllocation)
{
    EXPECT_EQ(CountSteadyStateAllocations(2, 2, 44100, 16), 0u);
    EXPECT_EQ(CountSteadyStateAllocations(2, 6, 44100, 16), 0u);
}

TEST(SteadyState, SteeredTwoSurrounds_NoAllocation)
{
    EXPECT_EQ(CountSteadyStateAllocations(3, 2, 48000, 32), 0u);
    EXPECT_EQ(CountSteadyStateAllocations(3, 6, 44100, 16), 0u);
}

TEST(SteadyState, Headphone_NoAllocation)
{
    EXPECT_EQ(CountSteadyStateAllocations(4, 2, 44100, 16), 0u);
    EXPECT_EQ(CountSteadyStateAllocations(4, 6, 44100, 16), 0u);
}

TEST(SteadyState, Encode_NoAllocation)
{
    EXPECT_EQ(CountSteadyStateAllocations(5, 2, 44100, 16), 0u);
    EXPECT_EQ(CountSteadyStateAllocations(5, 6, 44100, 16), 0u);
    EXPECT_EQ(CountSteadyStateAllocations(5, 4, 44100, 16), 0u);
    EXPECT_EQ(CountSteadyStateAllocations(5, 5, 44100, 16), 0u);
}

TEST(SteadyState, OtherSources_NoAllocation)
{
    EXPECT_EQ(CountSteadyStateAllocations(2, 1, 44100, 16), 0u);
    EXPECT_EQ(CountSteadyStateAllocations(7, 2, 44100, 16), 0u);
    EXPECT_EQ(CountSteadyStateAllocations(4, 2, 32000, 16), 0u);
}

}  // namespace
