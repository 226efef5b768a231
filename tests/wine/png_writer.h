// A minimal PNG writer for the dialog's screenshot: 8-bit RGB, the image data
// in stored (uncompressed) deflate blocks, so that no compression library is
// needed on the Windows side.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

namespace png_writer {

inline uint32_t Crc32(const uint8_t* data, size_t size, uint32_t crc = 0)
{
    crc = ~crc;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

inline void Put32(std::vector<uint8_t>& out, uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}

inline void Chunk(std::vector<uint8_t>& out, const char* type, const std::vector<uint8_t>& body)
{
    Put32(out, static_cast<uint32_t>(body.size()));
    std::vector<uint8_t> typed(type, type + 4);
    typed.insert(typed.end(), body.begin(), body.end());
    out.insert(out.end(), typed.begin(), typed.end());
    Put32(out, Crc32(typed.data(), typed.size()));
}

// `rgb` holds width x height pixels of three bytes, top row first.
inline std::vector<uint8_t> EncodePng(uint32_t width, uint32_t height, const std::vector<uint8_t>& rgb)
{
    std::vector<uint8_t> raw;  // each row after a filter byte of 0
    for (uint32_t y = 0; y < height; ++y) {
        raw.push_back(0);
        raw.insert(raw.end(), rgb.begin() + y * width * 3, rgb.begin() + (y + 1) * width * 3);
    }
    std::vector<uint8_t> zlib = {0x78, 0x01};
    uint32_t a = 1;
    uint32_t b = 0;
    for (uint8_t byte : raw) {
        a = (a + byte) % 65521u;
        b = (b + a) % 65521u;
    }
    for (size_t at = 0; at < raw.size() || at == 0;) {
        const size_t length = raw.size() - at < 65535 ? raw.size() - at : 65535;
        const bool last = at + length == raw.size();
        zlib.push_back(last ? 1 : 0);
        zlib.push_back(static_cast<uint8_t>(length));
        zlib.push_back(static_cast<uint8_t>(length >> 8));
        zlib.push_back(static_cast<uint8_t>(~length));
        zlib.push_back(static_cast<uint8_t>(~length >> 8));
        zlib.insert(zlib.end(), raw.begin() + static_cast<std::ptrdiff_t>(at),
                    raw.begin() + static_cast<std::ptrdiff_t>(at + length));
        at += length;
        if (last)
            break;
    }
    Put32(zlib, (b << 16) | a);

    std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    std::vector<uint8_t> header;
    Put32(header, width);
    Put32(header, height);
    header.insert(header.end(), {8, 2, 0, 0, 0});  // 8 bits, RGB, deflate, no filter choice, no interlace
    Chunk(png, "IHDR", header);
    Chunk(png, "IDAT", zlib);
    Chunk(png, "IEND", {});
    return png;
}

}  // namespace png_writer
