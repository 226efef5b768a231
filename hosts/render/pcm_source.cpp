// Audio files as integer PCM for an output plug-in.
#include "hosts/render/pcm_source.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

// Frames read from the file at a time on the changed path.
constexpr int kReadFrames = 1024;
// Bytes read at a time from a file whose data go on as they stand.
constexpr size_t kReadAheadBytes = 1 << 20;

// A centre or a lone back channel shared by two speakers: -3 dB in each,
// so that its power stays what it was.
constexpr double kShareGain = 0.7071067811865476;

// The size field of a data chunk whose writer could not go back to fill it
// in (a WAV written to a pipe): it says nothing about the length.
constexpr unsigned long kUnknownDataSize = 0xFFFFFFFFul;

// The depth a player would hand on for a libsndfile subtype; 0 where the
// samples are floats or compressed.
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

bool Accepted(int channels)
{
    return channels == 1 || channels == 2 || channels == 4 || channels == 5 || channels == 6;
}

// libsndfile notes "data : 1200 (should be 620)" in its log when a file's
// header promises more samples than the file holds.
bool HeaderPromisesMore(SNDFILE* file)
{
    std::vector<char> log(16384, '\0');
    sf_command(file, SFC_GET_LOG_INFO, log.data(), static_cast<int>(log.size()));
    const std::string text(log.data());
    size_t at = 0;
    while ((at = text.find("\ndata", at)) != std::string::npos) {
        ++at;
        const size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
        const size_t colon = line.find(':');
        const size_t should = line.find("(should be");
        if (colon == std::string::npos || should == std::string::npos)
            continue;
        const unsigned long stated = std::strtoul(line.c_str() + colon + 1, nullptr, 10);
        const unsigned long found = std::strtoul(line.c_str() + should + 10, nullptr, 10);
        if (stated != kUnknownDataSize && stated != 0 && found < stated)
            return true;
    }
    return false;
}

// Where a channel of a given position goes in the two layouts that a
// downmix makes: slots of L, R (stereo) or L, R, C, LFE, SL, SR. A side and
// a rear speaker on the same side share one surround slot (scaled down
// afterwards, see DownmixMatrix).
void MixInto(int position, int layout_channels, std::vector<double>& row_gains)
{
    row_gains.assign(static_cast<size_t>(layout_channels), 0.0);
    const bool six = layout_channels == 6;
    auto put = [&](int slot, double gain) { row_gains[static_cast<size_t>(slot)] = gain; };
    auto share = [&](int first, int second) {
        put(first, kShareGain);
        put(second, kShareGain);
    };
    switch (position) {
    case SF_CHANNEL_MAP_MONO:
    case SF_CHANNEL_MAP_CENTER:
        if (six)
            put(2, 1.0);
        else
            share(0, 1);
        break;
    case SF_CHANNEL_MAP_LEFT:
    case SF_CHANNEL_MAP_FRONT_LEFT:
    case SF_CHANNEL_MAP_FRONT_LEFT_OF_CENTER:
        put(0, 1.0);
        break;
    case SF_CHANNEL_MAP_RIGHT:
    case SF_CHANNEL_MAP_FRONT_RIGHT:
    case SF_CHANNEL_MAP_FRONT_RIGHT_OF_CENTER:
        put(1, 1.0);
        break;
    case SF_CHANNEL_MAP_LFE:
        if (six)
            put(3, 1.0);
        break;
    case SF_CHANNEL_MAP_REAR_CENTER:
        if (six)
            share(4, 5);
        else
            share(0, 1);
        break;
    case SF_CHANNEL_MAP_REAR_LEFT:
    case SF_CHANNEL_MAP_SIDE_LEFT:
        put(six ? 4 : 0, 1.0);
        break;
    case SF_CHANNEL_MAP_REAR_RIGHT:
    case SF_CHANNEL_MAP_SIDE_RIGHT:
        put(six ? 5 : 1, 1.0);
        break;
    default:
        break;
    }
}

bool IsSideOrRear(int position)
{
    return position == SF_CHANNEL_MAP_REAR_LEFT || position == SF_CHANNEL_MAP_SIDE_LEFT ||
           position == SF_CHANNEL_MAP_REAR_RIGHT || position == SF_CHANNEL_MAP_SIDE_RIGHT;
}

// The usual order of a file without a channel map, for the counts that a
// downmix takes: 3.0 (L R C), 6.1 (L R C LFE BC SL SR) and 7.1 (L R C LFE
// BL BR SL SR), as WAVE_FORMAT_EXTENSIBLE orders its speakers.
std::vector<int> DefaultPositions(int channels)
{
    switch (channels) {
    case 3: return {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER};
    case 7:
        return {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT,     SF_CHANNEL_MAP_CENTER,   SF_CHANNEL_MAP_LFE,
                SF_CHANNEL_MAP_REAR_CENTER, SF_CHANNEL_MAP_SIDE_LEFT, SF_CHANNEL_MAP_SIDE_RIGHT};
    case 8:
        return {SF_CHANNEL_MAP_LEFT,      SF_CHANNEL_MAP_RIGHT,      SF_CHANNEL_MAP_CENTER,
                SF_CHANNEL_MAP_LFE,       SF_CHANNEL_MAP_REAR_LEFT,  SF_CHANNEL_MAP_REAR_RIGHT,
                SF_CHANNEL_MAP_SIDE_LEFT, SF_CHANNEL_MAP_SIDE_RIGHT};
    default: return {};
    }
}

// The word of a changed sample at the depth handed on, limited to the
// word's range; a sample beyond full scale is counted.
int32_t Quantise(double x, int bits, uint64_t& overs)
{
    if (x > 1.0 || x < -1.0)
        ++overs;
    const double steps = std::ldexp(1.0, bits - 1);
    double value = std::nearbyint(x * steps);
    value = std::min(value, steps - 1.0);
    value = std::max(value, -steps);
    return static_cast<int32_t>(value);
}

// True when the data of a file in `format` are the words that the processor
// takes, byte for byte: little-endian integers (8-bit ones unsigned) in a
// RIFF-family container.
bool DataAreWords(int format)
{
    const int major = format & SF_FORMAT_TYPEMASK;
    const int subtype = format & SF_FORMAT_SUBMASK;
    const int endian = format & SF_FORMAT_ENDMASK;
    const bool riff = major == SF_FORMAT_WAV || major == SF_FORMAT_WAVEX || major == SF_FORMAT_W64 ||
                      major == SF_FORMAT_RF64;
    const bool words = subtype == SF_FORMAT_PCM_U8 || subtype == SF_FORMAT_PCM_16 || subtype == SF_FORMAT_PCM_24 ||
                       subtype == SF_FORMAT_PCM_32;
    return riff && words && (endian == SF_ENDIAN_FILE || endian == SF_ENDIAN_LITTLE);
}

// One sample of `Bits` bits as the processor takes it, as a signed value.
template <int Bits>
inline int32_t WordValue(const uint8_t* at)
{
    if constexpr (Bits == 8)
        return int32_t{at[0]} - 128;
    else if constexpr (Bits == 16)
        return static_cast<int16_t>(static_cast<uint16_t>(at[0] | at[1] << 8));
    else if constexpr (Bits == 24)
        return static_cast<int32_t>(static_cast<uint32_t>(at[0] << 8 | at[1] << 16 | at[2] << 24)) >> 8;
    else
        return static_cast<int32_t>(static_cast<uint32_t>(at[0]) | uint32_t{at[1]} << 8 | uint32_t{at[2]} << 16 |
                                    uint32_t{at[3]} << 24);
}

// The largest magnitude and the mean square of each frame of `frames`
// frames of the words in `bytes` (full scale 1.0), each frame's squares
// summed in channel order.
template <int Bits>
void MeasureWordsOf(PcmSource& source, const uint8_t* bytes, size_t frames, std::vector<double>& frame_power)
{
    const int channels = source.channels;
    // A power of two: the product by its reciprocal is the quotient.
    constexpr double kStep = 1.0 / static_cast<double>(int64_t{1} << (Bits - 1));
    frame_power.resize(frames);
    double peak = source.peak;
    for (size_t i = 0; i < frames; ++i) {
        double power = 0.0;
        for (int c = 0; c < channels; ++c, bytes += Bits / 8) {
            const double level = WordValue<Bits>(bytes) * kStep;
            power += level * level;
            peak = std::max(peak, std::fabs(level));
        }
        frame_power[i] = power / channels;
    }
    source.peak = peak;
}

void MeasureWords(PcmSource& source, const uint8_t* bytes, size_t frames, std::vector<double>& frame_power)
{
    switch (source.bits) {
    case 8: MeasureWordsOf<8>(source, bytes, frames, frame_power); break;
    case 16: MeasureWordsOf<16>(source, bytes, frames, frame_power); break;
    case 24: MeasureWordsOf<24>(source, bytes, frames, frame_power); break;
    default: MeasureWordsOf<32>(source, bytes, frames, frame_power); break;
    }
}

// Starts reading the file's next bytes on a thread of their own, so that
// the file system's copy runs beside the processor's work.
void ReadAhead(PcmSource& source, size_t frame_bytes)
{
    source.reading.resize(kReadAheadBytes / frame_bytes * frame_bytes);
    SNDFILE* file = source.file;
    uint8_t* into = source.reading.data();
    const sf_count_t length = static_cast<sf_count_t>(source.reading.size());
    source.read = std::async(std::launch::async, [file, into, length] { return sf_read_raw(file, into, length); });
}

// The raw path: the file's data bytes, read a megabyte at a time ahead of
// their use, handed on as they stand; a block that spans two reads is
// joined from both, so that every block but the last is whole.
int64_t ReadRaw(PcmSource& source, int frames, std::vector<uint8_t>& bytes, std::vector<double>* frame_power)
{
    const size_t frame_bytes = static_cast<size_t>(source.channels * source.bits / 8);
    const size_t wanted = static_cast<size_t>(frames) * frame_bytes;
    std::vector<uint8_t>& ahead = source.read_ahead;
    bytes.clear();
    while (bytes.size() < wanted) {
        if (source.read_at == ahead.size()) {
            if (source.at_end)
                break;
            if (!source.read.valid())
                ReadAhead(source, frame_bytes);
            const sf_count_t got = source.read.get();
            if (got < 0 || sf_error(source.file) != SF_ERR_NO_ERROR)
                return -1;
            std::swap(ahead, source.reading);
            // A frame cut off by the end of a truncated file is not handed on.
            ahead.resize(static_cast<size_t>(got) / frame_bytes * frame_bytes);
            source.read_at = 0;
            if (ahead.empty()) {
                source.at_end = true;
                break;
            }
            ReadAhead(source, frame_bytes);
        }
        const size_t length = std::min(wanted - bytes.size(), ahead.size() - source.read_at);
        bytes.insert(bytes.end(), ahead.data() + source.read_at, ahead.data() + source.read_at + length);
        source.read_at += length;
    }
    const size_t got = bytes.size() / frame_bytes;
    // The levels only where they are measured (--normalize among them).
    if (frame_power != nullptr)
        MeasureWords(source, bytes.data(), got, *frame_power);
    source.frames_read += got;
    source.frames_fed += got;
    return static_cast<int64_t>(got);
}

// Waits for a read still under way: nothing else may touch the file while
// it runs.
void FinishReadAhead(PcmSource& source)
{
    if (source.read.valid())
        source.read.wait();
    source.read = {};
}

// The exact path: the file's words, as they are (a mono file fed as stereo
// gets each word twice), measured as the raw path measures them.
int64_t ReadExact(PcmSource& source, int frames, std::vector<uint8_t>& bytes, std::vector<double>* frame_power)
{
    const int file_channels = source.file_channels;
    const int channels = source.channels;
    const int sample_bytes = source.bits / 8;
    source.ints.resize(static_cast<size_t>(frames) * file_channels);
    const sf_count_t got = sf_readf_int(source.file, source.ints.data(), frames);
    if (got < 0 || sf_error(source.file) != SF_ERR_NO_ERROR)
        return -1;
    bytes.resize(static_cast<size_t>(got) * channels * sample_bytes);
    uint8_t* out = bytes.data();
    for (sf_count_t i = 0; i < got; ++i)
        for (int c = 0; c < channels; ++c, out += sample_bytes) {
            // libsndfile hands integers left-aligned in 32 bits; the
            // source's own bits are the top ones.
            const int32_t word = source.ints[static_cast<size_t>(i * file_channels + std::min(c, file_channels - 1))];
            StorePcmSample(out, source.bits, word >> (32 - source.bits));
        }
    // The levels only where they are measured (--normalize among them).
    if (frame_power != nullptr)
        MeasureWords(source, bytes.data(), static_cast<size_t>(got), *frame_power);
    source.frames_read += static_cast<uint64_t>(got);
    source.frames_fed += static_cast<uint64_t>(got);
    if (got == 0)
        source.at_end = true;
    return got;
}

// Reads one block from the file on the changed path and appends it, mixed
// and resampled, to `pending`. False on a read error.
bool FillPending(PcmSource& source)
{
    const size_t file_channels = static_cast<size_t>(source.file_channels);
    const size_t channels = static_cast<size_t>(source.channels);
    source.doubles.resize(kReadFrames * file_channels);
    const sf_count_t got = sf_readf_double(source.file, source.doubles.data(), kReadFrames);
    if (got < 0 || sf_error(source.file) != SF_ERR_NO_ERROR)
        return false;
    source.frames_read += static_cast<uint64_t>(got);
    source.mixed.resize(static_cast<size_t>(got) * channels);
    for (size_t i = 0; i < static_cast<size_t>(got); ++i) {
        const double* in = &source.doubles[i * file_channels];
        double* out = &source.mixed[i * channels];
        for (size_t c = 0; c < channels; ++c) {
            if (!source.mix.empty()) {
                double sum = 0.0;
                for (size_t k = 0; k < file_channels; ++k)
                    sum += source.mix[c * file_channels + k] * in[k];
                out[c] = sum;
            } else {
                out[c] = in[std::min(c, file_channels - 1)];
            }
        }
    }
    if (source.resampler.converter == nullptr) {
        source.pending.insert(source.pending.end(), source.mixed.begin(), source.mixed.end());
    } else {
        ResampleBlock(source.resampler, source.mixed.data(), static_cast<size_t>(got), source.pending);
        if (got == 0)
            FinishResampling(source.resampler,
                             ResampledLength(source.frames_read, source.file_rate, source.rate), source.pending);
    }
    if (got == 0)
        source.at_end = true;
    return true;
}

int64_t ReadChanged(PcmSource& source, int frames, std::vector<uint8_t>& bytes, std::vector<double>* frame_power)
{
    const size_t channels = static_cast<size_t>(source.channels);
    while (source.pending.size() < static_cast<size_t>(frames) * channels && !source.at_end)
        if (!FillPending(source))
            return -1;
    const size_t got = std::min(static_cast<size_t>(frames), source.pending.size() / channels);
    const int sample_bytes = source.bits / 8;
    const double steps = std::ldexp(1.0, source.bits - 1);
    bytes.resize(got * channels * static_cast<size_t>(sample_bytes));
    if (frame_power != nullptr)
        frame_power->assign(got, 0.0);
    for (size_t i = 0; i < got; ++i) {
        double power = 0.0;
        for (size_t c = 0; c < channels; ++c) {
            const double x = source.pending[i * channels + c] * source.plan.gain;
            const int32_t value = Quantise(x, source.bits, source.overs);
            const double level = value / steps;
            StorePcmSample(&bytes[(i * channels + c) * static_cast<size_t>(sample_bytes)], source.bits, value);
            power += level * level;
            source.peak = std::max(source.peak, std::fabs(level));
        }
        if (frame_power != nullptr)
            (*frame_power)[i] = power / static_cast<double>(channels);
    }
    source.pending.erase(source.pending.begin(), source.pending.begin() + static_cast<long>(got * channels));
    source.frames_fed += got;
    return static_cast<int64_t>(got);
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

std::vector<double> DownmixMatrix(int file_channels, const std::vector<int>& map, int& channels)
{
    std::vector<int> positions = map;
    if (static_cast<int>(positions.size()) != file_channels)
        positions = DefaultPositions(file_channels);
    channels = file_channels <= 3 ? 2 : 6;
    if (positions.empty())
        return {};
    std::vector<double> matrix(static_cast<size_t>(channels * file_channels), 0.0);
    std::vector<double> gains;
    std::vector<int> sharing(static_cast<size_t>(channels), 0);  // side and rear speakers per slot
    for (int k = 0; k < file_channels; ++k) {
        MixInto(positions[static_cast<size_t>(k)], channels, gains);
        for (int c = 0; c < channels; ++c) {
            matrix[static_cast<size_t>(c * file_channels + k)] = gains[static_cast<size_t>(c)];
            if (gains[static_cast<size_t>(c)] != 0.0 && IsSideOrRear(positions[static_cast<size_t>(k)]))
                ++sharing[static_cast<size_t>(c)];
        }
    }
    // Two speakers in one slot: -3 dB each.
    for (int k = 0; k < file_channels; ++k)
        for (int c = 0; c < channels; ++c)
            if (sharing[static_cast<size_t>(c)] > 1 && IsSideOrRear(positions[static_cast<size_t>(k)]))
                matrix[static_cast<size_t>(c * file_channels + k)] *= kShareGain;
    return matrix;
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
    source.file_rate = info.samplerate;
    source.file_channels = info.channels;
    source.file_bits = IntegerDepth(info.format & SF_FORMAT_SUBMASK);
    source.file_format = info.format;
    source.file_float = (info.format & SF_FORMAT_SUBMASK) == SF_FORMAT_FLOAT ||
                        (info.format & SF_FORMAT_SUBMASK) == SF_FORMAT_DOUBLE;
    source.frames = info.frames >= 0 && info.frames < SF_COUNT_MAX ? info.frames : -1;
    source.truncated = HeaderPromisesMore(source.file);
    if (stat(path.c_str(), &source.opened) != 0) {
        error = "cannot read input " + path + ": " + std::strerror(errno);
        ClosePcmSource(source);
        return false;
    }
    if (info.samplerate <= 0 || info.channels < 1) {
        error = "unsupported input " + path + ": no sample rate or no channels";
        ClosePcmSource(source);
        return false;
    }
    return true;
}

bool PlanPcmSource(PcmSource& source, const FeedPlan& plan, std::string& error)
{
    source.plan = plan;
    source.mix.clear();
    source.channels = source.file_channels;
    if (plan.mono_as_stereo && source.file_channels == 1)
        source.channels = 2;
    if (plan.downmix && !Accepted(source.file_channels)) {
        std::vector<int> map(static_cast<size_t>(source.file_channels));
        if (sf_command(source.file, SFC_GET_CHANNEL_MAP_INFO, map.data(),
                       static_cast<int>(map.size() * sizeof(int))) != SF_TRUE)
            map.clear();
        source.mix = DownmixMatrix(source.file_channels, map, source.channels);
        if (source.mix.empty()) {
            error = "unsupported input " + source.path + ": " + std::to_string(source.file_channels) +
                    " channels without a channel map cannot be downmixed";
            return false;
        }
    }
    if (!Accepted(source.channels)) {
        error = "unsupported input " + source.path + ": " + std::to_string(source.file_channels) +
                " channels (the processor takes 1, 2, 4, 5 or 6; --downmix folds 3, 7 and 8)";
        return false;
    }
    source.rate = plan.rate;
    source.exact = plan.keep_words && source.file_bits != 0 && source.mix.empty() && plan.gain == 1.0 &&
                   plan.rate == source.file_rate;
    // The processor reads four channels of 32 bits with a stride of five, so
    // they go at 24 bits; five channels of 24 bits it reads on into the
    // six-channel pass, so they go at 32.
    source.bits = source.exact ? source.file_bits : (source.channels == 4 ? 24 : 32);
    source.raw = source.exact && source.channels == source.file_channels && DataAreWords(source.file_format);
    FinishReadAhead(source);
    source.read_ahead.clear();
    source.read_at = 0;
    CloseResampler(source.resampler);
    if (plan.rate != source.file_rate &&
        !OpenResampler(source.resampler, source.file_rate, plan.rate, source.channels, error))
        return false;
    return true;
}

bool RewindPcmSource(PcmSource& source, std::string& error)
{
    FinishReadAhead(source);
    if (sf_seek(source.file, 0, SEEK_SET) != 0) {
        error = "cannot read input " + source.path + " a second time: " + sf_strerror(source.file);
        return false;
    }
    source.frames_read = 0;
    source.frames_fed = 0;
    source.overs = 0;
    source.peak = 0.0;
    source.at_end = false;
    source.pending.clear();
    return PlanPcmSource(source, source.plan, error);
}

bool PcmSourceUnchanged(const PcmSource& source, const std::string& name, std::string& error)
{
    struct stat now;
    if (stat(source.path.c_str(), &now) != 0) {
        error = "input " + name + " disappeared while it was being read: " + std::strerror(errno);
        return false;
    }
    const struct stat& then = source.opened;
    if (now.st_dev != then.st_dev || now.st_ino != then.st_ino) {
        error = "input " + name + " was replaced by another file while it was being read";
        return false;
    }
    if (now.st_size != then.st_size || now.st_mtim.tv_sec != then.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != then.st_mtim.tv_nsec) {
        error = "input " + name + " changed while it was being read";
        return false;
    }
    return true;
}

void ClosePcmSource(PcmSource& source)
{
    FinishReadAhead(source);
    CloseResampler(source.resampler);
    if (source.file != nullptr)
        sf_close(source.file);
    source.file = nullptr;
}

int64_t ReadPcmBlock(PcmSource& source, int frames, std::vector<uint8_t>& bytes, std::vector<double>* frame_power)
{
    if (source.raw)
        return ReadRaw(source, frames, bytes, frame_power);
    if (source.exact)
        return ReadExact(source, frames, bytes, frame_power);
    return ReadChanged(source, frames, bytes, frame_power);
}
