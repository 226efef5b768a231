// libFuzzer target: the whole plug-in, linked in, driven through its record
// as a host may drive it. One input is one session of a host: a settings
// file, Init, then any interleaving of Open (1 to 8 channels, 8/12/16/24/32
// bits, 8000 to 192000 Hz), writes of any bytes and any length up to the
// host's limit of 8192 frames (a partial frame at the end included), Flush,
// Pause, the time and volume calls, Close, Quit and a fresh Init, the host
// window's commands, the configuration dialog played by a user (with writes
// arriving between its messages), and settings files rewritten underneath,
// and at the end Close and Quit.
//
// The driver keeps the host's side of the bargain and nothing more: it never
// writes before a successful Open, never passes more than 8192 frames or a
// stream of zero channels or bits, and refuses to play with settings that
// only a faulty host would hand over (an Out_Plug that is not one of its
// own chained plug-ins, an Out_Bits other than 16, 24 or 32, a surround
// delay whose two rings would ask for more than 1 GiB). Whatever the
// settings file holds besides is fair game.
//
// It checks what the plug-in promises of every call: each write reaches the
// chained plug-in once, whole frames of six channels, and its result comes
// back unchanged; frames out plus frames held equal frames in plus frames
// held before, with the count each mode gives (the convolver's lumps of
// 8192, the tail's make-up, the out-of-range Headphone case that leaves the
// count alone); resets happen at Flush, and at Open and Close exactly when
// Play or Stop asked for one; a load that fails answers -1 with its message
// box and leaves a later Open to try again.
#include <dlfcn.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "tools/counting_output.h"
#include "fuzz/fuzz_check.h"
#include "platform/posix/dialog_emulator.h"
#include "settings/control_table.h"
#include "shell/chained_output.h"

extern "C" Out_Module* winampGetOutModule();

namespace {

CountingTally Tally;

// The probe of the POSIX platform: message boxes and library loads.
PlatformProbe* Probe()
{
    return static_cast<PlatformProbe*>(dlsym(RTLD_DEFAULT, kPlatformProbeSymbol));
}

constexpr uint32_t kHostFrameLimit = 8192;   // frames in one write
constexpr uint64_t kRingBudget = 1ull << 30;  // bytes both delay rings may ask for
constexpr float kMicrosecond = 9.99999997e-07f;  // the delay line's one millionth, as a float
constexpr int32_t kHeadphoneLowRate = 44100;
constexpr int32_t kHeadphoneHighRate = 48000;
constexpr uint32_t kConvolverBlock = 8192;
constexpr int kMaxDialogTurns = 48;
constexpr size_t kMaxSettingsText = 4096;

const int32_t kRates[] = {8000, 11025, 16000, 22050, 32000, 44099, 44100, 47999, 48000, 48001, 88200, 96000, 192000};
const uint32_t kBits[] = {8, 12, 16, 24, 32};
const uint32_t kOutBits[] = {16, 24, 32};

const char* const kNumberNames[] = {"Mode", "Out_Bits", "Surround_Delay", "Centre_Width", "Centre_Trim",
                                    "Surround_Trim_00", "Bass_Redir", "Bass_Redir_Enable", "Bass_Trim",
                                    "Bass_Invert", "Virtual_C", "L", "R", "C", "SL", "SR"};

// The files of this run: the two chained plug-ins, a path where nothing is,
// a file that is no library, and the settings file.
struct Files {
    std::string chained[2];
    std::string missing;
    std::string notLibrary;
    std::string settings;
    std::u16string wide[4];  // chained a, chained b, missing, not a library
} Paths;

std::u16string Wide(const std::string& text)
{
    return std::u16string(text.begin(), text.end());
}

// ---- The host's window, which also plays the user in the dialog ----

HWND__ HostWindow;
FuzzedDataProvider* Input = nullptr;  // the input being run, for the dialog's turns

struct HostState {
    Out_Module* plugin = nullptr;
    bool initialised = false;
    bool libraryFresh = false;  // the last load succeeded: every forward is safe
    bool streamOpen = false;    // the last Open succeeded
    uint32_t writes = 0;
} Host;

LRESULT HostProc(HWND, UINT message, WPARAM, LPARAM lParam);

// ---- Settings ----

bool PathIsOneOfOurs(const WCHAR* path)
{
    const std::u16string text(path);
    if (text.empty() || text == u"out_ds.dll")
        return true;
    for (const std::u16string& ours : Paths.wide)
        if (text == ours)
            return true;
    return false;
}

// The length of each delay ring at this rate, as the delay line forms it.
bool DelayFits(int32_t delayMs, int32_t rate)
{
    const uint32_t microseconds = uint32_t(delayMs) * 1000u;
    const double samples = double(rate) * double(kMicrosecond) * double(microseconds);
    const uint64_t length = uint64_t(samples) & 0xFFFFFFFFu;
    return 2 * length * sizeof(float) <= kRingBudget;
}

// Would a host in its right mind play with these settings at this rate?
bool SettingsPlayable(int32_t rate)
{
    const ProcessorSettingsRecord& s = ProcessorSettings;
    return PathIsOneOfOurs(s.Out_Plug) && (s.Out_Bits == 16 || s.Out_Bits == 24 || s.Out_Bits == 32) &&
           DelayFits(s.Surround_Delay, rate);
}

void WriteText(const std::string& path, const std::string& text)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(file != nullptr, "cannot write the settings file");
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
}

uint32_t SmallOrAny(FuzzedDataProvider& in, uint32_t small)
{
    return in.ConsumeBool() ? in.ConsumeIntegralInRange<uint32_t>(0, small) : in.ConsumeIntegral<uint32_t>();
}

// A settings file: raw bytes, or a .reg file whose body is free text, or
// value lines of every name with words of any size, each followed by lines
// that make it playable more often than chance would.
std::string SettingsText(FuzzedDataProvider& in)
{
    const int kind = in.ConsumeIntegralInRange(0, 3);
    if (kind == 0)
        return in.ConsumeRandomLengthString(kMaxSettingsText);
    std::string text = in.ConsumeBool() ? "Windows Registry Editor Version 5.00\r\n\r\n" : "\xEF\xBB\xBFWindows Registry Editor Version 5.00\n\n";
    text += in.ConsumeBool() ? "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]\n" : "[hkey_local_machine\\software\\morrowfen\\KELVANE]\n";
    if (kind == 1) {
        text += in.ConsumeRandomLengthString(kMaxSettingsText) + "\n";
    } else {
        for (const char* name : kNumberNames) {
            if (!in.ConsumeBool())
                continue;
            char line[96];
            std::snprintf(line, sizeof line, in.ConsumeBool() ? "\"%s\"=dword:%08x\n" : "\"%s\" = DWORD:%x\n", name,
                          SmallOrAny(in, 300));
            text += line;
        }
        if (kind == 3)
            text += in.ConsumeRandomLengthString(256) + "\n";
    }
    if (in.ConsumeBool()) {
        const size_t which = in.ConsumeIntegralInRange<size_t>(0, 3);
        const std::string path = which < 2 ? Paths.chained[which] : which == 2 ? Paths.missing : std::string();
        text += "\"Out_Plug\"=\"" + path + "\"\n";
    }
    if (in.ConsumeBool()) {
        char line[48];
        std::snprintf(line, sizeof line, "\"Out_Bits\"=dword:%08x\n", kOutBits[in.ConsumeIntegralInRange(0, 2)]);
        text += line;
    }
    return text;
}

// ---- The checks around each call ----

uint32_t PendingFrames()
{
    return PluginEngine.Headphone.Pending_Frames;
}

bool SpeakerLayoutConvolves(uint32_t channels)
{
    return channels == 2 || (channels >= 4 && channels <= 6);
}

void HostWrite(FuzzedDataProvider& in)
{
    if (!Host.streamOpen)
        return;
    const StreamWords stream = ChainedOutput.Stream;
    const uint32_t sampleBytes = stream.Stream_Bits >> 3;
    const uint32_t frameBytes = stream.Stream_Channels * sampleBytes;
    const uint8_t size = in.ConsumeIntegral<uint8_t>();
    const uint32_t frames = in.ConsumeIntegralInRange<uint32_t>(0, size < 128 ? 64 : size < 224 ? 1152 : kHostFrameLimit);
    const uint32_t extra = in.ConsumeIntegralInRange<uint32_t>(0, frameBytes - 1);
    const size_t length = size_t(frames) * frameBytes + extra;

    // Audio from the input; where the input runs short, a noise of its own.
    std::vector<uint8_t> pcm = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, length));
    uint32_t noise = 0x9E3779B9u ^ uint32_t(length);
    while (pcm.size() < length) {
        noise = noise * 1664525u + 1013904223u;
        pcm.push_back(uint8_t(noise >> 24));
    }
    pcm.shrink_to_fit();

    Tally.writeResult = in.ConsumeBool() ? 0 : in.ConsumeIntegral<int32_t>();
    const uint32_t before = PendingFrames();
    const uint32_t writesBefore = Tally.writes[0] + Tally.writes[1];
    const int32_t mode = ProcessorSettings.Mode;
    const int result = Host.plugin->Write(reinterpret_cast<char*>(pcm.data()), int(length));
    ++Host.writes;

    FUZZ_CHECK(result == Tally.writeResult, "the chained Write's result did not come back unchanged");
    FUZZ_CHECK(Tally.writes[0] + Tally.writes[1] == writesBefore + 1, "a write did not reach the chained plug-in once");
    const uint32_t outFrameBytes = 6 * (stream.Output_Bits >> 3);
    FUZZ_CHECK(Tally.lastWriteLength >= 0 && uint32_t(Tally.lastWriteLength) % outFrameBytes == 0,
               "the chained plug-in got a partial six-channel frame");
    const uint32_t out = uint32_t(Tally.lastWriteLength) / outFrameBytes;
    const uint32_t after = PendingFrames();
    FUZZ_CHECK(uint64_t(out) + after == uint64_t(frames) + before, "frames out + frames held != frames in + frames held before");

    const bool headphone = mode == 4 && SpeakerLayoutConvolves(stream.Stream_Channels);
    const bool inRange = stream.Stream_Rate >= kHeadphoneLowRate && stream.Stream_Rate <= kHeadphoneHighRate;
    if (headphone && inRange) {
        FUZZ_CHECK(out % kConvolverBlock == 0 && after < kConvolverBlock, "the convolver released no whole blocks");
    } else if (mode == 4) {
        FUZZ_CHECK(out == frames && after == before, "Headphone without the convolver changed the count");
    } else {
        FUZZ_CHECK(out == frames + before && after == 0, "the tail did not make up for the held frames");
    }
}

// Open as a host does; the settings decide whether it dares.
void HostOpen(FuzzedDataProvider& in)
{
    const int32_t rate = in.ConsumeBool() ? kRates[in.ConsumeIntegralInRange<size_t>(0, std::size(kRates) - 1)]
                                          : in.ConsumeIntegralInRange<int32_t>(8000, 192000);
    const int channels = in.ConsumeIntegralInRange(1, 8);
    const int bits = int(kBits[in.ConsumeIntegralInRange<size_t>(0, std::size(kBits) - 1)]);
    const int bufferMs = in.ConsumeIntegralInRange(0, 5000);
    const int prebufferMs = in.ConsumeIntegralInRange(0, 1000);
    Tally.openResult = in.ConsumeIntegralInRange(0, 3) == 0 ? -in.ConsumeIntegralInRange(1, 1000) : 0;
    if (!SettingsPlayable(rate))
        return;

    const uint32_t pendingBefore = PendingFrames();
    const uint32_t resetAsked = Reset_Pending;
    const uint32_t opensBefore = Tally.opens[0] + Tally.opens[1];
    const uint32_t boxesBefore = Probe()->messageBoxes;
    const int result = Host.plugin->Open(rate, channels, bits, bufferMs, prebufferMs);
    const bool reached = Tally.opens[0] + Tally.opens[1] == opensBefore + 1;

    FUZZ_CHECK(ChainedOutput.Stream.Stream_Rate == rate && ChainedOutput.Stream.Stream_Channels == uint32_t(channels) &&
                   ChainedOutput.Stream.Stream_Bits == uint32_t(bits),
               "Open did not latch the stream words");
    if (!reached) {
        // The load failed: -1, the message, nothing reset, and the next
        // Open tries again.
        FUZZ_CHECK(result == -1 && Probe()->messageBoxes == boxesBefore + 1, "a failed load did not answer -1 with its message");
        FUZZ_CHECK(ChainedOutput.Library == nullptr && ChainedOutput.Reload_Needed != 0, "a failed load left a library");
        FUZZ_CHECK(Reset_Pending == resetAsked && PendingFrames() == pendingBefore, "a failed load reset the engine");
        Host.libraryFresh = false;
        Host.streamOpen = false;
        return;
    }
    FUZZ_CHECK(result == Tally.openResult, "the chained Open's result did not come back unchanged");
    FUZZ_CHECK(Tally.lastOpenRate == rate && Tally.lastOpenChannels == 6 &&
                   Tally.lastOpenBits == ProcessorSettings.Out_Bits,
               "the chained plug-in was not opened at the true rate with six channels of Out_Bits");
    FUZZ_CHECK(Reset_Pending == 0 && PendingFrames() == (resetAsked != 0 ? 0 : pendingBefore),
               "Open did not reset exactly when asked");
    Host.libraryFresh = true;
    Host.streamOpen = result >= 0;
}

void HostClose()
{
    if (!Host.libraryFresh)
        return;
    const uint32_t pendingBefore = PendingFrames();
    const uint32_t resetAsked = Reset_Pending;
    Host.plugin->Close();
    FUZZ_CHECK(Reset_Pending == 0 && PendingFrames() == (resetAsked != 0 ? 0 : pendingBefore),
               "Close did not reset exactly when asked");
    Host.streamOpen = false;
}

void HostInit()
{
    Host.plugin->Init();
    Host.initialised = true;
    Host.libraryFresh = false;
    Host.streamOpen = false;
}

void HostQuit()
{
    if (Host.streamOpen)
        HostClose();
    Host.plugin->Quit();
    FUZZ_CHECK(PendingFrames() == 0, "Quit did not reset the engine");
    FUZZ_CHECK(HostWindow.proc == &HostProc, "Quit did not give the window its procedure back");
    Host.initialised = false;
    Host.libraryFresh = false;
}

// A message to the host's window, as the host's own window would get it.
void HostMessage(FuzzedDataProvider& in)
{
    static const uintptr_t kCommands[] = {40045, 40046, 40047};
    const uint32_t asked = Reset_Pending;
    UINT message = WM_COMMAND;
    WPARAM wParam = kCommands[in.ConsumeIntegralInRange(0, 2)] | (uintptr_t(in.ConsumeIntegral<uint16_t>()) << 16);
    if (in.ConsumeIntegralInRange(0, 3) == 0) {
        message = in.ConsumeIntegral<uint16_t>();
        if (message == WM_ENTERIDLE)
            message = WM_NULL;
        wParam = in.ConsumeIntegral<uint32_t>();
    }
    const LPARAM lParam = in.ConsumeIntegral<int32_t>();
    HostWindow.proc(&HostWindow, message, wParam, lParam);
    const WORD command = LOWORD(wParam);
    const bool playOrStop = message == WM_COMMAND && (command == 40045 || command == 40047);
    FUZZ_CHECK(Reset_Pending == (playOrStop ? 1u : asked), "the hook set its flag for the wrong message");
}

// ---- The user in the dialog ----

DialogControl* Control(HWND dialog, int id)
{
    DialogWindow& record = *reinterpret_cast<DialogWindow*>(dialog);
    for (uint32_t i = 0; i < record.controlCount; ++i)
        if (record.controls[i].id == id)
            return &record.controls[i];
    return nullptr;
}

LRESULT Send(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    return window->proc(window, message, wParam, lParam);
}

void DialogTurn(HWND dialog, FuzzedDataProvider& in, int turn)
{
    static const int kTrackBars[] = {kIdSurroundDelay, kIdCentreTrim, kIdSurroundTrim, kIdBassRedir, kIdBassTrim,
                                     kIdCentreWidth};
    static const int kButtons[] = {kIdBassRedirEnable, kIdVirtualC, kIdMuteAll, kIdUnmuteAll, kIdSpeakerL,
                                   kIdSpeakerC, kIdSpeakerR, kIdSpeakerSL, kIdSpeakerSR, kIdBassInvert};
    static OpenFileAnswer answer;
    if (in.remaining_bytes() == 0 || turn >= kMaxDialogTurns)
        return;  // nothing more: the dialog closes as by its close box
    switch (in.ConsumeIntegralInRange(0, 10)) {
    case 0:
        Send(&Control(dialog, kIdOk)->window, BM_CLICK, 0, 0);
        return;
    case 1:
        Send(&Control(dialog, kIdCancel)->window, BM_CLICK, 0, 0);
        return;
    case 2:
        return;  // the close box
    case 3:
    case 4: {
        const int id = in.ConsumeBool() ? kIdMode : kIdOutBits;
        DialogControl& list = *Control(dialog, id);
        if (list.itemCount == 0 || !list.enabled)
            break;
        Send(&list.window, CB_SETCURSEL, in.ConsumeIntegralInRange<uint32_t>(0, list.itemCount - 1), 0);
        Send(dialog, WM_COMMAND, MAKEWPARAM(id, CBN_SELCHANGE), reinterpret_cast<LPARAM>(&list.window));
        break;
    }
    case 5: {
        DialogControl& bar = *Control(dialog, kTrackBars[in.ConsumeIntegralInRange<size_t>(0, std::size(kTrackBars) - 1)]);
        if (!bar.enabled || bar.rangeMax < bar.rangeMin)
            break;
        const int32_t position = in.ConsumeIntegralInRange(bar.rangeMin, bar.rangeMax);
        Send(&bar.window, TBM_SETPOS, TRUE, position);
        constexpr WORD kThumbTrack = 5;  // SB_THUMBTRACK
        Send(dialog, WM_HSCROLL, MAKEWPARAM(kThumbTrack, WORD(position)), reinterpret_cast<LPARAM>(&bar.window));
        break;
    }
    case 6:
        Send(&Control(dialog, kButtons[in.ConsumeIntegralInRange<size_t>(0, std::size(kButtons) - 1)])->window,
             BM_CLICK, 0, 0);
        break;
    case 7: {
        // "Select": the file dialog answers with one of our files or a
        // cancel; the dialog tests the candidate itself.
        if (!PathIsOneOfOurs(ProcessorSettings.Out_Plug))
            break;
        const size_t which = in.ConsumeIntegralInRange<size_t>(0, std::size(Paths.wide));
        answer = OpenFileAnswer{};
        answer.path = which < std::size(Paths.wide) ? Paths.wide[which].c_str() : nullptr;
        Send(dialog, WM_QUEUE_OPEN_FILE, 0, reinterpret_cast<LPARAM>(&answer));
        Send(&Control(dialog, kIdSelect)->window, BM_CLICK, 0, 0);
        break;
    }
    case 8:
        if (PathIsOneOfOurs(ProcessorSettings.Out_Plug) && ProcessorSettings.Out_Plug[0] != 0)
            Send(&Control(dialog, kIdConfigure)->window, BM_CLICK, 0, 0);
        break;
    case 9:
        // The write thread's turn, between two messages of the dialog.
        if (Host.streamOpen && SettingsPlayable(ChainedOutput.Stream.Stream_Rate))
            HostWrite(in);
        break;
    case 10:
        HostMessage(in);
        break;
    }
    // Something for the dialog in every turn, so that it stays open until a
    // turn ends it.
    if (!reinterpret_cast<DialogWindow*>(dialog)->ended)
        Send(dialog, WM_NULL, 0, 0);
}

int DialogTurns = 0;

LRESULT HostProc(HWND, UINT message, WPARAM, LPARAM lParam)
{
    if (message == WM_ENTERIDLE && Input != nullptr)
        DialogTurn(reinterpret_cast<HWND>(lParam), *Input, DialogTurns++);
    return 0;
}

void HostConfig(FuzzedDataProvider& in)
{
    DialogTurns = 0;
    Host.plugin->Config(&HostWindow);
    (void)in;
    // Cancel reads the file again, which may hold anything: a host that
    // finds its settings unplayable stops.
    if (Host.streamOpen && !SettingsPlayable(ChainedOutput.Stream.Stream_Rate))
        HostClose();
}

void RunSession(FuzzedDataProvider& in)
{
    WriteText(Paths.settings, SettingsText(in));
    HostInit();
    while (in.remaining_bytes() > 0) {
        switch (in.ConsumeIntegralInRange(0, 11)) {
        case 0:
            HostOpen(in);
            break;
        case 1:
        case 2:
        case 3:
            HostWrite(in);
            break;
        case 4:
            if (Host.streamOpen) {
                Host.plugin->Flush(in.ConsumeIntegral<int32_t>());
                FUZZ_CHECK(PendingFrames() == 0, "Flush did not reset the engine");
            }
            break;
        case 5:
            if (Host.libraryFresh)
                Host.plugin->Pause(in.ConsumeIntegralInRange(0, 1));
            break;
        case 6:
            HostClose();
            break;
        case 7:
            HostQuit();
            if (in.ConsumeBool())
                WriteText(Paths.settings, SettingsText(in));
            HostInit();
            break;
        case 8:
            HostMessage(in);
            break;
        case 9:
            if (Host.libraryFresh) {
                Host.plugin->CanWrite();
                Host.plugin->IsPlaying();
                Host.plugin->GetOutputTime();
                Host.plugin->GetWrittenTime();
            }
            Host.plugin->SetVolume(in.ConsumeIntegralInRange(0, 255));
            Host.plugin->SetPan(in.ConsumeIntegralInRange(-128, 128));
            break;
        case 10:
            HostConfig(in);
            break;
        case 11:
            if (in.ConsumeBool())
                WriteText(Paths.settings, SettingsText(in));  // underneath an open stream
            else
                Host.plugin->About(&HostWindow);
            break;
        }
    }
    HostQuit();
}

std::string MakeFolder(const std::string& base)
{
    std::string pattern = base + "/kelvane-fuzz-XXXXXX";
    FUZZ_CHECK(mkdtemp(pattern.data()) != nullptr, "no temporary folder");
    return pattern;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CountingTally* KelvaneCountingTally()
{
    return &Tally;
}

// The platform's probe, found by the plug-in's POSIX services.
extern "C" __attribute__((visibility("default"))) PlatformProbe PosixPlatformProbe{};

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    struct stat shm;
    const std::string folder = MakeFolder(stat("/dev/shm", &shm) == 0 ? "/dev/shm" : "/tmp");
    setenv("XDG_CONFIG_HOME", (folder + "/config").c_str(), 1);
    mkdir((folder + "/config").c_str(), 0777);
    mkdir((folder + "/config/Morrowfen").c_str(), 0777);
    Paths.settings = folder + "/config/Morrowfen/Kelvane.reg";
    Paths.chained[0] = KELVANE_FUZZ_CHAINED_A;
    Paths.chained[1] = KELVANE_FUZZ_CHAINED_B;
    Paths.missing = folder + "/no_such_output.so";
    Paths.notLibrary = folder + "/not_a_library.so";
    WriteText(Paths.notLibrary, "text, not a library\n");
    // One reference of our own to each chained plug-in, so that the plug-in's
    // FreeLibrary never unmaps a library whose coverage counters libFuzzer
    // goes on reading.
    for (const std::string& path : Paths.chained)
        FUZZ_CHECK(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL) != nullptr, "a chained plug-in does not load");
    Paths.wide[0] = Wide(Paths.chained[0]);
    Paths.wide[1] = Wide(Paths.chained[1]);
    Paths.wide[2] = Wide(Paths.missing);
    Paths.wide[3] = Wide(Paths.notLibrary);

    HostWindow.proc = &HostProc;
    Host.plugin = winampGetOutModule();
    Host.plugin->hMainWindow = &HostWindow;
    Host.plugin->hDllInstance = nullptr;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    Input = &in;
    RunSession(in);
    Input = nullptr;
    return 0;
}
