// The built-in test scene of --demo.
#include "hosts/render/demo_scene.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include <sndfile.h>

#include "hosts/render/levels.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kSceneRms = 0.1;            // -20 dBFS per source
constexpr double kFadeSeconds = 0.01;        // ramps at the segment edges
constexpr double kStereoSegmentSeconds = 2.0;
constexpr double kSixSegmentSeconds = 1.5;
constexpr double kSettleSeconds = 0.5;       // left out at the start of a measured segment
constexpr double kEndGuardSeconds = 0.1;     // left out at its end
constexpr uint32_t kSeed = 0x4B454C56;

// Noise from a fixed generator, band-limited by one-pole sections: high-pass
// at `low_hz` (or none at 0) and two low-passes at `high_hz`, then scaled to
// kSceneRms.
std::vector<double> BandNoise(uint64_t frames, double low_hz, double high_hz, uint32_t seed)
{
    std::vector<double> out(frames);
    uint32_t state = seed;
    const double high_pole = std::exp(-2.0 * kPi * high_hz / kSceneRate);
    const double low_pole = low_hz > 0.0 ? std::exp(-2.0 * kPi * low_hz / kSceneRate) : 0.0;
    double lp1 = 0.0, lp2 = 0.0, hp_state = 0.0;
    double sum = 0.0;
    for (uint64_t i = 0; i < frames; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        const double white = static_cast<double>(state) / 2147483648.0 - 1.0;
        lp1 = (1.0 - high_pole) * white + high_pole * lp1;
        lp2 = (1.0 - high_pole) * lp1 + high_pole * lp2;
        double x = lp2;
        if (low_hz > 0.0) {
            hp_state = (1.0 - low_pole) * x + low_pole * hp_state;
            x -= hp_state;
        }
        out[i] = x;
        sum += x * x;
    }
    const double gain = kSceneRms / std::sqrt(sum / static_cast<double>(frames));
    for (double& x : out)
        x *= gain;
    return out;
}

double Fade(uint64_t i, uint64_t frames)
{
    const double ramp = kFadeSeconds * kSceneRate;
    const double edge = static_cast<double>(std::min(i, frames - 1 - i));
    if (edge >= ramp)
        return 1.0;
    return 0.5 - 0.5 * std::cos(kPi * edge / ramp);
}

int16_t ToSample(double x)
{
    double scaled = std::nearbyint(x * 32768.0);
    scaled = std::max(-32768.0, std::min(32767.0, scaled));
    return static_cast<int16_t>(scaled);
}

}  // namespace

Scene StereoScene()
{
    Scene scene{"stereo", 2, {}, {}};
    const uint64_t length = static_cast<uint64_t>(kStereoSegmentSeconds * kSceneRate);
    const char* names[5] = {"left", "right", "centre", "behind", "pan"};
    for (int s = 0; s < 5; ++s)
        scene.segments.push_back(SceneSegment{names[s], length * s, length});
    const std::vector<double> noise = BandNoise(length * 5, 150.0, 5000.0, kSeed);
    scene.samples.resize(length * 5 * 2);
    for (int s = 0; s < 5; ++s) {
        for (uint64_t i = 0; i < length; ++i) {
            const uint64_t frame = length * s + i;
            const double x = noise[frame] * Fade(i, length);
            double left = 0.0, right = 0.0;
            switch (s) {
            case 0: left = x; break;
            case 1: right = x; break;
            case 2: left = x; right = x; break;
            case 3: left = x; right = -x; break;
            default: {
                // Constant power from hard left to hard right.
                const double angle = 0.5 * kPi * static_cast<double>(i) / static_cast<double>(length - 1);
                left = x * std::cos(angle);
                right = x * std::sin(angle);
            }
            }
            scene.samples[2 * frame] = ToSample(left);
            scene.samples[2 * frame + 1] = ToSample(right);
        }
    }
    return scene;
}

Scene SixChannelScene()
{
    Scene scene{"six", 6, {}, {}};
    const uint64_t length = static_cast<uint64_t>(kSixSegmentSeconds * kSceneRate);
    const char* names[6] = {"L", "R", "C", "LFE", "SL", "SR"};
    for (int s = 0; s < 6; ++s)
        scene.segments.push_back(SceneSegment{names[s], length * s, length});
    const std::vector<double> noise = BandNoise(length * 6, 150.0, 5000.0, kSeed + 1);
    const std::vector<double> rumble = BandNoise(length * 6, 0.0, 80.0, kSeed + 2);
    scene.samples.assign(length * 6 * 6, 0);
    for (int s = 0; s < 6; ++s)
        for (uint64_t i = 0; i < length; ++i) {
            const uint64_t frame = length * s + i;
            const double x = (s == 3 ? rumble[frame] : noise[frame]) * Fade(i, length);
            scene.samples[6 * frame + static_cast<uint64_t>(s)] = ToSample(x);
        }
    return scene;
}

bool WriteScene(const Scene& scene, const std::string& path, std::string& error)
{
    SF_INFO info{};
    info.samplerate = kSceneRate;
    info.channels = scene.channels;
    info.format = (scene.channels > 2 ? SF_FORMAT_WAVEX : SF_FORMAT_WAV) | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr) {
        error = "cannot write " + path + ": " + sf_strerror(nullptr);
        return false;
    }
    const sf_count_t frames = static_cast<sf_count_t>(scene.samples.size() / static_cast<size_t>(scene.channels));
    bool good = sf_writef_short(file, scene.samples.data(), frames) == frames;
    if (!good)
        error = "cannot write " + path + ": " + sf_strerror(file);
    if (sf_close(file) != 0 && good) {
        error = "cannot write " + path;
        good = false;
    }
    return good;
}

void MeasuredPart(const SceneSegment& segment, uint64_t& first, uint64_t& frames)
{
    const uint64_t settle = static_cast<uint64_t>(kSettleSeconds * kSceneRate);
    const uint64_t guard = static_cast<uint64_t>(kEndGuardSeconds * kSceneRate);
    first = segment.first + settle;
    frames = segment.frames - settle - guard;
}

bool SegmentLevels(const std::string& path, const Scene& scene, std::vector<std::vector<double>>& levels,
                   int& channels, std::string& error)
{
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr) {
        error = "cannot read back " + path;
        return false;
    }
    channels = info.channels;
    levels.clear();
    std::vector<double> samples;
    for (const SceneSegment& segment : scene.segments) {
        uint64_t first = 0, frames = 0;
        MeasuredPart(segment, first, frames);
        samples.resize(static_cast<size_t>(frames) * static_cast<size_t>(channels));
        if (sf_seek(file, static_cast<sf_count_t>(first), SEEK_SET) < 0 ||
            sf_readf_double(file, samples.data(), static_cast<sf_count_t>(frames)) != static_cast<sf_count_t>(frames)) {
            sf_close(file);
            error = "cannot read back " + path;
            return false;
        }
        ChannelLevels measured{};
        InitLevels(measured, channels, 0);
        for (uint64_t i = 0; i < frames; ++i)
            AddLevelFrame(measured, &samples[static_cast<size_t>(i) * static_cast<size_t>(channels)]);
        std::vector<double> row;
        for (int c = 0; c < channels; ++c)
            row.push_back(RmsDb(measured, c));
        levels.push_back(row);
    }
    sf_close(file);
    return true;
}
