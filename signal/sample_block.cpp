// SampleBlock operations. Allocation goes through the global operator new so
// that a failure ends in std::bad_alloc, which nothing in the system catches.
#include "signal/sample_block.h"

#include <cstddef>
#include <cstring>
#include <new>

float* AllocateFloats(uint32_t n)
{
    const uint64_t bytes = uint64_t(n) * 4u;
    // A byte count beyond 32 bits asks for the impossible, so the request fails.
    const std::size_t request = bytes > 0xFFFFFFFFu ? SIZE_MAX : std::size_t(bytes);
    return static_cast<float*>(::operator new(request));
}

static void FreeFloats(float* p)
{
    ::operator delete(p);
}

float* SampleBlock::Resize(uint32_t n, bool clear)
{
    if (size < n && capacity < n) {
        // Free before allocating: the old contents are lost, not copied. Should
        // the allocation throw, `data` still names the freed array; there is
        // no recovery from a failed allocation.
        if (data != nullptr)
            FreeFloats(data);
        data = AllocateFloats(n);
        capacity = n;
    }
    if (clear && n != 0)
        std::memset(data, 0, std::size_t(n) * sizeof(float));
    size = n;
    position = 0;
    return data;
}

void SampleBlock::Extend(uint32_t n)
{
    const uint32_t grown = size + n;
    if (grown > capacity) {
        // Allocate before freeing, since the present floats are copied over.
        float* fresh = AllocateFloats(grown);
        if (size != 0)
            std::memcpy(fresh, data, std::size_t(size) * sizeof(float));
        capacity = grown;
        if (data != nullptr)
            FreeFloats(data);
        data = fresh;
    }
    if (n != 0)
        std::memset(data + size, 0, std::size_t(n) * sizeof(float));
    size = grown;
}

void SampleBlock::Zero()
{
    if (data != nullptr && size != 0)
        std::memset(data, 0, std::size_t(size) * sizeof(float));
}

void SampleBlock::Release()
{
    if (data != nullptr)
        FreeFloats(data);
    data = nullptr;
    size = 0;
    capacity = 0;
    position = 0;
}
