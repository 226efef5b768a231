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
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

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
static const char kSectionLine[] = "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]";
static const char kHeaderLine[] = "Windows Registry Editor Version 5.00";

struct RegistryValue {
    std::u16string name;
    DWORD type;
    std::vector<BYTE> data;
};

struct HKEY__ {
    bool writable;
    std::vector<RegistryValue> values;
};

static std::string ConfigFolder()
{
    const char* config = std::getenv("XDG_CONFIG_HOME");
    if (config != nullptr && config[0] != 0)
        return std::string(config) + "/Morrowfen";
    const char* home = std::getenv("HOME");
    return std::string(home != nullptr ? home : "") + "/.config/Morrowfen";
}

static std::string RegistryFile()
{
    return ConfigFolder() + "/Kelvane.reg";
}

static bool ReadWholeFile(const std::string& path, std::string& contents)
{
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr)
        return false;
    contents.clear();
    char buffer[4096];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        contents.append(buffer, got);
    const bool ok = std::ferror(file) == 0;
    std::fclose(file);
    return ok;
}

// A quoted .reg string from `at`, with \\ and \" escapes; `at` ends behind
// the closing quote.
static bool ParseQuoted(const std::string& line, size_t& at, std::string& out)
{
    if (at >= line.size() || line[at] != '"')
        return false;
    out.clear();
    for (++at; at < line.size(); ++at) {
        const char c = line[at];
        if (c == '"') {
            ++at;
            return true;
        }
        if (c == '\\') {
            if (at + 1 >= line.size())
                return false;
            const char next = line[++at];
            if (next != '\\' && next != '"')
                return false;
            out += next;
        } else {
            out += c;
        }
    }
    return false;
}

static int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// One value line: "Name"="text" or "Name"=dword:8 hex digits. Anything else
// is not a value we know and is passed over.
static bool ParseValueLine(const std::string& line, RegistryValue& value)
{
    size_t at = 0;
    std::string name;
    if (!ParseQuoted(line, at, name) || at >= line.size() || line[at] != '=')
        return false;
    ++at;
    if (!WideFromUtf8(name, value.name))
        return false;
    if (at < line.size() && line[at] == '"') {
        std::string text;
        if (!ParseQuoted(line, at, text) || at != line.size())
            return false;
        std::u16string wide;
        if (!WideFromUtf8(text, wide))
            return false;
        value.type = REG_SZ;
        value.data.resize((wide.size() + 1) * 2);
        std::memcpy(value.data.data(), wide.c_str(), value.data.size());
        return true;
    }
    static const char kDword[] = "dword:";
    if (line.compare(at, sizeof kDword - 1, kDword) != 0)
        return false;
    at += sizeof kDword - 1;
    if (line.size() - at != 8)
        return false;
    uint32_t word = 0;
    for (; at < line.size(); ++at) {
        const int digit = HexDigit(line[at]);
        if (digit < 0)
            return false;
        word = (word << 4) | uint32_t(digit);
    }
    value.type = REG_DWORD;
    value.data.resize(4);
    std::memcpy(value.data.data(), &word, 4);
    return true;
}

// The values of our key from the file; false when the file is missing,
// unreadable, not a .reg file of version 5.00, or without the key.
static bool ReadKey(std::vector<RegistryValue>& values)
{
    std::string contents;
    if (!ReadWholeFile(RegistryFile(), contents))
        return false;
    if (contents.compare(0, 3, "\xEF\xBB\xBF") == 0)
        contents.erase(0, 3);
    values.clear();
    bool headerSeen = false;
    bool keySeen = false;
    bool inKey = false;
    size_t start = 0;
    while (start <= contents.size()) {
        size_t end = contents.find('\n', start);
        if (end == std::string::npos)
            end = contents.size();
        std::string line = contents.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!headerSeen) {
            if (line != kHeaderLine)
                return false;
            headerSeen = true;
            continue;
        }
        if (!line.empty() && line[0] == '[') {
            // Key names compare without regard to case, as in the registry.
            inKey = line.size() == sizeof kSectionLine - 1;
            for (size_t k = 0; inKey && k < line.size(); ++k)
                inKey = FoldCase(char16_t(uint8_t(line[k]))) == FoldCase(char16_t(uint8_t(kSectionLine[k])));
            keySeen = keySeen || inKey;
            continue;
        }
        RegistryValue value;
        if (inKey && ParseValueLine(line, value)) {
            // A later line of the same name replaces an earlier one.
            bool replaced = false;
            for (RegistryValue& existing : values) {
                if (EqualNoCase(existing.name, value.name.c_str())) {
                    existing = value;
                    replaced = true;
                }
            }
            if (!replaced)
                values.push_back(value);
        }
    }
    return keySeen;
}

static std::string EscapeQuoted(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '\\' || c == '"')
            out += '\\';
        out += c;
    }
    out += '"';
    return out;
}

static bool MakeFolders(const std::string& folder)
{
    for (size_t at = 1; at <= folder.size(); ++at) {
        if (at == folder.size() || folder[at] == '/') {
            const std::string part = folder.substr(0, at);
            if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST)
                return false;
        }
    }
    return true;
}

// The whole file anew: written to a temporary beside it, flushed, renamed.
static LSTATUS WriteKey(const std::vector<RegistryValue>& values)
{
    std::string text = std::string(kHeaderLine) + "\n\n" + kSectionLine + "\n";
    for (const RegistryValue& value : values) {
        text += EscapeQuoted(Utf8FromWide(value.name.c_str())) + "=";
        if (value.type == REG_DWORD && value.data.size() == 4) {
            uint32_t word;
            std::memcpy(&word, value.data.data(), 4);
            char hex[16];
            std::snprintf(hex, sizeof hex, "dword:%08x", word);
            text += hex;
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
            text += EscapeQuoted(Utf8FromWide(wide.c_str()));
        }
        text += "\n";
    }

    const std::string folder = ConfigFolder();
    if (!MakeFolders(folder))
        return ERROR_ACCESS_DENIED;
    const std::string target = RegistryFile();
    const std::string temporary = target + ".tmp." + std::to_string(getpid());
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0)
        return ERROR_ACCESS_DENIED;
    size_t written = 0;
    bool ok = true;
    while (written < text.size()) {
        const ssize_t got = write(fd, text.data() + written, text.size() - written);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            ok = false;
            break;
        }
        written += size_t(got);
    }
    ok = ok && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(temporary.c_str(), target.c_str()) != 0) {
        unlink(temporary.c_str());
        return ERROR_ACCESS_DENIED;
    }
    return ERROR_SUCCESS;
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
