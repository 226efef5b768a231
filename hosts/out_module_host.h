// The host's record for output plug-ins as a POSIX host and a chained output
// plug-in of ours see it: the renderer, out_wav.so, the shell tests and their
// recording plug-ins. Written from the POSIX host contract alone, so that a host
// never depends on the processor's platform layer.
//
// Twenty fields in the host's order with natural alignment: three constants of
// the plug-in, the two handles that the host fills in, then fifteen functions.
// On a 64-bit POSIX system pointers are 8 bytes wide and the record takes 160
// bytes. A window handle is a pointer to a host window record whose first
// member is its window procedure; a module handle is the dlopen handle.
//
// Everything stands in the namespace `host`, so that a test that also sees the
// processor's own window records (with their own HWND) can include both.
#pragma once

#include <cstddef>
#include <cstdint>

namespace host {

struct HostWindow;
using HWND = HostWindow*;
using HINSTANCE = void*;
using WNDPROC = intptr_t (*)(HWND window, uint32_t message, uintptr_t wParam, intptr_t lParam);

// What a host's main window looks like to a plug-in: its procedure first.
// A plug-in hooks the window by swapping `proc`; the host delivers a command
// by calling `proc(window, kWmCommand, command, 0)`.
struct HostWindow {
    WNDPROC proc;  // the window's current procedure; the host's data may follow
};

constexpr int32_t kOutModuleVersion = 0x10;   // record version of the host's interface
constexpr int32_t kProcessorModuleId = 6546551;  // the id in out_kelvane's own record
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

static_assert(offsetof(HostWindow, proc) == 0, "the window procedure is the window's first member");
static_assert(sizeof(int) == 4, "int arguments and results are 32 bits wide");
static_assert(offsetof(Out_Module, GetWrittenTime) - offsetof(Out_Module, Config) == 14 * sizeof(void*),
              "the fifteen functions follow one another without gaps");

#if UINTPTR_MAX == 0xFFFFFFFFFFFFFFFFu
// LP64: 4 + 4 (padding) + 8 + 4 + 4 (padding) + 8 + 8 + 15 * 8.
static_assert(offsetof(Out_Module, version) == 0, "LP64 layout: version");
static_assert(offsetof(Out_Module, description) == 8, "LP64 layout: description");
static_assert(offsetof(Out_Module, id) == 16, "LP64 layout: id");
static_assert(offsetof(Out_Module, hMainWindow) == 24, "LP64 layout: hMainWindow");
static_assert(offsetof(Out_Module, hDllInstance) == 32, "LP64 layout: hDllInstance");
static_assert(offsetof(Out_Module, Config) == 40, "LP64 layout: the functions start after the handles");
static_assert(offsetof(Out_Module, Open) == 72, "LP64 layout: Open");
static_assert(offsetof(Out_Module, GetWrittenTime) == 152, "LP64 layout: GetWrittenTime last");
static_assert(sizeof(Out_Module) == 160, "LP64 layout: 160 bytes");
#endif

}  // namespace host
