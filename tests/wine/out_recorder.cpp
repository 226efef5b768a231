// out_recorder.dll: an output plug-in for the tests under Wine that keeps
// what it is given. Chained behind out_kelvane.dll it stands where a sound
// device's plug-in would.
//
// Every call is appended as one line to the file named by the environment
// variable KELVANE_RECORD_LOG ("Open 44100 6 16 500 20", "Write 6912", ...).
// The bytes of every Write since the last Open go to the file named by
// KELVANE_RECORD_FILE, which Open truncates. The host sets both in its own
// process before it opens, so each test chooses its files. The forwarded
// results are fixed numbers that a test can recognise.
#include <windows.h>

#include <cstdio>

#include "tests/wine/out_module_abi.h"

namespace {

constexpr int kRecorderId = 0x52454331;     // 'REC1', not the processor's id
constexpr int kCanWriteBytes = 1234567;
constexpr int kIsPlaying = 7;
constexpr int kOutputTime = 1111;
constexpr int kWrittenTime = 2222;

HostOutModule Module;
char Description[] = "Kelvane test recorder";
HANDLE Data = INVALID_HANDLE_VALUE;
int PauseState = 0;

void Log(const char* format, int a = 0, int b = 0, int c = 0, int d = 0, int e = 0)
{
    wchar_t path[MAX_PATH];
    if (GetEnvironmentVariableW(L"KELVANE_RECORD_LOG", path, MAX_PATH) == 0)
        return;
    char line[160];
    const int length = std::snprintf(line, sizeof line, format, a, b, c, d, e);
    HANDLE file = CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    DWORD written = 0;
    WriteFile(file, line, static_cast<DWORD>(length), &written, nullptr);
    WriteFile(file, "\n", 1, &written, nullptr);
    CloseHandle(file);
}

void __cdecl Config(HWND) { Log("Config"); }
void __cdecl About(HWND) { Log("About"); }
void __cdecl Init() { Log("Init"); }
void __cdecl Quit() { Log("Quit"); }

int __cdecl Open(int samplerate, int numchannels, int bitspersamp, int bufferlenms, int prebufferms)
{
    Log("Open %d %d %d %d %d", samplerate, numchannels, bitspersamp, bufferlenms, prebufferms);
    if (Data != INVALID_HANDLE_VALUE)
        CloseHandle(Data);
    Data = INVALID_HANDLE_VALUE;
    wchar_t path[MAX_PATH];
    if (GetEnvironmentVariableW(L"KELVANE_RECORD_FILE", path, MAX_PATH) != 0)
        Data = CreateFileW(path, GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                           nullptr);
    return 0;
}

void __cdecl Close()
{
    Log("Close");
    if (Data != INVALID_HANDLE_VALUE)
        CloseHandle(Data);
    Data = INVALID_HANDLE_VALUE;
}

int __cdecl Write(char* buf, int len)
{
    Log("Write %d", len);
    if (Data != INVALID_HANDLE_VALUE && len > 0) {
        DWORD written = 0;
        WriteFile(Data, buf, static_cast<DWORD>(len), &written, nullptr);
    }
    return 0;
}

int __cdecl CanWrite() { return kCanWriteBytes; }
int __cdecl IsPlaying() { return kIsPlaying; }

int __cdecl Pause(int pause)
{
    Log("Pause %d", pause);
    const int earlier = PauseState;
    PauseState = pause;
    return earlier;
}

void __cdecl SetVolume(int volume) { Log("SetVolume %d", volume); }
void __cdecl SetPan(int pan) { Log("SetPan %d", pan); }
void __cdecl Flush(int t) { Log("Flush %d", t); }
int __cdecl GetOutputTime() { return kOutputTime; }
int __cdecl GetWrittenTime() { return kWrittenTime; }

}  // namespace

extern "C" __declspec(dllexport) HostOutModule* __cdecl winampGetOutModule()
{
    Module.version = 0x10;
    Module.description = Description;
    Module.id = kRecorderId;
    Module.Config = &Config;
    Module.About = &About;
    Module.Init = &Init;
    Module.Quit = &Quit;
    Module.Open = &Open;
    Module.Close = &Close;
    Module.Write = &Write;
    Module.CanWrite = &CanWrite;
    Module.IsPlaying = &IsPlaying;
    Module.Pause = &Pause;
    Module.SetVolume = &SetVolume;
    Module.SetPan = &SetPan;
    Module.Flush = &Flush;
    Module.GetOutputTime = &GetOutputTime;
    Module.GetWrittenTime = &GetWrittenTime;
    return &Module;
}
