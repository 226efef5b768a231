// The configuration dialog, played through the emulated modal loop as a user
// would: clicks, list choices, track-bar drags, the file dialog's answer.
#include <set>

#include "tests/shell/plugin_host.h"

namespace {

// The enable table, cell by cell: 'o' off, 'n' on, 'E' follows bass
// redirection's "Enable", 'V' on exactly when the virtual centre is off.
struct EnableRow {
    int id;
    const char* byMode;  // modes 0..5
};

const EnableRow kEnableTable[] = {
    {1020, "ooVVoo"}, {1015, "onnnoo"}, {1011, "oEEEoo"}, {1013, "oEEEoo"}, {1029, "oEEEoo"},
    {1018, "onnnoo"}, {1007, "onnnoo"}, {1005, "onnnno"}, {1009, "onnnoo"}, {1023, "onnnno"},
    {1025, "onnnno"}, {1024, "onnnno"}, {1026, "onnnno"}, {1028, "onnnno"}, {1021, "onnnno"},
    {1022, "onnnno"},
};

// Never disabled: both lists, "Select", "Configure", OK, Cancel and the read-outs.
const int kAlwaysEnabled[] = {1002, 1031, 1027, 1030, 1, 2, 1006, 1019, 1008, 1010, 1012, 1014};

bool ExpectedEnabled(char cell, bool virtualCentre, bool bassEnable)
{
    switch (cell) {
    case 'n': return true;
    case 'E': return bassEnable;
    case 'V': return !virtualCentre;
    default: return false;
    }
}

class DialogHost : public PluginHost {
protected:
    // Sets a check box to a state by clicking it when it differs.
    static void SetCheck(HWND dialog, int id, int state)
    {
        if (Checked(dialog, id) != state)
            Click(dialog, id);
        ASSERT_EQ(Checked(dialog, id), state) << id;
    }

    std::set<int> EnabledOfTable(HWND dialog)
    {
        std::set<int> enabled;
        for (const EnableRow& row : kEnableTable) {
            if (Enabled(dialog, row.id))
                enabled.insert(row.id);
        }
        return enabled;
    }
};

TEST_F(DialogHost, Template_FortyEightControlsAndInitialTexts)
{
    Start({StringValue("Out_Plug", "out_x.so"), DwordValue("Mode", 0), DwordValue("Out_Bits", 32),
           DwordValue("Surround_Delay", 55), DwordValue("Centre_Width", 40), DwordValue("Bass_Redir", 60),
           DwordValue("Bass_Redir_Enable", 1), DwordValue("Bass_Invert", 1), DwordValue("Virtual_C", 1),
           DwordValue("R", 0)});
    RunDialog({
        [&](HWND dialog) {
            DialogWindow& record = *reinterpret_cast<DialogWindow*>(dialog);
            EXPECT_EQ(record.controlCount, 48u);
            EXPECT_TRUE(record.timerSet);
            EXPECT_EQ(record.timerId, 1u);
            EXPECT_EQ(record.timerElapse, 10u);
            EXPECT_EQ(Text(dialog, 1004), "out_x.so");
            EXPECT_EQ(Text(dialog, 1001), "Kelvane Processor 0.1.3a");
            EXPECT_NE(Text(dialog, 1032), "Copyright");
            EXPECT_NE(Text(dialog, 1032), "");
            EXPECT_EQ(Text(dialog, 1022), "Umute All");
            EXPECT_EQ(Text(dialog, 1021), "Mute All");
            // Mode 0 before any Open: nothing changed, the template's text stays.
            EXPECT_EQ(Text(dialog, 1033), "Decoding mode");

            const DialogControl& modes = Control(dialog, 1002);
            ASSERT_EQ(modes.itemCount, 6u);
            const char* const items[] = {"Bypass", "Kelvane+C (3/1) = L,R,C,S", "Kelvane-AS (3/1) = L,R,C,S",
                                         "Kelvane-ASr (3/2) = L,R,C,SL,SR", "Kelvane Headphone (2/0) = L,R",
                                         "Kelvane Encode (2/0) = L,R"};
            for (int i = 0; i < 6; ++i)
                EXPECT_EQ(Narrow(modes.items[i]), items[i]);
            EXPECT_EQ(modes.selection, 0);
            const DialogControl& bits = Control(dialog, 1031);
            ASSERT_EQ(bits.itemCount, 3u);
            EXPECT_EQ(Narrow(bits.items[0]), "16");
            EXPECT_EQ(Narrow(bits.items[1]), "24");
            EXPECT_EQ(Narrow(bits.items[2]), "32");
            EXPECT_EQ(bits.selection, 2);

            const struct { int id, low, high, position; const char* readOut; int readOutId; } bars[] = {
                {1005, 0, 100, 55, "55", 1006}, {1020, 0, 100, 40, "40", 1019}, {1007, -12, 12, 0, "0", 1008},
                {1009, -12, 12, 0, "0", 1010},  {1011, 10, 200, 60, "60", 1012}, {1013, -12, 12, 0, "0", 1014},
            };
            for (const auto& bar : bars) {
                EXPECT_EQ(Control(dialog, bar.id).rangeMin, bar.low) << bar.id;
                EXPECT_EQ(Control(dialog, bar.id).rangeMax, bar.high) << bar.id;
                EXPECT_EQ(Control(dialog, bar.id).position, bar.position) << bar.id;
                EXPECT_EQ(Text(dialog, bar.readOutId), bar.readOut) << bar.readOutId;
            }
            EXPECT_EQ(Checked(dialog, 1015), 1);
            EXPECT_EQ(Checked(dialog, 1029), 1);
            EXPECT_EQ(Checked(dialog, 1018), 1);
            EXPECT_EQ(Checked(dialog, 1023), 1);
            EXPECT_EQ(Checked(dialog, 1025), 0);
            EXPECT_EQ(Checked(dialog, 1024), 1);
        },
        Press(IDCANCEL),
    });
}

TEST_F(DialogHost, Config_OwnerGetsTheModalLoopsIdleCalls)
{
    Start(RecorderSettings());
    RunDialog({Press(IDOK)});
    EXPECT_EQ(idleCalls, 1);
    ASSERT_NE(lastDialog, nullptr);
}

TEST_F(DialogHost, SelectOwnLibrary_RefusedAndOutPlugKept)
{
    Start(RecorderSettings());
    OpenFileAnswer answer{};
    answer.path = u"" KELVANE_PLUGIN_PATH;
    std::string shown;
    RunDialog({
        [&](HWND dialog) { SelectFile(dialog, answer); },
        [&](HWND dialog) { shown = Text(dialog, 1004); },
        Press(IDOK),
    });
    EXPECT_TRUE(answer.taken);
    ExpectOneFailureBox("Cannot select Kelvane Processor as output plugin");
    EXPECT_EQ(shown, RECORDER_A_PATH);
    EXPECT_EQ(SavedValues().at("Out_Plug"), Quoted(RECORDER_A_PATH));
}

TEST_F(DialogHost, SelectLibraryWithoutExport_RefusedAndReleased)
{
    Start(RecorderSettings());
    PickFile(u"" NO_EXPORT_PATH);
    ExpectOneFailureBox("File is not a valid Winamp output plugin");
    EXPECT_EQ(CallsOf("noexport", "load").size(), 1u);
    EXPECT_EQ(CallsOf("noexport", "unload").size(), 1u);
    EXPECT_EQ(Probe().libraryLoads, 1u);
    EXPECT_EQ(Probe().libraryReleases, 1u);
    EXPECT_EQ(SavedValues().at("Out_Plug"), Quoted(RECORDER_A_PATH));
}

TEST_F(DialogHost, ConfigureLibraryWithoutExport_RefusedAndNotReleased)
{
    Start(RecorderSettings(0, 16, NO_EXPORT_PATH));
    RunDialog({
        Press(1030),
        Press(IDCANCEL),
    });
    ExpectOneFailureBox("File is not a valid Winamp output plugin");
    EXPECT_EQ(CallsOf("noexport", "load").size(), 1u);
    EXPECT_TRUE(CallsOf("noexport", "unload").empty());
    EXPECT_EQ(Probe().libraryLoads, 1u);
    EXPECT_EQ(Probe().libraryReleases, 0u);
}

TEST_F(DialogHost, SelectFileThatIsNoLibrary_FailedToOpen)
{
    Start(RecorderSettings());
    PickFile(u"" NOT_A_LIBRARY_PATH);
    ExpectOneFailureBox("Failed to open .dll file");
    EXPECT_EQ(SavedValues().at("Out_Plug"), Quoted(RECORDER_A_PATH));
}

TEST_F(DialogHost, Select_AsksTheFileDialogAsPrescribedAndAcceptsAPlugin)
{
    Start(RecorderSettings());
    OpenFileAnswer answer{};
    answer.path = u"" RECORDER_B_PATH;
    std::string shown;
    RunDialog({
        [&](HWND dialog) {
            SelectFile(dialog, answer);
            shown = Text(dialog, 1004);
        },
        Press(IDOK),
    });
    ASSERT_TRUE(answer.taken);
    EXPECT_EQ(answer.structSize, 88u);
    EXPECT_EQ(answer.flags, 0x10021004u);
    EXPECT_EQ(answer.maxFile, 255u);
    EXPECT_EQ(answer.owner, nullptr);
    EXPECT_EQ(Narrow(answer.title), "Select a Winamp output plugin");
    const std::u16string filter(answer.filter, answer.filter + 41);
    EXPECT_EQ(filter, std::u16string(u"Dynamic Link Library Files (*.dll)\0*.dll\0", 41));
    EXPECT_EQ(Narrow(answer.startFile), RECORDER_A_PATH);
    EXPECT_EQ(shown, RECORDER_B_PATH);
    EXPECT_EQ(Stderr(), "");
    // Looked at, not started, and released again.
    EXPECT_EQ(CallsOf("b", "load").size(), 1u);
    EXPECT_EQ(CallsOf("b", "unload").size(), 1u);
    EXPECT_TRUE(CallsOf("b", "Init").empty());
    EXPECT_EQ(SavedValues().at("Out_Plug"), Quoted(RECORDER_B_PATH));
}

TEST_F(DialogHost, SelectCancelled_NothingChanges)
{
    Start(RecorderSettings());
    const OpenFileAnswer answer = PickFile(nullptr);  // the user cancels the file dialog
    EXPECT_TRUE(answer.taken);
    EXPECT_EQ(Stderr(), "");
    EXPECT_TRUE(RecordedCalls().empty());
    EXPECT_EQ(SavedValues().at("Out_Plug"), Quoted(RECORDER_A_PATH));
}

TEST_F(DialogHost, Configure_CallsTheChainedConfigWithTheDialogAndKeepsTheLibrary)
{
    Start(RecorderSettings());
    HWND seen = nullptr;
    RunDialog({
        [&](HWND dialog) {
            seen = dialog;
            Click(dialog, 1030);
            Click(dialog, 1030);
        },
        Press(IDCANCEL),
    });
    const auto configs = CallsOf("a", "Config");
    ASSERT_EQ(configs.size(), 2u);
    EXPECT_EQ(configs[0].args[0], int64_t(intptr_t(seen)));
    EXPECT_EQ(CallsOf("a", "load").size(), 1u);
    EXPECT_TRUE(CallsOf("a", "unload").empty());
    EXPECT_TRUE(CallsOf("a", "Init").empty());
}

TEST_F(DialogHost, ConfigureWithMissingLibrary_FailedToOpenOutputPlugin)
{
    Start(RecorderSettings(0, 16, "/nonexistent/out_none.so"));
    RunDialog({
        Press(1030),
        Press(IDCANCEL),
    });
    ExpectOneFailureBox("Failed to open output plugin");
}

TEST_F(DialogHost, ConfigureWithEmptyOutPlug_FailedToOpenOutputPlugin)
{
    Start({StringValue("Out_Plug", ""), DwordValue("Mode", 0)});
    RunDialog({
        Press(1030),
        Press(IDCANCEL),
    });
    ExpectOneFailureBox("Failed to open output plugin");
    EXPECT_EQ(Probe().libraryLoads, 0u);
}

TEST_F(DialogHost, TrackBarDrag_SettingAndReadOutFollowEveryMove)
{
    Start(RecorderSettings(1));
    std::vector<std::string> readOuts;
    RunDialog({
        [&](HWND dialog) {
            for (const int position : {3, 17, 64, 100}) {
                Drag(dialog, 1005, position);
                readOuts.push_back(Text(dialog, 1006));
            }
            Drag(dialog, 1009, -12);
            readOuts.push_back(Text(dialog, 1010));
            // Outside the range, the track bar holds at its end.
            Drag(dialog, 1011, 250);
            readOuts.push_back(Text(dialog, 1012));
        },
        Press(IDOK),
    });
    EXPECT_EQ(readOuts, (std::vector<std::string>{"3", "17", "64", "100", "-12", "200"}));
    EXPECT_EQ(SavedValues().at("Surround_Delay"), "dword:00000064");
    EXPECT_EQ(SavedValues().at("Surround_Trim_00"), "dword:fffffff4");
    EXPECT_EQ(SavedValues().at("Bass_Redir"), "dword:000000c8");
}

TEST_F(DialogHost, VirtualCentre_CentreWidthOffInModesTwoAndThree_AlwaysOffInModeOne)
{
    Start(RecorderSettings(2));
    RunDialog({
        [&](HWND dialog) {
            EXPECT_TRUE(Enabled(dialog, 1020));
            Click(dialog, 1018);
            EXPECT_FALSE(Enabled(dialog, 1020));
            ChooseItem(dialog, 1002, 3);
            EXPECT_FALSE(Enabled(dialog, 1020));
            ChooseItem(dialog, 1002, 1);
            EXPECT_FALSE(Enabled(dialog, 1020));
            Click(dialog, 1018);
            EXPECT_EQ(Checked(dialog, 1018), 0);
            EXPECT_FALSE(Enabled(dialog, 1020));
            ChooseItem(dialog, 1002, 3);
            EXPECT_TRUE(Enabled(dialog, 1020));
        },
        Press(IDCANCEL),
    });
}

TEST_F(DialogHost, ClearingBassEnable_DisablesTheThreeAtOnceAndKeepsValues)
{
    Start({StringValue("Out_Plug", RECORDER_A_PATH), DwordValue("Mode", 1), DwordValue("Bass_Redir_Enable", 1),
           DwordValue("Bass_Redir", 150), DwordValue("Bass_Trim", uint32_t(-3)), DwordValue("Bass_Invert", 1)});
    RunDialog({
        [&](HWND dialog) {
            EXPECT_TRUE(Enabled(dialog, 1011));
            EXPECT_TRUE(Enabled(dialog, 1013));
            EXPECT_TRUE(Enabled(dialog, 1029));
            Click(dialog, 1015);
            EXPECT_FALSE(Enabled(dialog, 1011));
            EXPECT_FALSE(Enabled(dialog, 1013));
            EXPECT_FALSE(Enabled(dialog, 1029));
            EXPECT_EQ(Control(dialog, 1011).position, 150);
            EXPECT_EQ(Control(dialog, 1013).position, -3);
            EXPECT_EQ(Checked(dialog, 1029), 1);
            EXPECT_EQ(Text(dialog, 1012), "150");
        },
        Press(IDOK),
    });
    const auto saved = SavedValues();
    EXPECT_EQ(saved.at("Bass_Redir_Enable"), "dword:00000000");
    EXPECT_EQ(saved.at("Bass_Redir"), "dword:00000096");
    EXPECT_EQ(saved.at("Bass_Trim"), "dword:fffffffd");
    EXPECT_EQ(saved.at("Bass_Invert"), "dword:00000001");
}

TEST_F(DialogHost, ModeFour_OnlyDelaySpeakersAndMuteButtonsEnabled)
{
    Start({StringValue("Out_Plug", RECORDER_A_PATH), DwordValue("Mode", 4), DwordValue("Bass_Redir_Enable", 1)});
    std::set<int> enabled;
    RunDialog({
        [&](HWND dialog) { enabled = EnabledOfTable(dialog); },
        Press(IDCANCEL),
    });
    EXPECT_EQ(enabled, (std::set<int>{1005, 1023, 1025, 1024, 1026, 1028, 1021, 1022}));
}

TEST_F(DialogHost, ModeFive_SpeakerTogglesDisabledAndTheirSettingsKept)
{
    Start({StringValue("Out_Plug", RECORDER_A_PATH), DwordValue("Mode", 1), DwordValue("SL", 0)});
    RunDialog({
        [&](HWND dialog) {
            ChooseItem(dialog, 1002, 5);
            for (int id : {1023, 1025, 1024, 1026, 1028})
                EXPECT_FALSE(Enabled(dialog, id)) << id;
            // A click on a disabled toggle does nothing.
            Click(dialog, 1023);
            EXPECT_EQ(Checked(dialog, 1023), 1);
            EXPECT_EQ(Checked(dialog, 1026), 0);
        },
        Press(IDOK),
    });
    const auto saved = SavedValues();
    EXPECT_EQ(saved.at("Mode"), "dword:00000005");
    EXPECT_EQ(saved.at("L"), "dword:00000001");
    EXPECT_EQ(saved.at("SL"), "dword:00000000");
    EXPECT_EQ(saved.at("SR"), "dword:00000001");
}

TEST_F(DialogHost, OutBits24FromTheStore_SelectsItemAtIndexOne)
{
    Start({DwordValue("Out_Bits", 24)});
    int selection = -5;
    std::string item;
    RunDialog({
        [&](HWND dialog) {
            selection = Control(dialog, 1031).selection;
            item = Narrow(Control(dialog, 1031).items[selection]);
        },
        Press(IDCANCEL),
    });
    EXPECT_EQ(selection, 1);
    EXPECT_EQ(item, "24");
}

TEST_F(DialogHost, ListsWithoutSelection_ModeMinusOneAndOutBitsEight)
{
    Start(RecorderSettings(2, 16));
    std::set<int> before;
    std::set<int> after;
    std::string status;
    RunDialog({
        [&](HWND dialog) {
            before = EnabledOfTable(dialog);
            ChooseItem(dialog, 1031, -1);
            ChooseItem(dialog, 1002, -1);
            after = EnabledOfTable(dialog);
        },
        [&](HWND dialog) { status = Text(dialog, 1033); },
        Press(IDOK),
    });
    EXPECT_EQ(after, before);  // a negative mode changes no control
    EXPECT_EQ(status, "");
    EXPECT_EQ(SavedValues().at("Mode"), "dword:ffffffff");
    EXPECT_EQ(SavedValues().at("Out_Bits"), "dword:00000008");
}

TEST_F(DialogHost, MuteAllAndUmuteAll_SetTheFiveSpeakers)
{
    Start(RecorderSettings(1));
    std::vector<int> muted;
    RunDialog({
        [&](HWND dialog) {
            Click(dialog, 1021);
            for (int id : {1023, 1025, 1024, 1026, 1028})
                muted.push_back(Checked(dialog, id));
        },
        Press(IDOK),
    });
    EXPECT_EQ(muted, (std::vector<int>{0, 0, 0, 0, 0}));
    for (const char* name : {"L", "R", "C", "SL", "SR"})
        EXPECT_EQ(SavedValues().at(name), "dword:00000000") << name;
    RunDialog({
        Press(1022),
        Press(IDOK),
    });
    for (const char* name : {"L", "R", "C", "SL", "SR"})
        EXPECT_EQ(SavedValues().at(name), "dword:00000001") << name;
}

TEST_F(DialogHost, SpeakerToggle_ReachesTheAudioAtTheNextWrite)
{
    Start(RecorderSettings(1));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    // A centred tone: the matrix puts it into the centre, slot 2.
    std::vector<int16_t> samples;
    for (int n = 0; n < 256; ++n) {
        const auto s = int16_t(std::lround(8000.0 * std::sin(2.0 * M_PI * 1000.0 * n / 44100.0)));
        samples.push_back(s);
        samples.push_back(s);
    }
    auto centreEnergy = [](const std::vector<uint8_t>& bytes) {
        const std::vector<int16_t> words = Words16(bytes);
        double sum = 0.0;
        for (size_t i = 2; i < words.size(); i += 6)
            sum += std::abs(double(words[i]));
        return sum;
    };
    Write(Bytes16(samples));
    const double on = centreEnergy(LastWrite());
    double off = -1.0;
    RunDialog({
        [&](HWND dialog) {
            Click(dialog, 1024);  // C off
            Write(Bytes16(samples));
            off = centreEnergy(LastWrite());
        },
        Press(IDCANCEL),
    });
    EXPECT_GT(on, 0.0);
    EXPECT_EQ(off, 0.0);
}

TEST_F(DialogHost, ModeChangeDuringPlaybackInModeFour_StatusWithinOneTimerPeriod)
{
    Start(RecorderSettings(4));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    std::vector<std::string> statuses;
    RunDialog({
        [&](HWND dialog) {
            statuses.push_back(Text(dialog, 1033));
            ChooseItem(dialog, 1002, 3);
        },
        [&](HWND dialog) { statuses.push_back(Text(dialog, 1033)); },
        Press(IDCANCEL),
    });
    EXPECT_EQ(statuses, (std::vector<std::string>{"Kelvane Headphone\nProcessor in encoding mode.",
                                                  "Kelvane-ASr\nProcessor in decoding mode."}));
}

TEST_F(DialogHost, NewRateWithSameChannels_KeepsTheStatusText)
{
    Start(RecorderSettings(4));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    std::vector<std::string> statuses;
    RunDialog({
        [&](HWND dialog) {
            statuses.push_back(Text(dialog, 1033));
            module->Close();
            ASSERT_EQ(module->Open(32000, 2, 16, 0, 0), 0);
        },
        [&](HWND dialog) {
            statuses.push_back(Text(dialog, 1033));
            module->Close();
            ASSERT_EQ(module->Open(32000, 6, 16, 0, 0), 0);
        },
        [&](HWND dialog) { statuses.push_back(Text(dialog, 1033)); },
        Press(IDCANCEL),
    });
    EXPECT_EQ(statuses,
              (std::vector<std::string>{
                  "Kelvane Headphone\nProcessor in encoding mode.", "Kelvane Headphone\nProcessor in encoding mode.",
                  "Kelvane Headphone\nProcessor inactive. Requires an audio source with a sampling rate of 44.1 "
                  "or 48KHz."}));
}

TEST_F(DialogHost, StatusTable_EveryRowForItsCondition)
{
    struct Row {
        int mode;
        int channels;
        int rate;
        const char* text;
    };
    const Row rows[] = {
        {0, 2, 44100, "Bypass\nNo audio processing is performed."},
        {1, 0, 44100, "Kelvane+C\nProcessor inactive."},
        {1, 2, 44100, "Kelvane+C\nProcessor in decoding mode."},
        {1, 6, 44100, "Kelvane+C\nProcessor inactive. Requires an audio source with 2 channels."},
        {2, 0, 44100, "Kelvane-AS\nProcessor inactive."},
        {2, 2, 22050, "Kelvane-AS\nProcessor in decoding mode."},
        {2, 1, 44100, "Kelvane-AS\nProcessor inactive. Requires an audio source with 2 channels."},
        {3, 0, 44100, "Kelvane-ASr\nProcessor inactive."},
        {3, 2, 96000, "Kelvane-ASr\nProcessor in decoding mode."},
        {3, 4, 44100, "Kelvane-ASr\nProcessor inactive. Requires an audio source with 2 channels."},
        {4, 0, 44100, "Kelvane Headphone\nProcessor inactive."},
        {4, 2, 44100, "Kelvane Headphone\nProcessor in encoding mode."},
        {4, 4, 48000, "Kelvane Headphone\nProcessor in encoding mode."},
        {4, 5, 46000, "Kelvane Headphone\nProcessor in encoding mode."},
        {4, 6, 32000,
         "Kelvane Headphone\nProcessor inactive. Requires an audio source with a sampling rate of 44.1 or 48KHz."},
        {4, 2, 48001,
         "Kelvane Headphone\nProcessor inactive. Requires an audio source with a sampling rate of 44.1 or 48KHz."},
        {4, 5, 44099,
         "Kelvane Headphone\nProcessor inactive. Requires an audio source with a sampling rate of 44.1 or 48KHz."},
        {4, 3, 44100, "Kelvane Headphone\nProcessor inactive. Requires an audio source with 2, 4, 5 or 6 channels."},
        {4, 1, 44100, "Kelvane Headphone\nProcessor inactive. Requires an audio source with 2, 4, 5 or 6 channels."},
        {5, 0, 44100, "Kelvane Encode\nProcessor inactive."},
        {5, 4, 44100, "Kelvane Encode\nProcessor in encoding mode."},
        {5, 5, 8000, "Kelvane Encode\nProcessor in encoding mode."},
        {5, 6, 44100, "Kelvane Encode\nProcessor in encoding mode."},
        {5, 2, 44100, "Kelvane Encode\nProcessor inactive. An audio source with 4, 5 or 6 channels is required."},
        {5, 3, 44100, "Kelvane Encode\nProcessor inactive. An audio source with 4, 5 or 6 channels is required."},
    };
    Start(RecorderSettings(3));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    std::vector<std::string> shown;
    std::vector<Step> steps;
    for (const Row& row : rows) {
        steps.push_back([&, row](HWND dialog) {
            module->Close();
            ASSERT_GE(module->Open(row.rate, row.channels, 16, 0, 0), 0);
            ChooseItem(dialog, 1002, row.mode);
        });
        steps.push_back([&](HWND dialog) { shown.push_back(Text(dialog, 1033)); });
    }
    steps.push_back(Press(IDCANCEL));
    RunDialog(steps);
    ASSERT_EQ(shown.size(), std::size(rows));
    for (size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(shown[i], rows[i].text) << "row " << i;
}

TEST_F(DialogHost, EnableTable_EveryModeWithVirtualCentreAndBassEnable)
{
    Start(RecorderSettings(1));
    std::vector<Step> steps;
    for (int mode = 0; mode <= 5; ++mode) {
        for (int virtualCentre = 0; virtualCentre <= 1; ++virtualCentre) {
            for (int bassEnable = 0; bassEnable <= 1; ++bassEnable) {
                steps.push_back([=, this](HWND dialog) {
                    // The check boxes can be clicked in mode 1.
                    ChooseItem(dialog, 1002, 1);
                    SetCheck(dialog, 1018, virtualCentre);
                    SetCheck(dialog, 1015, bassEnable);
                    ChooseItem(dialog, 1002, mode);
                    for (const EnableRow& row : kEnableTable) {
                        EXPECT_EQ(Enabled(dialog, row.id),
                                  ExpectedEnabled(row.byMode[mode], virtualCentre != 0, bassEnable != 0))
                            << "mode " << mode << " virtual " << virtualCentre << " bass " << bassEnable
                            << " control " << row.id;
                    }
                    for (const int id : kAlwaysEnabled)
                        EXPECT_TRUE(Enabled(dialog, id)) << id;
                });
            }
        }
    }
    steps.push_back(Press(IDCANCEL));
    RunDialog(steps);
}

TEST_F(DialogHost, EnableTable_ModeNineChangesNoControl)
{
    Start({DwordValue("Mode", 9), DwordValue("Virtual_C", 1)});
    size_t disabled = 99;
    RunDialog({
        [&](HWND dialog) {
            DialogWindow& record = *reinterpret_cast<DialogWindow*>(dialog);
            disabled = 0;
            for (uint32_t i = 0; i < record.controlCount; ++i)
                disabled += record.controls[i].enabled ? 0 : 1;
        },
        Press(IDCANCEL),
    });
    EXPECT_EQ(disabled, 0u);
}

TEST_F(DialogHost, CancelAfterSelect_RestoresPathAndReloadStaysSet)
{
    Start(RecorderSettings());
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    module->Close();
    OpenFileAnswer answer{};
    answer.path = u"" RECORDER_B_PATH;
    RunDialog({
        [&](HWND dialog) {
            SelectFile(dialog, answer);
            EXPECT_EQ(Text(dialog, 1004), RECORDER_B_PATH);
        },
        Press(IDCANCEL),
    });
    std::string shown;
    RunDialog({
        [&](HWND dialog) { shown = Text(dialog, 1004); },
        Press(IDCANCEL),
    });
    EXPECT_EQ(shown, RECORDER_A_PATH);
    // The restored path is loaded anew at the next Open.
    RecordedCalls().clear();
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    EXPECT_EQ(CallOrder(), (std::vector<std::string>{"a.unload", "a.load", "a.Open"}));
}

TEST_F(DialogHost, CloseBox_ActsAsCancel)
{
    Start(RecorderSettings(2));
    RunDialog({
        [](HWND dialog) {
            ChooseItem(dialog, 1002, 0);
            Drag(dialog, 1005, 77);
        },
        [](HWND dialog) { SendMessageTo(dialog, WM_CLOSE, 0, 0); },
    });
    int mode = -5;
    int delay = -5;
    RunDialog({
        [&](HWND dialog) {
            mode = Control(dialog, 1002).selection;
            delay = Control(dialog, 1005).position;
        },
        Press(IDCANCEL),
    });
    EXPECT_EQ(mode, 2);
    EXPECT_EQ(delay, 10);
    // Read back, never written: the folder holds the file and nothing else.
    EXPECT_EQ(SettingsFolderNames(), std::vector<std::string>{"Kelvane.reg"});
}

TEST_F(DialogHost, CancelWithoutAnyKey_SetsTheDefaults)
{
    LoadAndInit();
    RunDialog({
        [](HWND dialog) {
            ChooseItem(dialog, 1002, 5);
            Click(dialog, 1021);
        },
        Press(IDCANCEL),
    });
    EXPECT_FALSE(fs::exists(RegFile()));
    RunDialog({Press(IDOK)});
    const auto saved = SavedValues();
    EXPECT_EQ(saved.at("Mode"), "dword:00000003");
    EXPECT_EQ(saved.at("L"), "dword:00000001");
}

TEST_F(DialogHost, CheckBoxCommand_ReadsTheBoxesIntoTheSettings)
{
    Start(RecorderSettings(1));
    RunDialog({
        [](HWND dialog) {
            Click(dialog, 1018);
            Click(dialog, 1029);  // disabled while bass redirection is off: ignored
            Click(dialog, 1015);
            Click(dialog, 1029);
            Click(dialog, 1028);
        },
        Press(IDOK),
    });
    const auto saved = SavedValues();
    EXPECT_EQ(saved.at("Virtual_C"), "dword:00000001");
    EXPECT_EQ(saved.at("Bass_Invert"), "dword:00000001");
    EXPECT_EQ(saved.at("SR"), "dword:00000000");
    EXPECT_EQ(saved.at("Bass_Redir_Enable"), "dword:00000001");
}

}  // namespace
