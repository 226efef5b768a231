// The host's record for output plug-ins, as a Linux host and an output
// plug-in of ours see it.
//
// Twenty fields in the host's order with natural alignment: three constants of
// the plug-in, the two handles that the host fills in, then fifteen functions.
// On a 64-bit POSIX system pointers are 8 bytes wide and the record takes 160
// bytes. A window handle is a pointer to a host window record whose first
// member is its window procedure; a module handle is the dlopen handle.
#pragma once

#include <cstddef>
#include <cstdint>

struct HostWindow;
using HWND = HostWindow*;
using HINSTANCE = void*;
using WNDPROC = intptr_t (*)(HWND window, uint32_t message, uintptr_t wParam, intptr_t lParam);

// What a host's main window looks like to a plug-in: its procedure first.
// A plug-in hooks the window by swapping `proc`; the host delivers a command
// by calling `proc(window, kWmCommand, command, 0)`.
struct HostWindow {
    WNDPROC proc;  // the window's current procedure
};

constexpr int32_t kOutModuleVersion = 0x10;   // record version of the host's interface
constexpr uint32_t kWmCommand = 0x111;        // WM_COMMAND
constexpr uintptr_t kCommandPlay = 40045;     // the host's Play button
constexpr uintptr_t kCommandStop = 40047;     // the host's Stop button

struct Out_Module {
    int version;             // kOutModuleVersion
    const char* description; // 8-bit text shown in the host's list
    int id;                  // the plug-in's own number
    HWND hMainWindow;        // filled in by the host
    HINSTANCE hDllInstance;  // filled in by the host

    void (*Config)(HWND hwndParent);
    void (*About)(HWND hwndParent);
    void (*Init)();
    void (*Quit)();
    // Result: negative on failure.
    int (*Open)(int samplerate, int numchannels, int bitspersamp, int bufferlenms, int prebufferms);
    void (*Close)();
    // Result: 0 when the block was accepted.
    int (*Write)(char* buf, int len);
    // Bytes that may be written now.
    int (*CanWrite)();
    int (*IsPlaying)();
    // Result: the pause state before the call.
    int (*Pause)(int pause);
    void (*SetVolume)(int volume);
    void (*SetPan)(int pan);
    void (*Flush)(int t);
    int (*GetOutputTime)();
    int (*GetWrittenTime)();
};

using GetOutModuleFunction = Out_Module* (*)();
constexpr const char* kGetOutModuleName = "winampGetOutModule";

#if UINTPTR_MAX == 0xFFFFFFFFFFFFFFFFu
static_assert(sizeof(Out_Module) == 160, "the host's record layout on LP64");
static_assert(offsetof(Out_Module, Config) == 40, "function slots start after the handles");
#endif
