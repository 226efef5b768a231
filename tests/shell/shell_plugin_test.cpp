// The record, the chained output and the host window hook, driven through the
// record as the host drives it.
#include <elf.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/shell/plugin_host.h"

namespace {

constexpr uintptr_t kPlay = 40045;
constexpr uintptr_t kBetween = 40046;
constexpr uintptr_t kStop = 40047;
constexpr uint32_t kCommand = 0x111;

// 1152 stereo frames of a 440 Hz tone in the left channel only, so that the
// matrix puts a difference signal into the surround and its delay line.
std::vector<uint8_t> ToneBlock()
{
    std::vector<int16_t> samples;
    for (int n = 0; n < 1152; ++n) {
        samples.push_back(int16_t(std::lround(12000.0 * std::sin(2.0 * M_PI * 440.0 * n / 44100.0))));
        samples.push_back(0);
    }
    return Bytes16(samples);
}

std::vector<uint8_t> SilentBlock()
{
    return std::vector<uint8_t>(1152 * 4, 0);
}

bool AllZero(const std::vector<uint8_t>& bytes)
{
    for (const uint8_t b : bytes) {
        if (b != 0)
            return false;
    }
    return true;
}

// ---- The record and the export ----

TEST_F(PluginHost, Record_ConstantsStandBeforeInit)
{
    host::Out_Module* record = Load();
    EXPECT_EQ(record->version, 16);
    EXPECT_STREQ(record->description, "Morrowfen Kelvane Processor 0.1.3a");
    EXPECT_EQ(record->id, 6546551);
    EXPECT_NE(record->Config, nullptr);
    EXPECT_NE(record->About, nullptr);
    EXPECT_NE(record->Init, nullptr);
    EXPECT_NE(record->Quit, nullptr);
    EXPECT_NE(record->Open, nullptr);
    EXPECT_NE(record->Close, nullptr);
    EXPECT_NE(record->Write, nullptr);
    EXPECT_NE(record->CanWrite, nullptr);
    EXPECT_NE(record->IsPlaying, nullptr);
    EXPECT_NE(record->Pause, nullptr);
    EXPECT_NE(record->SetVolume, nullptr);
    EXPECT_NE(record->SetPan, nullptr);
    EXPECT_NE(record->Flush, nullptr);
    EXPECT_NE(record->GetOutputTime, nullptr);
    EXPECT_NE(record->GetWrittenTime, nullptr);
}

TEST_F(PluginHost, Record_SecondCallGivesSamePointerAndKeepsHostFields)
{
    host::Out_Module* first = Load();
    host::HostWindow other{};
    first->hMainWindow = &other;
    first->hDllInstance = reinterpret_cast<void*>(uintptr_t(0x1234));
    host::Out_Module* second = getModule();
    EXPECT_EQ(second, first);
    EXPECT_EQ(second->hMainWindow, &other);
    EXPECT_EQ(second->hDllInstance, reinterpret_cast<void*>(uintptr_t(0x1234)));
    EXPECT_EQ(second->id, 6546551);
}

// The symbols that a library defines and exports, read from its dynamic
// symbol table: every global or weak symbol with a section of its own and a
// visibility that lets it out.
static std::vector<std::string> DefinedDynamicSymbols(const char* path)
{
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::string> names;
    if (file.size() < sizeof(Elf64_Ehdr))
        return names;
    Elf64_Ehdr header;
    std::memcpy(&header, file.data(), sizeof header);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64)
        return names;
    std::vector<Elf64_Shdr> sections(header.e_shnum);
    std::memcpy(sections.data(), file.data() + header.e_shoff, header.e_shnum * sizeof(Elf64_Shdr));
    for (const Elf64_Shdr& section : sections) {
        if (section.sh_type != SHT_DYNSYM)
            continue;
        const char* strings = file.data() + sections[section.sh_link].sh_offset;
        const std::size_t count = section.sh_size / sizeof(Elf64_Sym);
        for (std::size_t i = 0; i < count; ++i) {
            Elf64_Sym symbol;
            std::memcpy(&symbol, file.data() + section.sh_offset + i * sizeof(Elf64_Sym), sizeof symbol);
            const unsigned binding = ELF64_ST_BIND(symbol.st_info);
            const unsigned visibility = ELF64_ST_VISIBILITY(symbol.st_other);
            if (symbol.st_shndx == SHN_UNDEF || (binding != STB_GLOBAL && binding != STB_WEAK) ||
                (visibility != STV_DEFAULT && visibility != STV_PROTECTED))
                continue;
            names.push_back(std::string(strings + symbol.st_name) +
                            (ELF64_ST_TYPE(symbol.st_info) == STT_FUNC ? " (function)" : " (data)"));
        }
    }
    return names;
}

TEST_F(PluginHost, Export_WinampGetOutModuleIsTheOnlyDefinedSymbol)
{
    Load();
    EXPECT_NE(dlsym(library, "winampGetOutModule"), nullptr);
    // The shell's, the settings' and the engine's own routines and data stay
    // hidden: the library's dynamic symbol table defines one function only.
    EXPECT_EQ(DefinedDynamicSymbols(KELVANE_PLUGIN_PATH), std::vector<std::string>{"winampGetOutModule (function)"});
}

TEST_F(PluginHost, SetVolumeAndSetPan_BeforeFirstOpen_CallNothing)
{
    Start(RecorderSettings());
    module->SetVolume(200);
    module->SetPan(-60);
    EXPECT_TRUE(RecordedCalls().empty());
    EXPECT_EQ(Stderr(), "");
}

TEST_F(PluginHost, About_WorksWithoutInitChainedPluginOrPlayback)
{
    Load();
    module->About(&window);
    const std::string line = Stderr();
    const std::string prefix = "About Kelvane Processor: ";
    ASSERT_EQ(line.compare(0, prefix.size(), prefix), 0) << line;
    ASSERT_EQ(line.back(), '\n');
    // Two lines of body: exactly one line feed, shown as " / ".
    const std::string body = line.substr(prefix.size(), line.size() - prefix.size() - 1);
    const size_t split = body.find(" / ");
    ASSERT_NE(split, std::string::npos) << body;
    EXPECT_EQ(body.find(" / ", split + 1), std::string::npos) << body;
    EXPECT_GT(split, 0u);
    EXPECT_LT(split + 3, body.size());
    EXPECT_TRUE(RecordedCalls().empty());
    // Owned by the host's window, with an OK button and the information icon.
    EXPECT_EQ(Probe().messageBoxes, 1u);
    EXPECT_EQ(Probe().lastBoxType, kInformationBox);
    EXPECT_EQ(Probe().lastBoxOwner, reinterpret_cast<HWND>(&window));
    EXPECT_EQ(Narrow(Probe().lastBoxCaption), "About Kelvane Processor");
}

// ---- The lifecycle ----

TEST_F(PluginHost, Lifecycle_LoadInitOpenWriteForwardFlushCloseQuit)
{
    Replies().open = 0;
    Replies().write = 0;
    Start(RecorderSettings(0, 16));
    // Init puts the hook in front of the host's procedure.
    ASSERT_NE(window.proc, &HostProc);
    EXPECT_TRUE(RecordedCalls().empty());  // no library before the first Open

    ASSERT_EQ(module->Open(44100, 2, 16, 2000, 500), 0);
    const auto opens = CallsOf("a", "Open");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].args, (std::vector<int64_t>{44100, 6, 16, 2000, 500}));

    // Bypass at 16 bits: sample / 32768 x 0.707 x 27852.80078125, truncated.
    const std::vector<int16_t> input = {16384, 32767, -32768, 0, 1, -1, 1000, -1000};
    Replies().write = 0;
    EXPECT_EQ(Write(Bytes16(input)), 0);
    const std::vector<int16_t> out = Words16(LastWrite());
    ASSERT_EQ(out.size(), 4u * 6u);
    EXPECT_EQ(out[0], 9845);
    EXPECT_EQ(out[1], 19691);
    EXPECT_EQ(out[6], -19691);
    EXPECT_EQ(out[7], 0);
    EXPECT_EQ(LastWrite(), BypassOutput(input, 16));

    Replies().canWrite = 123456;
    Replies().isPlaying = 7;
    Replies().pause = 1;
    Replies().outputTime = 4321;
    Replies().writtenTime = 8765;
    Replies().write = 3;
    EXPECT_EQ(module->CanWrite(), 123456);
    EXPECT_EQ(module->IsPlaying(), 7);
    EXPECT_EQ(module->Pause(1), 1);
    EXPECT_EQ(CallsOf("a", "Pause").back().args, (std::vector<int64_t>{1}));
    EXPECT_EQ(module->GetOutputTime(), 4321);
    EXPECT_EQ(module->GetWrittenTime(), 8765);
    EXPECT_EQ(Write(Bytes16(input)), 3);
    module->SetVolume(180);
    module->SetPan(-25);
    EXPECT_EQ(CallsOf("a", "SetVolume").back().args, (std::vector<int64_t>{180}));
    EXPECT_EQ(CallsOf("a", "SetPan").back().args, (std::vector<int64_t>{-25}));
    module->Flush(1500);
    EXPECT_EQ(CallsOf("a", "Flush").back().args, (std::vector<int64_t>{1500}));
    module->Close();
    EXPECT_EQ(CallsOf("a", "Close").size(), 1u);

    module->Quit();
    EXPECT_EQ(window.proc, &HostProc);
    // Released once: the recorder has left the process.
    EXPECT_EQ(Probe().libraryReleases, 1u);
    EXPECT_EQ(CallsOf("a", "unload").size(), 1u);
    // Never called on the chained plug-in.
    EXPECT_TRUE(CallsOf("a", "Init").empty());
    EXPECT_TRUE(CallsOf("a", "Quit").empty());
    EXPECT_TRUE(CallsOf("a", "About").empty());
    EXPECT_EQ(Stderr(), "");
}

TEST_F(PluginHost, Write_TwentyFourAndThirtyTwoBitOutput)
{
    Start(RecorderSettings(0, 24));
    ASSERT_EQ(module->Open(48000, 2, 16, 0, 0), 0);
    EXPECT_EQ(CallsOf("a", "Open")[0].args, (std::vector<int64_t>{48000, 6, 24, 0, 0}));
    const std::vector<int16_t> input = {16384, -32768, 32767, 5};
    Write(Bytes16(input));
    EXPECT_EQ(CallsOf("a", "Write").back().args[0], 2 * 18);
    EXPECT_EQ(LastWrite(), BypassOutput(input, 24));
    module->Close();
}

TEST_F(PluginHost, Open_MonoEightBitSource_ChainedGetsSixChannelsAndOutBits)
{
    Start(RecorderSettings(3, 32));
    Replies().open = 0;
    EXPECT_EQ(module->Open(11025, 1, 8, 700, 300), 0);
    const auto opens = CallsOf("a", "Open");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].args, (std::vector<int64_t>{11025, 6, 32, 700, 300}));
    // Nothing is refused: any channel count, word size and rate.
    module->Close();
    EXPECT_EQ(module->Open(7, 9, 12, 1, 2), 0);
    EXPECT_EQ(CallsOf("a", "Open").back().args, (std::vector<int64_t>{7, 6, 32, 1, 2}));
    EXPECT_EQ(Stderr(), "");
}

TEST_F(PluginHost, Open_ChainedFailure_ReturnedUnchangedAndLibraryKept)
{
    Start(RecorderSettings());
    Replies().open = -7;
    EXPECT_EQ(module->Open(44100, 2, 16, 0, 0), -7);
    Replies().open = 0;
    EXPECT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    // Loaded once: the second Open reuses the library.
    EXPECT_EQ(CallsOf("a", "load").size(), 1u);
    EXPECT_EQ(CallsOf("a", "Open").size(), 2u);
}

TEST_F(PluginHost, Open_SeveralPlaybacksShareOneLoad)
{
    Start(RecorderSettings());
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
        module->Close();
    }
    EXPECT_EQ(CallsOf("a", "load").size(), 1u);
    EXPECT_TRUE(CallsOf("a", "unload").empty());
    EXPECT_EQ(CallsOf("a", "Open").size(), 3u);
    EXPECT_EQ(CallsOf("a", "Close").size(), 3u);
}

TEST_F(PluginHost, Open_BareFileName_ReachesTheLoaderAsBareName)
{
    // The recorder is in the process already, under its file name as soname;
    // the loader's own rules find it by the bare name and by nothing else.
    void* recorder = dlopen(RECORDER_A_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(recorder, nullptr);
    Start({StringValue("Out_Plug", "out_recorder_a.so"), DwordValue("Mode", 0)});
    EXPECT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    EXPECT_EQ(CallsOf("a", "Open").size(), 1u);
    EXPECT_EQ(Stderr(), "");
}

TEST_F(PluginHost, Open_MissingLibrary_MessageAndMinusOne_LaterOpenRetries)
{
    const fs::path missing = root / "later" / "out_late.so";
    Start(RecorderSettings(0, 16, missing.c_str()));
    EXPECT_EQ(module->Open(44100, 2, 16, 0, 0), -1);
    ExpectOneFailureBox("Failed to open output plugin");
    EXPECT_TRUE(RecordedCalls().empty());
    // SetVolume and SetPan stay guarded after the failed load.
    module->SetVolume(10);
    module->SetPan(10);
    EXPECT_TRUE(RecordedCalls().empty());

    // The library appears; the next Open tries again and succeeds.
    fs::create_directories(missing.parent_path());
    fs::copy_file(RECORDER_A_PATH, missing);
    EXPECT_EQ(module->Open(48000, 2, 16, 0, 0), 0);
    ASSERT_EQ(CallsOf("a", "Open").size(), 1u);
    EXPECT_EQ(CallsOf("a", "Open")[0].args[0], 48000);
    ExpectOneFailureBox("Failed to open output plugin");
}

TEST_F(PluginHost, Open_EmptyOutPlug_LoadsNothing_MessageAndMinusOne)
{
    // No library has an empty name; the host program is not one either.
    Start({StringValue("Out_Plug", ""), DwordValue("Mode", 0)});
    EXPECT_EQ(module->Open(44100, 2, 16, 0, 0), -1);
    ExpectOneFailureBox("Failed to open output plugin");
    EXPECT_EQ(Probe().libraryLoads, 0u);
    EXPECT_TRUE(RecordedCalls().empty());
    // Still nothing at the next Open, and the same message again.
    EXPECT_EQ(module->Open(44100, 2, 16, 0, 0), -1);
    EXPECT_EQ(Probe().messageBoxes, 2u);
    EXPECT_EQ(Probe().lastBoxType, kWarningBox);
}

TEST_F(PluginHost, Write_LengthSevenStereoSixteenBit_OneFrameRestDropped)
{
    Start(RecorderSettings(0, 16));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    std::vector<uint8_t> bytes = Bytes16({16384, -32768});
    bytes.push_back(0x11);
    bytes.push_back(0x22);
    bytes.push_back(0x33);
    ASSERT_EQ(bytes.size(), 7u);
    Write(bytes);
    const auto writes = CallsOf("a", "Write");
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].args[0], 12);
    EXPECT_EQ(Words16(writes[0].bytes), (std::vector<int16_t>{9845, -19691, 0, 0, 0, 0}));
}

TEST_F(PluginHost, Write_ThirtyTwoBitFourChannelsWithPartialFrame_RunOnPassReadsItsBytes)
{
    // Two whole frames (words 0..7) and three words of a third: 44 bytes, two
    // frames. The five-channel pass reads words 0..9, so frame 1 takes words
    // 8 and 9 of the partial frame as SL and SR.
    Start(RecorderSettings(0, 32));
    ASSERT_EQ(module->Open(44100, 4, 32, 0, 0), 0);
    std::vector<uint8_t> bytes;
    for (uint32_t k = 0; k < 11; ++k) {
        const uint32_t w = (k + 1) << 20;  // reads as (k + 1) / 2048 exactly
        for (int shift = 0; shift < 32; shift += 8)
            bytes.push_back(uint8_t(w >> shift));
    }
    ASSERT_EQ(bytes.size(), 44u);
    Write(bytes);
    const auto writes = CallsOf("a", "Write");
    ASSERT_EQ(writes.size(), 1u);
    ASSERT_EQ(writes[0].args[0], 2 * 6 * 4);
    // Bypass: times 0.707, then 0.85 of full scale, truncated.
    auto word = [](uint32_t k) {
        const float v = float(k + 1) / 2048.0f;
        const float passed = v * 0.707f;
        return int32_t(passed * 1825361152.0f);
    };
    const std::vector<int32_t> expected = {word(0), word(1), word(2), 0, word(3), word(4),
                                           word(5), word(6), word(7), 0, word(8), word(9)};
    std::vector<int32_t> got(12);
    std::memcpy(got.data(), writes[0].bytes.data(), 48);
    EXPECT_EQ(got, expected);
}

TEST_F(PluginHost, Write_HeadphoneHoldsFrames_ChainedWriteOfLengthZeroAndItsResult)
{
    Start(RecorderSettings(4, 16));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    Replies().write = 5;
    EXPECT_EQ(Write(SilentBlock()), 5);
    const auto writes = CallsOf("a", "Write");
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].args[0], 0);
}

TEST_F(PluginHost, Write_OutBitsChangedDuringPlayback_WaitsForNextOpen)
{
    Start(RecorderSettings(0, 16));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    const std::vector<int16_t> input = {16384, 32767};
    RunDialog({
        [&](HWND dialog) { ChooseItem(dialog, 1031, 2); },  // "32"
        [&](HWND) { Write(Bytes16(input)); },
        Press(IDOK),
    });
    // Still Output_Bits 16 in the running stream.
    EXPECT_EQ(CallsOf("a", "Write").back().args[0], 12);
    EXPECT_EQ(LastWrite(), BypassOutput(input, 16));
    Write(Bytes16(input));
    EXPECT_EQ(CallsOf("a", "Write").back().args[0], 12);
    module->Close();
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    EXPECT_EQ(CallsOf("a", "Open").back().args[2], 32);
    Write(Bytes16(input));
    EXPECT_EQ(CallsOf("a", "Write").back().args[0], 24);
    EXPECT_EQ(LastWrite(), BypassOutput(input, 32));
}

TEST_F(PluginHost, Select_NewFileDuringPlayback_StreamStaysUntilNextOpenWhichReleasesOldFirst)
{
    Start(RecorderSettings(0, 16));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    const OpenFileAnswer answer = PickFile(u"" RECORDER_B_PATH);
    ASSERT_TRUE(answer.taken);
    // The running stream still goes to "a".
    Write(Bytes16({100, 100}));
    EXPECT_EQ(CallsOf("a", "Write").size(), 1u);
    EXPECT_TRUE(CallsOf("b", "Write").empty());
    module->Close();

    RecordedCalls().clear();
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    EXPECT_EQ(CallOrder(), (std::vector<std::string>{"a.unload", "b.load", "b.Open"}));
}

TEST_F(PluginHost, Close_KeepsStreamChannels_StatusShowsThatStream)
{
    Start(RecorderSettings(5, 16));
    ASSERT_EQ(module->Open(44100, 6, 16, 0, 0), 0);
    module->Close();
    std::string status;
    RunDialog({
        [&](HWND dialog) { status = Text(dialog, 1033); },
        Press(IDCANCEL),
    });
    EXPECT_EQ(status, "Kelvane Encode\nProcessor in encoding mode.");
}

// ---- Resets: Flush, the hook, track changes ----

// Mode 1 keeps memory in its surround delay and low-pass: after a tone block,
// a silent block still carries the tone's tail, while after a reset it is
// silent. The reference tail is taken in the same process, from a reset.
class ResetHost : public PluginHost {
protected:
    void SetUp() override
    {
        PluginHost::SetUp();
        Start(RecorderSettings(1, 16));
        ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
        module->Flush(0);
        Write(ToneBlock());
        continued = SilentOutput();
        ASSERT_FALSE(AllZero(continued));
        module->Flush(0);
        ASSERT_TRUE(AllZero(SilentOutput()));
        module->Flush(0);
    }

    // Ends the track and opens the next one of the same format, as the
    // player does between two files.
    void ChangeTrack()
    {
        module->Close();
        ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    }

    // What the plug-in hands on for a silent block written now.
    std::vector<uint8_t> SilentOutput()
    {
        Write(SilentBlock());
        return LastWrite();
    }

    std::vector<uint8_t> continued;  // the silent block after the tone, without a reset
};

TEST_F(ResetHost, Flush_ResetsEvenWithoutPendingReset)
{
    Write(ToneBlock());
    module->Flush(250);
    EXPECT_TRUE(AllZero(SilentOutput()));
    EXPECT_EQ(CallsOf("a", "Flush").back().args, (std::vector<int64_t>{250}));
}

TEST_F(ResetHost, TrackChangeWithoutCommand_KeepsMemoryAcrossCloseAndOpen)
{
    Write(ToneBlock());
    ChangeTrack();
    EXPECT_EQ(SilentOutput(), continued);
}

TEST_F(ResetHost, Hook_StopDuringPlayback_ResetAtClose)
{
    Write(ToneBlock());
    SendCommand(kCommand, kStop);
    ChangeTrack();
    EXPECT_TRUE(AllZero(SilentOutput()));
}

TEST_F(ResetHost, Hook_PlayWhileStopped_ResetAtOpenAndOnlyThere)
{
    Write(ToneBlock());
    module->Close();
    SendCommand(kCommand, kPlay);
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    EXPECT_TRUE(AllZero(SilentOutput()));
    // The Open cleared the flag: the next track change keeps the memory.
    module->Flush(0);
    Write(ToneBlock());
    ChangeTrack();
    EXPECT_EQ(SilentOutput(), continued);
}

TEST_F(ResetHost, Hook_PlayDuringPlayback_NoResetUntilClose)
{
    Write(ToneBlock());
    SendCommand(kCommand, kPlay);
    // The hook itself resets nothing.
    EXPECT_EQ(SilentOutput(), continued);
    module->Flush(0);
    Write(ToneBlock());
    module->Close();  // the reset happens here
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    EXPECT_TRUE(AllZero(SilentOutput()));
}

TEST_F(ResetHost, Hook_TwoStopsBeforeClose_OneReset)
{
    Write(ToneBlock());
    SendCommand(kCommand, kStop);
    SendCommand(kCommand, kStop);
    ChangeTrack();
    EXPECT_TRUE(AllZero(SilentOutput()));
    // No second reset is left over for the next Close or Open.
    Write(ToneBlock());
    ChangeTrack();
    EXPECT_EQ(SilentOutput(), continued);
}

TEST_F(ResetHost, Hook_PlayWithHighWordOne_SetsFlag)
{
    Write(ToneBlock());
    SendCommand(kCommand, (uintptr_t(1) << 16) | kPlay, 0x777);
    ChangeTrack();
    EXPECT_TRUE(AllZero(SilentOutput()));
}

TEST_F(ResetHost, Hook_Command40046_DoesNothing)
{
    Write(ToneBlock());
    SendCommand(kCommand, kBetween);
    ChangeTrack();
    EXPECT_EQ(SilentOutput(), continued);
}

TEST_F(ResetHost, Hook_40045InAnotherMessage_DoesNothing)
{
    Write(ToneBlock());
    SendCommand(0x112, kPlay);  // WM_SYSCOMMAND
    SendCommand(0x110, kStop);
    ChangeTrack();
    EXPECT_EQ(SilentOutput(), continued);
}

TEST_F(PluginHost, Hook_PassesEveryMessageOnUnchangedAndReturnsTheResult)
{
    Start(RecorderSettings());
    EXPECT_EQ(SendCommand(kCommand, (uintptr_t(3) << 16) | kStop, -42), kHostReply);
    EXPECT_EQ(SendCommand(0x0F, 0xABCDEF, 17), kHostReply);
    EXPECT_EQ(SendCommand(kCommand, kBetween, 5), kHostReply);
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[0].message, kCommand);
    EXPECT_EQ(received[0].wParam, (uintptr_t(3) << 16) | kStop);
    EXPECT_EQ(received[0].lParam, -42);
    EXPECT_EQ(received[1].message, 0x0Fu);
    EXPECT_EQ(received[1].wParam, 0xABCDEFu);
    EXPECT_EQ(received[1].lParam, 17);
    EXPECT_EQ(received[2].wParam, kBetween);
}

TEST_F(PluginHost, Quit_WithoutAnyLibrary_RestoresTheProcedure)
{
    Start(RecorderSettings());
    ASSERT_NE(window.proc, &HostProc);
    module->Quit();
    EXPECT_EQ(window.proc, &HostProc);
    // No library, so no FreeLibrary.
    EXPECT_EQ(Probe().libraryReleases, 0u);
    EXPECT_TRUE(RecordedCalls().empty());
    EXPECT_EQ(SendCommand(kCommand, kStop), kHostReply);
}

TEST_F(PluginHost, InitAfterQuit_StartsUnloadedAndLoadsAgain)
{
    Start(RecorderSettings());
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    module->Close();
    module->Quit();
    ASSERT_EQ(CallsOf("a", "unload").size(), 1u);
    EXPECT_EQ(Probe().libraryReleases, 1u);
    module->Init();
    // Library 0: the guarded calls do nothing.
    module->SetVolume(1);
    EXPECT_TRUE(CallsOf("a", "SetVolume").empty());
    // Reload_Needed 1: the next Open loads anew.
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    EXPECT_EQ(CallsOf("a", "load").size(), 2u);
    EXPECT_EQ(CallsOf("a", "Open").size(), 2u);
    module->Quit();
    EXPECT_EQ(Probe().libraryReleases, 2u);
    EXPECT_EQ(window.proc, &HostProc);
}

TEST_F(PluginHost, ChainedRecord_HostFieldsNeverFilledIn)
{
    Start(RecorderSettings());
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    void* recorder = dlopen(RECORDER_A_PATH, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(recorder, nullptr);
    auto get = reinterpret_cast<host::GetOutModuleFunction>(dlsym(recorder, "winampGetOutModule"));
    host::Out_Module* chained = get();
    EXPECT_EQ(chained->hMainWindow, nullptr);
    EXPECT_EQ(chained->hDllInstance, nullptr);
    dlclose(recorder);
}

}  // namespace
