// Audio files as integer PCM for an output plug-in.
#include "hosts/render/pcm_source.h"

#include <bit>
#include <cmath>

namespace {

constexpr double kFloatToSixteen = 32768.0;
constexpr double kInt32FullScale = 2147483648.0;

// The depth a player would hand on for a libsndfile subtype; 0 where the
// samples are decoded through floats and leave at 16 bits.
int IntegerDepth(int subtype)
{
    switch (subtype) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8: return 8;
    case SF_FORMAT_PCM_16: return 16;
    case SF_FORMAT_PCM_24: return 24;
    case SF_FORMAT_PCM_32: return 32;
    default: return 0;
    }
}

}  // namespace

void StorePcmSample(uint8_t* out, int bits, int32_t value)
{
    const uint32_t word = static_cast<uint32_t>(value);
    switch (bits) {
    case 8:
        out[0] = static_cast<uint8_t>(value + 128);
        break;
    case 16:
        out[0] = static_cast<uint8_t>(word);
        out[1] = static_cast<uint8_t>(word >> 8);
        break;
    case 24:
        out[0] = static_cast<uint8_t>(word);
        out[1] = static_cast<uint8_t>(word >> 8);
        out[2] = static_cast<uint8_t>(word >> 16);
        break;
    default:
        out[0] = static_cast<uint8_t>(word);
        out[1] = static_cast<uint8_t>(word >> 8);
        out[2] = static_cast<uint8_t>(word >> 16);
        out[3] = static_cast<uint8_t>(word >> 24);
        break;
    }
}

bool OpenPcmSource(const std::string& path, PcmSource& source, std::string& error)
{
    source = PcmSource{};
    source.path = path;
    SF_INFO info{};
    source.file = sf_open(path.c_str(), SFM_READ, &info);
    if (source.file == nullptr) {
        error = "cannot read input " + path + ": " + sf_strerror(nullptr);
        return false;
    }
    source.rate = info.samplerate;
    source.channels = info.channels;
    source.frames = info.frames >= 0 && info.frames < SF_COUNT_MAX ? info.frames : -1;
    const int depth = IntegerDepth(info.format & SF_FORMAT_SUBMASK);
    source.bits = depth != 0 ? depth : 16;
    source.read_float = depth == 0;
    // The processor takes 1, 2, 4, 5 or 6 channels; three or more than six
    // would come out as silence, which is no use to anyone.
    if (info.channels < 1 || info.channels == 3 || info.channels > 6) {
        error = "unsupported input " + path + ": " + std::to_string(info.channels) +
                " channels (the processor takes 1, 2, 4, 5 or 6)";
        ClosePcmSource(source);
        return false;
    }
    if (info.samplerate <= 0) {
        error = "unsupported input " + path + ": no sample rate";
        ClosePcmSource(source);
        return false;
    }
    return true;
}

void ClosePcmSource(PcmSource& source)
{
    if (source.file != nullptr)
        sf_close(source.file);
    source.file = nullptr;
}

int64_t ReadPcmBlock(PcmSource& source, int frames, std::vector<uint8_t>& bytes, std::vector<double>* frame_power)
{
    const int channels = source.channels;
    const size_t samples = static_cast<size_t>(frames) * channels;
    const int sample_bytes = source.bits / 8;
    sf_count_t got = 0;
    if (source.bits == 16 && !source.read_float && frame_power == nullptr && std::endian::native == std::endian::little) {
        // 16-bit words read as they are, straight into the block.
        bytes.resize(samples * 2);
        got = sf_readf_short(source.file, reinterpret_cast<short*>(bytes.data()), frames);
        if (got < 0 || sf_error(source.file) != SF_ERR_NO_ERROR)
            return -1;
        bytes.resize(static_cast<size_t>(got) * channels * 2);
        return got;
    }
    if (source.read_float) {
        source.floats.resize(samples);
        got = sf_readf_float(source.file, source.floats.data(), frames);
    } else {
        source.ints.resize(samples);
        got = sf_readf_int(source.file, source.ints.data(), frames);
    }
    if (got < 0 || sf_error(source.file) != SF_ERR_NO_ERROR)
        return -1;
    bytes.resize(static_cast<size_t>(got) * channels * sample_bytes);
    if (frame_power != nullptr)
        frame_power->assign(static_cast<size_t>(got), 0.0);

    for (sf_count_t i = 0; i < got; ++i) {
        double power = 0.0;
        for (int c = 0; c < channels; ++c) {
            const size_t at = static_cast<size_t>(i) * channels + c;
            int32_t value = 0;
            double level = 0.0;
            if (source.read_float) {
                // Nearest 16-bit step; beyond full scale it stops at the end.
                double scaled = std::nearbyint(static_cast<double>(source.floats[at]) * kFloatToSixteen);
                if (scaled > 32767.0) scaled = 32767.0;
                if (scaled < -32768.0) scaled = -32768.0;
                value = static_cast<int32_t>(scaled);
                level = value / kFloatToSixteen;
            } else {
                // libsndfile hands integers left-aligned in 32 bits; the
                // source's own bits are the top ones.
                const int32_t word = source.ints[at];
                value = word >> (32 - source.bits);
                level = word / kInt32FullScale;
            }
            StorePcmSample(&bytes[at * sample_bytes], source.bits, value);
            power += level * level;
        }
        if (frame_power != nullptr)
            (*frame_power)[static_cast<size_t>(i)] = power / channels;
    }
    return got;
}
