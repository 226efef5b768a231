// out_wav: an output plug-in that writes what it is given to a WAV file.
//
// It has the host's output record and can be chained behind any plug-in that
// forwards to another, or loaded by a player directly. `Open` creates the file
// for the stream's rate, channels and bits, `Write` appends the bytes as they
// come, `Close` fills in the header sizes. Samples are never touched: volume
// and pan are accepted and ignored so that the file holds exactly the stream.
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
#include <string>
#include <vector>

#include "hosts/out_module_host.h"
#include "platform/posix/reg_file.h"
#include "hosts/render/wav_file.h"

namespace {

constexpr const char* kMakerName = "Morrowfen";
constexpr const char* kKeyName = "OutWav";
constexpr const char* kOutFileValue = "Out_File";
constexpr const char* kDefaultFileName = "out_wav.wav";
constexpr const char* kCaption = "WAV Writer";
constexpr int kOwnModuleId = 0x57415601;

// Room offered to the host at any moment. A file takes what comes, so this
// only has to be large enough never to hold a player back.
constexpr int kCanWriteBytes = 8 * 1024 * 1024;

struct WavWriterState {
    std::FILE* file;          // the open output, null between Close and Open
    std::string path;         // where it goes
    WavFormat format;         // as opened
    uint64_t data_bytes;      // sample bytes written since Open
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

std::string ConfiguredOutFile()
{
    std::vector<RegValue> values;
    ReadRegKey(RegStoreFile(kMakerName, kKeyName), RegKeyPath(kMakerName, kKeyName), values);
    const RegValue* value = FindRegValue(values, kOutFileValue);
    if (value == nullptr || value->is_dword || value->text.empty())
        return DefaultOutFile();
    return value->text;
}

int MillisecondsOf(uint64_t bytes)
{
    const uint64_t bytes_per_second = uint64_t{Writer.format.rate} * WavFrameBytes(Writer.format);
    if (bytes_per_second == 0)
        return 0;
    return static_cast<int>(bytes * 1000 / bytes_per_second);
}

// Writes the final sizes into the header and closes the file.
void FinishFile()
{
    if (Writer.file == nullptr)
        return;
    bool good = true;
    if (Writer.data_bytes & 1u)
        good = std::fputc(0, Writer.file) != EOF;
    const std::vector<uint8_t> header = WavHeader(Writer.format, static_cast<uint32_t>(Writer.data_bytes));
    good = good && std::fseek(Writer.file, 0, SEEK_SET) == 0;
    good = good && std::fwrite(header.data(), 1, header.size(), Writer.file) == header.size();
    good = (std::fclose(Writer.file) == 0) && good;
    if (!good)
        ShowMessage("could not finish " + Writer.path + ": " + std::strerror(errno));
    Writer.file = nullptr;
}

void Config(host::HWND)
{
    ShowMessage("writes to " + ConfiguredOutFile() + " (value Out_File in " + RegStoreFile(kMakerName, kKeyName) + ")");
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
    Writer.path = ConfiguredOutFile();
    Writer.format = WavFormat{static_cast<uint32_t>(samplerate), static_cast<uint16_t>(numchannels),
                              static_cast<uint16_t>(bitspersamp)};
    Writer.data_bytes = 0;
    Writer.bytes_at_flush = 0;
    Writer.time_at_flush_ms = 0;
    Writer.file = std::fopen(Writer.path.c_str(), "wb");
    if (Writer.file == nullptr) {
        ShowMessage("cannot create " + Writer.path + ": " + std::strerror(errno));
        return -1;
    }
    // Sizes of 0 until Close knows them.
    const std::vector<uint8_t> header = WavHeader(Writer.format, 0);
    if (std::fwrite(header.data(), 1, header.size(), Writer.file) != header.size()) {
        ShowMessage("cannot write " + Writer.path + ": " + std::strerror(errno));
        std::fclose(Writer.file);
        Writer.file = nullptr;
        return -1;
    }
    return 0;
}

void Close()
{
    FinishFile();
}

int Write(char* buf, int len)
{
    if (Writer.file == nullptr || len < 0)
        return 1;
    if (Writer.data_bytes + static_cast<uint64_t>(len) > kMaxWavDataBytes) {
        ShowMessage(Writer.path + " has reached the size limit of a WAV file");
        return 1;
    }
    if (len > 0 && std::fwrite(buf, 1, static_cast<size_t>(len), Writer.file) != static_cast<size_t>(len)) {
        ShowMessage("cannot write " + Writer.path + ": " + std::strerror(errno));
        return 1;
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
