// Audio files as a player hands them to an output plug-in: interleaved
// integer PCM at the source's own depth where that is 8, 16, 24 or 32 bits
// (8-bit unsigned, the others signed little-endian), and 16 bits for sources
// stored as floats or in a compressed form.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sndfile.h>

struct PcmSource {
    SNDFILE* file;        // open libsndfile handle
    std::string path;     // for messages
    int rate;             // frames per second
    int channels;         // 1, 2, 4, 5 or 6
    int bits;             // bits per sample handed to the plug-in
    bool read_float;      // decoded through floats (true) or integers
    int64_t frames;       // length as the file states it; -1 when unknown
    std::vector<int32_t> ints;    // scratch for integer reads
    std::vector<float> floats;    // scratch for float reads
};

// Opens a file and decides its PCM form. False with a one-line `error` for a
// missing, unreadable or unsupported file.
bool OpenPcmSource(const std::string& path, PcmSource& source, std::string& error);

void ClosePcmSource(PcmSource& source);

// Reads up to `frames` frames into `bytes` (resized to hold them) and returns
// the frames read, 0 at the end, -1 on a read error. `frame_power`, when not
// null, receives each frame's mean square over its channels, full scale 1.0.
int64_t ReadPcmBlock(PcmSource& source, int frames, std::vector<uint8_t>& bytes, std::vector<double>* frame_power);

// Stores one sample of value `value` (already at `bits` bits) at `out`.
void StorePcmSample(uint8_t* out, int bits, int32_t value);
