// The Windows services of the plug-in on POSIX, apart from the registry
// (registry.cpp) and the dialog (dialog_emulator.cpp).
//
// Libraries are dlopen handles. Windows are records whose first member is
// their procedure. Message boxes are lines on standard error. A host that
// defines the probe of dialog_emulator.h sees every box and every library
// release here as well.
#include <dlfcn.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "platform/posix/dialog_emulator.h"
#include "platform/posix/wide_utf8.h"

// The host's probe, looked up at each use, so that a host may define it in a
// library it loads later; null without one.
static PlatformProbe* Probe()
{
    return static_cast<PlatformProbe*>(dlsym(RTLD_DEFAULT, kPlatformProbeSymbol));
}

static std::u16string_view WideView(LPCWSTR text)
{
    return std::u16string_view(text != nullptr ? text : u"", WideCharCount(text));
}

// ---- Libraries ----

HMODULE LoadLibraryW(LPCWSTR path)
{
    // Windows finds no library of an empty name, where dlopen("") would hand
    // back the program itself. A name that UTF-8 cannot hold names no file.
    std::string name;
    if (path == nullptr || path[0] == 0 || !Utf8FromWide(WideView(path), name))
        return nullptr;
    HMODULE library = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (PlatformProbe* probe = Probe(); probe != nullptr && library != nullptr)
        ++probe->libraryLoads;
    return library;
}

FARPROC GetProcAddress(HMODULE library, LPCSTR name)
{
    if (library == nullptr)
        return nullptr;
    return dlsym(library, name);
}

BOOL FreeLibrary(HMODULE library)
{
    if (PlatformProbe* probe = Probe())
        ++probe->libraryReleases;
    if (library == nullptr)
        return FALSE;
    return dlclose(library) == 0 ? TRUE : FALSE;
}

// ---- Windows ----

LONG_PTR SetWindowLongW(HWND window, int index, LONG_PTR value)
{
    if (window == nullptr || index != GWL_WNDPROC)
        return 0;
    const WNDPROC previous = window->proc;
    window->proc = reinterpret_cast<WNDPROC>(value);
    return reinterpret_cast<LONG_PTR>(previous);
}

int MessageBoxW(HWND owner, LPCWSTR text, LPCWSTR caption, UINT type)
{
    std::string captionText;
    std::string bodyText;
    Utf8FromWide(caption != nullptr ? WideView(caption) : u"Error", captionText);
    Utf8FromWide(WideView(text), bodyText);
    std::string line = captionText + ": ";
    for (const char c : bodyText) {
        if (c == '\n')
            line += " / ";
        else
            line += c;
    }
    line += '\n';
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);

    if (PlatformProbe* probe = Probe()) {
        ++probe->messageBoxes;
        probe->lastBoxOwner = owner;
        probe->lastBoxType = type;
        CopyWideBounded(probe->lastBoxCaption, caption, kProbeCaptionChars);
        CopyWideBounded(probe->lastBoxText, text, kProbeTextChars);
    }
    return IDOK;
}
