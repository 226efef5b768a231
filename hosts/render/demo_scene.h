// The built-in test scene of --demo: a stereo scene with a source hard left,
// hard right, in the centre, in antiphase "behind" and panning slowly across,
// and a six-channel scene with a source in each speaker in turn, for the
// encoders. Both are band-limited noise at 44100 Hz, 16 bits, made from a
// fixed seed, so every machine renders the same input.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

constexpr int kSceneRate = 44100;

struct SceneSegment {
    const char* name;   // "left", "centre", ...
    uint64_t first;     // first frame
    uint64_t frames;    // length
};

struct Scene {
    const char* name;                  // "stereo" or "six"
    int channels;                      // 2 or 6
    std::vector<SceneSegment> segments;
    std::vector<int16_t> samples;      // interleaved
};

Scene StereoScene();
Scene SixChannelScene();

// Writes a scene as a 16-bit WAV file.
bool WriteScene(const Scene& scene, const std::string& path, std::string& error);

// The part of a segment over which the demo measures: its middle, after the
// decoders have settled on the new direction.
void MeasuredPart(const SceneSegment& segment, uint64_t& first, uint64_t& frames);

// RMS in dBFS per channel and segment of a WAV file rendered from `scene`:
// result[segment][channel]. False when the file cannot be read.
bool SegmentLevels(const std::string& path, const Scene& scene, std::vector<std::vector<double>>& levels,
                   int& channels, std::string& error);
