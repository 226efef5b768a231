// Configuration dialog: the mode list, the word size, the chained plug-in,
// six track bars with their read-outs, the check boxes, the speaker toggles,
// and a status text that a 10 ms timer keeps in step with the running stream.
// All of it runs on the interface thread while the audio may be running;
// every setting is one plain 32-bit store.
#include "settings/config_dialog.h"

#include <cstring>

#include "product.h"
#include "settings/control_table.h"
#include "settings/settings_store.h"
#include "settings/wide_text.h"
#include "shell/out_module.h"
#include "signal/mode.h"

// The running dialog's context. The dialog is modal and runs on the
// interface thread, so there is one at a time.
static ConfigDialogContext* Active;

static ProcessorSettingsRecord& Settings()
{
    return *Active->Settings;
}

constexpr UINT_PTR kStatusTimerId = 1;
constexpr UINT kStatusTimerMilliseconds = 10;
constexpr uint32_t kReadOutChars = 64;
constexpr uint32_t kPathBound = 255;         // characters with the terminator
// The file dialog's record size: 88 bytes, the record as the host's 32-bit
// platform has it. A 64-bit build must give its own, larger record's size,
// or the dialog refuses the call and Select acts as cancelled.
#ifdef _WIN64
constexpr DWORD kOpenFileNameBytes = sizeof(OPENFILENAMEW);
#else
constexpr DWORD kOpenFileNameBytes = 88;
#endif
constexpr DWORD kOpenFileFlags = 0x10021004; // hide read-only, file must exist, no network button, show hidden

static const WCHAR kVersionText[] = KELVANE_TEXT_OF(KELVANE_PRODUCT_VERSION);
static const WCHAR kFileFilter[] = KELVANE_TEXT("Dynamic Link Library Files (*.dll)\0*.dll\0");
static const WCHAR kFileTitle[] = KELVANE_TEXT("Select a Winamp output plugin");

#define KELVANE_WIDE_MODE_ITEM(label) KELVANE_TEXT(label),
static const WCHAR* const kModeItems[kModeCount] = {KELVANE_MODE_LABELS(KELVANE_WIDE_MODE_ITEM)};

static const WCHAR* const kWordSizeItems[3] = {KELVANE_TEXT("16"), KELVANE_TEXT("24"), KELVANE_TEXT("32")};

struct TrackBarRow {
    int32_t id;
    int32_t ProcessorSettingsRecord::*setting;
    int16_t minimum;
    int16_t maximum;
    int32_t readOutId;
};

// In the order of the range and position calls and of the read-outs.
static const TrackBarRow kTrackBars[] = {
    {kIdSurroundDelay, &ProcessorSettingsRecord::Surround_Delay, 0, 100, kIdSurroundDelayText},
    {kIdCentreWidth, &ProcessorSettingsRecord::Centre_Width, 0, 100, kIdCentreWidthText},
    {kIdCentreTrim, &ProcessorSettingsRecord::Centre_Trim, -12, 12, kIdCentreTrimText},
    {kIdSurroundTrim, &ProcessorSettingsRecord::Surround_Trim_00, -12, 12, kIdSurroundTrimText},
    {kIdBassRedir, &ProcessorSettingsRecord::Bass_Redir, 10, 200, kIdBassRedirText},
    {kIdBassTrim, &ProcessorSettingsRecord::Bass_Trim, -12, 12, kIdBassTrimText},
};

struct CheckRow {
    int32_t id;
    int32_t ProcessorSettingsRecord::*setting;
};

static const CheckRow kSpeakerChecks[] = {
    {kIdSpeakerL, &ProcessorSettingsRecord::L},
    {kIdSpeakerR, &ProcessorSettingsRecord::R},
    {kIdSpeakerC, &ProcessorSettingsRecord::C},
    {kIdSpeakerSL, &ProcessorSettingsRecord::SL},
    {kIdSpeakerSR, &ProcessorSettingsRecord::SR},
};

// Read back at any other command, in this order.
static const CheckRow kCommandChecks[] = {
    {kIdBassRedirEnable, &ProcessorSettingsRecord::Bass_Redir_Enable},
    {kIdBassInvert, &ProcessorSettingsRecord::Bass_Invert},
    {kIdVirtualC, &ProcessorSettingsRecord::Virtual_C},
    {kIdSpeakerL, &ProcessorSettingsRecord::L},
    {kIdSpeakerR, &ProcessorSettingsRecord::R},
    {kIdSpeakerC, &ProcessorSettingsRecord::C},
    {kIdSpeakerSL, &ProcessorSettingsRecord::SL},
    {kIdSpeakerSR, &ProcessorSettingsRecord::SR},
};

// Cells of the enable table: on, off, E follows Bass_Redir_Enable, V is on
// exactly when Virtual_C is 0.
enum class Enable : uint8_t { Off, On, E, V };

struct EnableRow {
    int32_t id;
    Enable byMode[kModeCount];
};

static const EnableRow kEnableTable[] = {
    {kIdCentreWidth, {Enable::Off, Enable::Off, Enable::V, Enable::V, Enable::Off, Enable::Off}},
    {kIdBassRedirEnable, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::Off, Enable::Off}},
    {kIdBassRedir, {Enable::Off, Enable::E, Enable::E, Enable::E, Enable::Off, Enable::Off}},
    {kIdBassTrim, {Enable::Off, Enable::E, Enable::E, Enable::E, Enable::Off, Enable::Off}},
    {kIdBassInvert, {Enable::Off, Enable::E, Enable::E, Enable::E, Enable::Off, Enable::Off}},
    {kIdVirtualC, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::Off, Enable::Off}},
    {kIdCentreTrim, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::Off, Enable::Off}},
    {kIdSurroundDelay, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::On, Enable::Off}},
    {kIdSurroundTrim, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::Off, Enable::Off}},
    {kIdSpeakerL, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::On, Enable::Off}},
    {kIdSpeakerR, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::On, Enable::Off}},
    {kIdSpeakerC, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::On, Enable::Off}},
    {kIdSpeakerSL, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::On, Enable::Off}},
    {kIdSpeakerSR, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::On, Enable::Off}},
    {kIdMuteAll, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::On, Enable::Off}},
    {kIdUnmuteAll, {Enable::Off, Enable::On, Enable::On, Enable::On, Enable::On, Enable::Off}},
};

static void ShowMessage(const WCHAR* text)
{
    MessageBoxW(nullptr, text, kVersionText, MB_OK | MB_ICONEXCLAMATION);
}

static LPARAM TextParam(const WCHAR* text)
{
    return reinterpret_cast<LPARAM>(text);
}

void InitControls(HWND dialog)
{
    const ProcessorSettingsRecord& settings = Settings();
    SendDlgItemMessageW(dialog, kIdOutPlug, WM_SETTEXT, 0, TextParam(settings.Out_Plug));

    for (const WCHAR* item : kModeItems)
        SendDlgItemMessageW(dialog, kIdMode, CB_ADDSTRING, 0, TextParam(item));
    SendDlgItemMessageW(dialog, kIdMode, CB_SETCURSEL, WPARAM(settings.Mode), 0);

    for (const WCHAR* item : kWordSizeItems)
        SendDlgItemMessageW(dialog, kIdOutBits, CB_ADDSTRING, 0, TextParam(item));
    // Truncating division: 20 bits select index 0.
    SendDlgItemMessageW(dialog, kIdOutBits, CB_SETCURSEL, WPARAM(settings.Out_Bits / 8 - 2), 0);

    // The minimum in the low half, the maximum in the high half: 0x640000,
    // 0xCFFF4, 0xC8000A.
    for (const TrackBarRow& bar : kTrackBars)
        SendDlgItemMessageW(dialog, bar.id, TBM_SETRANGE, TRUE,
                            LPARAM(uint32_t(MAKELONG(bar.minimum, bar.maximum))));
    for (const TrackBarRow& bar : kTrackBars)
        SendDlgItemMessageW(dialog, bar.id, TBM_SETPOS, TRUE, LPARAM(settings.*bar.setting));

    SendDlgItemMessageW(dialog, kIdBassRedirEnable, BM_SETCHECK, settings.Bass_Redir_Enable != 0 ? 1 : 0, 0);
    SendDlgItemMessageW(dialog, kIdBassInvert, BM_SETCHECK, settings.Bass_Invert != 0 ? 1 : 0, 0);
    SendDlgItemMessageW(dialog, kIdVirtualC, BM_SETCHECK, settings.Virtual_C != 0 ? 1 : 0, 0);

    SetDlgItemTextW(dialog, kIdVersion, kVersionText);
    SetDlgItemTextW(dialog, kIdCopyright, kCopyrightText);
    RefreshControls(dialog);
}

void RefreshControls(HWND dialog)
{
    const ProcessorSettingsRecord& settings = Settings();
    for (const TrackBarRow& bar : kTrackBars) {
        WCHAR readOut[kReadOutChars];
        WideFromInt(readOut, settings.*bar.setting);
        SetDlgItemTextW(dialog, bar.readOutId, readOut);
    }
    for (const CheckRow& speaker : kSpeakerChecks)
        SendDlgItemMessageW(dialog, speaker.id, BM_SETCHECK, settings.*speaker.setting != 0 ? 1 : 0, 0);

    // A Mode outside 0..5, negative ones included, changes no control.
    const uint32_t mode = uint32_t(settings.Mode);
    if (mode >= uint32_t(kModeCount))
        return;
    for (const EnableRow& row : kEnableTable) {
        BOOL enable = FALSE;
        switch (row.byMode[mode]) {
        case Enable::Off: enable = FALSE; break;
        case Enable::On: enable = TRUE; break;
        case Enable::E: enable = settings.Bass_Redir_Enable != 0 ? TRUE : FALSE; break;
        case Enable::V: enable = settings.Virtual_C == 0 ? TRUE : FALSE; break;
        }
        EnableWindow(GetDlgItem(dialog, row.id), enable);
    }
}

// "Select": the file dialog, then the candidate is checked without being
// started, and only a path that passed reaches Out_Plug.
static void SelectChainedPlugin(HWND dialog)
{
    WCHAR file[kOutPlugChars];
    WideCopyBounded(file, Settings().Out_Plug, kPathBound);

    OPENFILENAMEW request;
    std::memset(&request, 0, sizeof request);
    request.lStructSize = kOpenFileNameBytes;
    request.hwndOwner = nullptr;
    request.lpstrFilter = kFileFilter;
    request.lpstrFile = file;
    request.nMaxFile = kPathBound;
    request.lpstrTitle = kFileTitle;
    request.Flags = kOpenFileFlags;
    if (!GetOpenFileNameW(&request)) {
        RefreshControls(dialog);
        return;
    }

    const HMODULE library = LoadLibraryW(file);
    if (library == 0) {
        ShowMessage(KELVANE_TEXT("Failed to open .dll file"));
        RefreshControls(dialog);
        return;
    }
    const WinampGetOutModuleFunction getModule = FindOutModuleExport(library);
    if (getModule == nullptr) {
        ShowMessage(KELVANE_TEXT("File is not a valid Winamp output plugin"));
        FreeLibrary(library);
        RefreshControls(dialog);
        return;
    }
    const Out_Module candidate = *getModule();
    if (candidate.id == Own_Module_Id) {
        ShowMessage(KELVANE_TEXT("Cannot select Kelvane Processor as output plugin"));
        FreeLibrary(library);
        RefreshControls(dialog);
        return;
    }
    // Live in the record at once; the stream moves to it at the next Open.
    WideCopyBounded(Settings().Out_Plug, file, kPathBound);
    SendDlgItemMessageW(dialog, kIdOutPlug, WM_SETTEXT, 0, TextParam(Settings().Out_Plug));
    *Active->Reload_Needed = 1;
    FreeLibrary(library);
    RefreshControls(dialog);
}

// "Configure": the chained plug-in's own dialog, in a copy of its record
// that the host never set up. The library is never released here, on
// purpose: each press leaves one more reference.
static void ConfigureChainedPlugin(HWND dialog)
{
    const HMODULE library = LoadLibraryW(Settings().Out_Plug);
    if (library == 0) {
        ShowMessage(KELVANE_TEXT("Failed to open output plugin"));
        RefreshControls(dialog);
        return;
    }
    const WinampGetOutModuleFunction getModule = FindOutModuleExport(library);
    if (getModule == nullptr) {
        ShowMessage(KELVANE_TEXT("File is not a valid Winamp output plugin"));
        RefreshControls(dialog);
        return;
    }
    const Out_Module chained = *getModule();
    chained.Config(dialog);
    RefreshControls(dialog);
}

static void OnCommand(HWND dialog, WPARAM wParam)
{
    const WORD notification = HIWORD(wParam);
    if (notification == CBN_SELCHANGE) {
        // From whichever control; a list without a selection gives -1, that
        // is Mode -1 or Out_Bits 8.
        Settings().Mode = int32_t(SendDlgItemMessageW(dialog, kIdMode, CB_GETCURSEL, 0, 0));
        Settings().Out_Bits = int32_t(SendDlgItemMessageW(dialog, kIdOutBits, CB_GETCURSEL, 0, 0)) * 8 + 16;
        RefreshControls(dialog);
        return;
    }
    if (notification != BN_CLICKED) {
        RefreshControls(dialog);
        return;
    }
    switch (LOWORD(wParam)) {
    case kIdOk:
        // Nothing but the store: no reset of the engine.
        SaveSettings(Settings());
        EndDialog(dialog, 0);
        break;
    case kIdCancel:
        // Every value back from the store, Out_Plug too; Reload_Needed stays.
        LoadSettings(Settings());
        EndDialog(dialog, 0);
        break;
    case kIdMuteAll:
    case kIdUnmuteAll: {
        const int32_t on = LOWORD(wParam) == kIdUnmuteAll ? 1 : 0;
        for (const CheckRow& speaker : kSpeakerChecks)
            Settings().*speaker.setting = on;
        RefreshControls(dialog);
        break;
    }
    case kIdSelect:
        SelectChainedPlugin(dialog);
        break;
    case kIdConfigure:
        ConfigureChainedPlugin(dialog);
        break;
    default:
        for (const CheckRow& check : kCommandChecks)
            Settings().*check.setting =
                SendDlgItemMessageW(dialog, check.id, BM_GETCHECK, 0, 0) == 1 ? 1 : 0;
        RefreshControls(dialog);
        break;
    }
}

static const WCHAR* StatusText(int32_t mode, uint32_t channels, int32_t rate)
{
    const bool none = channels == 0;
    const bool stereo = channels == 2;
    switch (mode) {
    case kModeBypass:
        return KELVANE_TEXT("Bypass\nNo audio processing is performed.");
    case kModeFixedMatrix:
        if (none)
            return KELVANE_TEXT("Kelvane+C\nProcessor inactive.");
        if (stereo)
            return KELVANE_TEXT("Kelvane+C\nProcessor in decoding mode.");
        return KELVANE_TEXT("Kelvane+C\nProcessor inactive. Requires an audio source with 2 channels.");
    case kModeSteered:
        if (none)
            return KELVANE_TEXT("Kelvane-AS\nProcessor inactive.");
        if (stereo)
            return KELVANE_TEXT("Kelvane-AS\nProcessor in decoding mode.");
        return KELVANE_TEXT("Kelvane-AS\nProcessor inactive. Requires an audio source with 2 channels.");
    case kModeSteeredTwoSurround:
        if (none)
            return KELVANE_TEXT("Kelvane-ASr\nProcessor inactive.");
        if (stereo)
            return KELVANE_TEXT("Kelvane-ASr\nProcessor in decoding mode.");
        return KELVANE_TEXT("Kelvane-ASr\nProcessor inactive. Requires an audio source with 2 channels.");
    case kModeHeadphone:
        if (none)
            return KELVANE_TEXT("Kelvane Headphone\nProcessor inactive.");
        if (channels == 2 || channels == 4 || channels == 5 || channels == 6) {
            // A range, as in the dispatcher: 46000 passes.
            if (IsHeadphoneRate(rate))
                return KELVANE_TEXT("Kelvane Headphone\nProcessor in encoding mode.");
            return KELVANE_TEXT("Kelvane Headphone\nProcessor inactive. Requires an audio source with a "
                                "sampling rate of 44.1 or 48KHz.");
        }
        return KELVANE_TEXT("Kelvane Headphone\nProcessor inactive. Requires an audio source with 2, 4, 5 or 6 "
                            "channels.");
    case kModeEncode:
        if (none)
            return KELVANE_TEXT("Kelvane Encode\nProcessor inactive.");
        if (channels == 4 || channels == 5 || channels == 6)
            return KELVANE_TEXT("Kelvane Encode\nProcessor in encoding mode.");
        return KELVANE_TEXT("Kelvane Encode\nProcessor inactive. An audio source with 4, 5 or 6 channels is "
                            "required.");
    default:
        return KELVANE_TEXT("");
    }
}

// Every timer tick: two comparisons in the common case. The rate is not part
// of them, so a new rate with the same channel count keeps the text.
static void OnTimer(HWND dialog)
{
    const int32_t mode = Settings().Mode;
    const uint32_t channels = Active->Stream->Stream_Channels;
    if (mode == Active->Last_Mode && channels == Active->Last_Channels)
        return;
    SetDlgItemTextW(dialog, kIdStatus, StatusText(mode, channels, Active->Stream->Stream_Rate));
    Active->Last_Mode = mode;
    Active->Last_Channels = channels;
}

// All six track bars are read, whichever one moved.
static void OnTrackBar(HWND dialog)
{
    for (const TrackBarRow& bar : kTrackBars)
        Settings().*bar.setting = int32_t(SendDlgItemMessageW(dialog, bar.id, TBM_GETPOS, 0, 0));
    RefreshControls(dialog);
}

// interface thread
INT_PTR CALLBACK ConfigDialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam)
{
    switch (message) {
    case WM_INITDIALOG:
        Active = reinterpret_cast<ConfigDialogContext*>(lParam);
        InitControls(dialog);
        Active->Last_Mode = 0;
        Active->Last_Channels = 0;
        SetTimer(dialog, kStatusTimerId, kStatusTimerMilliseconds, nullptr);
        return 1;
    case WM_COMMAND:
        OnCommand(dialog, wParam);
        return 0;
    case WM_TIMER:
        OnTimer(dialog);
        return 0;
    case WM_HSCROLL:
        OnTrackBar(dialog);
        return 0;
    default:
        return 0;
    }
}
