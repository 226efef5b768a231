// RIFF/WAVE headers for integer PCM.
#include "hosts/render/wav_file.h"

#include <cstring>

namespace {

// KSDATAFORMAT_SUBTYPE_PCM, {00000001-0000-0010-8000-00aa00389b71}.
constexpr uint8_t kSubtypePcm[16] = {0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00,
                                     0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

void Put16(std::vector<uint8_t>& out, uint32_t value)
{
    out.push_back(static_cast<uint8_t>(value));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

void Put32(std::vector<uint8_t>& out, uint32_t value)
{
    Put16(out, value & 0xFFFF);
    Put16(out, value >> 16);
}

void PutTag(std::vector<uint8_t>& out, const char* tag)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<uint8_t>(tag[i]));
}

uint32_t Get16(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8;
}

uint32_t Get32(const uint8_t* p)
{
    return Get16(p) | Get16(p + 2) << 16;
}

}  // namespace

uint32_t WavFrameBytes(const WavFormat& format)
{
    return static_cast<uint32_t>(format.channels) * (format.bits / 8u);
}

uint32_t WavChannelMask(uint16_t channels)
{
    switch (channels) {
    case 1: return 0x4;    // FC
    case 2: return 0x3;    // FL, FR
    case 4: return 0x33;   // FL, FR, BL, BR
    case 5: return 0x37;   // FL, FR, FC, BL, BR
    case 6: return kSixChannelMask;
    default: return 0;
    }
}

bool WavNeedsExtensible(const WavFormat& format)
{
    return format.channels > 2 || format.bits > 16;
}

std::vector<uint8_t> WavHeader(const WavFormat& format, uint32_t data_bytes)
{
    const bool extensible = WavNeedsExtensible(format);
    const uint32_t fmt_bytes = extensible ? 40 : 16;
    const uint32_t frame_bytes = WavFrameBytes(format);
    // A data chunk of odd size is followed by one pad byte.
    const uint32_t padded = data_bytes + (data_bytes & 1u);

    std::vector<uint8_t> out;
    out.reserve(68);
    PutTag(out, "RIFF");
    Put32(out, 4 + (8 + fmt_bytes) + (8 + padded));
    PutTag(out, "WAVE");
    PutTag(out, "fmt ");
    Put32(out, fmt_bytes);
    Put16(out, extensible ? kWaveFormatExtensible : kWaveFormatPcm);
    Put16(out, format.channels);
    Put32(out, format.rate);
    Put32(out, format.rate * frame_bytes);
    Put16(out, frame_bytes);
    Put16(out, format.bits);
    if (extensible) {
        Put16(out, 22);           // size of the extension
        Put16(out, format.bits);  // valid bits: every bit of the container
        Put32(out, WavChannelMask(format.channels));
        for (uint8_t byte : kSubtypePcm)
            out.push_back(byte);
    }
    PutTag(out, "data");
    Put32(out, data_bytes);
    return out;
}

bool ReadWavLayout(std::FILE* file, WavLayout& layout)
{
    uint8_t riff[12];
    if (std::fseek(file, 0, SEEK_SET) != 0 || std::fread(riff, 1, 12, file) != 12)
        return false;
    if (std::memcmp(riff, "RIFF", 4) != 0 || std::memcmp(riff + 8, "WAVE", 4) != 0)
        return false;
    bool have_format = false;
    uint64_t offset = 12;
    for (;;) {
        uint8_t chunk[8];
        if (std::fread(chunk, 1, 8, file) != 8)
            return false;
        const uint32_t size = Get32(chunk + 4);
        offset += 8;
        if (std::memcmp(chunk, "fmt ", 4) == 0) {
            uint8_t body[40] = {};
            if (size < 16 || size > sizeof body || std::fread(body, 1, size, file) != size)
                return false;
            layout.format_tag = static_cast<uint16_t>(Get16(body));
            layout.format.channels = static_cast<uint16_t>(Get16(body + 2));
            layout.format.rate = Get32(body + 4);
            layout.format.bits = static_cast<uint16_t>(Get16(body + 14));
            layout.channel_mask = 0;
            if (layout.format_tag == kWaveFormatExtensible) {
                if (size < 40 || std::memcmp(body + 24, kSubtypePcm, 16) != 0)
                    return false;
                layout.channel_mask = Get32(body + 20);
            } else if (layout.format_tag != kWaveFormatPcm) {
                return false;
            }
            have_format = true;
            offset += size;
            if (size & 1u) {
                std::fseek(file, 1, SEEK_CUR);
                ++offset;
            }
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            if (!have_format || layout.format.channels == 0 || layout.format.bits % 8 != 0)
                return false;
            layout.data_offset = offset;
            layout.data_bytes = size;
            return true;
        } else {
            const uint64_t skip = size + (size & 1u);
            if (std::fseek(file, static_cast<long>(skip), SEEK_CUR) != 0)
                return false;
            offset += skip;
        }
    }
}
