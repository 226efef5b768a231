// The configuration dialog's template as data: the dialog's frame and its 48
// controls in tab order. The shell hands this table to the POSIX dialog at run
// time and the Windows resource script is written from it, so the two
// cannot drift apart.
#pragma once

#include <cstdint>

#include "platform/dialog_template.h"
#include "signal/processor.h"

constexpr uint16_t kConfigDialogResource = 101;
constexpr uint16_t kLogoBitmapResource = 102;  // 130 by 32 pixels, 256 colours
constexpr uint32_t kConfigControlCount = 48;

// Control ids that the dialog's logic addresses.
constexpr int32_t kIdOk = 1;
constexpr int32_t kIdCancel = 2;
constexpr int32_t kIdVersion = 1001;
constexpr int32_t kIdMode = 1002;
constexpr int32_t kIdOutPlug = 1004;
constexpr int32_t kIdSurroundDelay = 1005;
constexpr int32_t kIdSurroundDelayText = 1006;
constexpr int32_t kIdCentreTrim = 1007;
constexpr int32_t kIdCentreTrimText = 1008;
constexpr int32_t kIdSurroundTrim = 1009;
constexpr int32_t kIdSurroundTrimText = 1010;
constexpr int32_t kIdBassRedir = 1011;
constexpr int32_t kIdBassRedirText = 1012;
constexpr int32_t kIdBassTrim = 1013;
constexpr int32_t kIdBassTrimText = 1014;
constexpr int32_t kIdBassRedirEnable = 1015;
constexpr int32_t kIdVirtualC = 1018;
constexpr int32_t kIdCentreWidthText = 1019;
constexpr int32_t kIdCentreWidth = 1020;
constexpr int32_t kIdMuteAll = 1021;
constexpr int32_t kIdUnmuteAll = 1022;
constexpr int32_t kIdSpeakerL = 1023;
constexpr int32_t kIdSpeakerC = 1024;
constexpr int32_t kIdSpeakerR = 1025;
constexpr int32_t kIdSpeakerSL = 1026;
constexpr int32_t kIdSelect = 1027;
constexpr int32_t kIdSpeakerSR = 1028;
constexpr int32_t kIdBassInvert = 1029;
constexpr int32_t kIdConfigure = 1030;
constexpr int32_t kIdOutBits = 1031;
constexpr int32_t kIdCopyright = 1032;
constexpr int32_t kIdStatus = 1033;

extern const ControlRow ConfigControls[kConfigControlCount];
extern const DialogTemplateRecord ConfigDialogTemplate;

// The texts of the About box and the dialog that are of our own choosing.
extern const WideChar* const kWebAddressText;
extern const WideChar* const kCopyrightText;
extern const WideChar* const kAboutText;
