// RIFF/WAVE headers for integer PCM.
//
// Mono and stereo of 8 or 16 bits get the plain 16-byte format chunk; every
// other layout gets WAVE_FORMAT_EXTENSIBLE with a speaker mask, so that a
// six-channel file says L, R, C, LFE, SL, SR (0x3F) to whoever reads it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

struct WavFormat {
    uint32_t rate;      // frames per second
    uint16_t channels;  // interleaved channels per frame
    uint16_t bits;      // 8, 16, 24 or 32; 8 is unsigned, the others signed little-endian
};

constexpr uint16_t kWaveFormatPcm = 0x0001;
constexpr uint16_t kWaveFormatExtensible = 0xFFFE;
constexpr uint32_t kSixChannelMask = 0x3F;  // FL, FR, FC, LFE, BL, BR

// Largest data chunk that the 32-bit RIFF sizes can describe.
constexpr uint64_t kMaxWavDataBytes = 0xFFFFFFFFull - 72;

// Bytes of one frame.
uint32_t WavFrameBytes(const WavFormat& format);

// The speaker mask written for a channel count; 0 (no assignment) for counts
// without a usual layout.
uint32_t WavChannelMask(uint16_t channels);

// True when the format needs the extensible format chunk.
bool WavNeedsExtensible(const WavFormat& format);

// The complete header for `data_bytes` bytes of samples (44 or 68 bytes).
std::vector<uint8_t> WavHeader(const WavFormat& format, uint32_t data_bytes);

// What a reader of a file made by WavHeader learns from it.
struct WavLayout {
    WavFormat format;
    uint16_t format_tag;    // kWaveFormatPcm or kWaveFormatExtensible
    uint32_t channel_mask;  // 0 for the plain format chunk
    uint64_t data_offset;   // byte offset of the first sample
    uint32_t data_bytes;    // size of the data chunk as recorded
};

// Reads the header of an integer PCM WAV file from the start of `file`.
// False when it is not one.
bool ReadWavLayout(std::FILE* file, WavLayout& layout);
