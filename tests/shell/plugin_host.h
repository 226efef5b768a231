// A host for the tests: loads out_kelvane.so by dlopen, takes its record from
// winampGetOutModule, owns a main window, points the settings at a private
// configuration folder, catches standard error, and plays the user in the
// plug-in's modal dialog through WM_ENTERIDLE.
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/posix/dialog_emulator.h"  // the emulated dialog's records, the probe, the message numbers
#include "tests/shell/recording_log.h"
#include "hosts/out_module_host.h"

namespace fs = std::filesystem;

inline std::string Narrow(const std::u16string& text)
{
    std::string out;
    for (const char16_t c : text)
        out += c < 0x80 ? char(c) : '?';
    return out;
}

inline std::u16string Widen(const std::string& text)
{
    return std::u16string(text.begin(), text.end());
}

// ---- Expected PCM, computed here step by step in single precision ----

constexpr float kScale16In = 3.0517578125e-05f;  // 1/32768
constexpr float kPassGain = 0.707f;
constexpr float kOut16 = 27852.80078125f;
constexpr float kOut24 = 7130317.0f;
constexpr float kOut32 = 1825361152.0f;

// A 16-bit sample through Bypass, as a float before the output scale.
inline float BypassFloat16(int16_t sample)
{
    const float value = float(sample) * kScale16In;
    return value * kPassGain;
}

inline int32_t Truncate(float product)
{
    return int32_t(std::trunc(double(product)));
}

// Six-channel output bytes of stereo 16-bit input frames in Bypass.
inline std::vector<uint8_t> BypassOutput(const std::vector<int16_t>& interleavedStereo, int outBits)
{
    std::vector<uint8_t> out;
    const float scale = outBits == 16 ? kOut16 : outBits == 24 ? kOut24 : kOut32;
    for (size_t frame = 0; frame < interleavedStereo.size() / 2; ++frame) {
        for (int slot = 0; slot < 6; ++slot) {
            const float value = slot < 2 ? BypassFloat16(interleavedStereo[2 * frame + slot]) : 0.0f;
            const int32_t word = Truncate(value * scale);
            for (int b = 0; b < outBits / 8; ++b)
                out.push_back(uint8_t(uint32_t(word) >> (8 * b)));
        }
    }
    return out;
}

inline std::vector<uint8_t> Bytes16(const std::vector<int16_t>& samples)
{
    std::vector<uint8_t> out;
    for (const int16_t s : samples) {
        out.push_back(uint8_t(uint16_t(s)));
        out.push_back(uint8_t(uint16_t(s) >> 8));
    }
    return out;
}

// `frames` stereo frames of 16 bits from frame `start` of a signal of two
// tones at 44100 Hz, one in each channel (500 Hz left, 1300 Hz right), so that
// every decoder has a difference and a sum to steer by.
inline std::vector<uint8_t> TwoTones(int start, int frames)
{
    std::vector<int16_t> samples;
    for (int n = start; n < start + frames; ++n) {
        samples.push_back(int16_t(std::lround(10000.0 * std::sin(2.0 * M_PI * 500.0 * n / 44100.0))));
        samples.push_back(int16_t(std::lround(6000.0 * std::sin(2.0 * M_PI * 1300.0 * n / 44100.0))));
    }
    return Bytes16(samples);
}

inline std::vector<int16_t> Words16(const std::vector<uint8_t>& bytes)
{
    std::vector<int16_t> out;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        out.push_back(int16_t(uint16_t(bytes[i] | (bytes[i + 1] << 8))));
    return out;
}

// ---- The host ----

class PluginHost : public ::testing::Test {
protected:
    static inline PluginHost* Current = nullptr;

    void SetUp() override
    {
        Current = this;
        char folder[] = "/tmp/kelvane-shell-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        root = folder;
        configHome = root / "config";
        setenv("XDG_CONFIG_HOME", configHome.c_str(), 1);
        // Standard error into a file of our own.
        std::fflush(stderr);
        stderrFile = root / "stderr.txt";
        const int fd = ::open(stderrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        savedStderr = dup(2);
        dup2(fd, 2);
        ::close(fd);
        RecordedCalls().clear();
        Replies() = RecorderReplies{};
        Probe() = PlatformProbe{};
        window.proc = &HostProc;
    }

    void TearDown() override
    {
        std::fflush(stderr);
        dup2(savedStderr, 2);
        ::close(savedStderr);
        std::error_code ignored;
        fs::remove_all(root, ignored);
        Current = nullptr;
    }

    // ---- Settings file ----

    fs::path RegFile() const { return configHome / "Morrowfen" / "Kelvane.reg"; }

    void WriteFile(const fs::path& path, const std::string& text)
    {
        fs::create_directories(path.parent_path());
        std::ofstream out(path, std::ios::binary);
        out << text;
    }

    // A .reg file of our key with these value lines.
    void WriteSettings(const std::vector<std::string>& lines)
    {
        std::string text = "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]\n";
        for (const std::string& line : lines)
            text += line + "\n";
        WriteFile(RegFile(), text);
    }

    static std::string Quoted(const std::string& text) { return "\"" + text + "\""; }
    static std::string StringValue(const std::string& name, const std::string& value)
    {
        return Quoted(name) + "=" + Quoted(value);
    }
    static std::string DwordValue(const std::string& name, uint32_t value)
    {
        char hex[16];
        std::snprintf(hex, sizeof hex, "%08x", value);
        return Quoted(name) + "=dword:" + hex;
    }

    // The names in the settings file's folder, sorted.
    std::vector<std::string> SettingsFolderNames() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(RegFile().parent_path()))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string ReadText(const fs::path& path) const
    {
        std::ifstream in(path, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    // The value lines of our key in the saved file, by name, as written
    // (right of '=').
    std::map<std::string, std::string> SavedValues() const
    {
        std::map<std::string, std::string> values;
        std::istringstream in(ReadText(RegFile()));
        std::string line;
        bool ours = false;
        while (std::getline(in, line)) {
            if (!line.empty() && line[0] == '[') {
                std::string folded = line;
                for (char& c : folded)
                    c = char(std::tolower(static_cast<unsigned char>(c)));
                ours = folded == "[hkey_local_machine\\software\\morrowfen\\kelvane]";
            }
            if (!ours || line.size() < 3 || line[0] != '"')
                continue;
            const size_t close = line.find("\"=");
            if (close == std::string::npos)
                continue;
            values[line.substr(1, close - 1)] = line.substr(close + 2);
        }
        return values;
    }

    // ---- The plug-in ----

    host::Out_Module* Load()
    {
        library = dlopen(KELVANE_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(library, nullptr) << dlerror();
        getModule = reinterpret_cast<host::GetOutModuleFunction>(dlsym(library, "winampGetOutModule"));
        EXPECT_NE(getModule, nullptr);
        module = getModule();
        module->hMainWindow = &window;
        module->hDllInstance = library;
        return module;
    }

    // Load, then Init with whatever the configuration folder holds.
    void LoadAndInit()
    {
        Load();
        module->Init();
    }

    // Settings file with these values, load, Init.
    void Start(const std::vector<std::string>& settingLines)
    {
        WriteSettings(settingLines);
        LoadAndInit();
    }

    // Settings for a chained recorder "a" in Bypass at 16 bits.
    static std::vector<std::string> RecorderSettings(int mode = 0, int outBits = 16, const char* path = RECORDER_A_PATH)
    {
        return {StringValue("Out_Plug", path), DwordValue("Mode", uint32_t(mode)),
                DwordValue("Out_Bits", uint32_t(outBits))};
    }

    int Write(std::vector<uint8_t> bytes)
    {
        return module->Write(reinterpret_cast<char*>(bytes.data()), int(bytes.size()));
    }

    std::string Stderr() const
    {
        std::fflush(stderr);
        return ReadText(stderrFile);
    }

    // ---- What the platform saw: message boxes and library releases ----

    static PlatformProbe& Probe() { return PlatformProbeRecord(); }

    static constexpr uint32_t kWarningBox = 0x30;      // MB_OK | MB_ICONEXCLAMATION: every failure message
    static constexpr uint32_t kInformationBox = 0x40;  // MB_OK | MB_ICONINFORMATION: About

    // Exactly one message box so far, the failure message `text`: no owner,
    // the plug-in's caption, an OK button and the exclamation icon, and on
    // standard error the line "<caption>: <text>".
    void ExpectOneFailureBox(const std::string& text) const
    {
        EXPECT_EQ(Stderr(), "Kelvane Processor 0.1.3a: " + text + "\n");
        EXPECT_EQ(Probe().messageBoxes, 1u);
        EXPECT_EQ(Probe().lastBoxType, kWarningBox);
        EXPECT_EQ(Probe().lastBoxOwner, nullptr);
        EXPECT_EQ(Narrow(Probe().lastBoxCaption), "Kelvane Processor 0.1.3a");
        EXPECT_EQ(Narrow(Probe().lastBoxText), text);
    }

    // The bytes of the last chained Write of a recorder.
    static std::vector<uint8_t> LastWrite(const std::string& recorder = "a")
    {
        const auto writes = CallsOf(recorder, "Write");
        return writes.empty() ? std::vector<uint8_t>{} : writes.back().bytes;
    }

    // Every recorded call so far as "library.function", in order.
    static std::vector<std::string> CallOrder()
    {
        std::vector<std::string> order;
        for (const RecordedCall& call : RecordedCalls())
            order.push_back(call.library + "." + call.function);
        return order;
    }

    // ---- The host's main window ----

    struct Received {
        uint32_t message;
        uintptr_t wParam;
        intptr_t lParam;
    };

    static constexpr intptr_t kHostReply = 0x5151;

    static intptr_t HostProc(host::HWND, uint32_t message, uintptr_t wParam, intptr_t lParam)
    {
        PluginHost& self = *Current;
        if (message == WM_ENTERIDLE) {
            self.idleCalls++;
            self.RunDialogStep(reinterpret_cast<HWND>(lParam));
            return 0;
        }
        self.received.push_back({message, wParam, lParam});
        return kHostReply;
    }

    // A command of the host's window, delivered as the host does.
    intptr_t SendCommand(uint32_t message, uintptr_t wParam, intptr_t lParam = 0)
    {
        return window.proc(&window, message, wParam, lParam);
    }

    // ---- The dialog, played step by step: one step per turn of its loop ----

    using Step = std::function<void(HWND dialog)>;

    void RunDialog(std::vector<Step> steps)
    {
        script = std::move(steps);
        nextStep = 0;
        module->Config(&window);
    }

    void RunDialogStep(HWND dialog)
    {
        lastDialog = dialog;
        if (nextStep >= script.size())
            return;  // nothing more: the dialog closes as by its close box
        script[nextStep++](dialog);
        // Something for the dialog in every turn, so that it stays open
        // until a step ends it.
        if (!reinterpret_cast<DialogWindow*>(dialog)->ended)
            SendMessageTo(dialog, WM_NULL, 0, 0);
    }

    static LRESULT SendMessageTo(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
    {
        return window->proc(window, message, wParam, lParam);
    }

    static DialogControl& Control(HWND dialog, int id)
    {
        DialogWindow& record = *reinterpret_cast<DialogWindow*>(dialog);
        for (uint32_t i = 0; i < record.controlCount; ++i) {
            if (record.controls[i].id == id)
                return record.controls[i];
        }
        ADD_FAILURE() << "no control " << id;
        return record.controls[0];
    }

    static std::string Text(HWND dialog, int id) { return Narrow(Control(dialog, id).text); }
    static bool Enabled(HWND dialog, int id) { return Control(dialog, id).enabled != 0; }
    static int Checked(HWND dialog, int id) { return Control(dialog, id).check; }

    static void Click(HWND dialog, int id)
    {
        DialogControl& control = Control(dialog, id);
        SendMessageTo(&control.window, BM_CLICK, 0, 0);
    }

    // The user picks an item of a list.
    static void ChooseItem(HWND dialog, int id, int index)
    {
        DialogControl& control = Control(dialog, id);
        SendMessageTo(&control.window, CB_SETCURSEL, WPARAM(intptr_t(index)), 0);
        SendMessageTo(dialog, WM_COMMAND, MAKEWPARAM(id, CBN_SELCHANGE), reinterpret_cast<LPARAM>(&control.window));
    }

    // The user drags a track bar to a position.
    static void Drag(HWND dialog, int id, int position)
    {
        DialogControl& control = Control(dialog, id);
        SendMessageTo(&control.window, TBM_SETPOS, TRUE, position);
        constexpr WORD kThumbTrack = 5;  // SB_THUMBTRACK
        SendMessageTo(dialog, WM_HSCROLL, MAKEWPARAM(kThumbTrack, WORD(position)),
                      reinterpret_cast<LPARAM>(&control.window));
    }

    static void QueueFile(HWND dialog, OpenFileAnswer& answer)
    {
        SendMessageTo(dialog, WM_QUEUE_OPEN_FILE, 0, reinterpret_cast<LPARAM>(&answer));
    }

    // A step that only clicks one button, such as OK or Cancel.
    static Step Press(int id)
    {
        return [id](HWND dialog) { Click(dialog, id); };
    }

    // The user clicks "Select" and the file dialog gives `answer`.
    static void SelectFile(HWND dialog, OpenFileAnswer& answer)
    {
        constexpr int kSelectButton = 1027;
        QueueFile(dialog, answer);
        Click(dialog, kSelectButton);
    }

    // The user picks `path` through "Select" (null: cancels the file
    // dialog), then closes the dialog with `button`. What the file dialog
    // was asked, as it recorded it.
    OpenFileAnswer PickFile(LPCWSTR path, int button = IDOK)
    {
        OpenFileAnswer answer{};
        answer.path = path;
        RunDialog({
            [&](HWND dialog) { SelectFile(dialog, answer); },
            Press(button),
        });
        return answer;
    }

    fs::path root;
    fs::path configHome;
    fs::path stderrFile;
    int savedStderr = -1;
    void* library = nullptr;
    host::GetOutModuleFunction getModule = nullptr;
    host::Out_Module* module = nullptr;
    host::HostWindow window{};
    std::vector<Received> received;
    std::vector<Step> script;
    size_t nextStep = 0;
    int idleCalls = 0;
    HWND lastDialog = nullptr;
};
