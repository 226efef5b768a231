// The POSIX emulation as a host sees it: the records that DialogBoxParamW
// builds, the message by which a host answers the file dialog, and the probe
// through which a host watches what a user would have seen (message boxes)
// and what no host could observe otherwise (library releases).
//
// The plug-in itself never includes this header; hosts and tests do.
#pragma once

#include <cstdint>

#include "platform/dialog_template.h"
#include "platform/platform.h"

// ---- The emulated dialog ----
//
// A host reads every control's state from these records and changes them only
// by messages, as a user's input would: BM_CLICK to a button or check box (a
// disabled control ignores it), CB_SETCURSEL to a combo box followed by
// WM_COMMAND with CBN_SELCHANGE to the dialog, TBM_SETPOS to a track bar
// followed by WM_HSCROLL to the dialog, WM_CLOSE to the dialog for its close
// box.

// Sent to the dialog window: lParam points to an OpenFileAnswer that the next
// GetOpenFileNameW takes (and fills in with what it was asked).
constexpr UINT WM_QUEUE_OPEN_FILE = WM_APP + 0x100;

struct OpenFileAnswer {
    LPCWSTR path;           // what the user picks; null: the user cancels
    // Filled in by GetOpenFileNameW from the request it was given.
    BOOL taken;
    DWORD structSize;
    DWORD flags;
    DWORD maxFile;
    HWND owner;
    WCHAR title[128];
    WCHAR filter[128];      // both strings of the pair, each with its terminator
    WCHAR startFile[260];   // the text in lpstrFile when the dialog opened
};

constexpr uint32_t kDialogTextChars = 512;
constexpr uint32_t kDialogComboItems = 16;
constexpr uint32_t kDialogComboItemChars = 64;
constexpr uint32_t kDialogMaxControls = 64;

struct DialogControl {
    HWND__ window;            // first: the control's procedure
    HWND parent;              // the dialog
    int32_t id;               // control id, -1 for those never addressed
    ControlKind kind;         // as the template row gives it
    BOOL enabled;
    WCHAR text[kDialogTextChars];
    int32_t check;            // check boxes: 0 or 1
    uint32_t itemCount;       // combo boxes
    WCHAR items[kDialogComboItems][kDialogComboItemChars];
    int32_t selection;        // combo boxes: -1 without a selection
    int32_t rangeMin;         // track bars
    int32_t rangeMax;
    int32_t position;
};

struct DialogWindow {
    HWND__ window;            // first: the dialog's window procedure
    HWND owner;
    DLGPROC procedure;        // the dialog procedure
    BOOL ended;
    INT_PTR result;           // from EndDialog
    UINT_PTR timerId;         // the timer, when timerSet
    UINT timerElapse;         // milliseconds
    BOOL timerSet;
    uint32_t delivered;       // messages sent to the dialog from outside
    const OpenFileAnswer* queuedAnswer;
    uint32_t controlCount;
    DialogControl controls[kDialogMaxControls];
};

// ---- The probe ----
//
// A host that defines a record of this type under the name below, visible to
// dlsym(RTLD_DEFAULT) (in the program built with -rdynamic, or in a library
// that the program links), has it kept up to date by every module that runs
// on the POSIX platform, next to what the services do anyway. Without it the
// services behave the same.

constexpr const char kPlatformProbeSymbol[] = "PosixPlatformProbe";

constexpr uint32_t kProbeCaptionChars = 128;
constexpr uint32_t kProbeTextChars = 512;

struct PlatformProbe {
    // Message boxes
    uint32_t messageBoxes;    // shown so far
    HWND lastBoxOwner;        // of the last box: its owner window, or null
    UINT lastBoxType;         // its type flags, e.g. MB_OK | MB_ICONEXCLAMATION
    WCHAR lastBoxCaption[kProbeCaptionChars];
    WCHAR lastBoxText[kProbeTextChars];
    // Libraries
    uint32_t libraryLoads;    // LoadLibraryW calls that gave a handle
    uint32_t libraryReleases; // FreeLibrary calls, whatever handle they were given
};
