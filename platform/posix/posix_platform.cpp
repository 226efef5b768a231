// The Windows services of the plug-in, on POSIX.
//
// Libraries are dlopen handles. The one registry key lives in a .reg text
// file under the user's configuration folder, rewritten whole through a
// temporary file and a rename, so that a crash never leaves it torn. Message
// boxes are lines on standard error. Windows are records whose first member
// is their procedure; the dialog and its controls are such records, built in
// memory from the dialog's template and driven by the owner window during
// the modal loop.
#include "platform/platform.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/posix/reg_file.h"
#include "settings/control_table.h"

// ---- Text ----

static std::string Utf8FromWide(LPCWSTR text)
{
    std::string out;
    if (text == nullptr)
        return out;
    for (size_t i = 0; text[i] != 0; ++i) {
        uint32_t code = text[i];
        if (code >= 0xD800 && code <= 0xDBFF && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            code = 0x10000 + ((code - 0xD800) << 10) + (uint32_t(text[i + 1]) - 0xDC00);
            ++i;
        } else if (code >= 0xD800 && code <= 0xDFFF) {
            code = 0xFFFD;  // a lone surrogate
        }
        if (code < 0x80) {
            out += char(code);
        } else if (code < 0x800) {
            out += char(0xC0 | (code >> 6));
            out += char(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            out += char(0xE0 | (code >> 12));
            out += char(0x80 | ((code >> 6) & 0x3F));
            out += char(0x80 | (code & 0x3F));
        } else {
            out += char(0xF0 | (code >> 18));
            out += char(0x80 | ((code >> 12) & 0x3F));
            out += char(0x80 | ((code >> 6) & 0x3F));
            out += char(0x80 | (code & 0x3F));
        }
    }
    return out;
}

// False for text that is not valid UTF-8.
static bool WideFromUtf8(const std::string& text, std::u16string& out)
{
    out.clear();
    size_t i = 0;
    while (i < text.size()) {
        const uint8_t lead = uint8_t(text[i]);
        uint32_t code;
        size_t extra;
        if (lead < 0x80) {
            code = lead;
            extra = 0;
        } else if ((lead & 0xE0) == 0xC0) {
            code = lead & 0x1F;
            extra = 1;
        } else if ((lead & 0xF0) == 0xE0) {
            code = lead & 0x0F;
            extra = 2;
        } else if ((lead & 0xF8) == 0xF0) {
            code = lead & 0x07;
            extra = 3;
        } else {
            return false;
        }
        if (i + extra >= text.size())
            return false;
        for (size_t k = 1; k <= extra; ++k) {
            const uint8_t next = uint8_t(text[i + k]);
            if ((next & 0xC0) != 0x80)
                return false;
            code = (code << 6) | (next & 0x3F);
        }
        i += extra + 1;
        if (code >= 0x10000) {
            code -= 0x10000;
            out += char16_t(0xD800 + (code >> 10));
            out += char16_t(0xDC00 + (code & 0x3FF));
        } else {
            out += char16_t(code);
        }
    }
    return true;
}

static size_t WideLengthOf(LPCWSTR text)
{
    size_t length = 0;
    while (text[length] != 0)
        ++length;
    return length;
}

// Copies at most count - 1 characters and terminates.
static void CopyWide(WCHAR* target, LPCWSTR source, size_t count)
{
    if (count == 0)
        return;
    size_t i = 0;
    for (; source != nullptr && i + 1 < count && source[i] != 0; ++i)
        target[i] = source[i];
    target[i] = 0;
}

static char16_t FoldCase(char16_t c)
{
    return (c >= 'a' && c <= 'z') ? char16_t(c - 'a' + 'A') : c;
}

static bool EqualNoCase(const std::u16string& a, LPCWSTR b)
{
    size_t i = 0;
    for (; i < a.size(); ++i) {
        if (b[i] == 0 || FoldCase(a[i]) != FoldCase(b[i]))
            return false;
    }
    return b[i] == 0;
}

// ---- Libraries ----

HMODULE LoadLibraryW(LPCWSTR path)
{
    if (path == nullptr)
        return nullptr;
    return dlopen(Utf8FromWide(path).c_str(), RTLD_NOW | RTLD_LOCAL);
}

FARPROC GetProcAddress(HMODULE library, LPCSTR name)
{
    if (library == nullptr)
        return nullptr;
    return dlsym(library, name);
}

BOOL FreeLibrary(HMODULE library)
{
    if (library == nullptr)
        return FALSE;
    return dlclose(library) == 0 ? TRUE : FALSE;
}

// ---- Registry ----

static const char16_t kKeyPath[] = u"SOFTWARE\\Morrowfen\\Kelvane";
// The key's file and section; the file format is the stand-in's, shared
// with our hosts.
static const char kKeyName[] = "Kelvane";

struct RegistryValue {
    std::u16string name;
    DWORD type;
    std::vector<BYTE> data;
};

struct HKEY__ {
    bool writable;
    std::vector<RegistryValue> values;
};

// The values of our key from the file; false when the file is missing,
// unreadable, not a .reg file of version 5.00, or without the key. A value
// whose name or text is not UTF-8 is passed over.
static bool ReadKey(std::vector<RegistryValue>& values)
{
    std::vector<RegValue> stored;
    if (!ReadRegKey(RegStoreFile(kKeyName), RegKeyPath(kKeyName), stored))
        return false;
    values.clear();
    for (const RegValue& entry : stored) {
        RegistryValue value;
        if (!WideFromUtf8(entry.name, value.name))
            continue;
        if (entry.is_dword) {
            value.type = REG_DWORD;
            value.data.resize(4);
            std::memcpy(value.data.data(), &entry.dword, 4);
        } else {
            std::u16string wide;
            if (!WideFromUtf8(entry.text, wide))
                continue;
            value.type = REG_SZ;
            value.data.resize((wide.size() + 1) * 2);
            std::memcpy(value.data.data(), wide.c_str(), value.data.size());
        }
        values.push_back(std::move(value));
    }
    return true;
}

// The whole file anew, through the stand-in's atomic write.
static LSTATUS WriteKey(const std::vector<RegistryValue>& values)
{
    std::vector<RegValue> stored;
    for (const RegistryValue& value : values) {
        RegValue entry{Utf8FromWide(value.name.c_str()), false, 0, std::string()};
        if (value.type == REG_DWORD && value.data.size() == 4) {
            entry.is_dword = true;
            std::memcpy(&entry.dword, value.data.data(), 4);
        } else {
            // Text up to its terminator, or up to the end of the data.
            std::u16string wide;
            for (size_t i = 0; i + 1 < value.data.size(); i += 2) {
                char16_t c;
                std::memcpy(&c, value.data.data() + i, 2);
                if (c == 0)
                    break;
                wide += c;
            }
            entry.text = Utf8FromWide(wide.c_str());
        }
        stored.push_back(std::move(entry));
    }
    std::string error;
    return WriteRegKey(RegStoreFile(kKeyName), RegKeyPath(kKeyName), stored, error) ? ERROR_SUCCESS
                                                                                     : ERROR_ACCESS_DENIED;
}

static bool IsOurKey(HKEY root, LPCWSTR subKey)
{
    return root == HKEY_LOCAL_MACHINE && subKey != nullptr && EqualNoCase(kKeyPath, subKey);
}

LSTATUS RegOpenKeyExW(HKEY root, LPCWSTR subKey, DWORD, REGSAM access, PHKEY result)
{
    if (result == nullptr)
        return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    std::vector<RegistryValue> values;
    if (!IsOurKey(root, subKey) || !ReadKey(values))
        return ERROR_FILE_NOT_FOUND;
    *result = new HKEY__{(access & KEY_WRITE & ~0x20000u) != 0, std::move(values)};
    return ERROR_SUCCESS;
}

LSTATUS RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD bytes)
{
    if (key == nullptr || key == HKEY_LOCAL_MACHINE)
        return ERROR_INVALID_HANDLE;
    if (name == nullptr)
        return ERROR_FILE_NOT_FOUND;
    for (const RegistryValue& value : key->values) {
        if (!EqualNoCase(value.name, name))
            continue;
        if (type != nullptr)
            *type = value.type;
        const DWORD size = DWORD(value.data.size());
        if (data != nullptr) {
            if (bytes == nullptr)
                return ERROR_INVALID_PARAMETER;
            // As Windows does: a value larger than the buffer fails, and the
            // count tells the size it would need.
            if (*bytes < size) {
                *bytes = size;
                return ERROR_MORE_DATA;
            }
            std::memcpy(data, value.data.data(), size);
        }
        if (bytes != nullptr)
            *bytes = size;
        return ERROR_SUCCESS;
    }
    return ERROR_FILE_NOT_FOUND;
}

LSTATUS RegCreateKeyExW(HKEY root, LPCWSTR subKey, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES, PHKEY result,
                        LPDWORD disposition)
{
    if (result == nullptr)
        return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    if (!IsOurKey(root, subKey))
        return ERROR_ACCESS_DENIED;
    std::vector<RegistryValue> values;
    const bool existed = ReadKey(values);
    if (!existed) {
        values.clear();
        // The key comes into being at once, with its folders.
        const LSTATUS status = WriteKey(values);
        if (status != ERROR_SUCCESS)
            return status;
    }
    if (disposition != nullptr)
        *disposition = existed ? 2 : 1;  // REG_OPENED_EXISTING_KEY : REG_CREATED_NEW_KEY
    *result = new HKEY__{true, std::move(values)};
    return ERROR_SUCCESS;
}

LSTATUS RegSetValueExW(HKEY key, LPCWSTR name, DWORD, DWORD type, const BYTE* data, DWORD bytes)
{
    if (key == nullptr || key == HKEY_LOCAL_MACHINE)
        return ERROR_INVALID_HANDLE;
    if (!key->writable)
        return ERROR_ACCESS_DENIED;
    if (name == nullptr || (type != REG_SZ && type != REG_DWORD) || (type == REG_DWORD && bytes != 4) ||
        (data == nullptr && bytes != 0))
        return ERROR_INVALID_PARAMETER;
    RegistryValue value{std::u16string(name, WideLengthOf(name)), type, std::vector<BYTE>(data, data + bytes)};
    bool replaced = false;
    for (RegistryValue& existing : key->values) {
        if (EqualNoCase(existing.name, name)) {
            existing = value;
            replaced = true;
        }
    }
    if (!replaced)
        key->values.push_back(value);
    // Every value is in the file as soon as it is set, as on Windows.
    return WriteKey(key->values);
}

LSTATUS RegCloseKey(HKEY key)
{
    if (key == nullptr || key == HKEY_LOCAL_MACHINE)
        return ERROR_INVALID_HANDLE;
    delete key;
    return ERROR_SUCCESS;
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

int MessageBoxW(HWND, LPCWSTR text, LPCWSTR caption, UINT)
{
    std::string line = Utf8FromWide(caption != nullptr ? caption : u"Error") + ": ";
    for (const char c : Utf8FromWide(text)) {
        if (c == '\n')
            line += " / ";
        else
            line += c;
    }
    line += '\n';
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
    return IDOK;
}

// ---- The emulated dialog ----

static DialogWindow* RunningDialog;  // innermost dialog of the modal loop, for the file dialog

static DialogWindow* AsDialog(HWND window);
static DialogControl* AsControl(HWND window);

static bool IsCheckBox(const DialogControl& control)
{
    const auto kind = ControlKind(control.kind);
    return kind == ControlKind::AutoCheckBox || kind == ControlKind::AutoCheckPushLike;
}

static bool IsButton(const DialogControl& control)
{
    const auto kind = ControlKind(control.kind);
    return IsCheckBox(control) || kind == ControlKind::PushButton || kind == ControlKind::DefaultPushButton;
}

static bool IsCombo(const DialogControl& control)
{
    const auto kind = ControlKind(control.kind);
    return kind == ControlKind::ComboSorted || kind == ControlKind::ComboUnsorted;
}

static int CompareNoCase(LPCWSTR a, LPCWSTR b)
{
    size_t i = 0;
    for (; a[i] != 0 && FoldCase(a[i]) == FoldCase(b[i]); ++i) {
    }
    return int(FoldCase(a[i])) - int(FoldCase(b[i]));
}

static LRESULT ComboMessage(DialogControl& control, UINT message, WPARAM wParam, LPARAM lParam)
{
    switch (message) {
    case CB_ADDSTRING: {
        const auto item = reinterpret_cast<LPCWSTR>(lParam);
        if (item == nullptr || control.itemCount >= kDialogComboItems)
            return CB_ERR;
        uint32_t at = control.itemCount;
        if (ControlKind(control.kind) == ControlKind::ComboSorted) {
            at = 0;
            while (at < control.itemCount && CompareNoCase(control.items[at], item) <= 0)
                ++at;
        }
        for (uint32_t k = control.itemCount; k > at; --k)
            CopyWide(control.items[k], control.items[k - 1], kDialogComboItemChars);
        CopyWide(control.items[at], item, kDialogComboItemChars);
        ++control.itemCount;
        return LRESULT(at);
    }
    case CB_GETCOUNT:
        return LRESULT(control.itemCount);
    case CB_GETCURSEL:
        return control.selection;
    case CB_SETCURSEL:
        // An index outside the list, -1 among them, leaves no selection.
        if (wParam >= control.itemCount) {
            control.selection = -1;
            return CB_ERR;
        }
        control.selection = int32_t(wParam);
        return LRESULT(wParam);
    case CB_GETLBTEXT: {
        if (wParam >= control.itemCount || lParam == 0)
            return CB_ERR;
        LPCWSTR item = control.items[wParam];
        CopyWide(reinterpret_cast<WCHAR*>(lParam), item, kDialogComboItemChars);
        return LRESULT(WideLengthOf(item));
    }
    default:
        return 0;
    }
}

static LRESULT TrackBarMessage(DialogControl& control, UINT message, WPARAM, LPARAM lParam)
{
    switch (message) {
    case TBM_SETRANGE:
        // Each half a signed 16-bit number.
        control.rangeMin = int16_t(LOWORD(lParam));
        control.rangeMax = int16_t(HIWORD(lParam));
        if (control.position < control.rangeMin)
            control.position = control.rangeMin;
        if (control.position > control.rangeMax)
            control.position = control.rangeMax;
        return 0;
    case TBM_SETPOS: {
        int64_t position = int32_t(lParam);
        if (position < control.rangeMin)
            position = control.rangeMin;
        if (position > control.rangeMax)
            position = control.rangeMax;
        control.position = int32_t(position);
        return 0;
    }
    case TBM_GETPOS:
        return control.position;
    case TBM_GETRANGEMIN:
        return control.rangeMin;
    case TBM_GETRANGEMAX:
        return control.rangeMax;
    default:
        return 0;
    }
}

static LRESULT ControlProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    DialogControl& control = *AsControl(window);
    switch (message) {
    case WM_SETTEXT:
        CopyWide(control.text, reinterpret_cast<LPCWSTR>(lParam), kDialogTextChars);
        return TRUE;
    case WM_GETTEXT:
        if (lParam == 0 || wParam == 0)
            return 0;
        CopyWide(reinterpret_cast<WCHAR*>(lParam), control.text, wParam);
        return LRESULT(WideLengthOf(reinterpret_cast<WCHAR*>(lParam)));
    case WM_GETTEXTLENGTH:
        return LRESULT(WideLengthOf(control.text));
    case BM_GETCHECK:
        return IsCheckBox(control) ? control.check : 0;
    case BM_SETCHECK:
        // Two-state boxes take anything above 1 as checked.
        if (IsCheckBox(control))
            control.check = wParam > 1 ? 1 : int32_t(wParam);
        return 0;
    case BM_CLICK:
        // As the user's click: a disabled control does nothing.
        if (!IsButton(control) || !control.enabled)
            return 0;
        if (IsCheckBox(control))
            control.check = control.check == 1 ? 0 : 1;
        SendMessageW(control.parent, WM_COMMAND, MAKEWPARAM(control.id, BN_CLICKED), reinterpret_cast<LPARAM>(window));
        return 0;
    default:
        if (IsCombo(control))
            return ComboMessage(control, message, wParam, lParam);
        if (ControlKind(control.kind) == ControlKind::TrackBar)
            return TrackBarMessage(control, message, wParam, lParam);
        return 0;
    }
}

// The dialog's window procedure, in the part of Windows' default dialog
// procedure that this plug-in meets: the close box becomes Cancel, the rest
// goes to the dialog procedure.
static LRESULT DialogProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    DialogWindow& dialog = *AsDialog(window);
    ++dialog.delivered;
    if (message == WM_QUEUE_OPEN_FILE) {
        dialog.queuedAnswer = reinterpret_cast<const OpenFileAnswer*>(lParam);
        return TRUE;
    }
    if (message == WM_CLOSE) {
        const HWND cancel = GetDlgItem(window, IDCANCEL);
        if (cancel == nullptr || AsControl(cancel)->enabled)
            dialog.procedure(window, WM_COMMAND, MAKEWPARAM(IDCANCEL, BN_CLICKED), reinterpret_cast<LPARAM>(cancel));
        return 0;
    }
    return dialog.procedure(window, message, wParam, lParam);
}

static DialogWindow* AsDialog(HWND window)
{
    if (window == nullptr || window->proc != &DialogProc)
        return nullptr;
    return reinterpret_cast<DialogWindow*>(window);
}

static DialogControl* AsControl(HWND window)
{
    if (window == nullptr || window->proc != &ControlProc)
        return nullptr;
    return reinterpret_cast<DialogControl*>(window);
}

INT_PTR DialogBoxParamW(HINSTANCE, LPCWSTR templateName, HWND owner, DLGPROC procedure, LPARAM initParam)
{
    const DialogTemplateRecord& layout = ConfigDialogTemplate;
    if (templateName != MAKEINTRESOURCEW(layout.resourceId) || procedure == nullptr ||
        layout.controlCount > kDialogMaxControls)
        return -1;

    auto dialog = std::make_unique<DialogWindow>();
    std::memset(static_cast<void*>(dialog.get()), 0, sizeof(DialogWindow));
    dialog->window.proc = &DialogProc;
    dialog->owner = owner;
    dialog->procedure = procedure;
    const HWND window = &dialog->window;
    for (uint32_t i = 0; i < layout.controlCount; ++i) {
        const ControlRow& row = layout.controls[i];
        DialogControl& control = dialog->controls[i];
        control.window.proc = &ControlProc;
        control.parent = window;
        control.id = row.id;
        control.kind = uint32_t(row.kind);
        control.enabled = TRUE;
        CopyWide(control.text, row.text, kDialogTextChars);
        control.selection = -1;
        control.rangeMin = 0;  // a track bar's range until told otherwise
        control.rangeMax = 100;
    }
    dialog->controlCount = layout.controlCount;

    DialogWindow* const outer = RunningDialog;
    RunningDialog = dialog.get();
    procedure(window, WM_INITDIALOG, 0, initParam);
    while (!dialog->ended) {
        // One turn of the message loop: the timer's message, then idle.
        if (dialog->timerSet) {
            procedure(window, WM_TIMER, dialog->timerId, 0);
            if (dialog->ended)
                break;
        }
        const uint32_t before = dialog->delivered;
        if (owner != nullptr && owner->proc != nullptr)
            owner->proc(owner, WM_ENTERIDLE, MSGF_DIALOGBOX, reinterpret_cast<LPARAM>(window));
        if (!dialog->ended && dialog->delivered == before)
            DialogProc(window, WM_CLOSE, 0, 0);  // nobody there: the close box
    }
    RunningDialog = outer;
    return dialog->result;
}

BOOL EndDialog(HWND window, INT_PTR result)
{
    DialogWindow* dialog = AsDialog(window);
    if (dialog == nullptr)
        return FALSE;
    dialog->ended = TRUE;
    dialog->result = result;
    return TRUE;
}

HWND GetDlgItem(HWND window, int id)
{
    DialogWindow* dialog = AsDialog(window);
    if (dialog == nullptr)
        return nullptr;
    for (uint32_t i = 0; i < dialog->controlCount; ++i) {
        if (dialog->controls[i].id == id)
            return &dialog->controls[i].window;
    }
    return nullptr;
}

BOOL SetDlgItemTextW(HWND window, int id, LPCWSTR text)
{
    const HWND control = GetDlgItem(window, id);
    if (control == nullptr)
        return FALSE;
    SendMessageW(control, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(text));
    return TRUE;
}

BOOL EnableWindow(HWND window, BOOL enable)
{
    DialogControl* control = AsControl(window);
    if (control == nullptr)
        return FALSE;
    const BOOL wasDisabled = control->enabled ? FALSE : TRUE;
    control->enabled = enable ? TRUE : FALSE;
    return wasDisabled;
}

LRESULT SendMessageW(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (window == nullptr || window->proc == nullptr)
        return 0;
    return window->proc(window, message, wParam, lParam);
}

LRESULT SendDlgItemMessageW(HWND window, int id, UINT message, WPARAM wParam, LPARAM lParam)
{
    return SendMessageW(GetDlgItem(window, id), message, wParam, lParam);
}

UINT_PTR SetTimer(HWND window, UINT_PTR id, UINT elapse, TIMERPROC)
{
    DialogWindow* dialog = AsDialog(window);
    if (dialog == nullptr)
        return 0;
    dialog->timerSet = TRUE;
    dialog->timerId = id;
    dialog->timerElapse = elapse;
    return id != 0 ? id : 1;
}

BOOL GetOpenFileNameW(LPOPENFILENAMEW request)
{
    if (request == nullptr || RunningDialog == nullptr || RunningDialog->queuedAnswer == nullptr)
        return FALSE;
    // Taken once; the host's record tells what the dialog was asked.
    auto* answer = const_cast<OpenFileAnswer*>(RunningDialog->queuedAnswer);
    RunningDialog->queuedAnswer = nullptr;
    answer->taken = TRUE;
    answer->structSize = request->lStructSize;
    answer->flags = request->Flags;
    answer->maxFile = request->nMaxFile;
    answer->owner = request->hwndOwner;
    CopyWide(answer->title, request->lpstrTitle, 128);
    std::memset(answer->filter, 0, sizeof answer->filter);
    if (request->lpstrFilter != nullptr) {
        // Up to the empty string that ends the list of pairs.
        LPCWSTR filter = request->lpstrFilter;
        size_t at = 0;
        while (at + 1 < 128 && !(filter[at] == 0 && (at == 0 || filter[at - 1] == 0))) {
            answer->filter[at] = filter[at];
            ++at;
        }
    }
    CopyWide(answer->startFile, request->lpstrFile, 260);
    if (answer->path == nullptr)
        return FALSE;  // the user cancelled
    const size_t length = WideLengthOf(answer->path);
    if (request->lpstrFile == nullptr || length + 1 > request->nMaxFile)
        return FALSE;
    CopyWide(request->lpstrFile, answer->path, request->nMaxFile);
    return TRUE;
}
