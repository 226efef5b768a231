// The settings store seen from outside: what Init reads from the .reg file
// shows in the dialog, and what the dialog's OK writes is read back here by
// the test's own reader.
#include <sys/stat.h>
#include <sys/wait.h>

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
    // The file holds Out_Plug with `bytes` in it, which are not UTF-8: that
    // line cannot be read, so Out_Plug takes its default; the others are read.
    void ExpectPathLineUnreadable(const std::string& bytes)
    {
        WriteSettings({"\"Out_Plug\"=\"/tmp" + bytes + "out.so\"", DwordValue("Mode", 2)});
        LoadAndInit();
        const Shown shown = ShownInDialog();
        EXPECT_EQ(shown.path, "out_ds.dll");
        EXPECT_EQ(shown.modeSelection, 2);
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

// ---- The file as a person may have edited it ----

TEST_F(SettingsHost, DwordPrefixInAnyCase_Read)
{
    WriteSettings({"\"Mode\"=DWORD:00000001", "\"Out_Bits\"=Dword:00000018", "\"Surround_Delay\"=dWoRd:00000025"});
    LoadAndInit();
    const Shown shown = ShownInDialog();
    EXPECT_EQ(shown.modeSelection, 1);
    EXPECT_EQ(shown.bitsSelection, 1);
    EXPECT_EQ(shown.positions.at(1005), 37);
}

TEST_F(SettingsHost, DwordOfOneToEightHexDigits_Read)
{
    WriteSettings({"\"Mode\"=dword:2", "\"Surround_Delay\"=dword:1F", "\"Bass_Redir\"=dword:0c8",
                   "\"Centre_Trim\"=dword:fffffff4", "\"Centre_Width\"=dword:000000028", "\"Bass_Trim\"=dword:"});
    LoadAndInit();
    const Shown shown = ShownInDialog();
    EXPECT_EQ(shown.modeSelection, 2);
    EXPECT_EQ(shown.positions.at(1005), 31);
    EXPECT_EQ(shown.positions.at(1011), 200);
    EXPECT_EQ(shown.positions.at(1007), -12);
    // Nine digits or none: no dword, so the defaults.
    EXPECT_EQ(shown.positions.at(1020), 0);
    EXPECT_EQ(shown.positions.at(1013), 0);
    // Written back in the one form the store writes.
    RunDialog({Press(IDOK)});
    EXPECT_EQ(SavedValues().at("Mode"), "dword:00000002");
    EXPECT_EQ(SavedValues().at("Bass_Redir"), "dword:000000c8");
}

TEST_F(SettingsHost, BlanksAroundTheEqualsSign_Read)
{
    WriteSettings({"\"Mode\" = dword:00000001", "\"Out_Bits\"\t=\tdword:00000020",
                   "\"Out_Plug\"   =   \"/opt/out x.so\"  "});
    LoadAndInit();
    const Shown shown = ShownInDialog();
    EXPECT_EQ(shown.modeSelection, 1);
    EXPECT_EQ(shown.bitsSelection, 2);
    EXPECT_EQ(shown.path, "/opt/out x.so");
}

TEST_F(SettingsHost, ByteOrderMarkAndBlankLinesBeforeTheHeader_Read)
{
    WriteFile(RegFile(), "\xEF\xBB\xBF\n\r\n  \n"
                         "Windows Registry Editor Version 5.00\n\n"
                         "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]\n\"Mode\"=dword:00000005\n");
    LoadAndInit();
    EXPECT_EQ(ShownInDialog().modeSelection, 5);
}

TEST_F(SettingsHost, CommentLines_NeverValues)
{
    WriteFile(RegFile(), std::string(kHeader) + "; \"Mode\"=dword:00000005\n  ;\"Out_Bits\"=dword:00000020\n" +
                             "\"Mode\"=dword:00000001\n;\n");
    LoadAndInit();
    const Shown shown = ShownInDialog();
    EXPECT_EQ(shown.modeSelection, 1);
    EXPECT_EQ(shown.bitsSelection, 0);
}

TEST_F(SettingsHost, Save_KeepsOtherSectionsAndComments)
{
    const std::string before =
        "Windows Registry Editor Version 5.00\n\n"
        "; written by hand\n"
        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\OutWav]\n"
        "\"Out_File\"=\"/music/out.wav\"\n\n"
        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]\n"
        "; mode 2 for films\n"
        "\"Mode\"=dword:00000002\n\n"
        "; the next one is not ours\n"
        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Later]\n"
        "\"Mode\"=dword:00000004\n";
    WriteFile(RegFile(), before);
    InitAndSave();
    const auto expected = DefaultsWith("Mode", "dword:00000002");
    EXPECT_EQ(SavedValues(), (std::map<std::string, std::string>(expected.begin(), expected.end())));
    // Every line that is not one of our values stays, in its order.
    std::istringstream kept(before);
    const std::string after = "\n" + ReadText(RegFile());
    size_t from = 0;
    std::string line;
    while (std::getline(kept, line)) {
        if (line.empty() || line.compare(0, 7, "\"Mode\"=") == 0)
            continue;
        const size_t at = after.find("\n" + line + "\n", from);
        ASSERT_NE(at, std::string::npos) << line << "\n" << after;
        from = at + 1;
    }
    // The other keys' values as they were.
    EXPECT_NE(after.find("[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Later]\n\"Mode\"=dword:00000004\n"),
              std::string::npos);
}

TEST_F(SettingsHost, PathWithLineFeed_WrittenEscapedAndReadBack)
{
    // A real plug-in in a folder whose name holds a line feed.
    const fs::path folder = root / "two\nlines";
    fs::create_directories(folder);
    const fs::path library = folder / "out_recorder_b.so";
    fs::copy_file(RECORDER_B_PATH, library);
    Start(RecorderSettings());
    const std::u16string path = Widen(library.string());
    ASSERT_TRUE(PickFile(path.c_str()).taken);
    // One line in the file, with the line feed escaped.
    EXPECT_EQ(SavedValues().at("Out_Plug"), "\"" + root.string() + "/two\\nlines/out_recorder_b.so\"");
    // Read back by Cancel; the next Open loads the library at that path.
    RunDialog({Press(IDCANCEL)});
    EXPECT_EQ(ShownInDialog().path, library.string());
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    EXPECT_EQ(CallsOf("b", "Open").size(), 1u);
}

// ---- What the file must not do to the values ----

TEST_F(SettingsHost, NameWithNul_NeverCutBySave)
{
    const std::string nul(1, '\0');
    const std::string otherPath = "\"Out_Plug" + nul + "x\"=\"/elsewhere/out_other.so\"";
    const std::string otherMode = "\"Mode" + nul + "x\"=dword:00000005";
    WriteSettings({StringValue("Out_Plug", RECORDER_A_PATH), DwordValue("Mode", 1), otherPath, otherMode});
    InitAndSave();
    // Read again after the save: still our values.
    RunDialog({Press(IDCANCEL)});
    const Shown shown = ShownInDialog();
    EXPECT_EQ(shown.path, RECORDER_A_PATH);
    EXPECT_EQ(shown.modeSelection, 1);
    // The lines with a NUL are as they were, and each real name has one line.
    const std::string text = ReadText(RegFile());
    EXPECT_NE(text.find("\n" + otherPath + "\n"), std::string::npos);
    EXPECT_NE(text.find("\n" + otherMode + "\n"), std::string::npos);
    for (const std::string name : {"\n\"Out_Plug\"=", "\n\"Mode\"="}) {
        const size_t first = text.find(name);
        ASSERT_NE(first, std::string::npos) << name;
        EXPECT_EQ(text.find(name, first + 1), std::string::npos) << name;
    }
}

TEST_F(SettingsHost, OverlongUtf8_LineUnreadable)
{
    ExpectPathLineUnreadable("\xC0\xAF");  // "/" in two bytes
}

TEST_F(SettingsHost, SurrogateInUtf8_LineUnreadable)
{
    ExpectPathLineUnreadable("\xED\xA0\x80");  // U+D800
}

TEST_F(SettingsHost, CodePointBeyondU10FFFF_LineUnreadable)
{
    ExpectPathLineUnreadable("\xF4\x90\x80\x80");  // U+110000
}

TEST_F(SettingsHost, FourByteUtf8_ReadAndSavedUnchanged)
{
    const std::string path = "/tmp/\xF0\x9F\x8E\xB5/out.so";  // U+1F3B5
    WriteSettings({StringValue("Out_Plug", path)});
    InitAndSave();
    EXPECT_EQ(SavedValues().at("Out_Plug"), Quoted(path));
}

TEST_F(SettingsHost, LargeFile_ReadAndSavedWhole)
{
    // Over 10 MB: 420,000 values of another program's making, then ours.
    constexpr int kNames = 420000;
    std::string text = kHeader;
    char line[64];
    for (int i = 0; i < kNames; ++i) {
        std::snprintf(line, sizeof line, "\"Name_%06d\"=dword:%08x\n", i, unsigned(i));
        text += line;
    }
    ASSERT_GT(text.size(), 10u * 1000 * 1000);
    text += DwordValue("Mode", 2) + "\n" + StringValue("Out_Plug", RECORDER_A_PATH) + "\n";
    WriteFile(RegFile(), text);
    LoadAndInit();
    const Shown shown = ShownInDialog();
    EXPECT_EQ(shown.modeSelection, 2);
    EXPECT_EQ(shown.path, RECORDER_A_PATH);
    RunDialog({
        [](HWND dialog) { ChooseItem(dialog, 1002, 4); },
        Press(IDOK),
    });
    const auto saved = SavedValues();
    EXPECT_EQ(saved.size(), size_t(kNames) + 17);
    EXPECT_EQ(saved.at("Mode"), "dword:00000004");
    EXPECT_EQ(saved.at("Name_000000"), "dword:00000000");
    EXPECT_EQ(saved.at("Name_419999"), "dword:0006689f");
}

TEST_F(SettingsHost, Save_RemovesTemporaryFilesOfEndedProcessesOnly)
{
    WriteSettings({DwordValue("Mode", 1)});
    // A process that has ended, and one that runs: this test's parent.
    const pid_t ended = fork();
    ASSERT_GE(ended, 0);
    if (ended == 0)
        _exit(0);
    ASSERT_EQ(waitpid(ended, nullptr, 0), ended);
    const std::string stale = "Kelvane.reg.tmp." + std::to_string(ended);
    const std::string running = "Kelvane.reg.tmp." + std::to_string(getppid());
    WriteFile(RegFile().parent_path() / stale, "half a file");
    WriteFile(RegFile().parent_path() / running, "half a file");
    InitAndSave();
    EXPECT_EQ(SettingsFolderNames(), (std::vector<std::string>{"Kelvane.reg", running}));
    ExpectSaved(DefaultsWith("Mode", "dword:00000001"));
}

}  // namespace
