// No allocation in the steady state: once the first writes have grown every
// array to its size, a thousand further writes must not touch the heap, in
// any mode. The global allocation functions are replaced in this binary and
// count every call made while the count is switched on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#if defined(_WIN32)
#include <malloc.h>
#endif

#include "signal/engine_state.h"
#include "signal/pcm_conversion.h"
#include "signal/processor.h"

namespace {

bool g_counting = false;
std::size_t g_allocations = 0;

void* CountedAllocate(std::size_t bytes)
{
    if (g_counting)
        ++g_allocations;
    void* p = std::malloc(bytes == 0 ? 1 : bytes);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

void* CountedAllocateAligned(std::size_t bytes, std::align_val_t align)
{
    if (g_counting)
        ++g_allocations;
    const std::size_t a = std::max(std::size_t(align), sizeof(void*));
#if defined(_WIN32)
    void* p = _aligned_malloc(bytes == 0 ? a : bytes, a);
    if (p == nullptr)
        throw std::bad_alloc();
#else
    void* p = nullptr;
    if (posix_memalign(&p, a, bytes == 0 ? a : bytes) != 0)
        throw std::bad_alloc();
#endif
    return p;
}

}  // namespace

void* operator new(std::size_t bytes) { return CountedAllocate(bytes); }
void* operator new[](std::size_t bytes) { return CountedAllocate(bytes); }
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept
{
    try {
        return CountedAllocate(bytes);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept
{
    try {
        return CountedAllocate(bytes);
    } catch (...) {
        return nullptr;
    }
}
void* operator new(std::size_t bytes, std::align_val_t align) { return CountedAllocateAligned(bytes, align); }
void* operator new[](std::size_t bytes, std::align_val_t align) { return CountedAllocateAligned(bytes, align); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
namespace {
void FreeAligned(void* p)
{
#if defined(_WIN32)
    _aligned_free(p);
#else
    std::free(p);
#endif
}
}  // namespace
void operator delete(void* p, std::align_val_t) noexcept { FreeAligned(p); }
void operator delete[](void* p, std::align_val_t) noexcept { FreeAligned(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { FreeAligned(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { FreeAligned(p); }

namespace {

void SetSettings(int32_t mode)
{
    std::memset(&ProcessorSettings, 0, sizeof(ProcessorSettings));
    const char16_t path[] = u"out_ds.dll";
    for (std::size_t i = 0; i < sizeof(path) / sizeof(path[0]); ++i)
        ProcessorSettings.Out_Plug[i] = WideChar(path[i]);
    // Every stage that the mode has is switched on: delay, bass, width, trims.
    ProcessorSettings.Mode = mode;
    ProcessorSettings.Out_Bits = 16;
    ProcessorSettings.Surround_Delay = 10;
    ProcessorSettings.Centre_Width = 30;
    ProcessorSettings.Centre_Trim = -2;
    ProcessorSettings.Surround_Trim_00 = 1;
    ProcessorSettings.Bass_Redir = 120;
    ProcessorSettings.Bass_Redir_Enable = 1;
    ProcessorSettings.Bass_Trim = 3;
    ProcessorSettings.Bass_Invert = 0;
    ProcessorSettings.Virtual_C = 0;
    ProcessorSettings.L = 1;
    ProcessorSettings.R = 1;
    ProcessorSettings.C = 1;
    ProcessorSettings.SL = 1;
    ProcessorSettings.SR = 1;
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
        for (uint32_t k = 0; k < channels; ++k) {
            const int16_t v = int16_t(int((i * (7 + k) + 1000 * k) % 2000) * 15 - 15000);
            bytes.push_back(uint8_t(uint16_t(v) & 0xFF));
            bytes.push_back(uint8_t(uint16_t(v) >> 8));
        }
    return bytes;
}

// Returns the allocations counted over kCountedWrites writes after the warm-up.
std::size_t CountSteadyStateAllocations(int32_t mode, uint32_t channels, int32_t rate, uint32_t outputBits)
{
    EngineReset();
    SetSettings(mode);
    const std::vector<uint8_t> source = MakeSource(channels);
    const StreamWords stream{channels, 16, rate, outputBits};
    int write = 0;
    for (; write < kWarmUpWrites; ++write) {
        uint32_t frames = kWriteSizes[write % 6];
        ConvertAndProcess(stream, source.data(), frames);
    }
    g_allocations = 0;
    g_counting = true;
    for (int counted = 0; counted < kCountedWrites; ++counted, ++write) {
        uint32_t frames = kWriteSizes[write % 6];
        ConvertAndProcess(stream, source.data(), frames);
    }
    g_counting = false;
    return g_allocations;
}

TEST(SteadyState, CountingSeesTheFirstWriteAllocate)
{
    // The check of the count itself: blocks released as at load must grow again.
    FrameBlock.Release();
    PcmBlock.Release();
    SetSettings(0);
    const std::vector<uint8_t> source = MakeSource(2);
    g_allocations = 0;
    g_counting = true;
    uint32_t frames = 576;
    ConvertAndProcess(StreamWords{2, 16, 44100, 16}, source.data(), frames);
    g_counting = false;
    EXPECT_GE(g_allocations, 2u);
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
