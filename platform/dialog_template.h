// A dialog template as data: the dialog's frame and its controls in tab
// order, with positions in dialog units. It is what a DLGTEMPLATE resource
// holds, in a form that both builds can read: on Windows the resource script
// is written from it at build time and the template is compiled into the
// library; on POSIX a module hands its templates to the platform at run time
// (RegisterDialogTemplates in platform.h) and the emulated dialog is built
// from them.
#pragma once

#include <cstdint>

#include "platform/platform.h"

enum class ControlKind : uint32_t {
    GroupBox,           // frame with a caption
    StaticLeft,         // static text, left-aligned, WS_GROUP
    StaticRight,        // static text, right-aligned, WS_GROUP
    StaticImage,        // static bitmap, the picture of the module's bitmap resource
    EditReadOnly,       // read-only edit, border, tab stop, horizontal auto-scroll
    ComboSorted,        // drop-down list, sorted, vertical scroll bar, tab stop
    ComboUnsorted,      // drop-down list, unsorted, vertical scroll bar, tab stop
    PushButton,
    DefaultPushButton,
    AutoCheckBox,
    AutoCheckPushLike,  // auto check box in push-button form
    TrackBar,           // msctls_trackbar32, TBS_BOTH | TBS_NOTICKS, tab stop
};

struct ControlRow {
    int32_t id;             // -1 for a control that the logic never addresses
    ControlKind kind;
    const WCHAR* text;      // null for none
    int16_t x;              // dialog units
    int16_t y;
    int16_t width;
    int16_t height;
};

struct DialogTemplateRecord {
    uint16_t resourceId;    // the number that MAKEINTRESOURCEW names it by
    const WCHAR* caption;
    int16_t x;              // dialog units
    int16_t y;
    int16_t width;
    int16_t height;
    const WCHAR* fontName;
    int16_t fontPoints;
    const ControlRow* controls;
    uint32_t controlCount;
};
