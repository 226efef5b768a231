// PCM words for the conversion tests: little-endian source samples put into
// a byte stream, output samples read back from the engine's PcmBlock, and the output word
// of a float spelled out from the scale factors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "engine/pcm_conversion.h"
#include "tests/support/test_engine.h"

inline void Put8(std::vector<uint8_t>& bytes, uint8_t value) { bytes.push_back(value); }

inline void Put16(std::vector<uint8_t>& bytes, int16_t value)
{
    const uint16_t u = uint16_t(value);
    bytes.push_back(uint8_t(u & 0xFF));
    bytes.push_back(uint8_t(u >> 8));
}

// A 24-bit sample given as its signed value in -8388608..8388607.
inline void Put24(std::vector<uint8_t>& bytes, int32_t value)
{
    const uint32_t u = uint32_t(value);
    bytes.push_back(uint8_t(u & 0xFF));
    bytes.push_back(uint8_t((u >> 8) & 0xFF));
    bytes.push_back(uint8_t((u >> 16) & 0xFF));
}

inline void Put32(std::vector<uint8_t>& bytes, int32_t value)
{
    const uint32_t u = uint32_t(value);
    for (int shift = 0; shift < 32; shift += 8)
        bytes.push_back(uint8_t((u >> shift) & 0xFF));
}

inline const uint8_t* PcmBytes() { return reinterpret_cast<const uint8_t*>(TestEngine().PcmBlock.data); }

// Sample `slot` of output frame `frame`, sign-extended from the word size.
inline int32_t OutputSample(uint32_t outputBits, uint32_t frame, uint32_t slot)
{
    const uint8_t* b = PcmBytes() + std::size_t(frame * 6 + slot) * (outputBits / 8);
    switch (outputBits) {
    case 16:
        return int16_t(uint16_t(b[0] | (b[1] << 8)));
    case 24: {
        const uint32_t u = uint32_t(b[0]) | (uint32_t(b[1]) << 8) | (uint32_t(b[2]) << 16);
        return (u & 0x800000u) ? int32_t(u) - 0x1000000 : int32_t(u);
    }
    default: {
        const uint32_t u = uint32_t(b[0]) | (uint32_t(b[1]) << 8) | (uint32_t(b[2]) << 16) |
                           (uint32_t(b[3]) << 24);
        return int32_t(u);
    }
    }
}

// The output word of a float as the conversion must make it, spelled out:
// single-precision product, truncation toward zero, 0x80000000 for anything
// outside the signed 32-bit range or NaN, then the low bytes kept.
inline int32_t ExpectedWord(float value, uint32_t outputBits)
{
    const float scale = outputBits == 16 ? 27852.80078125f
                      : outputBits == 24 ? 7130317.0f
                                         : 1825361152.0f;
    const float product = value * scale;
    int32_t whole;
    if (!(product >= -2147483648.0f && product < 2147483648.0f))
        whole = std::numeric_limits<int32_t>::min();
    else
        whole = int32_t(product);  // C++ conversion truncates toward zero
    if (outputBits == 16)
        return int16_t(uint16_t(uint32_t(whole) & 0xFFFFu));
    if (outputBits == 24) {
        const uint32_t u = uint32_t(whole) & 0xFFFFFFu;
        return (u & 0x800000u) ? int32_t(u) - 0x1000000 : int32_t(u);
    }
    return whole;
}
