// The renderer's own logic: WAV headers, the registry stand-in, the command
// line and how it maps to settings, the padding that empties the convolver.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>

#include "test_audio.h"
#include "hosts/render/levels.h"
#include "hosts/render/pcm_source.h"
#include "platform/posix/reg_file.h"
#include "hosts/render/render_job.h"
#include "hosts/render/render_options.h"
#include "hosts/render/wav_file.h"

namespace {

uint32_t Le32(const std::vector<uint8_t>& bytes, size_t at)
{
    return bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | static_cast<uint32_t>(bytes[at + 3]) << 24;
}

uint32_t Le16(const std::vector<uint8_t>& bytes, size_t at)
{
    return bytes[at] | bytes[at + 1] << 8;
}

std::string Tag(const std::vector<uint8_t>& bytes, size_t at)
{
    return std::string(bytes.begin() + static_cast<long>(at), bytes.begin() + static_cast<long>(at) + 4);
}

RenderOptions Parse(std::vector<const char*> args, bool expect_ok = true, std::string* error_out = nullptr)
{
    args.insert(args.begin(), "kelvane-render");
    RenderOptions options;
    std::string error;
    const bool ok = ParseRenderArgs(static_cast<int>(args.size()), args.data(), options, error);
    EXPECT_EQ(ok, expect_ok) << error;
    if (error_out != nullptr)
        *error_out = error;
    return options;
}

int32_t OverrideOf(const RenderOptions& options, const std::string& name)
{
    for (const SettingOverride& setting : options.overrides)
        if (setting.name == name)
            return setting.value;
    ADD_FAILURE() << "no override of " << name;
    return INT32_MIN;
}

}  // namespace

// --- WAV headers -----------------------------------------------------------

TEST(WavHeader, SixChannelsSixteenBitsIsExtensibleWithMask3F)
{
    const std::vector<uint8_t> header = WavHeader(WavFormat{44100, 6, 16}, 1200);
    ASSERT_EQ(header.size(), 68u);
    EXPECT_EQ(Tag(header, 0), "RIFF");
    EXPECT_EQ(Le32(header, 4), 4u + (8 + 40) + (8 + 1200));
    EXPECT_EQ(Tag(header, 8), "WAVE");
    EXPECT_EQ(Tag(header, 12), "fmt ");
    EXPECT_EQ(Le32(header, 16), 40u);
    EXPECT_EQ(Le16(header, 20), 0xFFFEu);
    EXPECT_EQ(Le16(header, 22), 6u);
    EXPECT_EQ(Le32(header, 24), 44100u);
    EXPECT_EQ(Le32(header, 28), 44100u * 12);
    EXPECT_EQ(Le16(header, 32), 12u);
    EXPECT_EQ(Le16(header, 34), 16u);
    EXPECT_EQ(Le16(header, 36), 22u);
    EXPECT_EQ(Le16(header, 38), 16u);
    EXPECT_EQ(Le32(header, 40), 0x3Fu);
    const uint8_t pcm_guid[16] = {0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00,
                                  0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    EXPECT_EQ(std::memcmp(&header[44], pcm_guid, 16), 0);
    EXPECT_EQ(Tag(header, 60), "data");
    EXPECT_EQ(Le32(header, 64), 1200u);
}

TEST(WavHeader, SixChannelFileReadsAsFiveOneThroughLibsndfile)
{
    TempFolder folder;
    const std::string path = folder.File("six.wav");
    std::vector<uint8_t> bytes = WavHeader(WavFormat{48000, 6, 24}, 18 * 10);
    bytes.resize(bytes.size() + 18 * 10, 0);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
    const TestAudio audio = ReadTestAudio(path);
    EXPECT_EQ(audio.rate, 48000);
    EXPECT_EQ(audio.channels, 6);
    EXPECT_EQ(audio.format, SF_FORMAT_WAVEX | SF_FORMAT_PCM_24);
    EXPECT_EQ(audio.Frames(), 10);
    const std::vector<int> expected = {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER,
                                       SF_CHANNEL_MAP_LFE, SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT};
    EXPECT_EQ(ReadChannelMap(path), expected);
}

TEST(WavHeader, StereoSixteenBitsIsPlainPcm)
{
    const std::vector<uint8_t> header = WavHeader(WavFormat{44100, 2, 16}, 400);
    ASSERT_EQ(header.size(), 44u);
    EXPECT_EQ(Le32(header, 4), 36u + 400);
    EXPECT_EQ(Le32(header, 16), 16u);
    EXPECT_EQ(Le16(header, 20), 1u);
    EXPECT_EQ(Le16(header, 32), 4u);
    EXPECT_EQ(Le32(header, 40), 400u);
}

TEST(WavHeader, StereoOfThirtyTwoBitsIsExtensibleWithFrontPair)
{
    const std::vector<uint8_t> header = WavHeader(WavFormat{44100, 2, 32}, 0);
    ASSERT_EQ(header.size(), 68u);
    EXPECT_EQ(Le16(header, 20), 0xFFFEu);
    EXPECT_EQ(Le32(header, 40), 0x3u);
}

TEST(WavHeader, OddDataSizeCountsThePadByteInTheRiffSize)
{
    const std::vector<uint8_t> header = WavHeader(WavFormat{8000, 1, 8}, 3);
    EXPECT_EQ(Le32(header, 4), 36u + 4);
    EXPECT_EQ(Le32(header, 40), 3u);
}

TEST(WavHeader, ReadWavLayoutFindsDataAfterOtherChunks)
{
    TempFolder folder;
    const std::string path = folder.File("chunks.wav");
    // Written by libsndfile, which puts chunks of its own before the data.
    TestAudio audio{44100, 6, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16, std::vector<int32_t>(6 * 5, 7)};
    WriteTestAudio(path, audio);
    std::FILE* file = std::fopen(path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    WavLayout layout{};
    ASSERT_TRUE(ReadWavLayout(file, layout));
    EXPECT_EQ(layout.format.channels, 6);
    EXPECT_EQ(layout.format.bits, 16);
    EXPECT_EQ(layout.data_bytes, 60u);
    uint8_t first[2] = {};
    std::fseek(file, static_cast<long>(layout.data_offset), SEEK_SET);
    ASSERT_EQ(std::fread(first, 1, 2, file), 2u);
    EXPECT_EQ(first[0], 7);
    EXPECT_EQ(first[1], 0);
    std::fclose(file);
}

// --- The registry stand-in --------------------------------------------------

TEST(RegFile, NegativeDwordReadsAsTwosComplement)
{
    RegValue value;
    ASSERT_TRUE(ParseRegValue("\"Centre_Trim\"=dword:fffffff4", value));
    EXPECT_TRUE(value.is_dword);
    EXPECT_EQ(value.name, "Centre_Trim");
    EXPECT_EQ(static_cast<int32_t>(value.dword), -12);
}

TEST(RegFile, StringsUnescapeBackslashAndQuote)
{
    RegValue value;
    ASSERT_TRUE(ParseRegValue(R"("Out_Plug"="C:\\Program Files\\a \"b\".dll")", value));
    EXPECT_FALSE(value.is_dword);
    EXPECT_EQ(value.text, R"(C:\Program Files\a "b".dll)");
    EXPECT_EQ(FormatRegValue(value), R"("Out_Plug"="C:\\Program Files\\a \"b\".dll")");
}

TEST(RegFile, DwordsAreWrittenAsEightHexDigits)
{
    EXPECT_EQ(FormatRegValue(RegValue{"Mode", true, 3, ""}), "\"Mode\"=dword:00000003");
    EXPECT_EQ(FormatRegValue(RegValue{"Bass_Trim", true, 0xFFFFFFF4u, ""}), "\"Bass_Trim\"=dword:fffffff4");
}

TEST(RegFile, OnlyTheValuesOfTheKeyAreRead)
{
    TempFolder folder;
    const std::string path = folder.File("Kelvane.reg");
    std::ofstream(path, std::ios::binary)
        << "Windows Registry Editor Version 5.00\r\n\r\n"
           "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Other]\r\n\"Mode\"=dword:00000001\r\n\r\n"
           "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]\r\n"
           "; a comment\r\n\"Out_Plug\"=\"out_ds.dll\"\r\n\"Mode\"=dword:00000004\r\n\"Odd\"=hex:01,02\r\n";
    std::vector<RegValue> values;
    ASSERT_TRUE(ReadRegKey(path, RegKeyPath("Morrowfen", "Kelvane"), values));
    ASSERT_EQ(values.size(), 2u);
    EXPECT_EQ(FindRegValue(values, "Out_Plug")->text, "out_ds.dll");
    EXPECT_EQ(FindRegValue(values, "mode")->dword, 4u);
}

TEST(RegFile, WrittenFileIsTheExportFormat)
{
    TempFolder folder;
    const std::string path = folder.File("a/b/Kelvane.reg");
    std::vector<RegValue> values;
    SetRegString(values, "Out_Plug", "/x/out_wav.so");
    SetRegDword(values, "Mode", 4);
    SetRegDword(values, "Surround_Trim_00", -3);
    std::string error;
    ASSERT_TRUE(WriteRegKey(path, RegKeyPath("Morrowfen", "Kelvane"), values, error)) << error;
    EXPECT_EQ(ReadWholeFile(path),
              "Windows Registry Editor Version 5.00\n\n"
              "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\Kelvane]\n"
              "\"Out_Plug\"=\"/x/out_wav.so\"\n"
              "\"Mode\"=dword:00000004\n"
              "\"Surround_Trim_00\"=dword:fffffffd\n");
    EXPECT_EQ(FolderEntries(folder.File("a/b")), std::vector<std::string>{"Kelvane.reg"});
}

TEST(RegFile, StoreFollowsXdgConfigHomeThenHome)
{
    const char* old_config = std::getenv("XDG_CONFIG_HOME");
    const std::string saved_config = old_config != nullptr ? old_config : "";
    setenv("XDG_CONFIG_HOME", "/cfg", 1);
    EXPECT_EQ(RegStoreFile("Morrowfen", "Kelvane"), "/cfg/Morrowfen/Kelvane.reg");
    unsetenv("XDG_CONFIG_HOME");
    setenv("HOME", "/home/someone", 1);
    EXPECT_EQ(RegStoreFile("Morrowfen", "OutWav"), "/home/someone/.config/Morrowfen/OutWav.reg");
    if (!saved_config.empty())
        setenv("XDG_CONFIG_HOME", saved_config.c_str(), 1);
}

// --- The command line -------------------------------------------------------

TEST(RenderArgs, ModeByNumberOrByName)
{
    EXPECT_EQ(ParseModeName("0"), 0);
    EXPECT_EQ(ParseModeName("5"), 5);
    EXPECT_EQ(ParseModeName("bypass"), 0);
    EXPECT_EQ(ParseModeName("Kelvane+C"), 1);
    EXPECT_EQ(ParseModeName("kelvane-as"), 2);
    EXPECT_EQ(ParseModeName("ASr"), 3);
    EXPECT_EQ(ParseModeName("Kelvane-ASr (3/2) = L,R,C,SL,SR"), 3);
    EXPECT_EQ(ParseModeName("Kelvane Headphone (2/0) = L,R"), 4);
    EXPECT_EQ(ParseModeName("headphone"), 4);
    EXPECT_EQ(ParseModeName("Encode"), 5);
    EXPECT_EQ(ParseModeName("6"), -1);
    EXPECT_EQ(ParseModeName("-1"), -1);
    EXPECT_EQ(ParseModeName("surround"), -1);
}

TEST(RenderArgs, InputsThenOutput)
{
    const RenderOptions options = Parse({"--mode", "asr", "a.flac", "b.ogg", "out.wav"});
    EXPECT_EQ(options.inputs, (std::vector<std::string>{"a.flac", "b.ogg"}));
    EXPECT_EQ(options.output, "out.wav");
    EXPECT_TRUE(options.output_dir.empty());
    EXPECT_EQ(OverrideOf(options, "Mode"), 3);
}

TEST(RenderArgs, OutputFolderTakesEveryPositionalAsInput)
{
    const RenderOptions options = Parse({"-o", "outdir", "a.wav", "b.wav"});
    EXPECT_EQ(options.inputs, (std::vector<std::string>{"a.wav", "b.wav"}));
    EXPECT_EQ(options.output_dir, "outdir");
    EXPECT_TRUE(options.output.empty());
}

TEST(RenderArgs, EverySettingOptionNamesItsRegistryValue)
{
    struct Case {
        const char* option;
        const char* argument;
        const char* value_name;
        int32_t value;
    };
    const Case cases[] = {
        {"--mode", "headphone", "Mode", 4},
        {"--out-bits", "24", "Out_Bits", 24},
        {"--surround-delay", "25", "Surround_Delay", 25},
        {"--centre-width", "40", "Centre_Width", 40},
        {"--centre-trim", "-12", "Centre_Trim", -12},
        {"--surround-trim", "12", "Surround_Trim_00", 12},
        {"--bass-redir", "80", "Bass_Redir", 80},
        {"--bass-trim", "-6", "Bass_Trim", -6},
    };
    for (const Case& c : cases) {
        const RenderOptions options = Parse({c.option, c.argument, "in.wav", "out.wav"});
        EXPECT_EQ(OverrideOf(options, c.value_name), c.value) << c.option;
    }
    EXPECT_EQ(OverrideOf(Parse({"--bass-redir=80", "i", "o"}), "Bass_Redir_Enable"), 1);
    EXPECT_EQ(OverrideOf(Parse({"--bass-redir", "off", "i", "o"}), "Bass_Redir_Enable"), 0);
    EXPECT_EQ(OverrideOf(Parse({"--bass-invert", "i", "o"}), "Bass_Invert"), 1);
    EXPECT_EQ(OverrideOf(Parse({"--no-bass-invert", "i", "o"}), "Bass_Invert"), 0);
    EXPECT_EQ(OverrideOf(Parse({"--virtual-centre", "i", "o"}), "Virtual_C"), 1);
    EXPECT_EQ(OverrideOf(Parse({"--no-virtual-centre", "i", "o"}), "Virtual_C"), 0);
}

TEST(RenderArgs, MuteSwitchesOffTheListedSpeakersAndOnTheOthers)
{
    const RenderOptions options = Parse({"--mute", "L,c", "i", "o"});
    EXPECT_EQ(OverrideOf(options, "L"), 0);
    EXPECT_EQ(OverrideOf(options, "R"), 1);
    EXPECT_EQ(OverrideOf(options, "C"), 0);
    EXPECT_EQ(OverrideOf(options, "SL"), 1);
    EXPECT_EQ(OverrideOf(options, "SR"), 1);
    const RenderOptions none = Parse({"--mute", "none", "i", "o"});
    for (const char* name : {"L", "R", "C", "SL", "SR"})
        EXPECT_EQ(OverrideOf(none, name), 1) << name;
}

TEST(RenderArgs, ValuesOutsideTheDialogRangesAreRefused)
{
    std::string error;
    Parse({"--centre-trim", "-13", "i", "o"}, false, &error);
    EXPECT_NE(error.find("-12 to 12"), std::string::npos) << error;
    Parse({"--surround-delay", "101", "i", "o"}, false, &error);
    Parse({"--out-bits", "8", "i", "o"}, false, &error);
    EXPECT_NE(error.find("16, 24 or 32"), std::string::npos) << error;
    Parse({"--bass-redir", "9", "i", "o"}, false, &error);
    Parse({"--mode", "7", "i", "o"}, false, &error);
    Parse({"--mute", "LFE", "i", "o"}, false, &error);
    EXPECT_NE(error.find("LFE"), std::string::npos) << error;
    Parse({"--centre-width", "ten", "i", "o"}, false, &error);
}

TEST(RenderArgs, MissingFilesAndStrayOptionsAreRefused)
{
    std::string error;
    Parse({"only.wav"}, false, &error);
    EXPECT_NE(error.find("no output file"), std::string::npos) << error;
    Parse({}, false, &error);
    EXPECT_NE(error.find("no input file"), std::string::npos) << error;
    Parse({"--frobnicate", "i", "o"}, false, &error);
    EXPECT_NE(error.find("unknown option"), std::string::npos) << error;
    Parse({"--demo", "d", "in.wav"}, false, &error);
    Parse({"--mode"}, false, &error);
    EXPECT_NE(error.find("needs a value"), std::string::npos) << error;
}

TEST(RenderArgs, OverridesReplaceSavedValuesAndKeepTheRest)
{
    std::vector<RegValue> saved;
    SetRegString(saved, "Out_Plug", "out_ds.dll");
    SetRegDword(saved, "Mode", 0);
    SetRegDword(saved, "Out_Bits", 24);
    const RenderOptions options = Parse({"--mode", "4", "--surround-trim", "-2", "i", "o"});
    ApplyOverrides(options.overrides, saved);
    EXPECT_EQ(EffectiveMode(saved), 4);
    EXPECT_EQ(EffectiveOutBits(saved), 24);
    EXPECT_EQ(FindRegValue(saved, "Surround_Trim_00")->dword, 0xFFFFFFFEu);
    EXPECT_EQ(FindRegValue(saved, "Out_Plug")->text, "out_ds.dll");
}

TEST(RenderArgs, MissingValuesTakeTheProcessorDefaults)
{
    const std::vector<RegValue> none;
    EXPECT_EQ(EffectiveMode(none), 3);
    EXPECT_EQ(EffectiveOutBits(none), 16);
}

// --- Levels -------------------------------------------------------------------

TEST(Levels, RmsAndPeakInDecibelsFullScale)
{
    ChannelLevels levels{};
    InitLevels(levels, 2, 2);
    const double frames[4][2] = {{0.5, 0.0}, {-0.5, 0.0}, {0.5, 0.0}, {-0.5, 1.0}};
    for (const auto& frame : frames)
        AddLevelFrame(levels, frame);
    EXPECT_NEAR(RmsDb(levels, 0), 20.0 * std::log10(0.5), 1e-12);
    EXPECT_NEAR(PeakDb(levels, 1), 0.0, 1e-12);
    EXPECT_NEAR(RmsDb(levels, 1), 20.0 * std::log10(0.5), 1e-12);  // sqrt(1/4)
    EXPECT_EQ(WindowCount(levels), 2u);
    EXPECT_TRUE(std::isinf(WindowRmsDb(levels, 0, 1)));
    EXPECT_NEAR(WindowRmsDb(levels, 1, 1), 20.0 * std::log10(std::sqrt(0.5)), 1e-12);
    EXPECT_EQ(FormatDb(-6.02, 7), "   -6.0");
    EXPECT_EQ(FormatDb(LevelDb(0.0), 7), "   -inf");
}

// --- Sources as integer PCM at their own depth ---------------------------------

namespace {

std::vector<uint8_t> HandedOn(const std::string& path, int expected_bits, std::vector<double>* power = nullptr)
{
    PcmSource source{};
    std::string error;
    EXPECT_TRUE(OpenPcmSource(path, source, error)) << error;
    EXPECT_EQ(source.bits, expected_bits) << path;
    std::vector<uint8_t> bytes;
    EXPECT_GE(ReadPcmBlock(source, 576, bytes, power), 0);
    ClosePcmSource(source);
    return bytes;
}

}  // namespace

TEST(PcmSource, EightBitsAreHandedOnUnsigned)
{
    TempFolder folder;
    WriteTestAudio(folder.File("u8.wav"), TestAudio{8000, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_U8, {-128, -1, 0, 1, 127}});
    EXPECT_EQ(HandedOn(folder.File("u8.wav"), 8), (std::vector<uint8_t>{0, 127, 128, 129, 255}));
}

TEST(PcmSource, SixteenTwentyFourAndThirtyTwoBitsAreLittleEndian)
{
    TempFolder folder;
    WriteTestAudio(folder.File("16.wav"), TestAudio{44100, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, {0x1234, -2}});
    EXPECT_EQ(HandedOn(folder.File("16.wav"), 16), (std::vector<uint8_t>{0x34, 0x12, 0xFE, 0xFF}));
    WriteTestAudio(folder.File("24.flac"), TestAudio{48000, 1, SF_FORMAT_FLAC | SF_FORMAT_PCM_24, {0x123456, -0x800000}});
    EXPECT_EQ(HandedOn(folder.File("24.flac"), 24), (std::vector<uint8_t>{0x56, 0x34, 0x12, 0x00, 0x00, 0x80}));
    WriteTestAudio(folder.File("32.wav"), TestAudio{44100, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_32, {0x12345678}});
    EXPECT_EQ(HandedOn(folder.File("32.wav"), 32), (std::vector<uint8_t>{0x78, 0x56, 0x34, 0x12}));
}

TEST(PcmSource, FloatSamplesBecomeTheNearestSixteenBitStep)
{
    TempFolder folder;
    const std::string path = folder.File("float.wav");
    SF_INFO info{};
    info.samplerate = 44100;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr);
    // 0.5, a value between two steps (100.4 and 100.6 steps), full scale
    // both ways, and beyond it.
    const float samples[] = {0.5f, 100.4f / 32768.0f, -100.6f / 32768.0f, 1.0f, -1.0f, 1.5f};
    sf_writef_float(file, samples, 6);
    sf_close(file);
    const std::vector<uint8_t> bytes = HandedOn(path, 16);
    std::vector<int16_t> words;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        words.push_back(static_cast<int16_t>(bytes[i] | bytes[i + 1] << 8));
    EXPECT_EQ(words, (std::vector<int16_t>{16384, 100, -101, 32767, -32768, 32767}));
}

TEST(PcmSource, CompressedSourcesAreHandedOnAtSixteenBits)
{
    TempFolder folder;
    const std::string path = folder.File("tone.ogg");
    TestAudio tone{44100, 2, SF_FORMAT_OGG | SF_FORMAT_VORBIS, {}};
    for (int i = 0; i < 4410; ++i) {
        const int32_t value = static_cast<int32_t>(8000.0 * std::sin(i * 0.0627));
        tone.samples.push_back(value);
        tone.samples.push_back(value);
    }
    WriteTestAudio(path, tone);
    EXPECT_EQ(HandedOn(path, 16).size(), 576u * 2 * 2);
}

TEST(PcmSource, FramePowerIsTheMeanSquareOverChannels)
{
    TempFolder folder;
    WriteTestAudio(folder.File("p.wav"), TestAudio{44100, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, {16384, -16384, 16384, 0}});
    std::vector<double> power;
    HandedOn(folder.File("p.wav"), 16, &power);
    ASSERT_EQ(power.size(), 2u);
    EXPECT_DOUBLE_EQ(power[0], 0.25);
    EXPECT_DOUBLE_EQ(power[1], 0.125);
}

TEST(PcmSource, ThreeOrMoreThanSixChannelsAreRefused)
{
    TempFolder folder;
    for (int channels : {3, 8}) {
        const std::string path = folder.File("c" + std::to_string(channels) + ".wav");
        WriteTestAudio(path, TestAudio{44100, channels, SF_FORMAT_WAV | SF_FORMAT_PCM_16,
                                       std::vector<int32_t>(static_cast<size_t>(channels) * 4, 0)});
        PcmSource source{};
        std::string error;
        EXPECT_FALSE(OpenPcmSource(path, source, error));
        EXPECT_NE(error.find("unsupported input"), std::string::npos) << error;
    }
}
