// Init, Quit and the procedure put in front of the host's main window.
//
// Open and Close do not clear the engine by themselves: filter memories,
// delay rings and the convolver's overlap run on from track to track. Only
// the user's Play and Stop, seen here as the host window's commands, ask for
// a reset, which the next Open or Close then carries out.
#include "settings/settings_store.h"
#include "shell/chained_output.h"

constexpr UINT kCommandMessage = 0x111;   // WM_COMMAND
constexpr WORD kPlayCommand = 40045;      // the host's Play button
constexpr WORD kStopCommand = 40047;      // the host's Stop button
constexpr int kWindowProcIndex = -4;      // GWL_WNDPROC

// interface thread
LRESULT CALLBACK HostWindowHook(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    // Menu, button and accelerator alike: the high word is not looked at.
    if (message == kCommandMessage) {
        const WORD command = LOWORD(wParam);
        if (command == kPlayCommand || command == kStopCommand)
            Reset_Pending = 1;
    }
    // A direct call of the saved procedure; the message goes on unchanged.
    return ChainedOutput.Window_Proc(window, message, wParam, lParam);
}

void Init()
{
    if (StartBlockHelper(PluginHelper))
        PluginEngine.Headphone.Helper = &PluginHelper;
    ChainedOutput.Library = 0;  // forgotten, not released
    ChainedOutput.Reload_Needed = 1;
    LoadSettings(ProcessorSettings);
    ChainedOutput.Window_Proc = reinterpret_cast<WNDPROC>(
        SetWindowLongW(OwnModule.hMainWindow, kWindowProcIndex, reinterpret_cast<LONG_PTR>(&HostWindowHook)));
}

void Quit()
{
    PluginEngine.Headphone.Helper = nullptr;
    StopBlockHelper(PluginHelper);
    EngineReset(PluginEngine);
    // Library keeps its old value, and the chained Quit is never called.
    if (ChainedOutput.Library != 0)
        FreeLibrary(ChainedOutput.Library);
    // Put back without asking whether the hook is still the window's procedure.
    SetWindowLongW(OwnModule.hMainWindow, kWindowProcIndex, reinterpret_cast<LONG_PTR>(ChainedOutput.Window_Proc));
}
