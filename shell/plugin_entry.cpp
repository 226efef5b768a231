// What the host sees: the one Out_Module record and the one export that hands
// it out. The slots' logic lives beside the state it works on: the chained
// output, the window hook, the settings and the dialog.
#include "product.h"
#include "settings/config_dialog.h"
#include "settings/control_table.h"
#include "settings/wide_text.h"
#include "shell/chained_output.h"

#ifdef _WIN32
#define KELVANE_EXPORT extern "C" __declspec(dllexport)
#define KELVANE_CDECL __cdecl
#else
#define KELVANE_EXPORT extern "C" __attribute__((visibility("default")))
#define KELVANE_CDECL
#endif

// Lives as long as the library; the host fills in hMainWindow and hDllInstance.
Out_Module OwnModule;

static const char kDescription[] = KELVANE_MAKER " " KELVANE_PRODUCT_VERSION;

// What the dialog works on; its status memory starts afresh at each opening.
static ConfigDialogContext DialogContext;

// interface thread
static void Config(HWND hwndParent)
{
    DialogContext = {&ProcessorSettings, &ChainedOutput.Stream, &ChainedOutput.Reload_Needed, 0, 0};
    // Our templates, for a platform that has no resources of its own; the
    // dialog's own result is of no interest.
    RegisterDialogTemplates(&ConfigDialogTemplate, 1);
    DialogBoxParamW(OwnModule.hDllInstance, MAKEINTRESOURCEW(kConfigDialogResource), hwndParent,
                    &ConfigDialogProc, reinterpret_cast<LPARAM>(&DialogContext));
}

// interface thread; needs neither the engine, nor settings, nor a chained plug-in.
static void About(HWND hwndParent)
{
    MessageBoxW(hwndParent, kAboutText, KELVANE_TEXT("About Kelvane Processor"), MB_OK | MB_ICONINFORMATION);
}

// Stores the constants and the fifteen addresses on every call; the two
// fields that the host fills in are left as they are.
KELVANE_EXPORT Out_Module* KELVANE_CDECL winampGetOutModule()
{
    OwnModule.version = kOutModuleVersion;
    OwnModule.description = kDescription;
    OwnModule.id = Own_Module_Id;
    OwnModule.Config = &Config;
    OwnModule.About = &About;
    OwnModule.Init = &Init;
    OwnModule.Quit = &Quit;
    OwnModule.Open = &Open;
    OwnModule.Close = &Close;
    OwnModule.Write = &Write;
    OwnModule.CanWrite = &CanWrite;
    OwnModule.IsPlaying = &IsPlaying;
    OwnModule.Pause = &Pause;
    OwnModule.SetVolume = &SetVolume;
    OwnModule.SetPan = &SetPan;
    OwnModule.Flush = &Flush;
    OwnModule.GetOutputTime = &GetOutputTime;
    OwnModule.GetWrittenTime = &GetWrittenTime;
    return &OwnModule;
}
