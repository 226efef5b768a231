// out_wav: an output plug-in that writes what it is given to a WAV file.
//
// It has the host's output record and can be chained behind any plug-in that
// forwards to another, or loaded by a player directly. `Open` creates the file
// for the stream's rate, channels and bits, `Write` appends the bytes as they
// come, `Close` finishes the file. Samples are never touched: volume and pan
// are accepted and ignored so that the file holds exactly the stream, or the
// first channels of each of its frames when the key's dword Out_Channels
// asks for fewer than the stream has.
//
// The file is written through libsndfile as RF64 that is turned into a plain
// WAV (WAVE_FORMAT_EXTENSIBLE, two or six channels saying their speakers:
// L, R or L, R, C, LFE, SL, SR) at Close when it stayed below 4 GiB, as it
// nearly always does: a stream has no length known in advance, and a long
// one must not fail at its end. A host that knows better names the
// container in the dword Out_Format, libsndfile's major format (WAV,
// WAVEX, W64 or RF64), and gets exactly that.
//
// The bytes are gathered in memory and go to the file a megabyte at a time,
// on a thread of their own, so that a stream of small writes costs few
// system calls and the file system's copying runs beside the host's work; a
// write that failed is reported at the next one. Close (or the next Open,
// or Quit) writes the rest and waits for it.
//
// Where it writes is its own setting, the string value Out_File of the key
// HKEY_LOCAL_MACHINE\SOFTWARE\Morrowfen\OutWav in the registry stand-in. The
// key is read at every Open, not only at Init: a plug-in that chains us never
// calls our Init, and a host may point each track at a file of its own.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include <sndfile.h>

#include "hosts/out_module_host.h"
#include "hosts/render/out_wav_key.h"
#include "hosts/render/speaker_map.h"
#include "platform/posix/reg_file.h"

namespace {

constexpr const char* kDefaultFileName = "out_wav.wav";
constexpr const char* kCaption = "WAV Writer";
constexpr int kOwnModuleId = 0x57415601;

// Room offered to the host at any moment. A file takes what comes, so this
// only has to be large enough never to hold a player back.
constexpr int kCanWriteBytes = 8 * 1024 * 1024;

// Bytes gathered before they go to the file.
constexpr size_t kGatherBytes = 1024 * 1024;

struct WavWriterState {
    SNDFILE* file;            // the open output, null between Close and Open
    std::string path;         // where it goes
    int rate;                 // as opened: frames per second
    int frame_bytes;          // bytes of one frame of the stream
    int kept_bytes;           // bytes of it that go to the file: its first channels
    std::vector<char> gathered;  // kept bytes not in the file yet, whole frames
    std::vector<char> writing;   // bytes being written on the writer's thread
    std::future<bool> written;   // that write, while one is under way: true when the file took it all
    std::vector<char> partial;  // the start of a frame that a write cut off
    uint64_t data_bytes;      // sample bytes taken since Open
    uint64_t bytes_at_flush;  // data_bytes at the last Flush, the origin of the clock
    int time_at_flush_ms;     // the host's time at that Flush, milliseconds
    int paused;               // last pause state from the host
};

WavWriterState Writer;
host::Out_Module OwnModule;

// The stand-in for a message box: one line on standard error.
void ShowMessage(const std::string& text)
{
    std::fprintf(stderr, "%s: %s\n", kCaption, text.c_str());
}

std::string DefaultOutFile()
{
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] != '\0')
        return std::string(home) + "/" + kDefaultFileName;
    return kDefaultFileName;
}

std::vector<RegValue> ConfiguredValues()
{
    std::vector<RegValue> values;
    ReadRegKey(RegStoreFile(kOutWavMakerName, kOutWavKeyName), RegKeyPath(kOutWavMakerName, kOutWavKeyName), values);
    return values;
}

std::string ConfiguredOutFile(const std::vector<RegValue>& values)
{
    const RegValue* value = FindRegValue(values, kOutFileValue);
    if (value == nullptr || value->is_dword || value->text.empty())
        return DefaultOutFile();
    return value->text;
}

// The container asked for in Out_Format, with the subtype of `bits`; RF64
// that becomes WAV where it can when none of the four is asked for.
int ConfiguredFormat(const std::vector<RegValue>& values, int subtype, bool& downgrade)
{
    const RegValue* value = FindRegValue(values, kOutFormatValue);
    downgrade = false;
    if (value != nullptr && value->is_dword) {
        const int major = static_cast<int>(value->dword);
        if (major == SF_FORMAT_WAV || major == SF_FORMAT_WAVEX || major == SF_FORMAT_W64 || major == SF_FORMAT_RF64)
            return major | subtype;
    }
    downgrade = true;
    return SF_FORMAT_RF64 | subtype;
}

// The channels of a stream of `channels` that go to the file: all of them
// unless Out_Channels names fewer (and at least one).
int ConfiguredChannels(const std::vector<RegValue>& values, int channels)
{
    const RegValue* value = FindRegValue(values, kOutChannelsValue);
    if (value == nullptr || !value->is_dword)
        return channels;
    const int32_t asked = static_cast<int32_t>(value->dword);
    return asked >= 1 && asked < channels ? asked : channels;
}

int MillisecondsOf(uint64_t bytes)
{
    const uint64_t bytes_per_second = uint64_t(Writer.rate) * uint64_t(Writer.frame_bytes);
    if (bytes_per_second == 0)
        return 0;
    return static_cast<int>(bytes * 1000 / bytes_per_second);
}

// Waits for the write under way, if any. False, with the message shown,
// when the file took less.
bool FinishWriting()
{
    if (!Writer.written.valid())
        return true;
    const bool good = Writer.written.get();
    if (!good)
        ShowMessage("cannot write " + Writer.path + ": " + sf_strerror(Writer.file));
    return good;
}

// Hands the gathered bytes to the writer's thread once the last write is
// done, and with `wait` waits for them too. False, with the message shown,
// when the file took less of these or of the last.
bool WriteGathered(bool wait)
{
    if (!FinishWriting()) {
        Writer.gathered.clear();
        return false;
    }
    std::swap(Writer.gathered, Writer.writing);
    Writer.gathered.clear();
    if (!Writer.writing.empty()) {
        SNDFILE* file = Writer.file;
        const char* bytes = Writer.writing.data();
        const sf_count_t length = static_cast<sf_count_t>(Writer.writing.size());
        Writer.written =
            std::async(std::launch::async, [file, bytes, length] { return sf_write_raw(file, bytes, length) == length; });
    }
    return !wait || FinishWriting();
}

// Finishes and closes the file.
void FinishFile()
{
    if (Writer.file == nullptr)
        return;
    WriteGathered(true);
    const bool good = sf_error(Writer.file) == SF_ERR_NO_ERROR;
    const std::string reason = sf_strerror(Writer.file);
    if (sf_close(Writer.file) != 0 || !good)
        ShowMessage("could not finish " + Writer.path + ": " + reason);
    if (!Writer.partial.empty())
        ShowMessage(Writer.path + ": the stream ended inside a frame; its last " +
                    std::to_string(Writer.partial.size()) + " bytes were left out");
    Writer.file = nullptr;
    Writer.partial.clear();
}

// The libsndfile subtype of a depth.
int Subtype(int bits)
{
    switch (bits) {
    case 8: return SF_FORMAT_PCM_U8;
    case 24: return SF_FORMAT_PCM_24;
    case 32: return SF_FORMAT_PCM_32;
    default: return SF_FORMAT_PCM_16;
    }
}

void Config(host::HWND)
{
    ShowMessage("writes to " + ConfiguredOutFile(ConfiguredValues()) + " (value Out_File in " + RegStoreFile(kOutWavMakerName, kOutWavKeyName) + ")");
}

void About(host::HWND)
{
    ShowMessage("Morrowfen WAV Writer 0.1.3 / writes the stream it is given to a WAV file");
}

void Init()
{
    Writer.paused = 0;
}

void Quit()
{
    FinishFile();
}

int Open(int samplerate, int numchannels, int bitspersamp, int, int)
{
    FinishFile();
    if (samplerate <= 0 || numchannels < 1 || numchannels > 18 ||
        (bitspersamp != 8 && bitspersamp != 16 && bitspersamp != 24 && bitspersamp != 32)) {
        ShowMessage("cannot write " + std::to_string(numchannels) + " channels of " +
                    std::to_string(bitspersamp) + " bits at " + std::to_string(samplerate) + " Hz");
        return -1;
    }
    const std::vector<RegValue> values = ConfiguredValues();
    const int kept_channels = ConfiguredChannels(values, numchannels);
    Writer.path = ConfiguredOutFile(values);
    Writer.rate = samplerate;
    Writer.frame_bytes = numchannels * bitspersamp / 8;
    Writer.kept_bytes = kept_channels * bitspersamp / 8;
    Writer.partial.clear();
    Writer.data_bytes = 0;
    Writer.bytes_at_flush = 0;
    Writer.time_at_flush_ms = 0;
    bool downgrade = false;
    SF_INFO info{};
    info.samplerate = samplerate;
    info.channels = kept_channels;
    info.format = ConfiguredFormat(values, Subtype(bitspersamp), downgrade);
    Writer.file = sf_open(Writer.path.c_str(), SFM_WRITE, &info);
    if (Writer.file == nullptr) {
        ShowMessage("cannot create " + Writer.path + ": " + sf_strerror(nullptr));
        return -1;
    }
    if (downgrade)
        sf_command(Writer.file, SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
    SetSpeakerMap(Writer.file, info.format, kept_channels);
    Writer.gathered.reserve(kGatherBytes + static_cast<size_t>(kCanWriteBytes));
    Writer.writing.reserve(Writer.gathered.capacity());
    return 0;
}

void Close()
{
    FinishFile();
}

// The first `Kept` bytes of each `frame`-byte frame of `length` bytes, side
// by side at `to`.
template <size_t Kept>
void KeepFirst(char* to, const char* from, size_t length, size_t frame)
{
    for (size_t at = 0; at < length; at += frame, to += Kept)
        std::memcpy(to, from + at, Kept);
}

// `length` bytes of whole frames to the file: all of each frame, or its
// first channels side by side. False, with the message shown, when the file
// takes less.
bool WriteFrames(const char* bytes, size_t length)
{
    if (length == 0)
        return true;  // an empty write, whose buffer may be null
    const size_t frame = static_cast<size_t>(Writer.frame_bytes);
    const size_t kept = static_cast<size_t>(Writer.kept_bytes);
    std::vector<char>& gathered = Writer.gathered;
    const size_t at = gathered.size();
    gathered.resize(at + length / frame * kept);
    char* to = gathered.data() + at;
    // The usual widths (two channels of 16, 24 or 32 bits) as fixed-size
    // copies, which the compiler turns into single moves.
    if (kept == frame)
        std::memcpy(to, bytes, length);
    else if (kept == 4)
        KeepFirst<4>(to, bytes, length, frame);
    else if (kept == 6)
        KeepFirst<6>(to, bytes, length, frame);
    else if (kept == 8)
        KeepFirst<8>(to, bytes, length, frame);
    else
        for (size_t from = 0; from < length; from += frame, to += kept)
            std::memcpy(to, bytes + from, kept);
    return gathered.size() < kGatherBytes || WriteGathered(false);
}

// The bytes go to the file as they are, in whole frames: a frame that a
// write cuts off waits for the rest. Only then are the bytes copied.
int Write(char* buf, int len)
{
    if (Writer.file == nullptr || len < 0)
        return 1;
    std::vector<char>& partial = Writer.partial;
    const size_t frame = static_cast<size_t>(Writer.frame_bytes);
    if (partial.empty()) {
        const size_t length = static_cast<size_t>(len);
        const size_t whole = length - length % frame;
        if (!WriteFrames(buf, whole))
            return 1;
        partial.assign(buf + whole, buf + length);
    } else {
        partial.insert(partial.end(), buf, buf + len);
        const size_t whole = partial.size() - partial.size() % frame;
        if (!WriteFrames(partial.data(), whole))
            return 1;
        partial.erase(partial.begin(), partial.begin() + static_cast<long>(whole));
    }
    Writer.data_bytes += static_cast<uint64_t>(len);
    return 0;
}

int CanWrite()
{
    return Writer.paused ? 0 : kCanWriteBytes;
}

// Nothing is ever waiting to be heard: what was written is in the file.
int IsPlaying()
{
    return 0;
}

int Pause(int pause)
{
    const int earlier = Writer.paused;
    Writer.paused = pause;
    return earlier;
}

void SetVolume(int) {}

void SetPan(int) {}

// A seek: the file goes on, the clock starts again from the host's time.
void Flush(int t)
{
    Writer.bytes_at_flush = Writer.data_bytes;
    Writer.time_at_flush_ms = t;
}

int GetWrittenTime()
{
    return Writer.time_at_flush_ms + MillisecondsOf(Writer.data_bytes - Writer.bytes_at_flush);
}

int GetOutputTime()
{
    return GetWrittenTime();
}

}  // namespace

extern "C" __attribute__((visibility("default"))) host::Out_Module* winampGetOutModule()
{
    OwnModule.version = host::kOutModuleVersion;
    OwnModule.description = "Morrowfen WAV Writer 0.1.3";
    OwnModule.id = kOwnModuleId;
    OwnModule.Config = Config;
    OwnModule.About = About;
    OwnModule.Init = Init;
    OwnModule.Quit = Quit;
    OwnModule.Open = Open;
    OwnModule.Close = Close;
    OwnModule.Write = Write;
    OwnModule.CanWrite = CanWrite;
    OwnModule.IsPlaying = IsPlaying;
    OwnModule.Pause = Pause;
    OwnModule.SetVolume = SetVolume;
    OwnModule.SetPan = SetPan;
    OwnModule.Flush = Flush;
    OwnModule.GetOutputTime = GetOutputTime;
    OwnModule.GetWrittenTime = GetWrittenTime;
    return &OwnModule;
}
