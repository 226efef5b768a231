// Replaces the global allocation functions of a test binary so that the tests
// see every call: a running count of allocations, and, while recording, a log
// of each allocation and release with its size and pointer.
//
// The replacements are ordinary (not inline) definitions, as the language
// requires: include this header in exactly one source file of a binary.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#if defined(_WIN32)
#include <malloc.h>
#endif

enum class HeapEventKind { Allocate, Free };

struct HeapEvent {
    HeapEventKind kind;
    void* pointer;
    std::size_t bytes;  // requested bytes of an allocation; 0 for a release
};

// Calls of any global allocation function in this process so far.
inline std::size_t g_allocations = 0;

// A fixed log, so that recording never allocates.
constexpr int kMaxEvents = 64;
inline HeapEvent g_events[kMaxEvents];
inline int g_eventCount = 0;  // events while recording, also those past the log's end
inline bool g_recording = false;

inline void RecordHeapEvent(HeapEventKind kind, void* pointer, std::size_t bytes)
{
    if (!g_recording)
        return;
    if (g_eventCount < kMaxEvents)
        g_events[g_eventCount] = HeapEvent{kind, pointer, bytes};
    ++g_eventCount;
}

// Starts a fresh log.
inline void StartRecording()
{
    g_eventCount = 0;
    g_recording = true;
}

// Stops the log and returns the number of events.
inline int StopRecording()
{
    g_recording = false;
    return g_eventCount;
}

inline void* CountedAllocate(std::size_t bytes)
{
    ++g_allocations;
    // Record the request before trying it, so that a refused request shows too.
    void* p = bytes <= SIZE_MAX - 16 ? std::malloc(bytes == 0 ? 1 : bytes) : nullptr;
    RecordHeapEvent(HeapEventKind::Allocate, p, bytes);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

inline void* CountedAllocateAligned(std::size_t bytes, std::align_val_t align)
{
    ++g_allocations;
    const std::size_t a = std::max(std::size_t(align), sizeof(void*));
#if defined(_WIN32)
    void* p = _aligned_malloc(bytes == 0 ? a : bytes, a);
#else
    void* p = nullptr;
    if (posix_memalign(&p, a, bytes == 0 ? a : bytes) != 0)
        p = nullptr;
#endif
    RecordHeapEvent(HeapEventKind::Allocate, p, bytes);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

inline void CountedFree(void* p)
{
    if (p == nullptr)
        return;
    RecordHeapEvent(HeapEventKind::Free, p, 0);
    std::free(p);
}

inline void CountedFreeAligned(void* p)
{
    if (p == nullptr)
        return;
    RecordHeapEvent(HeapEventKind::Free, p, 0);
#if defined(_WIN32)
    _aligned_free(p);
#else
    std::free(p);
#endif
}

inline void* CountedAllocateNoThrow(std::size_t bytes) noexcept
{
    try {
        return CountedAllocate(bytes);
    } catch (...) {
        return nullptr;
    }
}

void* operator new(std::size_t bytes) { return CountedAllocate(bytes); }
void* operator new[](std::size_t bytes) { return CountedAllocate(bytes); }
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return CountedAllocateNoThrow(bytes); }
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept { return CountedAllocateNoThrow(bytes); }
void* operator new(std::size_t bytes, std::align_val_t align) { return CountedAllocateAligned(bytes, align); }
void* operator new[](std::size_t bytes, std::align_val_t align) { return CountedAllocateAligned(bytes, align); }
void operator delete(void* p) noexcept { CountedFree(p); }
void operator delete[](void* p) noexcept { CountedFree(p); }
void operator delete(void* p, std::size_t) noexcept { CountedFree(p); }
void operator delete[](void* p, std::size_t) noexcept { CountedFree(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { CountedFree(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { CountedFree(p); }
void operator delete(void* p, std::align_val_t) noexcept { CountedFreeAligned(p); }
void operator delete[](void* p, std::align_val_t) noexcept { CountedFreeAligned(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { CountedFreeAligned(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { CountedFreeAligned(p); }
