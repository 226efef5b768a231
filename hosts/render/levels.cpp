// Peak and RMS levels per channel.
#include "hosts/render/levels.h"

#include <cmath>
#include <cstdio>
#include <limits>

#include "hosts/render/engine_meter.h"

void InitLevels(ChannelLevels& levels, int channels, uint32_t window_frames)
{
    levels = ChannelLevels{};
    levels.channels = channels;
    levels.peak.assign(static_cast<size_t>(channels), 0.0);
    levels.sum_square.assign(static_cast<size_t>(channels), 0.0);
    levels.window_frames = window_frames;
}

void AddLevelFrame(ChannelLevels& levels, const double* samples)
{
    const size_t channels = static_cast<size_t>(levels.channels);
    double* window = nullptr;
    if (levels.window_frames != 0) {
        if (levels.frames % levels.window_frames == 0)
            levels.window_square.resize(levels.window_square.size() + channels, 0.0);
        window = &levels.window_square[levels.window_square.size() - channels];
    }
    for (size_t c = 0; c < channels; ++c) {
        const double x = samples[c];
        const double square = x * x;
        if (std::fabs(x) > levels.peak[c])
            levels.peak[c] = std::fabs(x);
        levels.sum_square[c] += square;
        if (window != nullptr)
            window[c] += square;
    }
    ++levels.frames;
}

double LevelDb(double linear)
{
    if (linear <= 0.0)
        return -std::numeric_limits<double>::infinity();
    return 20.0 * std::log10(linear);
}

double PeakDb(const ChannelLevels& levels, int channel)
{
    return LevelDb(levels.peak[static_cast<size_t>(channel)]);
}

double RmsDb(const ChannelLevels& levels, int channel)
{
    if (levels.frames == 0)
        return LevelDb(0.0);
    return LevelDb(std::sqrt(levels.sum_square[static_cast<size_t>(channel)] / static_cast<double>(levels.frames)));
}

size_t WindowCount(const ChannelLevels& levels)
{
    return levels.channels == 0 ? 0 : levels.window_square.size() / static_cast<size_t>(levels.channels);
}

double WindowRmsDb(const ChannelLevels& levels, size_t window, int channel)
{
    uint64_t frames = levels.window_frames;
    const uint64_t last = levels.frames - uint64_t{levels.window_frames} * window;
    if (last < frames)
        frames = last;
    if (frames == 0)
        return LevelDb(0.0);
    const double square = levels.window_square[window * static_cast<size_t>(levels.channels) + static_cast<size_t>(channel)];
    return LevelDb(std::sqrt(square / static_cast<double>(frames)));
}

std::string FormatDb(double db, int width)
{
    char text[64];
    if (std::isinf(db))
        std::snprintf(text, sizeof text, "%*s", width, "-inf");
    else
        std::snprintf(text, sizeof text, "%*.1f", width, db);
    return text;
}

void InitOverCounts(OverCounts& counts, uint32_t window_frames)
{
    counts = OverCounts{};
    counts.window_frames = window_frames;
}

void AddProcessedFrame(OverCounts& counts, const float* frame, int bits)
{
    uint32_t* window = nullptr;
    if (counts.window_frames != 0) {
        if (counts.frames % counts.window_frames == 0)
            counts.window_overs.resize(counts.window_overs.size() + 6, 0);
        window = &counts.window_overs[counts.window_overs.size() - 6];
    }
    for (int c = 0; c < 6; ++c) {
        const double magnitude = std::fabs(static_cast<double>(frame[c]));
        if (magnitude > counts.peak[c] || std::isnan(magnitude))
            counts.peak[c] = magnitude;
        if (OverFullScale(frame[c], bits)) {
            ++counts.overs[c];
            if (window != nullptr)
                ++window[c];
        }
    }
    ++counts.frames;
}

double OutputLevelDb(double magnitude)
{
    // 0.85 as the conversion has it: 27852.80078125 / 32768, a little above.
    constexpr double kOutputFactor = 27852.80078125 / 32768.0;
    return LevelDb(magnitude * kOutputFactor);
}
