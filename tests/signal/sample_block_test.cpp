// SampleBlock growth rules, the Frame6 layout and the field order of the
// records that carry a write (ProcessorBlock, ProcessorSettingsRecord).
//
// The global allocation functions are replaced in this binary so that every
// allocation and release made by a block is seen: its size, its pointer, and
// whether the old array was freed before or after the new one was taken.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

#include "signal/frame.h"
#include "signal/processor.h"
#include "signal/sample_block.h"
#include "tests/support/counting_heap.h"
#include "tests/support/test_engine.h"

namespace {

// A block with `n` floats allocated, filled with 1000 + index, size n.
void FillRamp(SampleBlock& block, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i)
        block.data[i] = 1000.0f + float(i);
}

// Floats [first, end) hold the ramp of FillRamp.
void ExpectRamp(const SampleBlock& block, uint32_t first, uint32_t end)
{
    for (uint32_t i = first; i < end; ++i)
        EXPECT_EQ(block.data[i], 1000.0f + float(i)) << "float " << i;
}

// Floats [first, end) are zero.
void ExpectZeros(const SampleBlock& block, uint32_t first, uint32_t end)
{
    for (uint32_t i = first; i < end; ++i)
        EXPECT_EQ(block.data[i], 0.0f) << "float " << i;
}

// All four words as a block without an array has them.
void ExpectNoArray(const SampleBlock& block)
{
    EXPECT_EQ(block.data, nullptr);
    EXPECT_EQ(block.size, 0u);
    EXPECT_EQ(block.capacity, 0u);
    EXPECT_EQ(block.position, 0u);
}

}  // namespace

// ---------------------------------------------------------------------------
// Resize

TEST(SampleBlock, Construction_AllFourWordsZero)
{
    SampleBlock block;
    ExpectNoArray(block);
    EXPECT_EQ(block.Data(), nullptr);
    EXPECT_EQ(block.Size(), 0u);
}

TEST(SampleBlock, Resize_ZeroOnEmptyBlockAllocatesNothingAndReturnsNull)
{
    SampleBlock block;
    StartRecording();
    float* result = block.Resize(0, false);
    const int events = StopRecording();
    EXPECT_EQ(events, 0);
    EXPECT_EQ(result, nullptr);
    ExpectNoArray(block);
}

TEST(SampleBlock, Resize_FirstAllocationIsExactlyNFloats)
{
    SampleBlock block;
    StartRecording();
    float* result = block.Resize(100, false);
    const int events = StopRecording();
    ASSERT_EQ(events, 1);
    EXPECT_EQ(g_events[0].kind, HeapEventKind::Allocate);
    EXPECT_EQ(g_events[0].bytes, 400u);
    EXPECT_EQ(g_events[0].pointer, static_cast<void*>(result));
    EXPECT_EQ(block.data, result);
    EXPECT_EQ(block.Data(), result);
    EXPECT_EQ(block.size, 100u);
    EXPECT_EQ(block.Size(), 100u);
    EXPECT_EQ(block.capacity, 100u);
    EXPECT_EQ(block.position, 0u);
}

TEST(SampleBlock, Resize_ShrinkAndGrowKeepsStaleFloats)
{
    SampleBlock block;
    block.Resize(100, false);
    FillRamp(block, 100);
    float* const array = block.data;

    StartRecording();
    float* shrunk = block.Resize(50, false);
    float* grown = block.Resize(100, false);
    const int events = StopRecording();

    EXPECT_EQ(events, 0);
    EXPECT_EQ(shrunk, array);
    EXPECT_EQ(grown, array);
    EXPECT_EQ(block.size, 100u);
    EXPECT_EQ(block.capacity, 100u);
    ExpectRamp(block, 0, 100);
}

TEST(SampleBlock, Resize_ShrinkKeepsFloatsBeyondN)
{
    SampleBlock block;
    block.Resize(10, false);
    FillRamp(block, 10);
    block.Resize(4, false);
    EXPECT_EQ(block.size, 4u);
    EXPECT_EQ(block.capacity, 10u);
    ExpectRamp(block, 0, 10);
}

TEST(SampleBlock, Resize_AboveCapacityFreesOldArrayThenAllocatesExactlyN)
{
    SampleBlock block;
    block.Resize(100, false);
    float* const old = block.data;
    block.position = 7;

    StartRecording();
    float* result = block.Resize(101, false);
    const int events = StopRecording();

    // Free first, then allocate: the old contents are not copied.
    ASSERT_EQ(events, 2);
    EXPECT_EQ(g_events[0].kind, HeapEventKind::Free);
    EXPECT_EQ(g_events[0].pointer, static_cast<void*>(old));
    EXPECT_EQ(g_events[1].kind, HeapEventKind::Allocate);
    EXPECT_EQ(g_events[1].bytes, 404u);
    EXPECT_EQ(g_events[1].pointer, static_cast<void*>(result));
    EXPECT_EQ(block.data, result);
    EXPECT_EQ(block.size, 101u);
    EXPECT_EQ(block.capacity, 101u);
    EXPECT_EQ(block.position, 0u);
}

TEST(SampleBlock, Resize_AboveCapacityWithClearGivesZeros)
{
    SampleBlock block;
    block.Resize(8, false);
    FillRamp(block, 8);
    block.Resize(64, true);
    EXPECT_EQ(block.capacity, 64u);
    ExpectZeros(block, 0, 64);
}

TEST(SampleBlock, Resize_SizeBelowNButCapacityEnoughDoesNotAllocate)
{
    SampleBlock block;
    block.Resize(100, false);
    block.Resize(10, false);
    StartRecording();
    block.Resize(100, false);
    EXPECT_EQ(StopRecording(), 0);
    EXPECT_EQ(block.capacity, 100u);
}

TEST(SampleBlock, Resize_SameNResetsPosition)
{
    SampleBlock block;
    block.Resize(32, false);
    FillRamp(block, 32);
    block.position = 17;

    StartRecording();
    block.Resize(32, false);
    EXPECT_EQ(StopRecording(), 0);

    EXPECT_EQ(block.position, 0u);
    EXPECT_EQ(block.size, 32u);
    ExpectRamp(block, 0, 32);
}

TEST(SampleBlock, Resize_SameNWithClearStillClears)
{
    SampleBlock block;
    block.Resize(32, false);
    FillRamp(block, 32);
    block.position = 5;
    block.Resize(32, true);
    EXPECT_EQ(block.position, 0u);
    ExpectZeros(block, 0, 32);
}

TEST(SampleBlock, Resize_ClearSetsOnlyTheFirstNFloats)
{
    SampleBlock block;
    block.Resize(40, false);
    FillRamp(block, 40);
    block.Resize(10, true);
    EXPECT_EQ(block.size, 10u);
    ExpectZeros(block, 0, 10);
    ExpectRamp(block, 10, 40);
}

TEST(SampleBlock, Resize_ByteCountBeyond32BitsFails)
{
    // 4 x 0x40000001 wraps to 4 in 32 bits; the guard must not let that through.
    SampleBlock block;
    StartRecording();
    EXPECT_THROW(block.Resize(0x40000001u, false), std::bad_alloc);
    const int events = StopRecording();
    ASSERT_GE(events, 1);
    EXPECT_EQ(g_events[0].kind, HeapEventKind::Allocate);
    EXPECT_GE(g_events[0].bytes, std::size_t(0xFFFFFFFFu));
}

TEST(SampleBlock, AllocateFloats_OverflowingByteCountAsksForTheLargestSize)
{
    StartRecording();
    EXPECT_THROW(AllocateFloats(0x40000000u), std::bad_alloc);
    const int events = StopRecording();
    ASSERT_EQ(events, 1);
    EXPECT_EQ(g_events[0].kind, HeapEventKind::Allocate);
    EXPECT_EQ(g_events[0].bytes, SIZE_MAX);
}

TEST(SampleBlock, AllocateFloats_AsksForFourBytesPerFloat)
{
    StartRecording();
    float* p = AllocateFloats(12345);
    const int events = StopRecording();
    ASSERT_EQ(events, 1);
    EXPECT_EQ(g_events[0].bytes, 4u * 12345u);
    ::operator delete(p);
}

// ---------------------------------------------------------------------------
// Extend

TEST(SampleBlock, Extend_ToExactCapacityDoesNotAllocate)
{
    SampleBlock block;
    block.Resize(100, false);
    FillRamp(block, 100);
    block.Resize(60, false);
    float* const array = block.data;

    StartRecording();
    block.Extend(40);
    EXPECT_EQ(StopRecording(), 0);

    EXPECT_EQ(block.data, array);
    EXPECT_EQ(block.size, 100u);
    EXPECT_EQ(block.capacity, 100u);
    ExpectRamp(block, 0, 60);
    ExpectZeros(block, 60, 100);
}

TEST(SampleBlock, Extend_OnePastCapacityAllocatesExactlyAndKeepsContents)
{
    SampleBlock block;
    block.Resize(100, false);
    FillRamp(block, 100);
    block.Resize(60, false);
    float* const old = block.data;

    StartRecording();
    block.Extend(41);
    const int events = StopRecording();

    // Allocate, copy, then free: the other way round from Resize.
    ASSERT_EQ(events, 2);
    EXPECT_EQ(g_events[0].kind, HeapEventKind::Allocate);
    EXPECT_EQ(g_events[0].bytes, 4u * 101u);
    EXPECT_EQ(g_events[1].kind, HeapEventKind::Free);
    EXPECT_EQ(g_events[1].pointer, static_cast<void*>(old));
    EXPECT_EQ(block.data, g_events[0].pointer);
    EXPECT_EQ(block.size, 101u);
    EXPECT_EQ(block.capacity, 101u);
    ExpectRamp(block, 0, 60);
    ExpectZeros(block, 60, 101);
}

TEST(SampleBlock, Extend_OnEmptyBlockAllocatesZeros)
{
    SampleBlock block;
    StartRecording();
    block.Extend(12);
    const int events = StopRecording();
    ASSERT_EQ(events, 1);
    EXPECT_EQ(g_events[0].kind, HeapEventKind::Allocate);
    EXPECT_EQ(g_events[0].bytes, 48u);
    EXPECT_EQ(block.size, 12u);
    EXPECT_EQ(block.capacity, 12u);
    ExpectZeros(block, 0, 12);
}

TEST(SampleBlock, Extend_LeavesPositionAsItWas)
{
    SampleBlock block;
    block.Resize(20, false);
    block.position = 9;
    block.Extend(5);  // 25 floats exceed the capacity of 20: this one allocates
    EXPECT_EQ(block.position, 9u);
    block.Resize(10, false);
    block.position = 3;
    block.Extend(5);  // 15 floats fit in 25: no allocation
    EXPECT_EQ(block.position, 3u);
}

TEST(SampleBlock, Extend_ZeroFloatsChangesNothing)
{
    SampleBlock block;
    block.Resize(10, false);
    FillRamp(block, 10);
    block.position = 4;
    StartRecording();
    block.Extend(0);
    EXPECT_EQ(StopRecording(), 0);
    EXPECT_EQ(block.size, 10u);
    EXPECT_EQ(block.capacity, 10u);
    EXPECT_EQ(block.position, 4u);
    ExpectRamp(block, 0, 10);
}

// ---------------------------------------------------------------------------
// Zero and Release

TEST(SampleBlock, Zero_ClearsSizeFloatsAndLeavesPositionAndStaleFloats)
{
    SampleBlock block;
    block.Resize(30, false);
    FillRamp(block, 30);
    block.Resize(20, false);
    block.position = 11;

    StartRecording();
    block.Zero();
    EXPECT_EQ(StopRecording(), 0);

    EXPECT_EQ(block.position, 11u);
    EXPECT_EQ(block.size, 20u);
    EXPECT_EQ(block.capacity, 30u);
    ExpectZeros(block, 0, 20);
    ExpectRamp(block, 20, 30);
}

TEST(SampleBlock, Zero_OnNullDataDoesNothing)
{
    SampleBlock block;
    StartRecording();
    block.Zero();
    EXPECT_EQ(StopRecording(), 0);
    ExpectNoArray(block);
}

TEST(SampleBlock, Release_FreesTheArrayAndZeroesAllFourWords)
{
    SampleBlock block;
    block.Resize(16, false);
    block.position = 3;
    float* const array = block.data;

    StartRecording();
    block.Release();
    const int events = StopRecording();

    ASSERT_EQ(events, 1);
    EXPECT_EQ(g_events[0].kind, HeapEventKind::Free);
    EXPECT_EQ(g_events[0].pointer, static_cast<void*>(array));
    ExpectNoArray(block);
}

TEST(SampleBlock, Release_TwiceIsHarmless)
{
    SampleBlock block;
    block.Resize(16, false);
    block.Release();
    StartRecording();
    block.Release();
    EXPECT_EQ(StopRecording(), 0);
    ExpectNoArray(block);
}

TEST(SampleBlock, Release_BlockCanBeUsedAnew)
{
    SampleBlock block;
    block.Resize(16, false);
    block.Release();
    StartRecording();
    block.Resize(8, true);
    const int events = StopRecording();
    ASSERT_EQ(events, 1);
    EXPECT_EQ(g_events[0].bytes, 32u);
    EXPECT_EQ(block.capacity, 8u);
    ExpectZeros(block, 0, 8);
}

TEST(SampleBlock, Destructor_ReleasesTheArray)
{
    void* array = nullptr;
    StartRecording();
    {
        SampleBlock block;
        block.Resize(4, false);
        array = block.data;
    }
    const int events = StopRecording();
    ASSERT_EQ(events, 2);
    EXPECT_EQ(g_events[1].kind, HeapEventKind::Free);
    EXPECT_EQ(g_events[1].pointer, array);
}

// ---------------------------------------------------------------------------
// Record layouts

TEST(SampleBlockLayout, FourWordsInOrder)
{
    static_assert(std::is_standard_layout_v<SampleBlock>);
    static_assert(std::is_same_v<decltype(SampleBlock::data), float*>);
    static_assert(std::is_same_v<decltype(SampleBlock::size), uint32_t>);
    static_assert(std::is_same_v<decltype(SampleBlock::capacity), uint32_t>);
    static_assert(std::is_same_v<decltype(SampleBlock::position), uint32_t>);
    EXPECT_EQ(offsetof(SampleBlock, data), 0u);
    EXPECT_EQ(offsetof(SampleBlock, size), sizeof(float*));
    EXPECT_EQ(offsetof(SampleBlock, capacity), sizeof(float*) + 4);
    EXPECT_EQ(offsetof(SampleBlock, position), sizeof(float*) + 8);
    EXPECT_FALSE(std::is_polymorphic_v<SampleBlock>);
}

TEST(Frame6Layout, SixFloatsInSpeakerOrder)
{
    static_assert(std::is_standard_layout_v<Frame6>);
    EXPECT_EQ(sizeof(Frame6), 24u);
    EXPECT_EQ(offsetof(Frame6, L), 0u);
    EXPECT_EQ(offsetof(Frame6, R), 4u);
    EXPECT_EQ(offsetof(Frame6, C), 8u);
    EXPECT_EQ(offsetof(Frame6, LFE), 12u);
    EXPECT_EQ(offsetof(Frame6, SL), 16u);
    EXPECT_EQ(offsetof(Frame6, SR), 20u);
    EXPECT_EQ(kFrameFloats, 6u);
    EXPECT_EQ(kSlotL, 0u);
    EXPECT_EQ(kSlotR, 1u);
    EXPECT_EQ(kSlotC, 2u);
    EXPECT_EQ(kSlotLFE, 3u);
    EXPECT_EQ(kSlotSL, 4u);
    EXPECT_EQ(kSlotSR, 5u);
}

TEST(Frame6Layout, SlotSOfFrameIIsFloat6IPlusS)
{
    Frame6 frames[3];
    for (int i = 0; i < 3; ++i)
        frames[i] = Frame6{10.0f * float(i) + 0.0f, 10.0f * float(i) + 1.0f, 10.0f * float(i) + 2.0f,
                           10.0f * float(i) + 3.0f, 10.0f * float(i) + 4.0f, 10.0f * float(i) + 5.0f};
    float flat[18];
    std::memcpy(flat, frames, sizeof(flat));
    for (int i = 0; i < 3; ++i)
        for (int s = 0; s < 6; ++s)
            EXPECT_EQ(flat[6 * i + s], 10.0f * float(i) + float(s)) << "frame " << i << " slot " << s;
}

TEST(ProcessorBlockLayout, TwentyFieldsInOrder)
{
    static_assert(std::is_standard_layout_v<ProcessorBlock>);
    static_assert(std::is_same_v<decltype(ProcessorBlock::Mode), int32_t>);
    static_assert(std::is_same_v<decltype(ProcessorBlock::Surround_Trim_00), int32_t>);
    static_assert(std::is_same_v<decltype(ProcessorBlock::Out_Channels), int32_t>);
    static_assert(std::is_same_v<decltype(ProcessorBlock::In_Channels), int32_t>);
    static_assert(std::is_same_v<decltype(ProcessorBlock::Sample_Rate), int32_t>);
    static_assert(std::is_same_v<decltype(ProcessorBlock::Frames), uint32_t>);
    static_assert(std::is_same_v<decltype(ProcessorBlock::Block), SampleBlock*>);

    const std::size_t offsets[19] = {
        offsetof(ProcessorBlock, Mode),
        offsetof(ProcessorBlock, Surround_Delay),
        offsetof(ProcessorBlock, Centre_Width),
        offsetof(ProcessorBlock, Centre_Trim),
        offsetof(ProcessorBlock, Surround_Trim_00),
        offsetof(ProcessorBlock, Bass_Redir),
        offsetof(ProcessorBlock, Bass_Redir_Enable),
        offsetof(ProcessorBlock, Bass_Trim),
        offsetof(ProcessorBlock, Bass_Invert),
        offsetof(ProcessorBlock, Virtual_C),
        offsetof(ProcessorBlock, L),
        offsetof(ProcessorBlock, R),
        offsetof(ProcessorBlock, C),
        offsetof(ProcessorBlock, SL),
        offsetof(ProcessorBlock, SR),
        offsetof(ProcessorBlock, Out_Channels),
        offsetof(ProcessorBlock, In_Channels),
        offsetof(ProcessorBlock, Sample_Rate),
        offsetof(ProcessorBlock, Frames),
    };
    for (std::size_t i = 0; i < 19; ++i)
        EXPECT_EQ(offsets[i], 4 * i) << "field " << i;
    // The pointer follows the nineteen words, at the next place its alignment allows.
    const std::size_t align = alignof(SampleBlock*);
    EXPECT_EQ(offsetof(ProcessorBlock, Block), (76 + align - 1) / align * align);
}

TEST(ProcessorSettingsLayout, PathThenSixteenWordsInOrder)
{
    static_assert(std::is_standard_layout_v<ProcessorSettingsRecord>);
    EXPECT_EQ(sizeof(WideChar), 2u);
    EXPECT_EQ(offsetof(ProcessorSettingsRecord, Out_Plug), 0u);
    EXPECT_EQ(sizeof(ProcessorSettingsRecord::Out_Plug), 256u * 2u);

    const std::size_t offsets[16] = {
        offsetof(ProcessorSettingsRecord, Mode),
        offsetof(ProcessorSettingsRecord, Out_Bits),
        offsetof(ProcessorSettingsRecord, Surround_Delay),
        offsetof(ProcessorSettingsRecord, Centre_Width),
        offsetof(ProcessorSettingsRecord, Centre_Trim),
        offsetof(ProcessorSettingsRecord, Surround_Trim_00),
        offsetof(ProcessorSettingsRecord, Bass_Redir),
        offsetof(ProcessorSettingsRecord, Bass_Redir_Enable),
        offsetof(ProcessorSettingsRecord, Bass_Trim),
        offsetof(ProcessorSettingsRecord, Bass_Invert),
        offsetof(ProcessorSettingsRecord, Virtual_C),
        offsetof(ProcessorSettingsRecord, L),
        offsetof(ProcessorSettingsRecord, R),
        offsetof(ProcessorSettingsRecord, C),
        offsetof(ProcessorSettingsRecord, SL),
        offsetof(ProcessorSettingsRecord, SR),
    };
    for (std::size_t i = 0; i < 16; ++i)
        EXPECT_EQ(offsets[i], 512 + 4 * i) << "word " << i;
    EXPECT_EQ(sizeof(ProcessorSettingsRecord), 512u + 64u);
    static_assert(std::is_same_v<decltype(ProcessorSettingsRecord::Mode), int32_t>);
    static_assert(std::is_same_v<decltype(ProcessorSettingsRecord::SR), int32_t>);
}

TEST(ProcessorSettingsLayout, AllZeroAtLibraryLoad)
{
    // Nothing in this binary writes the settings, so they are as loaded.
    unsigned char bytes[sizeof(ProcessorSettingsRecord)];
    std::memcpy(bytes, &TestSettings(), sizeof(bytes));
    for (std::size_t i = 0; i < sizeof(bytes); ++i)
        EXPECT_EQ(bytes[i], 0u) << "byte " << i;
}
