// Output files through libsndfile.
#include "hosts/render/sound_file.h"

#include <cmath>
#include <cstdlib>

namespace {

struct ContainerName {
    const char* name;
    const char* extension;
    Container container;
};

constexpr ContainerName kContainers[] = {
    {"wav", ".wav", Container::Wav},    {"w64", ".w64", Container::W64}, {"rf64", ".rf64", Container::Rf64},
    {"flac", ".flac", Container::Flac}, {"caf", ".caf", Container::Caf},
};

// What the RIFF size field counts besides the data: the header chunks that
// libsndfile writes (WAVE, fmt with its extension, fact, data), rounded up
// generously.
constexpr uint64_t kRiffHeaderRoom = 4096;
constexpr uint64_t kRiffSizeLimit = 0xFFFFFFFFull;

// The seed of the dither's generator: every render of the same input gives
// the same file.
constexpr uint32_t kDitherSeed = 0x2545F491u;

std::string Lower(std::string text)
{
    for (char& c : text)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return text;
}

int Subtype(SampleWord word)
{
    if (word.floating)
        return SF_FORMAT_FLOAT;
    switch (word.bits) {
    case 24: return SF_FORMAT_PCM_24;
    case 32: return SF_FORMAT_PCM_32;
    default: return SF_FORMAT_PCM_16;
    }
}

// One uniform value in [-0.5, 0.5) from a xorshift generator.
double Uniform(uint32_t& state)
{
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return static_cast<double>(state) / 4294967296.0 - 0.5;
}

}  // namespace

bool ContainerByName(const std::string& name, Container& container)
{
    for (const ContainerName& entry : kContainers)
        if (Lower(name) == entry.name) {
            container = entry.container;
            return true;
        }
    return false;
}

bool ContainerByExtension(const std::string& path, Container& container)
{
    const size_t slash = path.rfind('/');
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return false;
    const std::string extension = Lower(path.substr(dot));
    for (const ContainerName& entry : kContainers)
        if (extension == entry.extension) {
            container = entry.container;
            return true;
        }
    return false;
}

const char* ContainerExtension(Container container)
{
    for (const ContainerName& entry : kContainers)
        if (entry.container == container)
            return entry.extension;
    return ".wav";
}

uint64_t RiffDataLimit()
{
    const char* text = std::getenv("KELVANE_RENDER_RIFF_LIMIT");
    if (text != nullptr && text[0] != '\0') {
        char* end = nullptr;
        const unsigned long long limit = std::strtoull(text, &end, 10);
        if (*end == '\0' && limit < kRiffSizeLimit - kRiffHeaderRoom)
            return limit;
    }
    return kRiffSizeLimit - kRiffHeaderRoom;
}

int SoundFileFormat(Container container, SampleWord word, int channels, uint64_t data_bytes)
{
    const int subtype = Subtype(word);
    switch (container) {
    case Container::W64: return SF_FORMAT_W64 | subtype;
    case Container::Rf64: return SF_FORMAT_RF64 | subtype;
    case Container::Flac: return SF_FORMAT_FLAC | subtype;
    case Container::Caf: return SF_FORMAT_CAF | subtype;
    case Container::Wav: break;
    }
    if (data_bytes > RiffDataLimit())
        return SF_FORMAT_RF64 | subtype;
    // The plain format chunk for what every reader takes; the extensible
    // one, with its speaker mask, for the rest.
    if (channels <= 2 && (word.floating || word.bits <= 16))
        return SF_FORMAT_WAV | subtype;
    return SF_FORMAT_WAVEX | subtype;
}

bool ContainerHolds(Container container, SampleWord word)
{
    return container != Container::Flac || (!word.floating && word.bits <= 24);
}

int WordBytes(SampleWord word)
{
    return word.floating ? 4 : word.bits / 8;
}

bool OpenSoundWriter(const std::string& path, int format, int rate, int channels, SampleWord word, bool dither,
                     SoundWriter& writer, std::string& error)
{
    writer = SoundWriter{};
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    writer.file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (writer.file == nullptr) {
        error = std::string("cannot write ") + path + ": " + sf_strerror(nullptr);
        return false;
    }
    SetSpeakerMap(writer.file, format, channels);
    writer.channels = channels;
    writer.word = word;
    writer.dither = dither && !word.floating;
    writer.noise = kDitherSeed;
    writer.overs.assign(static_cast<size_t>(channels), 0);
    return true;
}

bool WriteSoundWords(SoundWriter& writer, const int32_t* words, size_t frames, std::string& error)
{
    if (sf_writef_int(writer.file, words, static_cast<sf_count_t>(frames)) != static_cast<sf_count_t>(frames)) {
        error = sf_strerror(writer.file);
        return false;
    }
    return true;
}

bool WriteSoundFrames(SoundWriter& writer, double* samples, size_t frames, std::string& error)
{
    const size_t count = frames * static_cast<size_t>(writer.channels);
    sf_count_t written = 0;
    if (writer.word.floating) {
        writer.floats.resize(count);
        for (size_t i = 0; i < count; ++i) {
            writer.floats[i] = static_cast<float>(samples[i]);
            samples[i] = writer.floats[i];
        }
        written = sf_writef_float(writer.file, writer.floats.data(), static_cast<sf_count_t>(frames));
    } else {
        // Steps of the word, and the shift that puts them in the top bits
        // where libsndfile takes an integer sample.
        const double steps = static_cast<double>(int64_t{1} << (writer.word.bits - 1));
        const double step = 1.0 / steps;  // exact: steps is a power of two
        const int shift = 32 - writer.word.bits;
        const size_t channels = static_cast<size_t>(writer.channels);
        writer.ints.resize(count);
        for (size_t i = 0; i < count; i += channels)
            for (size_t c = 0; c < channels; ++c) {
                const double exact = samples[i + c] * steps;
                // A sample that rounds beyond the word without the noise is
                // an over; the noise alone may only nudge a full-scale
                // sample against the limit.
                const double rounded = std::nearbyint(exact);
                double value = rounded;
                if (writer.dither) {
                    value = exact;
                    value += Uniform(writer.noise) + Uniform(writer.noise);
                    value = std::nearbyint(value);
                }
                if (rounded > steps - 1.0 || rounded < -steps)
                    ++writer.overs[c];
                if (value > steps - 1.0)
                    value = steps - 1.0;
                if (value < -steps)
                    value = -steps;
                samples[i + c] = value * step;
                writer.ints[i + c] =
                    static_cast<int32_t>(static_cast<uint32_t>(static_cast<int32_t>(value)) << shift);
            }
        written = sf_writef_int(writer.file, writer.ints.data(), static_cast<sf_count_t>(frames));
    }
    if (written != static_cast<sf_count_t>(frames)) {
        error = sf_strerror(writer.file);
        return false;
    }
    return true;
}

bool CloseSoundWriter(SoundWriter& writer, std::string& error)
{
    if (writer.file == nullptr)
        return true;
    const int failed = sf_error(writer.file);
    const std::string reason = sf_strerror(writer.file);
    const int closed = sf_close(writer.file);
    writer.file = nullptr;
    if (failed != SF_ERR_NO_ERROR || closed != 0) {
        error = "cannot finish output: " + reason;
        return false;
    }
    return true;
}
