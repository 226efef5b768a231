// The settings file under faults, through the plug-in as a host drives it: a
// full disk, a read-only disk, a folder where the file should be, ten
// megabytes of binary junk, and the file replaced while the dialog is open.
// Nothing crashes; what cannot be read gives the defaults; a save that
// fails is silent, as the store's saves are, and leaves the old file as it
// was while the settings live on in memory until the library goes.
#include <chrono>

#include "tests/shell/plugin_host.h"
#include "tests/support/scratch_disk.h"

namespace {

constexpr int kModeList = 1002;
constexpr int kOutBitsList = 1031;
constexpr int kDefaultMode = 3;

class SettingsFaults : public PluginHost {
protected:
    void TearDown() override
    {
        scratch.Unmount();
        PluginHost::TearDown();
    }

    // The configuration folder on a small disk of its own, holding our
    // settings file; skips the test where no disk can be mounted.
    void SettingsOnSmallDisk(const std::vector<std::string>& lines)
    {
        std::string why;
        if (!scratch.Mount(configHome, 64 * 1024, why))
            GTEST_SKIP() << why;
        WriteSettings(lines);
        oldText = ReadText(RegFile());
    }

    // The mode the dialog shows for the live settings, read as it opens.
    int LiveMode()
    {
        int selection = -2;
        RunDialog({
            [&](HWND dialog) {
                selection = Control(dialog, kModeList).selection;
                Click(dialog, IDOK);
            },
        });
        return selection;
    }

    // The user picks a mode and presses OK.
    void ChooseModeAndSave(int mode)
    {
        RunDialog({
            [mode](HWND dialog) { ChooseItem(dialog, kModeList, mode); },
            Press(IDOK),
        });
    }

    // A new session of the host: Quit, then Init reads the file again.
    void RestartHost()
    {
        module->Quit();
        module->Init();
    }

    // The file by rename, as an editor or another program would replace it.
    void ReplaceFile(const std::string& text)
    {
        const fs::path fresh = RegFile().parent_path() / "fresh.reg";
        WriteFile(fresh, text);
        fs::rename(fresh, RegFile());
    }

    // Ten megabytes that are no text at all, the same bytes every run.
    static std::string Junk(size_t bytes)
    {
        std::string junk(bytes, '\0');
        uint32_t state = 0x2545F491u;
        for (char& c : junk) {
            state = state * 1664525u + 1013904223u;
            c = char(state >> 24);
        }
        return junk;
    }

    static constexpr const char* kHeader = "Windows Registry Editor Version 5.00\n\n";
    static constexpr const char* kOurSection = "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]\n";

    ScratchDisk scratch;
    std::string oldText;
};

TEST_F(SettingsFaults, FullDisk_OkIsSilentTheOldFileStaysAndTheSettingsLiveOn)
{
    SettingsOnSmallDisk(RecorderSettings(1));
    if (IsSkipped())
        return;
    scratch.Fill();
    LoadAndInit();
    ChooseModeAndSave(5);

    EXPECT_EQ(Stderr(), "");
    EXPECT_EQ(ReadText(RegFile()), oldText);
    EXPECT_EQ(SettingsFolderNames(), std::vector<std::string>{"Kelvane.reg"});
    EXPECT_EQ(LiveMode(), 5);
    // Gone with the session: the next one reads the old file.
    RestartHost();
    EXPECT_EQ(LiveMode(), 1);
    EXPECT_EQ(Probe().messageBoxes, 0u);
}

TEST_F(SettingsFaults, ReadOnlyDisk_OkIsSilentTheOldFileStaysAndTheSettingsLiveOn)
{
    SettingsOnSmallDisk(RecorderSettings(1));
    if (IsSkipped())
        return;
    std::string why;
    if (!scratch.MakeReadOnly(why))
        GTEST_SKIP() << why;
    LoadAndInit();
    ChooseModeAndSave(2);

    EXPECT_EQ(Stderr(), "");
    EXPECT_EQ(ReadText(RegFile()), oldText);
    EXPECT_EQ(LiveMode(), 2);
    RestartHost();
    EXPECT_EQ(LiveMode(), 1);
}

TEST_F(SettingsFaults, FolderWhereTheFileShouldBe_DefaultsAndOkLeavesTheFolder)
{
    fs::create_directories(RegFile() / "inside");
    LoadAndInit();
    EXPECT_EQ(LiveMode(), kDefaultMode);
    ChooseModeAndSave(0);

    EXPECT_EQ(Stderr(), "");
    EXPECT_TRUE(fs::is_directory(RegFile() / "inside"));
    EXPECT_EQ(LiveMode(), 0);
}

TEST_F(SettingsFaults, TenMegabytesOfBinaryJunk_DefaultsAtOnceAndOkWritesAWholeFile)
{
    WriteFile(RegFile(), Junk(10 << 20));
    const auto start = std::chrono::steady_clock::now();
    LoadAndInit();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(seconds, 5.0);
    EXPECT_EQ(LiveMode(), kDefaultMode);  // the OK of LiveMode saved

    // No .reg file was there, so the save wrote one of its own.
    EXPECT_EQ(SavedValues().at("Mode"), "dword:00000003");
    EXPECT_EQ(SavedValues().size(), 17u);
}

TEST_F(SettingsFaults, JunkAroundOurValues_TheValuesRead)
{
    // Junk may hold a line that reads as a section of its own, so our
    // section is named again behind it.
    std::string text = std::string(kHeader) + kOurSection + DwordValue("Mode", 2) + "\n" + Junk(10 << 20);
    text += "\n" + std::string(kOurSection) + DwordValue("Out_Bits", 24) + "\n";
    WriteFile(RegFile(), text);
    LoadAndInit();
    int mode = -1;
    int outBits = -1;
    RunDialog({
        [&](HWND dialog) {
            mode = Control(dialog, kModeList).selection;
            outBits = Control(dialog, kOutBitsList).selection;
        },
    });
    EXPECT_EQ(mode, 2);
    EXPECT_EQ(outBits, 1);  // 24 bits
    EXPECT_EQ(Stderr(), "");
}

TEST_F(SettingsFaults, FileReplacedWhileTheDialogIsOpen_OkWritesIntoTheNewFile)
{
    Start(RecorderSettings(1));
    const std::string replacement = std::string(kHeader) + "; written by another program\n" +
                                    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Elsewhere\\Other]\n\"Kept\"=\"yes\"\n\n" +
                                    kOurSection + DwordValue("Mode", 4) + "\n" + DwordValue("Out_Bits", 24) + "\n";
    RunDialog({
        [](HWND dialog) { ChooseItem(dialog, kModeList, 3); },
        [&](HWND) { ReplaceFile(replacement); },
        Press(IDOK),
    });
    // The dialog's values over the new file's, and the rest of the new file
    // kept around them.
    const std::string text = ReadText(RegFile());
    EXPECT_NE(text.find("; written by another program\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Elsewhere\\Other]\n\"Kept\"=\"yes\"\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(SavedValues().at("Mode"), "dword:00000003");
    EXPECT_EQ(SavedValues().at("Out_Bits"), "dword:00000010");
    EXPECT_EQ(Stderr(), "");
}

TEST_F(SettingsFaults, FileReplacedWhileTheDialogIsOpen_CancelReadsTheNewFile)
{
    Start(RecorderSettings(1));
    RunDialog({
        [](HWND dialog) { ChooseItem(dialog, kModeList, 3); },
        [&](HWND) { ReplaceFile(std::string(kHeader) + kOurSection + DwordValue("Mode", 4) + "\n"); },
        Press(IDCANCEL),
    });
    EXPECT_EQ(LiveMode(), 4);
}

TEST_F(SettingsFaults, FileReplacedByJunkWhileTheDialogIsOpen_CancelGivesTheDefaults)
{
    Start(RecorderSettings(1));
    RunDialog({
        [](HWND dialog) { ChooseItem(dialog, kModeList, 5); },
        [&](HWND) { ReplaceFile(Junk(4096)); },
        Press(IDCANCEL),
    });
    EXPECT_EQ(LiveMode(), kDefaultMode);
    EXPECT_EQ(Stderr(), "");
}

TEST_F(SettingsFaults, FileReplacedByAFolderWhileTheDialogIsOpen_OkIsSilentAndLeavesTheFolder)
{
    Start(RecorderSettings(1));
    RunDialog({
        [](HWND dialog) { ChooseItem(dialog, kModeList, 2); },
        [&](HWND) {
            fs::remove(RegFile());
            fs::create_directories(RegFile() / "inside");
        },
        Press(IDOK),
    });
    EXPECT_EQ(Stderr(), "");
    EXPECT_TRUE(fs::is_directory(RegFile() / "inside"));
    EXPECT_EQ(LiveMode(), 2);
}

}  // namespace
