// Writes the resource script of dialog 101 and bitmap 102 from the dialog's
// control table, the same table that the POSIX dialog is built from, so that
// the Windows template cannot drift from it. Runs on the build machine.
//
//   make_dialog_rc OUTPUT.rc BITMAP.bmp
//
// Every control is written as a generic CONTROL statement with its window
// class and its full style, so that nothing is left to the resource
// compiler's defaults for the short forms (PUSHBUTTON, LTEXT and the like).

#include <cstdint>
#include <cstdio>
#include <string>

#include "settings/control_table.h"

namespace {

struct KindStyle {
    const char* windowClass;
    const char* style;
};

// Window class and style of each kind of control. WS_CHILD | WS_VISIBLE is
// common to all and added where the line is written.
KindStyle StyleOf(ControlKind kind)
{
    switch (kind) {
    case ControlKind::GroupBox:
        return {"Button", "BS_GROUPBOX"};
    case ControlKind::StaticLeft:
        return {"Static", "SS_LEFT | WS_GROUP"};
    case ControlKind::StaticRight:
        return {"Static", "SS_RIGHT | WS_GROUP"};
    case ControlKind::StaticImage:
        return {"Static", "SS_BITMAP | WS_GROUP"};
    case ControlKind::EditReadOnly:
        return {"Edit", "ES_LEFT | ES_AUTOHSCROLL | ES_READONLY | WS_BORDER | WS_TABSTOP"};
    case ControlKind::ComboSorted:
        return {"ComboBox", "CBS_DROPDOWNLIST | CBS_SORT | WS_VSCROLL | WS_TABSTOP"};
    case ControlKind::ComboUnsorted:
        return {"ComboBox", "CBS_DROPDOWNLIST | WS_VSCROLL | WS_TABSTOP"};
    case ControlKind::PushButton:
        return {"Button", "BS_PUSHBUTTON | WS_TABSTOP"};
    case ControlKind::DefaultPushButton:
        return {"Button", "BS_DEFPUSHBUTTON | WS_TABSTOP"};
    case ControlKind::AutoCheckBox:
        return {"Button", "BS_AUTOCHECKBOX | WS_TABSTOP"};
    case ControlKind::AutoCheckPushLike:
        return {"Button", "BS_AUTOCHECKBOX | BS_PUSHLIKE | WS_TABSTOP"};
    case ControlKind::TrackBar:
        return {"msctls_trackbar32", "TBS_BOTH | TBS_NOTICKS | WS_TABSTOP"};
    }
    return {nullptr, nullptr};
}

// A resource-script string: quotes doubled, anything outside printable
// ASCII written as an escape of the wide string.
std::string Quote(const WideChar* text)
{
    std::string quoted = "\"";
    if (text != nullptr) {
        for (uint32_t i = 0; text[i] != 0; ++i) {
            const auto c = static_cast<uint32_t>(text[i]);
            if (c == '"') {
                quoted += "\"\"";
            } else if (c >= 0x20 && c < 0x7F) {
                quoted += static_cast<char>(c);
            } else {
                char escape[8];
                std::snprintf(escape, sizeof escape, "\\x%04X", c);
                quoted += escape;
            }
        }
    }
    return quoted + "\"";
}

std::string Number(int32_t value)
{
    return std::to_string(value);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s OUTPUT.rc BITMAP.bmp\n", argv[0]);
        return 2;
    }
    const DialogTemplateRecord& dialog = ConfigDialogTemplate;
    if (dialog.controlCount != kConfigControlCount) {
        std::fprintf(stderr, "make_dialog_rc: the template has %u controls, expected %u\n",
                     dialog.controlCount, kConfigControlCount);
        return 1;
    }

    std::string rc;
    rc += "// Written by tools/make_dialog_rc from settings/control_table.cpp.\n";
    rc += "// Do not edit: change the table.\n";
    rc += "#include <windows.h>\n#include <commctrl.h>\n\n";
    rc += "LANGUAGE LANG_NEUTRAL, SUBLANG_NEUTRAL\n\n";
    rc += Number(kLogoBitmapResource) + " BITMAP \"" + argv[2] + "\"\n\n";

    rc += Number(dialog.resourceId) + " DIALOGEX " + Number(dialog.x) + ", " + Number(dialog.y) + ", " +
          Number(dialog.width) + ", " + Number(dialog.height) + "\n";
    rc += "STYLE WS_POPUP | WS_CAPTION | WS_SYSMENU | DS_MODALFRAME | DS_SETFONT | DS_FIXEDSYS\n";
    rc += "CAPTION " + Quote(dialog.caption) + "\n";
    // Weight 0, not italic, the default character set.
    rc += "FONT " + Number(dialog.fontPoints) + ", " + Quote(dialog.fontName) + ", 0, 0, 1\n";
    rc += "BEGIN\n";
    for (uint32_t i = 0; i < dialog.controlCount; ++i) {
        const ControlRow& row = dialog.controls[i];
        const KindStyle kind = StyleOf(row.kind);
        if (kind.windowClass == nullptr) {
            std::fprintf(stderr, "make_dialog_rc: control %u has an unknown kind\n", i);
            return 1;
        }
        // A static image names its bitmap by resource number in place of a text.
        const std::string text =
            row.kind == ControlKind::StaticImage ? Number(kLogoBitmapResource) : Quote(row.text);
        rc += "    CONTROL " + text + ", " + Number(row.id) + ", \"" + kind.windowClass + "\", " + kind.style +
              " | WS_CHILD | WS_VISIBLE, " + Number(row.x) + ", " + Number(row.y) + ", " + Number(row.width) +
              ", " + Number(row.height) + "\n";
    }
    rc += "END\n";

    std::FILE* file = std::fopen(argv[1], "wb");
    if (file == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    const bool written = std::fwrite(rc.data(), 1, rc.size(), file) == rc.size();
    if (std::fclose(file) != 0 || !written) {
        std::perror(argv[1]);
        return 1;
    }
    return 0;
}
