// The host's side of the plug-in interface as a host writes it from the
// published description: the output record with its twenty fields and the
// window record whose first member is its procedure.
#pragma once

#include <cstddef>
#include <cstdint>

namespace host {

struct Window;
using WindowProc = intptr_t (*)(Window*, uint32_t message, uintptr_t wParam, intptr_t lParam);
struct Window {
    WindowProc proc;  // first member: the window's procedure
};

struct OutModule {
    int version;
    const char* description;
    int id;
    Window* hMainWindow;
    void* hDllInstance;
    void (*Config)(Window* hwndParent);
    void (*About)(Window* hwndParent);
    void (*Init)();
    void (*Quit)();
    int (*Open)(int samplerate, int numchannels, int bitspersamp, int bufferlenms, int prebufferms);
    void (*Close)();
    int (*Write)(char* buf, int len);
    int (*CanWrite)();
    int (*IsPlaying)();
    int (*Pause)(int pause);
    void (*SetVolume)(int volume);
    void (*SetPan)(int pan);
    void (*Flush)(int t);
    int (*GetOutputTime)();
    int (*GetWrittenTime)();
};

using GetOutModule = OutModule* (*)();

static_assert(sizeof(void*) != 8 || sizeof(OutModule) == 160, "LP64 layout: 160 bytes");
static_assert(sizeof(void*) != 8 || offsetof(OutModule, hMainWindow) == 24, "LP64 layout");
static_assert(sizeof(void*) != 8 || offsetof(OutModule, Config) == 40, "LP64 layout");
static_assert(sizeof(void*) != 8 || offsetof(OutModule, GetWrittenTime) == 152, "LP64 layout");

}  // namespace host
