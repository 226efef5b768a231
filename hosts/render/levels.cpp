// Peak and RMS levels per channel.
#include "hosts/render/levels.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <limits>

#include "hosts/render/engine_meter.h"
#include "signal/lanes.h"

void InitLevels(ChannelLevels& levels, int channels, uint32_t window_frames)
{
    levels = ChannelLevels{};
    levels.channels = channels;
    levels.peak.assign(static_cast<size_t>(channels), 0.0);
    levels.sum_square.assign(static_cast<size_t>(channels), 0.0);
    levels.window_frames = window_frames;
}

namespace {

// The sums of the window that frame `frames` falls in, `width` of them,
// started when the frame is a window's first; `run` is cut to the frames up
// to the window's end. Null when there are no windows.
template <typename T>
T* CurrentWindow(std::vector<T>& windows, uint64_t frames, uint32_t window_frames, size_t width, size_t& run)
{
    if (window_frames == 0)
        return nullptr;
    const uint64_t into = frames % window_frames;
    if (into == 0)
        windows.resize(windows.size() + width, T{});
    if (window_frames - into < run)
        run = static_cast<size_t>(window_frames - into);
    return &windows[windows.size() - width];
}

}  // namespace

void AddLevelFrame(ChannelLevels& levels, const double* samples)
{
    AddLevelFrames(levels, samples, 1);
}

namespace {

// `run` frames of `Channels` channels, each channel's sums in the order of
// the frames, the channels side by side.
template <size_t Channels, bool Windowed>
void AddRun(ChannelLevels& levels, const double* samples, size_t run, double* window)
{
    double peak[Channels], sum[Channels], in_window[Channels];
    for (size_t c = 0; c < Channels; ++c) {
        peak[c] = levels.peak[c];
        sum[c] = levels.sum_square[c];
        in_window[c] = Windowed ? window[c] : 0.0;
    }
    for (size_t i = 0; i < run; ++i, samples += Channels)
        for (size_t c = 0; c < Channels; ++c) {
            const double x = samples[c];
            const double square = x * x;
            if (std::fabs(x) > peak[c])
                peak[c] = std::fabs(x);
            sum[c] += square;
            if (Windowed)
                in_window[c] += square;
        }
    for (size_t c = 0; c < Channels; ++c) {
        levels.peak[c] = peak[c];
        levels.sum_square[c] = sum[c];
        if (Windowed)
            window[c] = in_window[c];
    }
}

template <size_t Channels>
void AddRunOf(ChannelLevels& levels, const double* samples, size_t run, double* window)
{
    if (window != nullptr)
        AddRun<Channels, true>(levels, samples, run, window);
    else
        AddRun<Channels, false>(levels, samples, run, window);
}

}  // namespace

void AddLevelFrames(ChannelLevels& levels, const double* samples, size_t frames)
{
    const size_t channels = static_cast<size_t>(levels.channels);
    size_t done = 0;
    while (done < frames) {
        size_t run = frames - done;
        double* window = CurrentWindow(levels.window_square, levels.frames, levels.window_frames, channels, run);
        const double* first = samples + done * channels;
        switch (channels) {
        case 1: AddRunOf<1>(levels, first, run, window); break;
        case 2: AddRunOf<2>(levels, first, run, window); break;
        case 6: AddRunOf<6>(levels, first, run, window); break;
        default:
            // Any other count, channel by channel.
            for (size_t c = 0; c < channels; ++c)
                for (size_t i = 0; i < run; ++i) {
                    const double x = first[i * channels + c];
                    const double square = x * x;
                    if (std::fabs(x) > levels.peak[c])
                        levels.peak[c] = std::fabs(x);
                    levels.sum_square[c] += square;
                    if (window != nullptr)
                        window[c] += square;
                }
            break;
        }
        levels.frames += run;
        done += run;
    }
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

namespace {

// The over test of OverFullScale in single precision: the product is a
// float, and so are both bounds for 16 and 24 bits; at 32 bits the lower
// bound (one step below negative full scale) lies between two floats, and
// a product at or below it is one at or below the float just under it.
struct FloatLimits {
    float scale;
    float high;
    float low;
};

FloatLimits FloatLimitsOf(int bits)
{
    const FullScaleLimits limits = FullScaleOf(bits);
    float low = static_cast<float>(limits.low);
    if (static_cast<double>(low) > limits.low)
        low = std::nextafter(low, -std::numeric_limits<float>::infinity());
    return {limits.scale, static_cast<float>(limits.high), low};
}

// A magnitude against the largest so far: NaN, once seen, stays.
inline float LargerMagnitude(float largest, float magnitude)
{
    return magnitude > largest || magnitude != magnitude ? magnitude : largest;
}

// The magnitude of each lane: the sign bit cleared, as fabs does.
inline Floats Magnitudes(Floats x)
{
    const Masks sign = {INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN};
    return reinterpret_cast<Floats>(reinterpret_cast<Masks>(x) & ~sign);
}

// Two frames at a time as twelve lanes in three vectors, channel k % 6 in
// lane k; each lane keeps its own largest magnitude (LargerMagnitude, lane
// by lane) and its own count of overs, and the lanes are folded into the
// six channels at the end.
void AddProcessedRun(const float* frame, size_t run, const FloatLimits& limits, float* peak, uint64_t* overs)
{
    Floats largest[3];
    Masks over[3] = {};
    for (int v = 0; v < 3; ++v)
        for (int k = 0; k < 4; ++k)
            largest[v][k] = peak[(4 * v + k) % 6];
    const Floats scale = {limits.scale, limits.scale, limits.scale, limits.scale};
    const Floats high = {limits.high, limits.high, limits.high, limits.high};
    const Floats low = {limits.low, limits.low, limits.low, limits.low};
    size_t i = 0;
    for (; i + 2 <= run; i += 2, frame += 12)
        for (int v = 0; v < 3; ++v) {
            const Floats x = LoadFloats(frame + 4 * v);
            const Floats magnitude = Magnitudes(x);
            largest[v] = (magnitude > largest[v]) | (magnitude != magnitude) ? magnitude : largest[v];
            const Floats product = x * scale;
            // A true comparison is -1: subtracting it counts one.
            over[v] -= (product != product) | (product >= high) | (product <= low);
        }
    float lane_largest[12];
    uint32_t lane_over[12];
    for (int v = 0; v < 3; ++v)
        for (int k = 0; k < 4; ++k) {
            lane_largest[4 * v + k] = largest[v][k];
            lane_over[4 * v + k] = static_cast<uint32_t>(over[v][k]);
        }
    for (; i < run; ++i, frame += 6)
        for (int k = 0; k < 6; ++k) {
            const float x = frame[k];
            lane_largest[k] = LargerMagnitude(lane_largest[k], std::fabs(x));
            const float product = x * limits.scale;
            lane_over[k] += (product != product) | (product >= limits.high) | (product <= limits.low);
        }
    for (int c = 0; c < 6; ++c) {
        peak[c] = LargerMagnitude(lane_largest[c], lane_largest[c + 6]);
        overs[c] = static_cast<uint64_t>(lane_over[c]) + lane_over[c + 6];
    }
}

}  // namespace

void AddProcessedFrames(OverCounts& counts, const float* frames, size_t count, int bits)
{
    const FloatLimits limits = FloatLimitsOf(bits);
    size_t done = 0;
    while (done < count) {
        size_t run = count - done;
        uint32_t* window = CurrentWindow(counts.window_overs, counts.frames, counts.window_frames, 6, run);
        // Every peak so far is the magnitude of a float, so it is one.
        float peak[6];
        uint64_t overs[6];
        for (int c = 0; c < 6; ++c)
            peak[c] = static_cast<float>(counts.peak[c]);
        AddProcessedRun(frames + done * 6, run, limits, peak, overs);
        for (int c = 0; c < 6; ++c) {
            counts.peak[c] = peak[c];
            counts.overs[c] += overs[c];
            if (window != nullptr)
                window[c] += static_cast<uint32_t>(overs[c]);
        }
        counts.frames += run;
        done += run;
    }
}

void AddProcessedFrame(OverCounts& counts, const float* frame, int bits)
{
    AddProcessedFrames(counts, frame, 1, bits);
}

double OutputLevelDb(double magnitude)
{
    // 0.85 as the conversion has it: 27852.80078125 / 32768, a little above.
    constexpr double kOutputFactor = 27852.80078125 / 32768.0;
    return LevelDb(magnitude * kOutputFactor);
}
