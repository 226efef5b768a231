// The host's published record for output plug-ins: twenty words in this
// order, the same in this plug-in and in the chained one. Plain function
// addresses in the host's default calling convention.
#pragma once

#include <cstdint>

#include "platform/platform.h"

struct Out_Module {
    int version;              // record version of the host's interface
    const char* description;  // 8-bit text
    int id;
    HWND hMainWindow;         // filled in by the host
    HINSTANCE hDllInstance;   // filled in by the host

    void (*Config)(HWND hwndParent);
    void (*About)(HWND hwndParent);
    void (*Init)();
    void (*Quit)();
    // Negative on failure.
    int (*Open)(int samplerate, int numchannels, int bitspersamp, int bufferlenms, int prebufferms);
    void (*Close)();
    // 0 when accepted.
    int (*Write)(char* buf, int len);
    int (*CanWrite)();        // bytes that may be written now
    int (*IsPlaying)();       // non-zero while output is going on
    int (*Pause)(int pause);  // the earlier state
    void (*SetVolume)(int volume);
    void (*SetPan)(int pan);
    void (*Flush)(int t);     // t in milliseconds
    int (*GetOutputTime)();   // milliseconds played
    int (*GetWrittenTime)();  // milliseconds written
};

#ifdef _WIN32
static_assert(sizeof(void*) != 4 || sizeof(Out_Module) == 80, "the host's record is 80 bytes");
#endif

using WinampGetOutModuleFunction = Out_Module* (*)();

// The export, looked up in a library; null when it is missing.
inline WinampGetOutModuleFunction FindOutModuleExport(HMODULE library)
{
    // Through the generic function pointer type, which converts to any other
    // without a warning about incompatible function types.
    const auto address = reinterpret_cast<void (*)()>(GetProcAddress(library, "winampGetOutModule"));
    return reinterpret_cast<WinampGetOutModuleFunction>(address);
}

constexpr int kOutModuleVersion = 0x10;
constexpr int Own_Module_Id = 6546551;  // 0x63E477
