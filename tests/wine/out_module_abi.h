// The player's record for output plug-ins as a Windows host sees it, written
// out here from the published layout rather than taken from the plug-in's
// own headers, so that the tests under Wine check the layout instead of
// sharing it. Twenty fields; 80 bytes on 32-bit Windows. The functions use
// the default C calling convention, as the player expects of output plug-ins.
#pragma once

#include <windows.h>

#include <cstddef>

struct HostOutModule {
    int version;              // 0x10
    char* description;        // 8-bit text
    int id;
    HWND hMainWindow;         // filled in by the host
    HINSTANCE hDllInstance;   // filled in by the host
    void(__cdecl* Config)(HWND hwndParent);
    void(__cdecl* About)(HWND hwndParent);
    void(__cdecl* Init)();
    void(__cdecl* Quit)();
    int(__cdecl* Open)(int samplerate, int numchannels, int bitspersamp, int bufferlenms, int prebufferms);
    void(__cdecl* Close)();
    int(__cdecl* Write)(char* buf, int len);
    int(__cdecl* CanWrite)();
    int(__cdecl* IsPlaying)();
    int(__cdecl* Pause)(int pause);
    void(__cdecl* SetVolume)(int volume);
    void(__cdecl* SetPan)(int pan);
    void(__cdecl* Flush)(int t);
    int(__cdecl* GetOutputTime)();
    int(__cdecl* GetWrittenTime)();
};

using HostGetOutModule = HostOutModule*(__cdecl*)();

#ifndef _WIN64
static_assert(sizeof(HostOutModule) == 80, "the player's record is twenty 32-bit words");
static_assert(offsetof(HostOutModule, hMainWindow) == 12, "hMainWindow at byte 12");
static_assert(offsetof(HostOutModule, Config) == 20, "Config at byte 20");
static_assert(offsetof(HostOutModule, Open) == 36, "Open at byte 36");
static_assert(offsetof(HostOutModule, GetWrittenTime) == 76, "GetWrittenTime at byte 76");
#endif
