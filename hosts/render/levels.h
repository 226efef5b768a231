// Peak and RMS levels per channel, over a whole file and over windows of
// time for the level picture. Full scale is 1.0; levels in dBFS are
// 20 log10 of the linear figure, so a full-scale sine reads -3 dB RMS.
#pragma once

#include <cstdint>
#include <string>
#include <vector>


struct ChannelLevels {
    int channels;                       // channels measured
    uint64_t frames;                    // frames seen
    std::vector<double> peak;           // largest magnitude per channel
    std::vector<double> sum_square;     // sum of squares per channel
    uint32_t window_frames;             // frames per window, 0 for no windows
    std::vector<double> window_square;  // sum of squares per window and channel, window-major
};

void InitLevels(ChannelLevels& levels, int channels, uint32_t window_frames);

// Adds one frame of `channels` samples.
void AddLevelFrame(ChannelLevels& levels, const double* samples);

// Adds `frames` interleaved frames: the same sums as one AddLevelFrame for
// each, added in the same order.
void AddLevelFrames(ChannelLevels& levels, const double* samples, size_t frames);

// 20 log10 of a linear level; -infinity for 0.
double LevelDb(double linear);

double PeakDb(const ChannelLevels& levels, int channel);
double RmsDb(const ChannelLevels& levels, int channel);

// Number of windows begun, and the RMS level of one in dBFS.
size_t WindowCount(const ChannelLevels& levels);
double WindowRmsDb(const ChannelLevels& levels, size_t window, int channel);

// The frames of one input as the processor computed them, before the output
// conversion: the largest level and the samples that went over full scale,
// per channel L, R, C, LFE, SL, SR, and per window of time.
struct OverCounts {
    uint64_t frames;                    // frames seen
    double peak[6];                     // largest magnitude; 1.0 leaves at 0.85 of full scale
    uint64_t overs[6];                  // samples that did not fit the output word
    uint32_t window_frames;             // frames per window, 0 for no windows
    std::vector<uint32_t> window_overs; // overs per window and channel, window-major
};

void InitOverCounts(OverCounts& counts, uint32_t window_frames);

// Adds one processed frame (six floats), for an output word of `bits` bits.
void AddProcessedFrame(OverCounts& counts, const float* frame, int bits);

// Adds `count` processed frames of six floats each, in order.
void AddProcessedFrames(OverCounts& counts, const float* frames, size_t count, int bits);

// The level that a magnitude before the conversion has at the output, in
// dBFS: the conversion leaves 1.0 at 0.85 of full scale.
double OutputLevelDb(double magnitude);

// "-12.3" or "-inf", right-aligned in `width` characters.
std::string FormatDb(double db, int width);
