// The 48 controls of the configuration dialog, in tab order, as the template
// lays them out. Positions and sizes are dialog units.
#include "settings/control_table.h"

#include "settings/wide_text.h"

const WideChar* const kWebAddressText = KELVANE_TEXT("https://www.morrowfen.example/kelvane");
const WideChar* const kCopyrightText = KELVANE_TEXT("Copyright (C) Morrowfen");
// Two lines: the web address, a line feed, the copyright line.
const WideChar* const kAboutText =
    KELVANE_TEXT("https://www.morrowfen.example/kelvane\nCopyright (C) Morrowfen");

const ControlRow ConfigControls[kConfigControlCount] = {
    {-1, ControlKind::GroupBox, KELVANE_TEXT("Audio device settings:"), 7, 7, 204, 51},
    {kIdOutPlug, ControlKind::EditReadOnly, nullptr, 13, 19, 192, 14},
    {-1, ControlKind::StaticLeft, KELVANE_TEXT("Bit depth:"), 13, 41, 32, 8},
    {kIdOutBits, ControlKind::ComboSorted, nullptr, 49, 39, 48, 30},
    {kIdSelect, ControlKind::PushButton, KELVANE_TEXT("Select"), 101, 38, 50, 14},
    {kIdConfigure, ControlKind::PushButton, KELVANE_TEXT("Configure"), 155, 38, 50, 14},
    {-1, ControlKind::GroupBox, KELVANE_TEXT("Kelvane Processor settings:"), 7, 61, 204, 31},
    {-1, ControlKind::StaticRight, KELVANE_TEXT("Mode:"), 13, 75, 21, 8},
    {kIdMode, ControlKind::ComboUnsorted, nullptr, 40, 72, 164, 104},
    {-1, ControlKind::GroupBox, KELVANE_TEXT("Centre Channel:"), 7, 95, 204, 57},
    {-1, ControlKind::StaticLeft, KELVANE_TEXT("Centre width (%):"), 13, 105, 60, 8},
    {kIdCentreWidthText, ControlKind::StaticLeft, KELVANE_TEXT("0"), 79, 105, 31, 8},
    {kIdVirtualC, ControlKind::AutoCheckBox, KELVANE_TEXT("Virtual centre speaker"), 119, 104, 86, 10},
    {kIdCentreWidth, ControlKind::TrackBar, nullptr, 13, 114, 192, 12},
    {-1, ControlKind::StaticLeft, KELVANE_TEXT("Centre trim (dB):"), 13, 127, 55, 8},
    {kIdCentreTrimText, ControlKind::StaticLeft, KELVANE_TEXT("0"), 74, 127, 95, 8},
    {kIdCentreTrim, ControlKind::TrackBar, nullptr, 13, 137, 192, 12},
    {-1, ControlKind::GroupBox, KELVANE_TEXT("Surround Channel:"), 7, 156, 204, 59},
    // The blank at the end belongs to the text.
    {-1, ControlKind::StaticLeft, KELVANE_TEXT("Surround delay (ms): "), 13, 167, 70, 8},
    {kIdSurroundDelayText, ControlKind::StaticLeft, KELVANE_TEXT("0"), 87, 167, 72, 8},
    {kIdSurroundDelay, ControlKind::TrackBar, nullptr, 13, 176, 192, 12},
    {-1, ControlKind::StaticLeft, KELVANE_TEXT("Surround trim (dB):"), 13, 189, 62, 8},
    {kIdSurroundTrimText, ControlKind::StaticLeft, KELVANE_TEXT("0"), 81, 189, 87, 8},
    {kIdSurroundTrim, ControlKind::TrackBar, nullptr, 13, 199, 192, 12},
    {-1, ControlKind::GroupBox, KELVANE_TEXT("LFE Channel:"), 8, 218, 204, 59},
    {-1, ControlKind::StaticLeft, KELVANE_TEXT("Bass redirection (Hz):"), 13, 229, 70, 8},
    {kIdBassRedirText, ControlKind::StaticLeft, KELVANE_TEXT("0"), 88, 229, 51, 8},
    {kIdBassRedirEnable, ControlKind::AutoCheckBox, KELVANE_TEXT("Enable"), 168, 229, 37, 10},
    {kIdBassRedir, ControlKind::TrackBar, nullptr, 14, 239, 192, 12},
    {-1, ControlKind::StaticLeft, KELVANE_TEXT("Bass redirection trim (dB):"), 14, 251, 84, 8},
    {kIdBassTrimText, ControlKind::StaticLeft, KELVANE_TEXT("0"), 102, 251, 41, 8},
    {kIdBassInvert, ControlKind::AutoCheckBox, KELVANE_TEXT("Invert Phase"), 148, 251, 57, 10},
    {kIdBassTrim, ControlKind::TrackBar, nullptr, 14, 261, 192, 12},
    {-1, ControlKind::GroupBox, KELVANE_TEXT("Speaker control:"), 217, 7, 112, 82},
    {kIdSpeakerL, ControlKind::AutoCheckPushLike, KELVANE_TEXT("L"), 223, 17, 25, 18},
    {kIdSpeakerC, ControlKind::AutoCheckPushLike, KELVANE_TEXT("C"), 262, 17, 25, 18},
    {kIdSpeakerR, ControlKind::AutoCheckPushLike, KELVANE_TEXT("R"), 299, 17, 25, 18},
    {kIdMuteAll, ControlKind::PushButton, KELVANE_TEXT("Mute All"), 223, 42, 43, 17},
    // Spelt so on purpose.
    {kIdUnmuteAll, ControlKind::PushButton, KELVANE_TEXT("Umute All"), 281, 42, 43, 17},
    {kIdSpeakerSL, ControlKind::AutoCheckPushLike, KELVANE_TEXT("SL"), 223, 66, 25, 18},
    {kIdSpeakerSR, ControlKind::AutoCheckPushLike, KELVANE_TEXT("SR"), 299, 66, 25, 18},
    {kIdVersion, ControlKind::StaticRight, KELVANE_TEXT("Version"), 215, 92, 114, 8},
    {kIdCopyright, ControlKind::StaticRight, KELVANE_TEXT("Copyright"), 238, 103, 91, 21},
    {kIdStatus, ControlKind::StaticRight, KELVANE_TEXT("Decoding mode"), 220, 140, 109, 46},
    {-1, ControlKind::StaticImage, nullptr, 242, 222, 87, 20},
    {-1, ControlKind::StaticRight, KELVANE_TEXT("https://www.morrowfen.example/kelvane"), 236, 243, 93, 8},
    {kIdOk, ControlKind::DefaultPushButton, KELVANE_TEXT("OK"), 220, 262, 52, 14},
    {kIdCancel, ControlKind::PushButton, KELVANE_TEXT("Cancel"), 277, 262, 52, 14},
};

// WS_POPUP | WS_CAPTION | WS_SYSMENU | DS_MODALFRAME | DS_SETFONT | DS_FIXEDSYS
const DialogTemplateRecord ConfigDialogTemplate = {
    kConfigDialogResource,
    KELVANE_TEXT("Kelvane Processor Configuration"),
    0, 0, 336, 285,
    KELVANE_TEXT("MS Shell Dlg"), 8,
    ConfigControls,
    kConfigControlCount,
};
