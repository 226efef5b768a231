// SampleBlock: the growable float array in which all audio, scratch data and
// spectra of the engine live.
//
// The growth rule is what keeps the write path free of allocation: an array
// only ever grows, to exactly the size asked for, and once it is large enough
// a resize only moves two words. Contents survive or not exactly as stated at
// each operation; several stages rely on stale floats behind `size`.
#pragma once

#include <cstdint>

struct SampleBlock {
    float* data;        // first float of the array; null while nothing was ever allocated
    uint32_t size;      // floats in use (PcmBlock: four-byte units)
    uint32_t capacity;  // floats allocated; only ever grows
    uint32_t position;  // cursor in floats; read only by the delay line, else just set to 0

    constexpr SampleBlock() : data(nullptr), size(0), capacity(0), position(0) {}
    ~SampleBlock() { Release(); }
    SampleBlock(const SampleBlock&) = delete;
    SampleBlock& operator=(const SampleBlock&) = delete;

    // Sets `size` to n and `position` to 0. Reallocates (free first, then
    // allocate exactly n floats, old contents lost) only when n exceeds the
    // capacity; otherwise the array and every float in it stay. With `clear`
    // the first n floats become 0.0.
    float* Resize(uint32_t n, bool clear);
    // Appends n floats of 0.0 behind `size`, keeping the contents (allocate,
    // copy, then free when the capacity is short). `position` is untouched.
    void Extend(uint32_t n);
    // Sets the first `size` floats to 0.0 when there is an array.
    void Zero();
    // Frees the array and sets all four words to 0. Harmless when empty.
    void Release();

    float* Data() const { return data; }
    uint32_t Size() const { return size; }
};

// Allocates n floats with the 32-bit byte-count guard: when 4n does not fit
// in 32 bits the request is made for the largest size and so fails.
float* AllocateFloats(uint32_t n);
