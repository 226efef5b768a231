// The settings store seen from outside: what Init reads from the .reg file
// shows in the dialog, and what the dialog's OK writes is read back here by
// the test's own reader.
#include <sys/stat.h>

#include "tests/shell/plugin_host.h"

namespace {

const char kHeader[] = "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]\n";

// The seventeen values with the defaults, in the order of the record.
const std::vector<std::pair<std::string, std::string>> kDefaults = {
    {"Out_Plug", "\"out_ds.dll\""},
    {"Mode", "dword:00000003"},
    {"Out_Bits", "dword:00000010"},
    {"Surround_Delay", "dword:0000000a"},
    {"Centre_Width", "dword:00000000"},
    {"Centre_Trim", "dword:00000000"},
    {"Surround_Trim_00", "dword:00000000"},
    {"Bass_Redir", "dword:00000078"},
    {"Bass_Redir_Enable", "dword:00000000"},
    {"Bass_Trim", "dword:00000000"},
    {"Bass_Invert", "dword:00000000"},
    {"Virtual_C", "dword:00000000"},
    {"L", "dword:00000001"},
    {"R", "dword:00000001"},
    {"C", "dword:00000001"},
    {"SL", "dword:00000001"},
    {"SR", "dword:00000001"},
};

std::string FileWith(const std::vector<std::pair<std::string, std::string>>& values)
{
    std::string text = kHeader;
    for (const auto& [name, value] : values)
        text += "\"" + name + "\"=" + value + "\n";
    return text;
}

std::vector<std::pair<std::string, std::string>> DefaultsWith(const std::string& name, const std::string& value)
{
    auto values = kDefaults;
    for (auto& entry : values) {
        if (entry.first == name)
            entry.second = value;
    }
    return values;
}

class SettingsHost : public PluginHost {
protected:
    // The saved file is a .reg file of our key holding exactly these values;
    // value lines may stand in any order.
    void ExpectSaved(const std::vector<std::pair<std::string, std::string>>& expected)
    {
        const std::string text = ReadText(RegFile());
        EXPECT_EQ(text.compare(0, sizeof kHeader - 1, kHeader), 0) << text;
        EXPECT_EQ(SavedValues(), (std::map<std::string, std::string>(expected.begin(), expected.end())));
    }

    // Init with whatever the folder holds, then OK in the dialog.
    void InitAndSave()
    {
        LoadAndInit();
        RunDialog({Press(IDOK)});
    }

    struct Shown {
        std::string path;
        int modeSelection;
        int bitsSelection;
        std::map<int, int> positions;
        std::map<int, std::string> readOuts;
    };

    // What the dialog shows right after it opens.
    Shown ShownInDialog()
    {
        Shown shown;
        RunDialog({
            [&](HWND dialog) {
                shown.path = Text(dialog, 1004);
                shown.modeSelection = Control(dialog, 1002).selection;
                shown.bitsSelection = Control(dialog, 1031).selection;
                for (int id : {1005, 1020, 1007, 1009, 1011, 1013})
                    shown.positions[id] = Control(dialog, id).position;
                for (int id : {1006, 1019, 1008, 1010, 1012, 1014})
                    shown.readOuts[id] = Text(dialog, id);
            },
            Press(IDCANCEL),
        });
        return shown;
    }
};

TEST_F(SettingsHost, NoKey_AllDefaults)
{
    ASSERT_FALSE(fs::exists(configHome));
    InitAndSave();
    // The folders come into being, and the file holds every default.
    EXPECT_EQ(ReadText(RegFile()), FileWith(kDefaults));
    EXPECT_EQ(Stderr(), "");
}

TEST_F(SettingsHost, NoKey_DialogShowsDefaults)
{
    LoadAndInit();
    const Shown shown = ShownInDialog();
    EXPECT_EQ(shown.path, "out_ds.dll");
    EXPECT_EQ(shown.modeSelection, 3);
    EXPECT_EQ(shown.bitsSelection, 0);
    EXPECT_EQ(shown.positions.at(1005), 10);
    EXPECT_EQ(shown.positions.at(1011), 120);
    EXPECT_EQ(shown.readOuts.at(1006), "10");
    EXPECT_EQ(shown.readOuts.at(1012), "120");
    EXPECT_EQ(shown.readOuts.at(1008), "0");
}

TEST_F(SettingsHost, OnlyModeOne_OthersTakeDefaults)
{
    WriteSettings({DwordValue("Mode", 1)});
    InitAndSave();
    ExpectSaved(DefaultsWith("Mode", "dword:00000001"));
}

TEST_F(SettingsHost, CentreTrimFFFFFFF4_ReadsAsMinusTwelve)
{
    WriteSettings({"\"Centre_Trim\"=dword:fffffff4"});
    LoadAndInit();
    const Shown shown = ShownInDialog();
    EXPECT_EQ(shown.positions.at(1007), -12);
    EXPECT_EQ(shown.readOuts.at(1008), "-12");
    RunDialog({Press(IDOK)});
    EXPECT_EQ(SavedValues().at("Centre_Trim"), "dword:fffffff4");
}

TEST_F(SettingsHost, NegativeTrims_StoredAsTwosComplement)
{
    WriteSettings({DwordValue("Mode", 1)});
    LoadAndInit();
    RunDialog({
        [](HWND dialog) { Drag(dialog, 1009, -1); },
        [](HWND dialog) { Drag(dialog, 1013, -7); },
        Press(IDOK),
    });
    EXPECT_EQ(SavedValues().at("Surround_Trim_00"), "dword:ffffffff");
    EXPECT_EQ(SavedValues().at("Bass_Trim"), "dword:fffffff9");
}

TEST_F(SettingsHost, ModeNine_KeptWithoutSelectionAndEmptyStatus)
{
    WriteSettings({DwordValue("Mode", 9)});
    LoadAndInit();
    int selection = 0;
    std::string status = "unset";
    bool allEnabled = true;
    RunDialog({
        [&](HWND dialog) {
            selection = Control(dialog, 1002).selection;
            status = Text(dialog, 1033);  // after the first timer tick
            DialogWindow& record = *reinterpret_cast<DialogWindow*>(dialog);
            for (uint32_t i = 0; i < record.controlCount; ++i)
                allEnabled = allEnabled && record.controls[i].enabled != 0;
        },
        Press(IDOK),
    });
    EXPECT_EQ(selection, -1);
    EXPECT_EQ(status, "");
    EXPECT_TRUE(allEnabled);  // a mode above 5 changes no control
    EXPECT_EQ(SavedValues().at("Mode"), "dword:00000009");
}

TEST_F(SettingsHost, OutBitsTwenty_KeptAsRead)
{
    WriteSettings({DwordValue("Out_Bits", 20)});
    LoadAndInit();
    EXPECT_EQ(ShownInDialog().bitsSelection, 0);
    RunDialog({Press(IDOK)});
    EXPECT_EQ(SavedValues().at("Out_Bits"), "dword:00000014");
}

TEST_F(SettingsHost, Path254Characters_RoundTripWhole)
{
    std::string path = "/";
    while (path.size() < 251)
        path += char('a' + path.size() % 26);
    path += ".so";
    ASSERT_EQ(path.size(), 254u);
    WriteSettings({StringValue("Out_Plug", path)});
    LoadAndInit();
    EXPECT_EQ(ShownInDialog().path, path);
    RunDialog({Press(IDOK)});
    EXPECT_EQ(SavedValues().at("Out_Plug"), "\"" + path + "\"");
    // Read back by Cancel, then shown again.
    RunDialog({Press(IDCANCEL)});
    EXPECT_EQ(ShownInDialog().path, path);
}

TEST_F(SettingsHost, Path255Characters_LongerThanTheQuery_GivesDefault)
{
    const std::string path(255, 'p');
    WriteSettings({StringValue("Out_Plug", path), DwordValue("Mode", 2)});
    LoadAndInit();
    const Shown shown = ShownInDialog();
    EXPECT_EQ(shown.path, "out_ds.dll");
    EXPECT_EQ(shown.modeSelection, 2);
}

TEST_F(SettingsHost, UnreadableFile_SilentlyAllDefaults)
{
    // A folder where the file should be: it opens for nothing.
    fs::create_directories(RegFile());
    LoadAndInit();
    const Shown shown = ShownInDialog();
    EXPECT_EQ(shown.path, "out_ds.dll");
    EXPECT_EQ(shown.modeSelection, 3);
    EXPECT_EQ(shown.positions.at(1005), 10);
    EXPECT_EQ(Stderr(), "");
}

TEST_F(SettingsHost, MalformedFile_SilentlyAllDefaults)
{
    WriteFile(RegFile(), "\"Mode\"=dword:00000001\n\x01\x02garbage\n");
    InitAndSave();
    EXPECT_EQ(ReadText(RegFile()), FileWith(kDefaults));
    EXPECT_EQ(Stderr(), "");
}

TEST_F(SettingsHost, MalformedLines_OnlyThoseValuesTakeDefaults)
{
    WriteSettings({"\"Mode\"=dword:000000001", "\"Out_Bits\"=dword:00000018", "\"Surround_Delay\"=hex:01,02",
                   "\"Centre_Width\"=dword:0000zz00", "\"Bass_Redir\"=dword:000000c8", "just words"});
    InitAndSave();
    auto expected = DefaultsWith("Out_Bits", "dword:00000018");
    for (auto& entry : expected) {
        if (entry.first == "Bass_Redir")
            entry.second = "dword:000000c8";
    }
    ExpectSaved(expected);
}

TEST_F(SettingsHost, CrlfAnyOrderUnknownLinesAndEscapes_Read)
{
    WriteFile(RegFile(),
              "Windows Registry Editor Version 5.00\r\n\r\n"
              "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Other]\r\n"
              "\"Mode\"=dword:00000005\r\n"
              "[HKEY_LOCAL_MACHINE\\Software\\Morrowfen\\Kelvane]\r\n"
              "; a comment\r\n"
              "\"SR\"=dword:00000000\r\n"
              "\"Mode\"=dword:00000002\r\n"
              "\"Unknown\"=dword:00000007\r\n"
              "\"Out_Plug\"=\"C:\\\\Winamp\\\\out_\\\"q\\\".dll\"\r\n");
    InitAndSave();
    const auto saved = SavedValues();
    EXPECT_EQ(saved.at("Mode"), "dword:00000002");
    EXPECT_EQ(saved.at("SR"), "dword:00000000");
    EXPECT_EQ(saved.at("Out_Plug"), "\"C:\\\\Winamp\\\\out_\\\"q\\\".dll\"");
    EXPECT_EQ(saved.at("L"), "dword:00000001");
}

TEST_F(SettingsHost, Save_ReplacesTheFileWholeByRename)
{
    WriteSettings({DwordValue("Mode", 1)});
    const std::string before = ReadText(RegFile());
    // A second name of the old file: an in-place rewrite would change it too.
    const fs::path keep = root / "old.reg";
    fs::create_hard_link(RegFile(), keep);
    struct stat oldStat {};
    ASSERT_EQ(stat(RegFile().c_str(), &oldStat), 0);

    LoadAndInit();
    RunDialog({
        [](HWND dialog) { ChooseItem(dialog, 1002, 4); },
        Press(IDOK),
    });
    EXPECT_EQ(ReadText(keep), before);
    struct stat newStat {};
    ASSERT_EQ(stat(RegFile().c_str(), &newStat), 0);
    EXPECT_NE(newStat.st_ino, oldStat.st_ino);
    ExpectSaved(DefaultsWith("Mode", "dword:00000004"));
    // Nothing but the file is left in its folder.
    EXPECT_EQ(SettingsFolderNames(), std::vector<std::string>{"Kelvane.reg"});
}

TEST_F(SettingsHost, SaveThenLoad_ReadsBackEqual)
{
    LoadAndInit();
    RunDialog({
        [](HWND dialog) { ChooseItem(dialog, 1002, 1); },
        [](HWND dialog) { ChooseItem(dialog, 1031, 1); },
        [](HWND dialog) {
            Drag(dialog, 1005, 37);
            Drag(dialog, 1007, -5);
            Drag(dialog, 1011, 200);
            Click(dialog, 1015);
            Click(dialog, 1029);
            Click(dialog, 1026);
        },
        Press(IDOK),
    });
    const std::string saved = ReadText(RegFile());
    // Change everything again, then Cancel reads the file back over it.
    RunDialog({
        [](HWND dialog) { ChooseItem(dialog, 1002, 0); },
        [](HWND dialog) { Drag(dialog, 1005, 90); },
        Press(IDCANCEL),
    });
    RunDialog({Press(IDOK)});
    EXPECT_EQ(ReadText(RegFile()), saved);
    const auto values = SavedValues();
    EXPECT_EQ(values.at("Mode"), "dword:00000001");
    EXPECT_EQ(values.at("Out_Bits"), "dword:00000018");
    EXPECT_EQ(values.at("Surround_Delay"), "dword:00000025");
    EXPECT_EQ(values.at("Centre_Trim"), "dword:fffffffb");
    EXPECT_EQ(values.at("Bass_Redir"), "dword:000000c8");
    EXPECT_EQ(values.at("Bass_Redir_Enable"), "dword:00000001");
    EXPECT_EQ(values.at("Bass_Invert"), "dword:00000001");
    EXPECT_EQ(values.at("SL"), "dword:00000000");
}

TEST_F(SettingsHost, SaveFailure_SilentAndSettingsLiveOn)
{
    // The configuration folder cannot be made: a file stands in its way.
    WriteFile(configHome, "not a folder");
    LoadAndInit();
    RunDialog({
        [](HWND dialog) { ChooseItem(dialog, 1002, 5); },
        Press(IDOK),
    });
    EXPECT_EQ(Stderr(), "");
    EXPECT_EQ(ShownInDialog().modeSelection, 5);
}

}  // namespace
