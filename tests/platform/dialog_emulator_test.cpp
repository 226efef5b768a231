// The emulated dialog, called directly: a dialog is made from the template
// that its module registered, found by its resource number.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/posix/dialog_emulator.h"

namespace {

const ControlRow kFirstRows[] = {
    {1, ControlKind::DefaultPushButton, u"OK", 10, 10, 50, 14},
    {7, ControlKind::AutoCheckBox, u"Loud", 10, 30, 50, 10},
};
const ControlRow kSecondRows[] = {
    {2, ControlKind::PushButton, u"Cancel", 10, 10, 50, 14},
    {8, ControlKind::TrackBar, nullptr, 10, 30, 100, 12},
    {9, ControlKind::StaticLeft, u"text", 10, 50, 100, 8},
};
const DialogTemplateRecord kTemplates[] = {
    {310, u"First", 0, 0, 100, 60, u"MS Shell Dlg", 8, kFirstRows, 2},
    {320, u"Second", 0, 0, 120, 80, u"MS Shell Dlg", 8, kSecondRows, 3},
};

// What the dialog procedure saw of the dialog it was given.
struct Seen {
    int initDialogs = 0;
    LPARAM initParam = 0;
    std::vector<int> ids;
    std::vector<ControlKind> kinds;
    std::u16string firstText;
};
Seen SeenByProcedure;

INT_PTR CALLBACK RecordingProc(HWND dialog, UINT message, WPARAM, LPARAM lParam)
{
    if (message == WM_INITDIALOG) {
        ++SeenByProcedure.initDialogs;
        SeenByProcedure.initParam = lParam;
        const DialogWindow& record = *reinterpret_cast<DialogWindow*>(dialog);
        for (uint32_t i = 0; i < record.controlCount; ++i) {
            SeenByProcedure.ids.push_back(record.controls[i].id);
            SeenByProcedure.kinds.push_back(record.controls[i].kind);
        }
        SeenByProcedure.firstText = record.controls[0].text;
        EndDialog(dialog, 42);
    }
    return TRUE;
}

class DialogEmulator : public ::testing::Test {
protected:
    void SetUp() override
    {
        SeenByProcedure = Seen{};
        RegisterDialogTemplates(nullptr, 0);
    }
};

TEST_F(DialogEmulator, UnregisteredTemplate_FailsWithoutCallingTheProcedure)
{
    EXPECT_EQ(DialogBoxParamW(nullptr, MAKEINTRESOURCEW(310), nullptr, &RecordingProc, 0), -1);
    EXPECT_EQ(SeenByProcedure.initDialogs, 0);
}

TEST_F(DialogEmulator, RegisteredTemplates_EachFoundByItsNumber)
{
    RegisterDialogTemplates(kTemplates, 2);
    EXPECT_EQ(DialogBoxParamW(nullptr, MAKEINTRESOURCEW(320), nullptr, &RecordingProc, 5), 42);
    EXPECT_EQ(SeenByProcedure.initDialogs, 1);
    EXPECT_EQ(SeenByProcedure.initParam, 5);
    EXPECT_EQ(SeenByProcedure.ids, (std::vector<int>{2, 8, 9}));
    EXPECT_EQ(SeenByProcedure.kinds,
              (std::vector<ControlKind>{ControlKind::PushButton, ControlKind::TrackBar, ControlKind::StaticLeft}));
    EXPECT_EQ(SeenByProcedure.firstText, u"Cancel");

    SeenByProcedure = Seen{};
    EXPECT_EQ(DialogBoxParamW(nullptr, MAKEINTRESOURCEW(310), nullptr, &RecordingProc, 0), 42);
    EXPECT_EQ(SeenByProcedure.ids, (std::vector<int>{1, 7}));
    EXPECT_EQ(SeenByProcedure.firstText, u"OK");

    EXPECT_EQ(DialogBoxParamW(nullptr, MAKEINTRESOURCEW(311), nullptr, &RecordingProc, 0), -1);
}

TEST_F(DialogEmulator, LaterRegistration_ReplacesTheTable)
{
    RegisterDialogTemplates(kTemplates, 2);
    RegisterDialogTemplates(kTemplates + 1, 1);
    EXPECT_EQ(DialogBoxParamW(nullptr, MAKEINTRESOURCEW(310), nullptr, &RecordingProc, 0), -1);
    EXPECT_EQ(DialogBoxParamW(nullptr, MAKEINTRESOURCEW(320), nullptr, &RecordingProc, 0), 42);
}

}  // namespace
