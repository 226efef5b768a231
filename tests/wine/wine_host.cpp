// A Windows host program for the tests under Wine. It does what the player
// does with an output plug-in - registers the track-bar class, owns a main
// window with a window procedure, loads the library, asks it for its record,
// fills in hMainWindow and hDllInstance, and drives Init, Open, Write, Close
// and Quit - and checks what comes out at the chained recording plug-in, in
// the registry, on its own window and in the configuration dialog.
//
//   kelvane-wine-host COMMAND PLUGIN.dll RECORDER.dll WORK_DIR
//
// COMMAND is one of: render, record, forward, registry, missing, hook, quit,
// dialog, select, package. Each prints one line per check and closes with
// "N passed, N failed"; the exit code is 0 only when nothing failed. Message
// boxes are answered by a watcher thread, so that none can hang a test.
#include <windows.h>
#include <commctrl.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "settings/control_table.h"
#include "tests/wine/out_module_abi.h"
#include "tests/wine/png_writer.h"
#include "tests/wine/scenarios.h"

namespace {

// ---- Checks ----

int Passed = 0;
int Failed = 0;

std::string Narrow(const std::wstring& text)
{
    std::string out;
    for (wchar_t c : text)
        out += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : (c == L'\n' ? '|' : '?');
    return out;
}

void Check(bool condition, const std::string& name, const std::string& detail = "")
{
    if (condition) {
        ++Passed;
        std::printf("PASS %s\n", name.c_str());
    } else {
        ++Failed;
        std::printf("FAIL %s%s%s\n", name.c_str(), detail.empty() ? "" : ": ", detail.c_str());
    }
    std::fflush(stdout);
}

template <typename T>
void CheckEqual(const T& actual, const T& expected, const std::string& name)
{
    Check(actual == expected, name,
          "got " + std::to_string(static_cast<long long>(actual)) + ", expected " +
              std::to_string(static_cast<long long>(expected)));
}

void CheckText(const std::wstring& actual, const std::wstring& expected, const std::string& name)
{
    Check(actual == expected, name, "got \"" + Narrow(actual) + "\", expected \"" + Narrow(expected) + "\"");
}

// ---- Paths: the tests pass POSIX paths, which Wine sees on drive Z: ----

std::wstring WindowsPath(const char* path)
{
    std::wstring out;
    if (path[0] == '/')
        out = L"Z:";
    for (const char* p = path; *p != 0; ++p)
        out += *p == '/' ? L'\\' : static_cast<wchar_t>(static_cast<unsigned char>(*p));
    return out;
}

// ---- The host's main window ----

std::vector<WPARAM> CommandsSeen;  // wParam of every WM_COMMAND that reached our procedure

LRESULT CALLBACK HostWindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (message == WM_COMMAND)
        CommandsSeen.push_back(wParam);
    return DefWindowProcW(window, message, wParam, lParam);
}

HWND CreateMainWindow()
{
    WNDCLASSW windowClass{};
    windowClass.lpfnWndProc = &HostWindowProc;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.lpszClassName = L"KelvaneTestPlayer";
    RegisterClassW(&windowClass);
    return CreateWindowExW(0, L"KelvaneTestPlayer", L"Kelvane test player", WS_OVERLAPPEDWINDOW, 600, 0, 300,
                           200, nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
}

WNDPROC CurrentProcedure(HWND window)
{
    return reinterpret_cast<WNDPROC>(GetWindowLongPtrW(window, GWLP_WNDPROC));
}

// ---- Message boxes, answered by a watcher thread ----

struct SeenBox {
    std::wstring caption;
    std::wstring text;
    UINT type;    // the type flags, as read back from the box's buttons and icon
    HWND owner;
};

constexpr UINT kUnknownType = 0xFFFFFFFFu;  // buttons or icon of no MB_ type

CRITICAL_SECTION BoxLock;
std::vector<SeenBox> BoxesSeen;
volatile LONG WatcherRunning = 1;

std::wstring WindowText(HWND window)
{
    wchar_t text[1024] = {};
    GetWindowTextW(window, text, 1024);
    return text;
}

std::wstring ClassOf(HWND window)
{
    wchar_t name[128] = {};
    GetClassNameW(window, name, 128);
    return name;
}

BOOL CALLBACK CollectStatic(HWND child, LPARAM context)
{
    auto* texts = reinterpret_cast<std::wstring*>(context);
    if (_wcsicmp(ClassOf(child).c_str(), L"Static") == 0) {
        const std::wstring text = WindowText(child);
        if (!text.empty())
            *texts += text;
    }
    return TRUE;
}

// What a message box shows of its type: the ids of its buttons and its icon.
struct BoxParts {
    std::vector<int> buttons;
    HICON icon;
};

BOOL CALLBACK CollectBoxParts(HWND child, LPARAM context)
{
    auto* parts = reinterpret_cast<BoxParts*>(context);
    if (!IsWindowVisible(child))
        return TRUE;
    const std::wstring kind = ClassOf(child);
    if (_wcsicmp(kind.c_str(), L"Button") == 0)
        parts->buttons.push_back(GetDlgCtrlID(child));
    else if (_wcsicmp(kind.c_str(), L"Static") == 0 && (GetWindowLongW(child, GWL_STYLE) & SS_TYPEMASK) == SS_ICON)
        parts->icon = reinterpret_cast<HICON>(SendMessageW(child, STM_GETICON, 0, 0));
    return TRUE;
}

// The type flags that a box was made with, told by its buttons (OK alone
// for MB_OK, OK and Cancel for MB_OKCANCEL) and by which of the system's
// icons it shows.
UINT TypeOfBox(HWND window)
{
    BoxParts parts{{}, nullptr};
    EnumChildWindows(window, &CollectBoxParts, reinterpret_cast<LPARAM>(&parts));
    std::sort(parts.buttons.begin(), parts.buttons.end());
    UINT type;
    if (parts.buttons == std::vector<int>{IDOK})
        type = MB_OK;
    else if (parts.buttons == std::vector<int>{IDOK, IDCANCEL})
        type = MB_OKCANCEL;
    else
        return kUnknownType;
    if (parts.icon == nullptr)
        return type;
    // The system's icons by number (IDI_HAND to IDI_ASTERISK), which are
    // shared: every load gives the handle that the box shows.
    const struct {
        WORD icon;
        UINT flag;
    } icons[] = {{32513, MB_ICONHAND}, {32514, MB_ICONQUESTION}, {32515, MB_ICONEXCLAMATION}, {32516, MB_ICONASTERISK}};
    for (const auto& known : icons) {
        if (parts.icon == LoadIconW(nullptr, MAKEINTRESOURCEW(known.icon)))
            return type | known.flag;
    }
    return kUnknownType;
}

// The plug-in's file dialog, answered by the Select test itself.
const wchar_t kFileDialogTitle[] = L"Select a Winamp output plugin";

BOOL CALLBACK AnswerBox(HWND window, LPARAM)
{
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    if (process != GetCurrentProcessId() || !IsWindowVisible(window) || ClassOf(window) != L"#32770")
        return TRUE;
    const std::wstring caption = WindowText(window);
    // The dialog is driven by its own test; a window of this class without
    // a caption is none of the plug-in's message boxes, which all have one.
    if (caption == L"Kelvane Processor Configuration" || caption == kFileDialogTitle || caption.empty())
        return TRUE;
    SeenBox box{caption, L"", TypeOfBox(window), GetWindow(window, GW_OWNER)};
    EnumChildWindows(window, &CollectStatic, reinterpret_cast<LPARAM>(&box.text));
    EnterCriticalSection(&BoxLock);
    BoxesSeen.push_back(box);
    LeaveCriticalSection(&BoxLock);
    PostMessageW(window, WM_COMMAND, IDOK, 0);
    return TRUE;
}

DWORD WINAPI WatchBoxes(void*)
{
    while (WatcherRunning != 0) {
        EnumWindows(&AnswerBox, 0);
        Sleep(50);
    }
    return 0;
}

std::vector<SeenBox> TakeBoxes()
{
    EnterCriticalSection(&BoxLock);
    std::vector<SeenBox> boxes = BoxesSeen;
    BoxesSeen.clear();
    LeaveCriticalSection(&BoxLock);
    return boxes;
}

// ---- Registry ----

const wchar_t kKeyPath[] = L"SOFTWARE\\Morrowfen\\Kelvane";

void DeleteSettingsKey()
{
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kKeyPath);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kKeyPath);
}

bool SetDword(const wchar_t* name, int32_t value)
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKeyPath, 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) != 0)
        return false;
    const DWORD word = static_cast<DWORD>(value);
    const bool ok = RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&word), 4) == 0;
    RegCloseKey(key);
    return ok;
}

bool SetText(const wchar_t* name, const std::wstring& text)
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKeyPath, 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) != 0)
        return false;
    const bool ok = RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                                   static_cast<DWORD>((text.size() + 1) * 2)) == 0;
    RegCloseKey(key);
    return ok;
}

bool GetDword(const wchar_t* name, DWORD& value)
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKeyPath, 0, KEY_QUERY_VALUE, &key) != 0)
        return false;
    DWORD type = 0;
    DWORD bytes = 4;
    const bool ok = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &bytes) == 0 &&
                    type == REG_DWORD;
    RegCloseKey(key);
    return ok;
}

std::wstring Wide(const char* text)
{
    std::wstring out;
    for (const char* p = text; *p != 0; ++p)
        out += static_cast<wchar_t>(*p);
    return out;
}

// All sixteen number values and the path.
bool WriteSettings(const int32_t (&values)[kSettingCount], const std::wstring& outPlug)
{
    bool ok = SetText(L"Out_Plug", outPlug);
    for (int i = 0; i < kSettingCount; ++i)
        ok = SetDword(Wide(kSettingNames[i]).c_str(), values[i]) && ok;
    return ok;
}

// ---- The chained recorder's files ----

std::wstring LogPath;
std::wstring DataPath;

void UseRecorderFiles(const std::wstring& log, const std::wstring& data)
{
    LogPath = log;
    DataPath = data;
    DeleteFileW(log.c_str());
    SetEnvironmentVariableW(L"KELVANE_RECORD_LOG", log.c_str());
    SetEnvironmentVariableW(L"KELVANE_RECORD_FILE", data.c_str());
}

std::vector<uint8_t> ReadBytes(const std::wstring& path)
{
    std::vector<uint8_t> bytes;
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return bytes;
    uint8_t buffer[65536];
    DWORD got = 0;
    while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got > 0)
        bytes.insert(bytes.end(), buffer, buffer + got);
    CloseHandle(file);
    return bytes;
}

std::vector<std::string> RecorderLog()
{
    const std::vector<uint8_t> bytes = ReadBytes(LogPath);
    std::vector<std::string> lines;
    std::string line;
    for (uint8_t b : bytes) {
        if (b == '\n') {
            lines.push_back(line);
            line.clear();
        } else {
            line += static_cast<char>(b);
        }
    }
    return lines;
}

std::string Joined(const std::vector<std::string>& lines)
{
    std::string out;
    for (const std::string& line : lines)
        out += (out.empty() ? "" : "; ") + line;
    return out;
}

// ---- The plug-in ----

struct Host {
    HWND window;
    HMODULE library;
    HostOutModule* module;
    std::wstring pluginPath;
    std::wstring recorderPath;
    std::wstring workDir;
};

bool LoadPlugin(Host& host)
{
    host.library = LoadLibraryW(host.pluginPath.c_str());
    if (host.library == nullptr)
        return false;
    auto entry = reinterpret_cast<HostGetOutModule>(
        reinterpret_cast<void*>(GetProcAddress(host.library, "winampGetOutModule")));
    if (entry == nullptr)
        return false;
    host.module = entry();
    host.module->hMainWindow = host.window;
    host.module->hDllInstance = host.library;
    return true;
}

int32_t kDefaults[kSettingCount] = {3, 16, 10, 0, 0, 0, 120, 0, 0, 0, 0, 1, 1, 1, 1, 1};

std::vector<char> Pcm16Stereo(uint32_t frames, bool silent, uint32_t seed)
{
    std::vector<char> pcm(frames * 4);
    for (uint32_t i = 0; i < frames * 2; ++i) {
        seed = seed * 1664525u + 1013904223u;
        const int16_t value = silent ? 0 : static_cast<int16_t>(static_cast<int32_t>(seed) >> 17);
        std::memcpy(&pcm[i * 2], &value, 2);
    }
    return pcm;
}

// ---- Commands ----

// Every scenario of the comparison through the DLL; the recorder keeps one
// file per scenario in WORK_DIR\render.
void Render(Host& host)
{
    const std::wstring dir = host.workDir + L"\\render";
    CreateDirectoryW(dir.c_str(), nullptr);
    for (const Scenario& s : MakeScenarios()) {
        const std::wstring name = Wide(s.name.c_str());
        UseRecorderFiles(dir + L"\\" + name + L".log", dir + L"\\" + name + L".pcm");
        DeleteSettingsKey();
        WriteSettings(s.settings, host.recorderPath);
        host.module->Init();
        const int opened = host.module->Open(s.rate, s.channels, s.bits, 500, 20);
        const std::vector<uint8_t> input = MakeInput(s);
        std::vector<char> buffer;
        size_t at = 0;
        bool accepted = true;
        for (uint32_t length : MakeWriteLengths(s)) {
            buffer.assign(input.begin() + static_cast<std::ptrdiff_t>(at),
                          input.begin() + static_cast<std::ptrdiff_t>(at + length));
            accepted = host.module->Write(buffer.data(), static_cast<int>(length)) == 0 && accepted;
            at += length;
        }
        host.module->Close();
        host.module->Quit();
        Check(opened == 0 && accepted, "render " + s.name);
    }
}

void RecordFields(Host& host)
{
    HostOutModule* first = host.module;
    CheckEqual(first->version, 16, "record: version is 16");
    Check(std::strcmp(first->description, "Morrowfen Kelvane Processor 0.1.3a") == 0, "record: description",
          first->description);
    CheckEqual(first->id, 6546551, "record: id is 6546551");
    auto entry = reinterpret_cast<HostGetOutModule>(
        reinterpret_cast<void*>(GetProcAddress(host.library, "winampGetOutModule")));
    HostOutModule* second = entry();
    Check(second == first, "record: a second call gives the same record");
    Check(second->hMainWindow == host.window && second->hDllInstance == host.library,
          "record: a second call keeps hMainWindow and hDllInstance");
    Check(first->Config && first->About && first->Init && first->Quit && first->Open && first->Close &&
              first->Write && first->CanWrite && first->IsPlaying && first->Pause && first->SetVolume &&
              first->SetPan && first->Flush && first->GetOutputTime && first->GetWrittenTime,
          "record: all fifteen functions are set");

    // About needs neither Init nor a chained plug-in.
    first->About(host.window);
    const std::vector<SeenBox> boxes = TakeBoxes();
    Check(boxes.size() == 1, "about: one message box", std::to_string(boxes.size()) + " seen");
    if (!boxes.empty()) {
        CheckText(boxes[0].caption, L"About Kelvane Processor", "about: caption");
        CheckEqual(boxes[0].type, 0x40u, "about: type MB_OK | MB_ICONINFORMATION");
        Check(boxes[0].owner == host.window, "about: owned by the host's window");
        Check(boxes[0].text.find(L'\n') != std::wstring::npos && boxes[0].text.find(L"Copyright") != std::wstring::npos,
              "about: two lines, a web address and a copyright", Narrow(boxes[0].text));
    }
}

void Forwarding(Host& host)
{
    const std::wstring dir = host.workDir;
    UseRecorderFiles(dir + L"\\forward.log", dir + L"\\forward.pcm");
    DeleteSettingsKey();
    int32_t values[kSettingCount];
    std::memcpy(values, kDefaults, sizeof values);
    values[1] = 24;
    WriteSettings(values, host.recorderPath);
    host.module->Init();
    host.module->SetVolume(77);
    host.module->SetPan(-20);
    Check(RecorderLog().empty(), "forward: SetVolume and SetPan before Open call nothing", Joined(RecorderLog()));

    CheckEqual(host.module->Open(22050, 1, 8, 321, 45), 0, "forward: Open gives the chained result");
    CheckEqual(host.module->CanWrite(), 1234567, "forward: CanWrite unscaled");
    CheckEqual(host.module->IsPlaying(), 7, "forward: IsPlaying");
    CheckEqual(host.module->Pause(1), 0, "forward: Pause gives the earlier state");
    CheckEqual(host.module->Pause(0), 1, "forward: Pause gives the earlier state again");
    host.module->SetVolume(200);
    host.module->SetPan(-50);
    host.module->Flush(1500);
    CheckEqual(host.module->GetOutputTime(), 1111, "forward: GetOutputTime");
    CheckEqual(host.module->GetWrittenTime(), 2222, "forward: GetWrittenTime");
    char bytes[7] = {1, 2, 3, 4, 5, 6, 7};
    CheckEqual(host.module->Write(bytes, 7), 0, "forward: Write gives the chained result");
    host.module->Close();
    CheckEqual(host.module->Open(44100, 2, 16, 100, 0), 0, "forward: second Open");
    char stereo[7] = {1, 2, 3, 4, 5, 6, 7};
    host.module->Write(stereo, 7);  // one frame; three bytes dropped
    host.module->Close();
    host.module->Quit();

    const std::vector<std::string> expected = {
        "Open 22050 6 24 321 45", "Pause 1", "Pause 0", "SetVolume 200", "SetPan -50", "Flush 1500",
        // 7 mono 8-bit frames become 7 frames of six 24-bit words.
        "Write 126", "Close", "Open 44100 6 24 100 0",
        // (7 / 2) / 2 = 1 frame.
        "Write 18", "Close"};
    const std::vector<std::string> log = RecorderLog();
    Check(log == expected, "forward: the chained plug-in sees exactly these calls", Joined(log));
}

void Registry(Host& host)
{
    const std::wstring dir = host.workDir;
    UseRecorderFiles(dir + L"\\registry.log", dir + L"\\registry.pcm");
    for (int bits : {24, 32, 16}) {
        DeleteSettingsKey();
        SetDword(L"Out_Bits", bits);
        SetText(L"Out_Plug", host.recorderPath);
        DeleteFileW(LogPath.c_str());
        host.module->Init();
        host.module->Open(48000, 2, 16, 500, 0);
        host.module->Close();
        host.module->Quit();
        const std::vector<std::string> log = RecorderLog();
        const std::string want = "Open 48000 6 " + std::to_string(bits) + " 500 0";
        Check(!log.empty() && log[0] == want, "registry: Out_Bits " + std::to_string(bits) + " reaches the chained Open",
              Joined(log));
    }
    Check(TakeBoxes().empty(), "registry: no message box");
}

void Missing(Host& host)
{
    const std::wstring dir = host.workDir;
    UseRecorderFiles(dir + L"\\missing.log", dir + L"\\missing.pcm");
    DeleteSettingsKey();
    SetText(L"Out_Plug", L"Z:\\nonexistent\\out_nothing.dll");
    host.module->Init();
    CheckEqual(host.module->Open(44100, 2, 16, 500, 0), -1, "missing: Open gives -1");
    host.module->SetVolume(10);  // guarded: nothing is loaded
    host.module->SetPan(10);
    std::vector<SeenBox> boxes = TakeBoxes();
    Check(boxes.size() == 1, "missing: one message box", std::to_string(boxes.size()) + " seen");
    if (!boxes.empty()) {
        CheckText(boxes[0].caption, L"Kelvane Processor 0.1.3a", "missing: caption");
        CheckText(boxes[0].text, L"Failed to open output plugin", "missing: text");
        CheckEqual(boxes[0].type, 0x30u, "missing: type MB_OK | MB_ICONEXCLAMATION");
        Check(boxes[0].owner == nullptr, "missing: no owner");
    }
    host.module->Quit();

    // No key at all: the default out_ds.dll, which this machine does not have.
    DeleteSettingsKey();
    host.module->Init();
    CheckEqual(host.module->Open(44100, 2, 16, 500, 0), -1, "missing: the default out_ds.dll is not here");
    boxes = TakeBoxes();
    Check(boxes.size() == 1 && boxes[0].text == L"Failed to open output plugin" && boxes[0].type == 0x30u,
          "missing: the same message for the default");
    host.module->Quit();
}

// The host's Play and Stop commands make the next Open or Close reset the
// engine; nothing else does. Each case plays a burst, stops, starts again and
// plays silence; what comes out after the restart is compared with the same
// silence after a Flush, which resets for certain.
struct HookCase {
    const char* name;
    UINT message;
    WPARAM wParam;
    bool beforeClose;  // false: between Close and Open
    bool expectReset;
};

std::vector<uint8_t> PlayRestart(Host& host, const HookCase* hookCase, bool flushAfterOpen)
{
    host.module->Open(44100, 2, 16, 500, 0);
    host.module->Flush(0);
    std::vector<char> burst = Pcm16Stereo(2048, false, 99);
    host.module->Write(burst.data(), static_cast<int>(burst.size()));
    if (hookCase != nullptr && hookCase->beforeClose)
        SendMessageW(host.window, hookCase->message, hookCase->wParam, 0);
    host.module->Close();
    if (hookCase != nullptr && !hookCase->beforeClose)
        SendMessageW(host.window, hookCase->message, hookCase->wParam, 0);
    host.module->Open(44100, 2, 16, 500, 0);
    if (flushAfterOpen)
        host.module->Flush(0);
    std::vector<char> silence = Pcm16Stereo(2048, true, 0);
    host.module->Write(silence.data(), static_cast<int>(silence.size()));
    host.module->Close();
    return ReadBytes(DataPath);
}

void Hook(Host& host)
{
    const std::wstring dir = host.workDir;
    UseRecorderFiles(dir + L"\\hook.log", dir + L"\\hook.pcm");
    DeleteSettingsKey();
    int32_t values[kSettingCount];
    std::memcpy(values, kDefaults, sizeof values);
    values[0] = 1;   // fixed matrix: filters and the surround delay keep memory
    values[2] = 30;  // ms
    WriteSettings(values, host.recorderPath);

    host.module->Init();
    Check(CurrentProcedure(host.window) != &HostWindowProc, "hook: Init puts a procedure in front of ours");
    CommandsSeen.clear();
    SendMessageW(host.window, WM_COMMAND, MAKEWPARAM(40045, 1), 0x1234);
    SendMessageW(host.window, WM_COMMAND, 40046, 0);
    Check(CommandsSeen.size() == 2 && CommandsSeen[0] == MAKEWPARAM(40045, 1) && CommandsSeen[1] == 40046,
          "hook: our procedure still gets every command, unchanged");
    // Leave no flag standing from the commands above.
    host.module->Open(44100, 2, 16, 500, 0);
    host.module->Close();

    const std::vector<uint8_t> reset = PlayRestart(host, nullptr, true);
    const std::vector<uint8_t> runOn = PlayRestart(host, nullptr, false);
    Check(!reset.empty() && reset.size() == runOn.size(), "hook: both references have output");
    Check(reset != runOn, "hook: without a command the engine's memory runs on across Close and Open");

    const HookCase cases[] = {
        {"Stop before Close", WM_COMMAND, 40047, true, true},
        {"Play before Close", WM_COMMAND, 40045, true, true},
        {"Play while stopped", WM_COMMAND, 40045, false, true},
        {"Stop while stopped", WM_COMMAND, 40047, false, true},
        {"Play from a button (high word 1)", WM_COMMAND, MAKEWPARAM(40045, 1), true, true},
        {"command 40046", WM_COMMAND, 40046, true, false},
        {"command 40048", WM_COMMAND, 40048, true, false},
        {"40045 in another message", WM_USER + 17, 40045, true, false},
    };
    for (const HookCase& c : cases) {
        const std::vector<uint8_t> out = PlayRestart(host, &c, false);
        Check((out == reset) == c.expectReset,
              std::string("hook: ") + c.name + (c.expectReset ? " resets the engine" : " does not reset the engine"));
    }
    host.module->Quit();
    Check(CurrentProcedure(host.window) == &HostWindowProc, "hook: Quit puts our procedure back");
}

void QuitRestores(Host& host)
{
    DeleteSettingsKey();
    SetText(L"Out_Plug", host.recorderPath);
    UseRecorderFiles(host.workDir + L"\\quit.log", host.workDir + L"\\quit.pcm");
    // Never opened: nothing to release, the procedure still comes back.
    host.module->Init();
    host.module->Quit();
    Check(CurrentProcedure(host.window) == &HostWindowProc, "quit: without a load, our procedure is back");
    // Opened and closed: the library is released and the procedure comes back.
    host.module->Init();
    host.module->Open(44100, 2, 16, 500, 0);
    host.module->Close();
    host.module->Quit();
    Check(CurrentProcedure(host.window) == &HostWindowProc, "quit: after playback, our procedure is back");
    Check(GetModuleHandleW(host.recorderPath.c_str()) == nullptr, "quit: the chained library is released");
    CommandsSeen.clear();
    SendMessageW(host.window, WM_COMMAND, 40045, 0);
    Check(CommandsSeen.size() == 1, "quit: commands reach our window directly");
    // Init again in the same load starts from nothing loaded.
    host.module->Init();
    CheckEqual(host.module->Open(44100, 2, 16, 500, 0), 0, "quit: Init after Quit loads anew at Open");
    host.module->Close();
    host.module->Quit();
    const std::vector<std::string> log = RecorderLog();
    Check(std::find(log.begin(), log.end(), "Quit") == log.end() && std::find(log.begin(), log.end(), "Init") == log.end(),
          "quit: the chained Init and Quit are never called", Joined(log));
}


// ---- The configuration dialog ----

struct ExpectedClass {
    const wchar_t* name;
    DWORD typeMask;    // bits of the style that hold the control's type
    DWORD type;        // their value
    DWORD required;    // further style bits that must be set
    DWORD forbidden;   // and bits that must be clear
};

// What the dialog template says each kind of control is, as Windows styles.
ExpectedClass ExpectedFor(ControlKind kind)
{
    switch (kind) {
    case ControlKind::GroupBox:
        return {L"Button", BS_TYPEMASK, BS_GROUPBOX, 0, BS_PUSHLIKE};
    case ControlKind::StaticLeft:
        return {L"Static", SS_TYPEMASK, SS_LEFT, WS_GROUP, 0};
    case ControlKind::StaticRight:
        return {L"Static", SS_TYPEMASK, SS_RIGHT, WS_GROUP, 0};
    case ControlKind::StaticImage:
        return {L"Static", SS_TYPEMASK, SS_BITMAP, WS_GROUP, 0};
    case ControlKind::EditReadOnly:
        return {L"Edit", 0, 0, ES_READONLY | ES_AUTOHSCROLL | WS_TABSTOP, 0};
    case ControlKind::ComboSorted:
        return {L"ComboBox", 3, CBS_DROPDOWNLIST, CBS_SORT | WS_TABSTOP, 0};
    case ControlKind::ComboUnsorted:
        return {L"ComboBox", 3, CBS_DROPDOWNLIST, WS_TABSTOP, CBS_SORT};
    case ControlKind::PushButton:
        return {L"Button", BS_TYPEMASK, BS_PUSHBUTTON, WS_TABSTOP, BS_PUSHLIKE};
    case ControlKind::DefaultPushButton:
        return {L"Button", BS_TYPEMASK, BS_DEFPUSHBUTTON, WS_TABSTOP, 0};
    case ControlKind::AutoCheckBox:
        return {L"Button", BS_TYPEMASK, BS_AUTOCHECKBOX, WS_TABSTOP, BS_PUSHLIKE};
    case ControlKind::AutoCheckPushLike:
        return {L"Button", BS_TYPEMASK, BS_AUTOCHECKBOX, BS_PUSHLIKE | WS_TABSTOP, 0};
    case ControlKind::TrackBar:
        return {L"msctls_trackbar32", 0, 0, TBS_BOTH | TBS_NOTICKS | WS_TABSTOP, TBS_VERT};
    }
    return {L"?", 0, 0, 0, 0};
}

// The registry before the dialog opens: every control away from its default.
const int32_t kDialogSettings[kSettingCount] = {0, 24, 37, 55, -12, 5, 150, 1, -3, 1, 0, 1, 0, 1, 0, 1};

const wchar_t* const kModeItems[6] = {
    L"Bypass",
    L"Kelvane+C (3/1) = L,R,C,S",
    L"Kelvane-AS (3/1) = L,R,C,S",
    L"Kelvane-ASr (3/2) = L,R,C,SL,SR",
    L"Kelvane Headphone (2/0) = L,R",
    L"Kelvane Encode (2/0) = L,R",
};

// Status texts before any Open, when the channel count is 0.
const wchar_t* const kIdleStatus[6] = {
    L"Bypass\nNo audio processing is performed.",
    L"Kelvane+C\nProcessor inactive.",
    L"Kelvane-AS\nProcessor inactive.",
    L"Kelvane-ASr\nProcessor inactive.",
    L"Kelvane Headphone\nProcessor inactive.",
    L"Kelvane Encode\nProcessor inactive.",
};

// The enable table: per control, one letter per mode. 'o' on, '-' off, 'E'
// follows Bass_Redir_Enable, 'V' on exactly when Virtual_C is 0.
struct EnableRow {
    int id;
    const char* modes;
};
const EnableRow kEnableTable[] = {
    {1020, "--VV--"}, {1015, "-ooo--"}, {1011, "-EEE--"}, {1013, "-EEE--"}, {1029, "-EEE--"},
    {1018, "-ooo--"}, {1007, "-ooo--"}, {1005, "-oooo-"}, {1009, "-ooo--"}, {1023, "-oooo-"},
    {1025, "-oooo-"}, {1024, "-oooo-"}, {1026, "-oooo-"}, {1028, "-oooo-"}, {1021, "-oooo-"},
    {1022, "-oooo-"},
    // Never disabled.
    {1002, "oooooo"}, {1031, "oooooo"}, {1027, "oooooo"}, {1030, "oooooo"}, {1, "oooooo"},
    {2, "oooooo"}, {1006, "oooooo"}, {1019, "oooooo"}, {1008, "oooooo"}, {1010, "oooooo"},
    {1012, "oooooo"}, {1014, "oooooo"}, {1033, "oooooo"},
};

struct TrackRow {
    int id;
    int minimum;
    int maximum;
    int setting;  // index into the settings
    int readout;
};
const TrackRow kTrackBars[] = {
    {1005, 0, 100, 2, 1006},   {1020, 0, 100, 3, 1019},   {1007, -12, 12, 4, 1008},
    {1009, -12, 12, 5, 1010},  {1011, 10, 200, 6, 1012},  {1013, -12, 12, 8, 1014},
};

std::wstring ItemText(HWND dialog, int id)
{
    return WindowText(GetDlgItem(dialog, id));
}

void SelectMode(HWND dialog, int mode)
{
    HWND combo = GetDlgItem(dialog, 1002);
    SendMessageW(combo, CB_SETCURSEL, static_cast<WPARAM>(mode), 0);
    SendMessageW(dialog, WM_COMMAND, MAKEWPARAM(1002, CBN_SELCHANGE), reinterpret_cast<LPARAM>(combo));
    Sleep(80);  // several periods of the status timer
}

// A user's click on an auto check box: the box toggles, the dialog hears of it.
void ToggleCheck(HWND dialog, int id)
{
    HWND box = GetDlgItem(dialog, id);
    const LRESULT state = SendMessageW(box, BM_GETCHECK, 0, 0);
    SendMessageW(box, BM_SETCHECK, state == BST_CHECKED ? BST_UNCHECKED : BST_CHECKED, 0);
    SendMessageW(dialog, WM_COMMAND, MAKEWPARAM(id, BN_CLICKED), reinterpret_cast<LPARAM>(box));
}

void CheckEnableTable(HWND dialog, int mode, bool bassEnabled, bool virtualCentre, const std::string& pass)
{
    for (const EnableRow& row : kEnableTable) {
        const char cell = row.modes[mode];
        const bool expected = cell == 'o' || (cell == 'E' && bassEnabled) || (cell == 'V' && !virtualCentre);
        const bool enabled = IsWindowEnabled(GetDlgItem(dialog, row.id)) != FALSE;
        Check(enabled == expected,
              "dialog " + pass + ": mode " + std::to_string(mode) + ", control " + std::to_string(row.id) +
                  (expected ? " enabled" : " disabled"));
    }
}

void CheckControlsAgainstTable(HWND dialog, const std::wstring& outPlug)
{
    std::vector<HWND> children;
    for (HWND child = GetWindow(dialog, GW_CHILD); child != nullptr; child = GetWindow(child, GW_HWNDNEXT))
        children.push_back(child);
    CheckEqual(children.size(), static_cast<size_t>(kConfigControlCount), "dialog: 48 controls");
    const size_t count = std::min(children.size(), static_cast<size_t>(kConfigControlCount));
    for (size_t i = 0; i < count; ++i) {
        const ControlRow& row = ConfigControls[i];
        HWND child = children[i];
        const std::string name = "dialog: control " + std::to_string(i) + " (id " + std::to_string(row.id) + ")";
        CheckEqual(static_cast<int32_t>(GetWindowLongPtrW(child, GWLP_ID)), row.id, name + " id in tab order");

        const ExpectedClass expected = ExpectedFor(row.kind);
        Check(_wcsicmp(ClassOf(child).c_str(), expected.name) == 0, name + " class", Narrow(ClassOf(child)));
        const DWORD style = static_cast<DWORD>(GetWindowLongW(child, GWL_STYLE));
        const DWORD exStyle = static_cast<DWORD>(GetWindowLongW(child, GWL_EXSTYLE));
        Check((style & expected.typeMask) == expected.type && (style & expected.required) == expected.required &&
                  (style & expected.forbidden) == 0 && (style & WS_CHILD) != 0,
              name + " style", std::to_string(style));
        if (row.kind == ControlKind::EditReadOnly)
            Check((style & WS_BORDER) != 0 || (exStyle & WS_EX_CLIENTEDGE) != 0, name + " border");

        // Position and size in dialog units, through the dialog's own font;
        // the dialog manager converts the width and height, not the corners.
        RECT units{row.x, row.y, row.width, row.height};
        MapDialogRect(dialog, &units);
        const RECT want{units.left, units.top, units.left + units.right, units.top + units.bottom};
        RECT have;
        GetWindowRect(child, &have);
        MapWindowPoints(nullptr, dialog, reinterpret_cast<POINT*>(&have), 2);
        // A drop-down list is as tall as its selection field, a bitmap
        // static as its picture; the template's height is the list's.
        const bool fixedHeight = row.kind == ControlKind::ComboSorted || row.kind == ControlKind::ComboUnsorted;
        const bool picture = row.kind == ControlKind::StaticImage;
        const bool placed = have.left == want.left && have.top == want.top &&
                            (picture || have.right == want.right) &&
                            (fixedHeight || picture || have.bottom == want.bottom);
        Check(placed, name + " position and size",
              std::to_string(have.left) + "," + std::to_string(have.top) + "," + std::to_string(have.right) + "," +
                  std::to_string(have.bottom) + " expected " + std::to_string(want.left) + "," +
                  std::to_string(want.top) + "," + std::to_string(want.right) + "," + std::to_string(want.bottom));

        // Texts: the template's, except where InitControls writes its own.
        std::wstring text = row.text != nullptr ? row.text : L"";
        switch (row.id) {
        case 1001: text = L"Kelvane Processor 0.1.3a"; break;
        case 1032: text = kCopyrightText; break;
        case 1004: text = outPlug; break;
        default: break;
        }
        for (const TrackRow& track : kTrackBars)
            if (track.readout == row.id)
                text = std::to_wstring(kDialogSettings[track.setting]);
        if (row.kind != ControlKind::StaticImage && row.kind != ControlKind::TrackBar &&
            row.kind != ControlKind::ComboSorted && row.kind != ControlKind::ComboUnsorted)
            CheckText(WindowText(child), text, name + " text");
        if (row.kind == ControlKind::StaticImage)
            Check(SendMessageW(child, STM_GETIMAGE, IMAGE_BITMAP, 0) != 0, name + " shows bitmap 102");
    }
}


// The dialog template as stored in the DLL's resources (DLGTEMPLATEEX): the
// frame's styles, caption and font, and each control's style, id and place
// in dialog units, compared with the control table. Styles that a control
// changes on itself at run time (a combo box moves its scroll bar to its
// list) are checked here, where they stand as written.
struct TemplateReader {
    const uint8_t* at;
    uint16_t Word() { uint16_t v; std::memcpy(&v, at, 2); at += 2; return v; }
    uint32_t Dword() { uint32_t v; std::memcpy(&v, at, 4); at += 4; return v; }
    void Align() { while (reinterpret_cast<uintptr_t>(at) % 4 != 0) ++at; }
    // A text or an ordinal; ordinals come back as "#n".
    std::wstring TextOrOrdinal()
    {
        const uint16_t first = Word();
        if (first == 0xFFFF)
            return L"#" + std::to_wstring(Word());
        std::wstring text;
        for (uint16_t c = first; c != 0; c = Word())
            text += static_cast<wchar_t>(c);
        return text;
    }
};

const std::pair<ControlKind, std::pair<const wchar_t*, DWORD>> kTemplateStyles[] = {
    {ControlKind::GroupBox, {L"#128", BS_GROUPBOX}},
    {ControlKind::StaticLeft, {L"#130", SS_LEFT | WS_GROUP}},
    {ControlKind::StaticRight, {L"#130", SS_RIGHT | WS_GROUP}},
    {ControlKind::StaticImage, {L"#130", SS_BITMAP | WS_GROUP}},
    {ControlKind::EditReadOnly, {L"#129", ES_LEFT | ES_AUTOHSCROLL | ES_READONLY | WS_BORDER | WS_TABSTOP}},
    {ControlKind::ComboSorted, {L"#133", CBS_DROPDOWNLIST | CBS_SORT | WS_VSCROLL | WS_TABSTOP}},
    {ControlKind::ComboUnsorted, {L"#133", CBS_DROPDOWNLIST | WS_VSCROLL | WS_TABSTOP}},
    {ControlKind::PushButton, {L"#128", BS_PUSHBUTTON | WS_TABSTOP}},
    {ControlKind::DefaultPushButton, {L"#128", BS_DEFPUSHBUTTON | WS_TABSTOP}},
    {ControlKind::AutoCheckBox, {L"#128", BS_AUTOCHECKBOX | WS_TABSTOP}},
    {ControlKind::AutoCheckPushLike, {L"#128", BS_AUTOCHECKBOX | BS_PUSHLIKE | WS_TABSTOP}},
    {ControlKind::TrackBar, {L"msctls_trackbar32", TBS_BOTH | TBS_NOTICKS | WS_TABSTOP}},
};

// The predefined classes may be written by ordinal or by name.
bool SameClass(const std::wstring& written, const wchar_t* expected)
{
    const std::pair<const wchar_t*, const wchar_t*> names[] = {
        {L"#128", L"Button"}, {L"#129", L"Edit"}, {L"#130", L"Static"}, {L"#133", L"ComboBox"}};
    if (_wcsicmp(written.c_str(), expected) == 0)
        return true;
    for (const auto& name : names)
        if (_wcsicmp(expected, name.first) == 0 && _wcsicmp(written.c_str(), name.second) == 0)
            return true;
    return false;
}

void CheckTemplate(Host& host)
{
    HRSRC found = FindResourceW(host.library, MAKEINTRESOURCEW(101), reinterpret_cast<LPCWSTR>(RT_DIALOG));
    Check(found != nullptr, "template: dialog resource 101");
    HRSRC picture = FindResourceW(host.library, MAKEINTRESOURCEW(102), reinterpret_cast<LPCWSTR>(RT_BITMAP));
    Check(picture != nullptr, "template: bitmap resource 102");
    if (picture != nullptr) {
        const auto* info = static_cast<const BITMAPINFOHEADER*>(LockResource(LoadResource(host.library, picture)));
        Check(info->biWidth == 130 && info->biHeight == 32 && info->biBitCount == 8 &&
                  (info->biClrUsed == 256 || info->biClrUsed == 0),
              "template: bitmap 102 is 130 x 32 pixels of 256 colours");
    }
    if (found == nullptr)
        return;
    TemplateReader r{static_cast<const uint8_t*>(LockResource(LoadResource(host.library, found)))};
    const uint16_t version = r.Word();
    const uint16_t signature = r.Word();
    Check(version == 1 && signature == 0xFFFF, "template: extended dialog template");
    r.Dword();  // help id
    r.Dword();  // extended style
    const DWORD style = r.Dword();
    const DWORD frame = WS_POPUP | WS_CAPTION | WS_SYSMENU | DS_MODALFRAME | DS_SETFONT | DS_FIXEDSYS;
    Check((style & frame) == frame, "template: frame styles");
    const uint16_t items = r.Word();
    CheckEqual(static_cast<int>(items), 48, "template: 48 controls");
    const int16_t x = static_cast<int16_t>(r.Word());
    const int16_t y = static_cast<int16_t>(r.Word());
    const int16_t cx = static_cast<int16_t>(r.Word());
    const int16_t cy = static_cast<int16_t>(r.Word());
    Check(x == 0 && y == 0 && cx == 336 && cy == 285, "template: 336 x 285 at 0,0");
    r.TextOrOrdinal();  // menu
    r.TextOrOrdinal();  // class
    CheckText(r.TextOrOrdinal(), L"Kelvane Processor Configuration", "template: caption");
    CheckEqual(static_cast<int>(r.Word()), 8, "template: 8 point");
    r.Word();  // weight
    r.Word();  // italic and character set
    CheckText(r.TextOrOrdinal(), L"MS Shell Dlg", "template: font");
    for (uint16_t i = 0; i < items && i < kConfigControlCount; ++i) {
        r.Align();
        const ControlRow& row = ConfigControls[i];
        const std::string name = "template: control " + std::to_string(i) + " (id " + std::to_string(row.id) + ")";
        r.Dword();  // help id
        r.Dword();  // extended style
        const DWORD itemStyle = r.Dword();
        const int16_t ix = static_cast<int16_t>(r.Word());
        const int16_t iy = static_cast<int16_t>(r.Word());
        const int16_t icx = static_cast<int16_t>(r.Word());
        const int16_t icy = static_cast<int16_t>(r.Word());
        const auto id = static_cast<int32_t>(r.Dword());
        const std::wstring windowClass = r.TextOrOrdinal();
        const std::wstring text = r.TextOrOrdinal();
        const uint16_t extra = r.Word();
        r.at += extra;
        CheckEqual(id, row.id, name + " id");
        Check(ix == row.x && iy == row.y && icx == row.width && icy == row.height, name + " place in dialog units");
        for (const auto& kind : kTemplateStyles) {
            if (kind.first != row.kind)
                continue;
            const DWORD want = kind.second.second | WS_CHILD | WS_VISIBLE;
            Check(SameClass(windowClass, kind.second.first), name + " class", Narrow(windowClass));
            Check(itemStyle == want, name + " style as written",
                  std::to_string(itemStyle) + " expected " + std::to_string(want));
        }
        const std::wstring wantText =
            row.kind == ControlKind::StaticImage ? L"#102" : (row.text != nullptr ? row.text : L"");
        CheckText(text, wantText, name + " text");
    }
}

struct DialogRun {
    Host* host;
    std::wstring screenshot;
    bool found;
};

DWORD WINAPI DriveDialog(void* context)
{
    auto* run = static_cast<DialogRun*>(context);
    HWND dialog = nullptr;
    for (int tries = 0; tries < 400 && dialog == nullptr; ++tries) {
        Sleep(50);
        dialog = FindWindowW(L"#32770", L"Kelvane Processor Configuration");
    }
    run->found = dialog != nullptr;
    if (dialog == nullptr)
        return 0;
    Sleep(200);

    CheckControlsAgainstTable(dialog, run->host->recorderPath);

    // Lists and values as the registry gave them.
    HWND modes = GetDlgItem(dialog, 1002);
    CheckEqual(static_cast<int>(SendMessageW(modes, CB_GETCOUNT, 0, 0)), 6, "dialog: six modes");
    for (int i = 0; i < 6; ++i) {
        wchar_t item[128] = {};
        SendMessageW(modes, CB_GETLBTEXT, static_cast<WPARAM>(i), reinterpret_cast<LPARAM>(item));
        CheckText(item, kModeItems[i], "dialog: mode item " + std::to_string(i));
    }
    CheckEqual(static_cast<int>(SendMessageW(modes, CB_GETCURSEL, 0, 0)), 0, "dialog: mode 0 selected");
    HWND depths = GetDlgItem(dialog, 1031);
    CheckEqual(static_cast<int>(SendMessageW(depths, CB_GETCOUNT, 0, 0)), 3, "dialog: three word sizes");
    const wchar_t* const depthItems[3] = {L"16", L"24", L"32"};
    for (int i = 0; i < 3; ++i) {
        wchar_t item[32] = {};
        SendMessageW(depths, CB_GETLBTEXT, static_cast<WPARAM>(i), reinterpret_cast<LPARAM>(item));
        CheckText(item, depthItems[i], "dialog: word size item " + std::to_string(i));
    }
    CheckEqual(static_cast<int>(SendMessageW(depths, CB_GETCURSEL, 0, 0)), 1, "dialog: Out_Bits 24 is item 1");
    for (const TrackRow& track : kTrackBars) {
        HWND bar = GetDlgItem(dialog, track.id);
        const std::string name = "dialog: track bar " + std::to_string(track.id);
        CheckEqual(static_cast<int>(SendMessageW(bar, TBM_GETRANGEMIN, 0, 0)), track.minimum, name + " minimum");
        CheckEqual(static_cast<int>(SendMessageW(bar, TBM_GETRANGEMAX, 0, 0)), track.maximum, name + " maximum");
        CheckEqual(static_cast<int>(SendMessageW(bar, TBM_GETPOS, 0, 0)), kDialogSettings[track.setting],
                   name + " position");
    }
    const int checks[8][2] = {{1015, 7}, {1029, 9}, {1018, 10}, {1023, 11}, {1025, 12}, {1024, 13}, {1026, 14}, {1028, 15}};
    for (const auto& box : checks)
        CheckEqual(static_cast<int>(SendMessageW(GetDlgItem(dialog, box[0]), BM_GETCHECK, 0, 0)),
                   kDialogSettings[box[1]] != 0 ? 1 : 0, "dialog: check state of " + std::to_string(box[0]));
    // Mode 0 before any Open: nothing has changed for the status timer yet.
    CheckText(ItemText(dialog, 1033), L"Decoding mode", "dialog: status keeps the template's text");

    // The enable table and the status text in every mode, with bass
    // redirection on and a real centre speaker...
    for (int mode = 0; mode < 6; ++mode) {
        SelectMode(dialog, mode);
        CheckEnableTable(dialog, mode, true, false, "E on, V off");
        if (mode > 0)
            CheckText(ItemText(dialog, 1033), kIdleStatus[mode], "dialog: status in mode " + std::to_string(mode));
    }
    // ... and with bass redirection off and a virtual centre.
    SelectMode(dialog, 2);
    ToggleCheck(dialog, 1015);
    ToggleCheck(dialog, 1018);
    for (int mode = 0; mode < 6; ++mode) {
        SelectMode(dialog, mode);
        CheckEnableTable(dialog, mode, false, true, "E off, V on");
        CheckText(ItemText(dialog, 1033), kIdleStatus[mode], "dialog: status again in mode " + std::to_string(mode));
    }

    // A track bar moved: setting and read-out follow.
    SelectMode(dialog, 3);
    SendMessageW(GetDlgItem(dialog, 1005), TBM_SETPOS, TRUE, 60);
    SendMessageW(dialog, WM_HSCROLL, TB_THUMBTRACK, reinterpret_cast<LPARAM>(GetDlgItem(dialog, 1005)));
    CheckText(ItemText(dialog, 1006), L"60", "dialog: read-out follows the surround delay");
    // Mute All and Umute All.
    SendMessageW(dialog, WM_COMMAND, MAKEWPARAM(1021, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(dialog, 1021)));
    int lit = 0;
    for (int id : {1023, 1024, 1025, 1026, 1028})
        lit += static_cast<int>(SendMessageW(GetDlgItem(dialog, id), BM_GETCHECK, 0, 0));
    CheckEqual(lit, 0, "dialog: Mute All clears the five speakers");
    SendMessageW(dialog, WM_COMMAND, MAKEWPARAM(1022, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(dialog, 1022)));
    lit = 0;
    for (int id : {1023, 1024, 1025, 1026, 1028})
        lit += static_cast<int>(SendMessageW(GetDlgItem(dialog, id), BM_GETCHECK, 0, 0));
    CheckEqual(lit, 5, "dialog: Umute All sets the five speakers");

    // "Configure" calls the chained plug-in's own Config and keeps its library.
    SendMessageW(dialog, WM_COMMAND, MAKEWPARAM(1030, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(dialog, 1030)));
    const std::vector<std::string> log = RecorderLog();
    Check(std::find(log.begin(), log.end(), "Config") != log.end() &&
              std::find(log.begin(), log.end(), "Init") == log.end(),
          "dialog: Configure calls the chained Config, without its Init", Joined(log));
    Check(GetModuleHandleW(run->host->recorderPath.c_str()) != nullptr,
          "dialog: Configure leaves the chained library loaded");

    // The picture for people: the dialog as the screen shows it.
    SetForegroundWindow(dialog);
    RedrawWindow(dialog, nullptr, nullptr, RDW_INVALIDATE | RDW_ERASE | RDW_ALLCHILDREN | RDW_UPDATENOW);
    Sleep(500);
    RECT frame;
    GetWindowRect(dialog, &frame);
    const int width = frame.right - frame.left;
    const int height = frame.bottom - frame.top;
    HDC screen = GetDC(nullptr);
    HDC memory = CreateCompatibleDC(screen);
    BITMAPINFO info{};
    info.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
    info.bmiHeader.biWidth = width;
    info.bmiHeader.biHeight = -height;  // top row first
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 32;
    void* bits = nullptr;
    HBITMAP bitmap = CreateDIBSection(screen, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    HGDIOBJ old = SelectObject(memory, bitmap);
    BitBlt(memory, 0, 0, width, height, screen, frame.left, frame.top, SRCCOPY);
    GdiFlush();
    std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
    const auto* pixels = static_cast<const uint8_t*>(bits);
    size_t distinct = 0;
    for (size_t p = 0; p < static_cast<size_t>(width) * height; ++p) {
        rgb[p * 3] = pixels[p * 4 + 2];
        rgb[p * 3 + 1] = pixels[p * 4 + 1];
        rgb[p * 3 + 2] = pixels[p * 4];
        if (p > 0 && std::memcmp(&pixels[p * 4], &pixels[0], 3) != 0)
            ++distinct;
    }
    SelectObject(memory, old);
    DeleteObject(bitmap);
    DeleteDC(memory);
    ReleaseDC(nullptr, screen);
    const std::vector<uint8_t> png = png_writer::EncodePng(static_cast<uint32_t>(width), static_cast<uint32_t>(height), rgb);
    FILE* file = _wfopen(run->screenshot.c_str(), L"wb");
    const bool written = file != nullptr && std::fwrite(png.data(), 1, png.size(), file) == png.size();
    if (file != nullptr)
        std::fclose(file);
    Check(written && distinct > 0, "dialog: screenshot written", Narrow(run->screenshot));

    // OK stores the record.
    PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(dialog, IDOK)));
    return 0;
}

// A second opening: the word size moved to 32, then the close box, which
// has the effect of Cancel.
DWORD WINAPI CancelDialog(void* context)
{
    auto* found = static_cast<bool*>(context);
    HWND dialog = nullptr;
    for (int tries = 0; tries < 400 && dialog == nullptr; ++tries) {
        Sleep(50);
        dialog = FindWindowW(L"#32770", L"Kelvane Processor Configuration");
    }
    *found = dialog != nullptr;
    if (dialog == nullptr)
        return 0;
    Sleep(200);
    HWND depths = GetDlgItem(dialog, 1031);
    SendMessageW(depths, CB_SETCURSEL, 2, 0);
    SendMessageW(dialog, WM_COMMAND, MAKEWPARAM(1031, CBN_SELCHANGE), reinterpret_cast<LPARAM>(depths));
    PostMessageW(dialog, WM_CLOSE, 0, 0);
    return 0;
}

void Dialog(Host& host, const std::wstring& screenshot)
{
    CheckTemplate(host);
    DeleteSettingsKey();
    WriteSettings(kDialogSettings, host.recorderPath);
    UseRecorderFiles(host.workDir + L"\\dialog.log", host.workDir + L"\\dialog.pcm");
    host.module->Init();
    DialogRun run{&host, screenshot, false};
    HANDLE driver = CreateThread(nullptr, 0, &DriveDialog, &run, 0, nullptr);
    host.module->Config(host.window);
    WaitForSingleObject(driver, 30000);
    Check(run.found, "dialog: Config shows the dialog");
    // What OK wrote back.
    const std::pair<const wchar_t*, DWORD> stored[] = {
        {L"Mode", 3}, {L"Out_Bits", 24}, {L"Surround_Delay", 60}, {L"Centre_Trim", 0xFFFFFFF4u},
        {L"Bass_Redir_Enable", 0}, {L"Virtual_C", 1}, {L"Bass_Invert", 1}, {L"R", 1}, {L"SL", 1}};
    for (const auto& value : stored) {
        DWORD word = 0xDEADBEEF;
        GetDword(value.first, word);
        CheckEqual(static_cast<long long>(word), static_cast<long long>(value.second),
                   "dialog: OK stored " + Narrow(value.first));
    }

    bool reopened = false;
    HANDLE canceller = CreateThread(nullptr, 0, &CancelDialog, &reopened, 0, nullptr);
    host.module->Config(host.window);
    WaitForSingleObject(canceller, 30000);
    Check(reopened, "dialog: Config shows the dialog a second time");
    DWORD bits = 0;
    GetDword(L"Out_Bits", bits);
    CheckEqual(static_cast<int>(bits), 24, "dialog: the close box leaves the registry alone");
    DeleteFileW(LogPath.c_str());
    host.module->Open(44100, 2, 16, 500, 0);
    host.module->Close();
    const std::vector<std::string> log = RecorderLog();
    Check(!log.empty() && log[0] == "Open 44100 6 24 500 0",
          "dialog: after the close box the word size is the registry's again", Joined(log));
    host.module->Quit();
}

HWND WaitForWindow(const wchar_t* title)
{
    HWND window = nullptr;
    for (int tries = 0; tries < 400 && window == nullptr; ++tries) {
        Sleep(50);
        window = FindWindowW(L"#32770", title);
    }
    return window;
}

struct SelectRun {
    std::wstring picked;     // the file the user picks
    bool dialogFound;
    bool fileDialogFound;
    std::wstring shownPath;  // the dialog's path box after the pick
};

// Select, as a user does it: the button, then the file dialog answered with
// a file name, then OK.
DWORD WINAPI DriveSelect(void* context)
{
    auto* run = static_cast<SelectRun*>(context);
    HWND dialog = WaitForWindow(L"Kelvane Processor Configuration");
    run->dialogFound = dialog != nullptr;
    if (dialog == nullptr)
        return 0;
    Sleep(200);
    // Posted: the button's handler runs the file dialog's own modal loop.
    PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(1027, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(dialog, 1027)));
    HWND files = WaitForWindow(kFileDialogTitle);
    run->fileDialogFound = files != nullptr;
    if (files != nullptr) {
        Sleep(300);
        // The file name box: cmb13 in the explorer-style dialog, edt1 in the old one.
        SetDlgItemTextW(files, 0x47C, run->picked.c_str());
        SetDlgItemTextW(files, 0x480, run->picked.c_str());
        PostMessageW(files, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(files, IDOK)));
        for (int tries = 0; tries < 200 && IsWindow(files); ++tries)
            Sleep(50);
        Sleep(300);
    }
    run->shownPath = WindowText(GetDlgItem(dialog, 1004));
    PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(dialog, IDOK)));
    return 0;
}

void Select(Host& host)
{
    DeleteSettingsKey();
    WriteSettings(kDialogSettings, host.recorderPath);
    // Another output plug-in under a name of its own, so that the pick shows.
    SelectRun run{host.workDir + L"\\out_picked.dll", false, false, L""};
    Check(CopyFileW(host.recorderPath.c_str(), run.picked.c_str(), FALSE) != 0, "select: a second plug-in to pick");
    host.module->Init();
    HANDLE driver = CreateThread(nullptr, 0, &DriveSelect, &run, 0, nullptr);
    host.module->Config(host.window);
    WaitForSingleObject(driver, 60000);
    Check(run.dialogFound, "select: Config shows the dialog");
    Check(run.fileDialogFound, "select: Select opens the file dialog");
    Check(_wcsicmp(run.shownPath.c_str(), run.picked.c_str()) == 0, "select: the picked path in the path box",
          Narrow(run.shownPath));
    wchar_t stored[512] = {};
    DWORD bytes = sizeof stored;
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKeyPath, 0, KEY_QUERY_VALUE, &key) == ERROR_SUCCESS) {
        RegQueryValueExW(key, L"Out_Plug", nullptr, nullptr, reinterpret_cast<BYTE*>(stored), &bytes);
        RegCloseKey(key);
    }
    Check(_wcsicmp(stored, run.picked.c_str()) == 0, "select: OK stores the picked path", Narrow(stored));
    host.module->Quit();
}

// The plug-in as someone installs it from the package: loaded from the
// Plugins folder that the ZIP was unpacked into, with no saved settings;
// the output plug-in chosen with Select, as the package's text says; then
// a playback through it. PLUGIN.dll and RECORDER.dll are the unpacked DLL
// and the recorder put beside it.
void Package(Host& host)
{
    wchar_t loadedFrom[MAX_PATH] = {};
    GetModuleFileNameW(host.library, loadedFrom, MAX_PATH);
    Check(_wcsicmp(loadedFrom, host.pluginPath.c_str()) == 0, "package: the plug-in is loaded from the Plugins folder",
          Narrow(loadedFrom));
    UseRecorderFiles(host.workDir + L"\\package.log", host.workDir + L"\\package.pcm");
    DeleteSettingsKey();
    host.module->Init();

    // Nothing chosen yet: out_ds.dll by its name alone, not on this machine.
    CheckEqual(host.module->Open(44100, 2, 16, 500, 0), -1, "package: before a choice, Open gives -1");
    const std::vector<SeenBox> boxes = TakeBoxes();
    Check(boxes.size() == 1 && boxes[0].text == L"Failed to open output plugin",
          "package: before a choice, the message that the text names", std::to_string(boxes.size()) + " boxes");

    SelectRun run{host.recorderPath, false, false, L""};
    HANDLE driver = CreateThread(nullptr, 0, &DriveSelect, &run, 0, nullptr);
    host.module->Config(host.window);
    WaitForSingleObject(driver, 60000);
    CloseHandle(driver);
    Check(run.dialogFound, "package: Config shows the dialog");
    Check(run.fileDialogFound, "package: Select opens the file dialog");
    Check(_wcsicmp(run.shownPath.c_str(), run.picked.c_str()) == 0,
          "package: the output plug-in from the Plugins folder in the path box", Narrow(run.shownPath));

    // One playback: defaults (mode 3, 16 bits out) through the chosen plug-in.
    DeleteFileW(LogPath.c_str());
    CheckEqual(host.module->Open(44100, 2, 16, 500, 0), 0, "package: Open through the chosen output plug-in");
    Check(GetModuleHandleW(host.recorderPath.c_str()) != nullptr,
          "package: the chosen output plug-in is loaded from the Plugins folder");
    std::vector<char> pcm = Pcm16Stereo(4410, false, 7);
    CheckEqual(host.module->Write(pcm.data(), static_cast<int>(pcm.size())), 0,
               "package: Write gives the chained result");
    host.module->Close();
    host.module->Quit();
    const std::vector<std::string> expected = {"Open 44100 6 16 500 0", "Write 52920", "Close"};
    const std::vector<std::string> log = RecorderLog();
    Check(log == expected, "package: the chosen output plug-in sees Open, one Write of six channels, Close",
          Joined(log));
    const std::vector<uint8_t> out = ReadBytes(DataPath);
    Check(out.size() == 52920 && std::any_of(out.begin(), out.end(), [](uint8_t b) { return b != 0; }),
          "package: it receives the processed sound", std::to_string(out.size()) + " bytes");
}

int Usage()
{
    std::fprintf(stderr,
                 "usage: kelvane-wine-host render|record|forward|registry|missing|hook|quit|dialog|select|package "
                 "PLUGIN.dll RECORDER.dll WORK_DIR\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 5)
        return Usage();
    const std::string command = argv[1];

    INITCOMMONCONTROLSEX controls{sizeof(INITCOMMONCONTROLSEX), ICC_BAR_CLASSES};
    InitCommonControlsEx(&controls);
    InitializeCriticalSection(&BoxLock);
    HANDLE watcher = CreateThread(nullptr, 0, &WatchBoxes, nullptr, 0, nullptr);

    Host host{};
    host.pluginPath = WindowsPath(argv[2]);
    host.recorderPath = WindowsPath(argv[3]);
    host.workDir = WindowsPath(argv[4]);
    CreateDirectoryW(host.workDir.c_str(), nullptr);
    host.window = CreateMainWindow();
    Check(host.window != nullptr, "host: main window created");
    const bool loaded = LoadPlugin(host);
    Check(loaded, "host: out_kelvane.dll loaded and winampGetOutModule found");
    if (loaded) {
        if (command == "render")
            Render(host);
        else if (command == "record")
            RecordFields(host);
        else if (command == "forward")
            Forwarding(host);
        else if (command == "registry")
            Registry(host);
        else if (command == "missing")
            Missing(host);
        else if (command == "hook")
            Hook(host);
        else if (command == "quit")
            QuitRestores(host);
        else if (command == "dialog")
            Dialog(host, host.workDir + L"\\dialog.png");
        else if (command == "select")
            Select(host);
        else if (command == "package")
            Package(host);
        else
            return Usage();
        if (command != "record" && command != "missing") {
            const std::vector<SeenBox> boxes = TakeBoxes();
            std::string seen;
            for (const SeenBox& box : boxes)
                seen += Narrow(box.caption) + ": " + Narrow(box.text) + "; ";
            Check(boxes.empty(), "host: no unexpected message box", seen);
        }
    }
    InterlockedExchange(&WatcherRunning, 0);
    WaitForSingleObject(watcher, 2000);
    if (loaded)
        FreeLibrary(host.library);
    std::printf("%d passed, %d failed\n", Passed, Failed);
    return Failed == 0 && Passed > 0 ? 0 : 1;
}
