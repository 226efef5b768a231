// The platform services the plug-in uses, and nothing else.
//
// On Windows this is <windows.h> itself, with the common controls and common
// dialog headers for the track-bar messages and the file-open dialog. On POSIX
// the same names are declared here with the Windows types they need, and the
// files of posix/ implement them: dlopen for the libraries, .reg text files
// for the registry keys, standard error for message boxes, window records
// whose first member is their procedure, and an in-memory dialog that runs the
// dialog procedure against the controls of a registered dialog template. What
// a host or a test reads of the emulation beyond these names is declared in
// posix/dialog_emulator.h.
//
// The plug-in's own code in shell/ and settings/ includes this header and
// calls these names only; no other file includes a system header of the
// platform.
#pragma once

#include <cstdint>

struct DialogTemplateRecord;  // platform/dialog_template.h

#ifdef _WIN32

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <commctrl.h>
#include <commdlg.h>
// On 64-bit Windows a window procedure is a pointer-wide value, and only the
// pointer-wide call keeps all of it.
#ifdef _WIN64
#undef SetWindowLongW
#define SetWindowLongW SetWindowLongPtrW
#endif

// Windows finds dialog templates among the resources compiled into the
// module, so there is nothing to hand over.
inline void RegisterDialogTemplates(const DialogTemplateRecord*, uint32_t) {}

#else  // POSIX

// ---- Basic types, at the widths of the 32-bit Windows interface ----

#define WINAPI
#define CALLBACK

using BYTE = uint8_t;
using WORD = uint16_t;
using DWORD = uint32_t;
using LONG = int32_t;
using UINT = uint32_t;
using BOOL = int32_t;
using WCHAR = char16_t;  // wide text is 16-bit, as on Windows
using LPWSTR = WCHAR*;
using LPCWSTR = const WCHAR*;
using LPCSTR = const char*;
using LPBYTE = BYTE*;
using LPDWORD = DWORD*;
using REGSAM = DWORD;
using LSTATUS = LONG;

// Integers as wide as a pointer.
using INT_PTR = intptr_t;
using UINT_PTR = uintptr_t;
using LONG_PTR = intptr_t;
using WPARAM = uintptr_t;
using LPARAM = intptr_t;
using LRESULT = intptr_t;

// A window: every window record starts with its procedure. A host makes its
// main window a record of this form; the emulated dialog and its controls
// are records of this form too.
struct HWND__;
using HWND = HWND__*;
using WNDPROC = LRESULT (*)(HWND, UINT, WPARAM, LPARAM);
using DLGPROC = INT_PTR (*)(HWND, UINT, WPARAM, LPARAM);
using TIMERPROC = void (*)(HWND, UINT, UINT_PTR, DWORD);
struct HWND__ {
    WNDPROC proc;  // the window's procedure; the host's data may follow
};

// A library: the dlopen handle.
using HINSTANCE = void*;
using HMODULE = void*;
using FARPROC = void*;

// A registry key: a handle from the .reg file store, or one of the roots.
struct HKEY__;
using HKEY = HKEY__*;
using PHKEY = HKEY*;
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(uintptr_t(0x80000002u)))
using LPSECURITY_ATTRIBUTES = void*;

// ---- Constants ----

#define TRUE 1
#define FALSE 0

#define LOWORD(l) (static_cast<WORD>(static_cast<uintptr_t>(l) & 0xFFFFu))
#define HIWORD(l) (static_cast<WORD>((static_cast<uintptr_t>(l) >> 16) & 0xFFFFu))
#define MAKELONG(low, high) \
    (static_cast<LONG>(static_cast<DWORD>(static_cast<WORD>(low)) | (static_cast<DWORD>(static_cast<WORD>(high)) << 16)))
#define MAKEWPARAM(low, high) (static_cast<WPARAM>(static_cast<DWORD>(MAKELONG(low, high))))
#define MAKEINTRESOURCEW(i) (reinterpret_cast<LPCWSTR>(static_cast<uintptr_t>(static_cast<WORD>(i))))

constexpr LONG ERROR_SUCCESS = 0;
constexpr LONG ERROR_FILE_NOT_FOUND = 2;
constexpr LONG ERROR_ACCESS_DENIED = 5;
constexpr LONG ERROR_INVALID_HANDLE = 6;
constexpr LONG ERROR_INVALID_PARAMETER = 87;
constexpr LONG ERROR_MORE_DATA = 234;

constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_DWORD = 4;
constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
constexpr REGSAM KEY_WRITE = 0x20006;
constexpr DWORD REG_OPTION_NON_VOLATILE = 0;

constexpr int GWL_WNDPROC = -4;

constexpr UINT MB_OK = 0x0;
constexpr UINT MB_ICONEXCLAMATION = 0x30;
constexpr UINT MB_ICONINFORMATION = 0x40;
constexpr int IDOK = 1;
constexpr int IDCANCEL = 2;

constexpr UINT WM_NULL = 0x0000;
constexpr UINT WM_CLOSE = 0x0010;
constexpr UINT WM_SETTEXT = 0x000C;
constexpr UINT WM_GETTEXT = 0x000D;
constexpr UINT WM_GETTEXTLENGTH = 0x000E;
constexpr UINT WM_INITDIALOG = 0x0110;
constexpr UINT WM_COMMAND = 0x0111;
constexpr UINT WM_TIMER = 0x0113;
constexpr UINT WM_HSCROLL = 0x0114;
constexpr UINT WM_ENTERIDLE = 0x0121;
constexpr UINT WM_APP = 0x8000;
constexpr WPARAM MSGF_DIALOGBOX = 0;

constexpr UINT BN_CLICKED = 0;
constexpr UINT CBN_SELCHANGE = 1;
constexpr UINT BM_GETCHECK = 0x00F0;
constexpr UINT BM_SETCHECK = 0x00F1;
constexpr UINT BM_CLICK = 0x00F5;
constexpr UINT CB_ADDSTRING = 0x0143;
constexpr UINT CB_GETCOUNT = 0x0146;
constexpr UINT CB_GETCURSEL = 0x0147;
constexpr UINT CB_GETLBTEXT = 0x0148;
constexpr UINT CB_SETCURSEL = 0x014E;
constexpr LRESULT CB_ERR = -1;
constexpr UINT TBM_GETPOS = 0x0400;
constexpr UINT TBM_GETRANGEMIN = 0x0401;
constexpr UINT TBM_GETRANGEMAX = 0x0402;
constexpr UINT TBM_SETPOS = 0x0405;
constexpr UINT TBM_SETRANGE = 0x0406;

constexpr DWORD OFN_HIDEREADONLY = 0x00000004;
constexpr DWORD OFN_FILEMUSTEXIST = 0x00001000;
constexpr DWORD OFN_NONETWORKBUTTON = 0x00020000;
constexpr DWORD OFN_FORCESHOWHIDDEN = 0x10000000;

// The file-open dialog's record, in the field order of Windows.
struct OPENFILENAMEW {
    DWORD lStructSize;
    HWND hwndOwner;
    HINSTANCE hInstance;
    LPCWSTR lpstrFilter;
    LPWSTR lpstrCustomFilter;
    DWORD nMaxCustFilter;
    DWORD nFilterIndex;
    LPWSTR lpstrFile;
    DWORD nMaxFile;
    LPWSTR lpstrFileTitle;
    DWORD nMaxFileTitle;
    LPCWSTR lpstrInitialDir;
    LPCWSTR lpstrTitle;
    DWORD Flags;
    WORD nFileOffset;
    WORD nFileExtension;
    LPCWSTR lpstrDefExt;
    LPARAM lCustData;
    void* lpfnHook;
    LPCWSTR lpTemplateName;
    void* pvReserved;
    DWORD dwReserved;
    DWORD FlagsEx;
};
using LPOPENFILENAMEW = OPENFILENAMEW*;

// ---- Services ----

// Libraries: dlopen(UTF-8 path, RTLD_NOW | RTLD_LOCAL), dlsym, dlclose. An
// empty name loads nothing, as on Windows (dlopen would give the program).
HMODULE LoadLibraryW(LPCWSTR path);
FARPROC GetProcAddress(HMODULE library, LPCSTR name);
BOOL FreeLibrary(HMODULE library);

// Registry: a key HKEY_LOCAL_MACHINE\SOFTWARE\<Maker>\<Product> lives in
// ${XDG_CONFIG_HOME:-$HOME/.config}/<Maker>/<Product>.reg (.reg export
// format 5.00); keys of any other form are absent. What is set through a
// handle is saved when the handle is closed, in one atomic rewrite of the
// file.
LSTATUS RegOpenKeyExW(HKEY root, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY result);
LSTATUS RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD bytes);
LSTATUS RegCreateKeyExW(HKEY root, LPCWSTR subKey, DWORD reserved, LPWSTR keyClass, DWORD options, REGSAM access,
                        LPSECURITY_ATTRIBUTES security, PHKEY result, LPDWORD disposition);
LSTATUS RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD bytes);
LSTATUS RegCloseKey(HKEY key);

// Windows. SetWindowLongW with GWL_WNDPROC stores the new procedure in the
// window record and returns the old one.
LONG_PTR SetWindowLongW(HWND window, int index, LONG_PTR value);
// One line "<caption>: <text>" on standard error, line feeds shown as " / ".
int MessageBoxW(HWND owner, LPCWSTR text, LPCWSTR caption, UINT type);

// The modal dialog, emulated: the template's controls are built in memory,
// WM_INITDIALOG goes to the procedure, and then each turn of the modal loop
// delivers WM_TIMER (when a timer is set) and sends WM_ENTERIDLE with
// MSGF_DIALOGBOX and the dialog's handle to the owner window. The owner
// plays the user in that call: it sends messages to the dialog and to its
// controls through their procedures. A turn in which the owner sends the
// dialog nothing, or a dialog without an owner, ends as the close box does.
INT_PTR DialogBoxParamW(HINSTANCE instance, LPCWSTR templateName, HWND owner, DLGPROC procedure, LPARAM initParam);
BOOL EndDialog(HWND dialog, INT_PTR result);
BOOL SetDlgItemTextW(HWND dialog, int id, LPCWSTR text);
HWND GetDlgItem(HWND dialog, int id);
BOOL EnableWindow(HWND window, BOOL enable);
LRESULT SendDlgItemMessageW(HWND dialog, int id, UINT message, WPARAM wParam, LPARAM lParam);
LRESULT SendMessageW(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
UINT_PTR SetTimer(HWND window, UINT_PTR id, UINT elapse, TIMERPROC function);

// The file-open dialog: takes the answer that the host queued on the running
// dialog (platform/posix/dialog_emulator.h); with none queued, the user
// cancelled.
BOOL GetOpenFileNameW(LPOPENFILENAMEW request);

// The templates that DialogBoxParamW finds by resource number, as Windows
// finds them among the module's resources. The table is the module's own and
// must outlive every dialog made from it; a later call replaces it.
void RegisterDialogTemplates(const DialogTemplateRecord* table, uint32_t count);

#endif  // POSIX
