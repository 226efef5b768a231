// The renderer's own logic: output files, the registry stand-in, the command
// line and how it maps to settings, the padding that empties the convolver.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "test_audio.h"
#include "hosts/render/engine_meter.h"
#include "hosts/render/levels.h"
#include "hosts/render/messages.h"
#include "hosts/render/output_target.h"
#include "hosts/render/report.h"
#include "hosts/render/pcm_source.h"
#include "platform/posix/reg_file.h"
#include "hosts/render/render_job.h"
#include "hosts/render/render_options.h"
#include "hosts/render/resampler.h"
#include "hosts/render/sound_file.h"

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

namespace {

// The body of the first chunk named `tag` in a RIFF file, found by walking
// the chunks; empty when there is none.
std::vector<uint8_t> RiffChunk(const std::string& path, const char* tag)
{
    const std::string text = ReadWholeFile(path);
    const std::vector<uint8_t> bytes(text.begin(), text.end());
    for (size_t at = 12; at + 8 <= bytes.size();) {
        const uint32_t size = Le32(bytes, at + 4);
        if (Tag(bytes, at) == tag && at + 8 + size <= bytes.size())
            return std::vector<uint8_t>(bytes.begin() + static_cast<long>(at + 8),
                                        bytes.begin() + static_cast<long>(at + 8 + size));
        at += 8 + size + (size & 1u);
    }
    return {};
}

// Writes `frames` frames of `samples` through the renderer's writer.
void WriteThroughWriter(const std::string& path, int format, int channels, SampleWord word, bool dither,
                        std::vector<double> samples)
{
    SoundWriter writer{};
    std::string error;
    ASSERT_TRUE(OpenSoundWriter(path, format, 44100, channels, word, dither, writer, error)) << error;
    ASSERT_TRUE(WriteSoundFrames(writer, samples.data(), samples.size() / static_cast<size_t>(channels), error))
        << error;
    ASSERT_TRUE(CloseSoundWriter(writer, error)) << error;
}

}  // namespace

TEST(SoundFile, TheExtensionChoosesTheContainerInAnyCase)
{
    Container container = Container::Flac;
    EXPECT_TRUE(ContainerByExtension("a/b.WAV", container));
    EXPECT_EQ(container, Container::Wav);
    EXPECT_TRUE(ContainerByExtension("x.flac", container));
    EXPECT_EQ(container, Container::Flac);
    EXPECT_TRUE(ContainerByExtension("x.w64", container));
    EXPECT_EQ(container, Container::W64);
    EXPECT_TRUE(ContainerByExtension("x.rf64", container));
    EXPECT_EQ(container, Container::Rf64);
    EXPECT_TRUE(ContainerByExtension("x.Caf", container));
    EXPECT_EQ(container, Container::Caf);
    EXPECT_FALSE(ContainerByExtension("x.mp3", container));
    EXPECT_FALSE(ContainerByExtension("folder.wav/x", container));
    EXPECT_FALSE(ContainerByExtension("noextension", container));
    EXPECT_TRUE(ContainerByName("FLAC", container));
    EXPECT_EQ(container, Container::Flac);
    EXPECT_FALSE(ContainerByName("ogg", container));
}

TEST(SoundFile, WavIsPlainUpToStereoOfSixteenBitsAndExtensibleBeyond)
{
    EXPECT_EQ(SoundFileFormat(Container::Wav, SampleWord{16, false}, 2, 1000), SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    EXPECT_EQ(SoundFileFormat(Container::Wav, SampleWord{16, false}, 6, 1000), SF_FORMAT_WAVEX | SF_FORMAT_PCM_16);
    EXPECT_EQ(SoundFileFormat(Container::Wav, SampleWord{24, false}, 2, 1000), SF_FORMAT_WAVEX | SF_FORMAT_PCM_24);
    EXPECT_EQ(SoundFileFormat(Container::Wav, SampleWord{32, true}, 2, 1000), SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    EXPECT_EQ(SoundFileFormat(Container::Wav, SampleWord{32, true}, 6, 1000), SF_FORMAT_WAVEX | SF_FORMAT_FLOAT);
    EXPECT_EQ(SoundFileFormat(Container::Flac, SampleWord{24, false}, 6, 1000), SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
    EXPECT_EQ(SoundFileFormat(Container::W64, SampleWord{32, false}, 6, 1000), SF_FORMAT_W64 | SF_FORMAT_PCM_32);
    EXPECT_EQ(SoundFileFormat(Container::Caf, SampleWord{16, false}, 6, 1000), SF_FORMAT_CAF | SF_FORMAT_PCM_16);
    EXPECT_FALSE(ContainerHolds(Container::Flac, SampleWord{32, false}));
    EXPECT_FALSE(ContainerHolds(Container::Flac, SampleWord{32, true}));
    EXPECT_TRUE(ContainerHolds(Container::Flac, SampleWord{24, false}));
}

TEST(SoundFile, WavBecomesRf64WhenItsDataPassesFourGibibytes)
{
    unsetenv("KELVANE_RENDER_RIFF_LIMIT");
    // 2^32 - 1 is the largest RIFF size; the header takes some of it.
    const uint64_t four_gib = 0xFFFFFFFFull;
    EXPECT_EQ(SoundFileFormat(Container::Wav, SampleWord{16, false}, 6, four_gib - 8192),
              SF_FORMAT_WAVEX | SF_FORMAT_PCM_16);
    EXPECT_EQ(SoundFileFormat(Container::Wav, SampleWord{16, false}, 6, four_gib),
              SF_FORMAT_RF64 | SF_FORMAT_PCM_16);
    EXPECT_EQ(SoundFileFormat(Container::Wav, SampleWord{16, false}, 2, uint64_t{6} << 30),
              SF_FORMAT_RF64 | SF_FORMAT_PCM_16);
    setenv("KELVANE_RENDER_RIFF_LIMIT", "1000", 1);
    EXPECT_EQ(SoundFileFormat(Container::Wav, SampleWord{16, false}, 6, 1001), SF_FORMAT_RF64 | SF_FORMAT_PCM_16);
    EXPECT_EQ(SoundFileFormat(Container::Wav, SampleWord{16, false}, 6, 1000), SF_FORMAT_WAVEX | SF_FORMAT_PCM_16);
    unsetenv("KELVANE_RENDER_RIFF_LIMIT");
}

TEST(SoundFile, SixChannelWavIsExtensibleWithMask3F)
{
    TempFolder folder;
    const std::string path = folder.File("six.wav");
    WriteThroughWriter(path, SF_FORMAT_WAVEX | SF_FORMAT_PCM_24, 6, SampleWord{24, false}, false,
                       std::vector<double>(6 * 10, 0.25));
    const std::vector<uint8_t> format = RiffChunk(path, "fmt ");
    ASSERT_EQ(format.size(), 40u);
    EXPECT_EQ(Le16(format, 0), 0xFFFEu);
    EXPECT_EQ(Le16(format, 2), 6u);
    EXPECT_EQ(Le32(format, 4), 44100u);
    EXPECT_EQ(Le16(format, 12), 18u);  // bytes per frame
    EXPECT_EQ(Le16(format, 14), 24u);
    EXPECT_EQ(Le32(format, 20), 0x3Fu);  // FL FR FC LFE BL BR
    const TestAudio audio = ReadTestAudio(path);
    EXPECT_EQ(audio.Frames(), 10);
    EXPECT_EQ(audio.At(9, 5), 0x200000);  // 0.25 of 2^23
    const std::vector<int> expected = {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER,
                                       SF_CHANNEL_MAP_LFE, SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT};
    EXPECT_EQ(ReadChannelMap(path), expected);
}

TEST(SoundFile, StereoSixteenBitsKeepsThePlainFormatChunk)
{
    TempFolder folder;
    const std::string path = folder.File("two.wav");
    WriteThroughWriter(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 2, SampleWord{16, false}, false, {0.5, -0.5});
    const std::vector<uint8_t> format = RiffChunk(path, "fmt ");
    ASSERT_EQ(format.size(), 16u);
    EXPECT_EQ(Le16(format, 0), 1u);
    EXPECT_EQ(ReadTestAudio(path).samples, (std::vector<int32_t>{16384, -16384}));
}

TEST(SoundFile, WithoutDitherSamplesRoundToTheNearestStepWithinTheWord)
{
    TempFolder folder;
    const std::string path = folder.File("round.wav");
    // 100.4 and -100.6 steps, full scale both ways and beyond it.
    const double step = 1.0 / 32768.0;
    WriteThroughWriter(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1, SampleWord{16, false}, false,
                       {100.4 * step, -100.6 * step, 1.0, -1.0, 1.5, 32767.4 * step});
    EXPECT_EQ(ReadTestAudio(path).samples, (std::vector<int32_t>{100, -101, 32767, -32768, 32767, 32767}));
}

TEST(SoundFile, OversAreCountedPerChannelWhenTheyMeetTheWord)
{
    TempFolder folder;
    SoundWriter writer{};
    std::string error;
    ASSERT_TRUE(OpenSoundWriter(folder.File("o.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 2,
                                SampleWord{16, false}, true, writer, error));
    // The largest words are not over, even with the noise; +1.0 needs one
    // step more than a word holds, and is.
    std::vector<double> samples = {1.0, -1.0, 32767.0 / 32768.0, 1.2, -1.01, 0.0};
    ASSERT_TRUE(WriteSoundFrames(writer, samples.data(), 3, error));
    EXPECT_EQ(writer.overs, (std::vector<uint64_t>{2, 1}));
    ASSERT_TRUE(CloseSoundWriter(writer, error));
}

TEST(SoundFile, TpdfDitherAddsTriangularNoiseOfOneStepEachWay)
{
    TempFolder folder;
    const std::string path = folder.File("dither.wav");
    // A slow ramp between steps: plain rounding would leave an error of at
    // most half a step with a variance of 1/12; the triangular noise of two
    // uniform steps adds 1/6, and never moves a sample more than 1.5 steps.
    constexpr int kCount = 200000;
    std::vector<double> samples(kCount);
    for (int i = 0; i < kCount; ++i)
        samples[static_cast<size_t>(i)] = (1000.0 + 37.0 * i / kCount) / 32768.0;
    WriteThroughWriter(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1, SampleWord{16, false}, true, samples);
    const TestAudio audio = ReadTestAudio(path);
    ASSERT_EQ(audio.Frames(), kCount);
    double sum = 0.0, square = 0.0, largest = 0.0;
    for (int i = 0; i < kCount; ++i) {
        const double error = audio.samples[static_cast<size_t>(i)] - samples[static_cast<size_t>(i)] * 32768.0;
        sum += error;
        square += error * error;
        largest = std::max(largest, std::fabs(error));
    }
    EXPECT_NEAR(sum / kCount, 0.0, 0.01);
    EXPECT_NEAR(square / kCount, 1.0 / 12.0 + 1.0 / 6.0, 0.01);
    EXPECT_LE(largest, 1.5);
}

TEST(SoundFile, FloatWordsKeepTheSamplesBeyondFullScale)
{
    TempFolder folder;
    const std::string path = folder.File("float.wav");
    WriteThroughWriter(path, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 1, SampleWord{32, true}, true, {0.25, -1.5, 2.0});
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    float read[3] = {};
    EXPECT_EQ(sf_readf_float(file, read, 3), 3);
    sf_close(file);
    EXPECT_EQ(read[0], 0.25f);
    EXPECT_EQ(read[1], -1.5f);
    EXPECT_EQ(read[2], 2.0f);
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
    EXPECT_NE(error.find("16, 24, 32 or float"), std::string::npos) << error;
    Parse({"--gain", "61", "i", "o"}, false, &error);
    EXPECT_NE(error.find("-60 to 60"), std::string::npos) << error;
    Parse({"--format", "ogg", "i", "o"}, false, &error);
    Parse({"--format", "flac", "--out-bits", "32", "i", "o"}, false, &error);
    EXPECT_NE(error.find("FLAC holds 16 or 24 bits"), std::string::npos) << error;
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
    EXPECT_EQ(FindRegValue(saved, "Out_Bits")->dword, 24u);
    EXPECT_EQ(FindRegValue(saved, "Surround_Trim_00")->dword, 0xFFFFFFFEu);
    EXPECT_EQ(FindRegValue(saved, "Out_Plug")->text, "out_ds.dll");
}

TEST(RenderArgs, MissingValuesTakeTheProcessorDefaults)
{
    const std::vector<RegValue> none;
    EXPECT_EQ(EffectiveMode(none), 3);
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

TEST(Levels, RunsGiveThePeakAndTheSumsOfSquaresInFrameOrder)
{
    // Noise words, full-scale ones among them, for one, two, three and six
    // channels, with windows and without, added in two runs of frames; the
    // expected figures summed here square by square in frame order.
    for (int channels : {1, 2, 3, 6}) {
        const size_t width = static_cast<size_t>(channels);
        const std::vector<int32_t> words = Noise16(width * 5000, 32767, 40 + channels);
        std::vector<double> values;
        for (size_t i = 0; i < words.size(); ++i)
            values.push_back((i == 7 ? -32768 : words[i]) / 32768.0);
        for (uint32_t window : {0u, 333u}) {
            std::vector<double> peak(width, 0.0), sum(width, 0.0), windows;
            for (size_t f = 0; f < 5000; ++f) {
                if (window != 0 && f % window == 0)
                    windows.resize(windows.size() + width, 0.0);
                for (size_t c = 0; c < width; ++c) {
                    const double x = values[f * width + c];
                    peak[c] = std::max(peak[c], std::fabs(x));
                    sum[c] += x * x;
                    if (window != 0)
                        windows[windows.size() - width + c] += x * x;
                }
            }
            ChannelLevels run{};
            InitLevels(run, channels, window);
            AddLevelFrames(run, values.data(), 1234);
            AddLevelFrames(run, values.data() + 1234 * width, 5000 - 1234);
            EXPECT_EQ(run.sum_square, sum) << channels;
            EXPECT_EQ(run.peak, peak) << channels;
            EXPECT_EQ(run.window_square, windows) << channels;
            EXPECT_EQ(run.frames, 5000u);
            EXPECT_EQ(peak[7 % width], 1.0);  // the full-scale word is among them
        }
    }
}

// --- Sources as integer PCM at their own depth ---------------------------------

namespace {

FeedPlan PlainPlan()
{
    return FeedPlan{false, false, 1.0, true, 0};
}

// The bytes that the first block of a file becomes, fed as `plan` says (a
// rate of 0 keeps the file's own).
std::vector<uint8_t> HandedOn(const std::string& path, int expected_bits, std::vector<double>* power = nullptr,
                              FeedPlan plan = PlainPlan(), int frames = 576)
{
    PcmSource source{};
    std::string error;
    EXPECT_TRUE(OpenPcmSource(path, source, error)) << error;
    if (plan.rate == 0)
        plan.rate = source.file_rate;
    EXPECT_TRUE(PlanPcmSource(source, plan, error)) << error;
    EXPECT_EQ(source.bits, expected_bits) << path;
    std::vector<uint8_t> bytes;
    EXPECT_GE(ReadPcmBlock(source, frames, bytes, power), 0);
    ClosePcmSource(source);
    return bytes;
}

std::vector<int32_t> Words32(const std::vector<uint8_t>& bytes)
{
    std::vector<int32_t> words;
    for (size_t i = 0; i + 3 < bytes.size(); i += 4)
        words.push_back(static_cast<int32_t>(bytes[i] | bytes[i + 1] << 8 | bytes[i + 2] << 16 |
                                             static_cast<uint32_t>(bytes[i + 3]) << 24));
    return words;
}

void WriteFloats(const std::string& path, int channels, const std::vector<float>& samples, int rate = 44100)
{
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr);
    sf_writef_float(file, samples.data(), static_cast<sf_count_t>(samples.size()) / channels);
    sf_close(file);
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

TEST(PcmSource, FloatSamplesBecomeTheNearestThirtyTwoBitStepWithinFullScale)
{
    TempFolder folder;
    const std::string path = folder.File("float.wav");
    // 0.5, a value between two steps, full scale both ways, and beyond it.
    WriteFloats(path, 1, {0.5f, 0.1f, -1.0f, 1.0f, 1.5f});
    EXPECT_EQ(Words32(HandedOn(path, 32)),
              (std::vector<int32_t>{1073741824, static_cast<int32_t>(std::nearbyint(0.1f * 2147483648.0)),
                                    INT32_MIN, INT32_MAX, INT32_MAX}));
}

TEST(PcmSource, FourChangedChannelsGoAtTwentyFourBitsAndFiveAtThirtyTwo)
{
    TempFolder folder;
    WriteFloats(folder.File("four.wav"), 4, {0.5f, -0.5f, 0.25f, 0.0f});
    const std::vector<uint8_t> four = HandedOn(folder.File("four.wav"), 24);
    EXPECT_EQ(four, (std::vector<uint8_t>{0x00, 0x00, 0x40, 0x00, 0x00, 0xC0, 0x00, 0x00, 0x20, 0, 0, 0}));
    WriteFloats(folder.File("five.wav"), 5, {0.5f, 0.0f, 0.0f, 0.0f, -0.5f});
    EXPECT_EQ(Words32(HandedOn(folder.File("five.wav"), 32)), (std::vector<int32_t>{1 << 30, 0, 0, 0, -(1 << 30)}));
}

TEST(PcmSource, CompressedSourcesAreHandedOnAtThirtyTwoBits)
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
    EXPECT_EQ(HandedOn(path, 32).size(), 576u * 2 * 4);
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

// A WAV file's data bytes go on as they stand, read ahead in large pieces;
// the same words in an AIFF file (big-endian, 8-bit signed) go through
// libsndfile's integers. Both must hand on the same bytes, block by block,
// with the frame powers summed here from the words written and full scale
// as the peak, to the last frame.
TEST(PcmSource, WavDataAsTheyStandEqualTheSameWordsReadThroughLibsndfile)
{
    TempFolder folder;
    struct Depth {
        int bits;
        int wav_subtype;
        int aiff_subtype;
    };
    const Depth depths[] = {{8, SF_FORMAT_PCM_U8, SF_FORMAT_PCM_S8},
                            {16, SF_FORMAT_PCM_16, SF_FORMAT_PCM_16},
                            {24, SF_FORMAT_PCM_24, SF_FORMAT_PCM_24},
                            {32, SF_FORMAT_PCM_32, SF_FORMAT_PCM_32}};
    for (const Depth& depth : depths)
        for (int channels : {1, 2, 6}) {
            // More than a megabyte, and not a whole number of blocks; full
            // scale both ways among the words.
            const int frames = (1 << 20) / (channels * depth.bits / 8) + 1000;
            const int64_t top = int64_t{1} << (depth.bits - 1);
            TestAudio audio{44100, channels, 0, {}};
            uint32_t state = 12345;
            for (int i = 0; i < frames * channels; ++i) {
                state = state * 1664525u + 1013904223u;
                audio.samples.push_back(static_cast<int32_t>(static_cast<int64_t>(state % static_cast<uint64_t>(2 * top)) - top));
            }
            audio.samples[0] = static_cast<int32_t>(-top);
            audio.samples[1] = static_cast<int32_t>(top - 1);
            const std::string wav = folder.File("raw.wav"), aiff = folder.File("words.aiff");
            audio.format = SF_FORMAT_WAV | depth.wav_subtype;
            WriteTestAudio(wav, audio);
            audio.format = SF_FORMAT_AIFF | depth.aiff_subtype;
            WriteTestAudio(aiff, audio);

            PcmSource a{}, b{};
            std::string error;
            ASSERT_TRUE(OpenPcmSource(wav, a, error) && OpenPcmSource(aiff, b, error)) << error;
            FeedPlan plan = PlainPlan();
            plan.rate = 44100;
            ASSERT_TRUE(PlanPcmSource(a, plan, error) && PlanPcmSource(b, plan, error)) << error;
            ASSERT_TRUE(a.raw) << depth.bits;
            ASSERT_FALSE(b.raw) << depth.bits;
            ASSERT_EQ(a.bits, depth.bits);
            ASSERT_EQ(b.bits, depth.bits);
            std::vector<uint8_t> bytes_a, bytes_b;
            std::vector<double> power_a, power_b;
            int64_t total = 0;
            for (;;) {
                const int64_t got_a = ReadPcmBlock(a, 576, bytes_a, &power_a);
                const int64_t got_b = ReadPcmBlock(b, 576, bytes_b, &power_b);
                ASSERT_EQ(got_a, got_b) << depth.bits << " bits, " << channels << " channels, at " << total;
                ASSERT_EQ(bytes_a, bytes_b) << depth.bits << " bits, " << channels << " channels, at " << total;
                // The mean square of each frame, summed here from the words
                // written, channel by channel.
                std::vector<double> expected(static_cast<size_t>(got_a));
                for (int64_t k = 0; k < got_a; ++k) {
                    double sum = 0.0;
                    for (int c = 0; c < channels; ++c) {
                        const double x = audio.samples[static_cast<size_t>((total + k) * channels + c)] /
                                         static_cast<double>(top);
                        sum += x * x;
                    }
                    expected[static_cast<size_t>(k)] = sum / channels;
                }
                ASSERT_EQ(power_a, expected) << depth.bits << " bits, " << channels << " channels, at " << total;
                ASSERT_EQ(power_b, expected) << depth.bits << " bits, " << channels << " channels, at " << total;
                if (got_a == 0)
                    break;
                total += got_a;
            }
            EXPECT_EQ(total, frames);
            EXPECT_EQ(a.peak, 1.0);
            EXPECT_EQ(b.peak, 1.0);
            EXPECT_EQ(a.frames_read, static_cast<uint64_t>(frames));
            ClosePcmSource(a);
            ClosePcmSource(b);
        }
}

TEST(PcmSource, ThreeOrMoreThanSixChannelsAreRefusedWithoutADownmix)
{
    TempFolder folder;
    for (int channels : {3, 8}) {
        const std::string path = folder.File("c" + std::to_string(channels) + ".wav");
        WriteTestAudio(path, TestAudio{44100, channels, SF_FORMAT_WAV | SF_FORMAT_PCM_16,
                                       std::vector<int32_t>(static_cast<size_t>(channels) * 4, 0)});
        PcmSource source{};
        std::string error;
        ASSERT_TRUE(OpenPcmSource(path, source, error)) << error;
        EXPECT_FALSE(PlanPcmSource(source, FeedPlan{false, false, 1.0, true, 44100}, error));
        EXPECT_NE(error.find("unsupported input"), std::string::npos) << error;
        EXPECT_NE(error.find("--downmix"), std::string::npos) << error;
        EXPECT_TRUE(PlanPcmSource(source, FeedPlan{false, true, 1.0, true, 44100}, error)) << error;
        EXPECT_EQ(source.channels, channels == 3 ? 2 : 6);
        ClosePcmSource(source);
    }
}

TEST(PcmSource, MonoAsStereoHandsEachWordOnTwice)
{
    TempFolder folder;
    WriteTestAudio(folder.File("m.wav"), TestAudio{44100, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16, {0x1234, -2}});
    FeedPlan plan = PlainPlan();
    plan.mono_as_stereo = true;
    EXPECT_EQ(HandedOn(folder.File("m.wav"), 16, nullptr, plan),
              (std::vector<uint8_t>{0x34, 0x12, 0x34, 0x12, 0xFE, 0xFF, 0xFE, 0xFF}));
}

TEST(PcmSource, GainGoesAtThirtyTwoBitsAndCountsWhatItPushesPastFullScale)
{
    TempFolder folder;
    WriteTestAudio(folder.File("g.wav"), TestAudio{44100, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16, {16384, -8192, 30000}});
    FeedPlan plan = PlainPlan();
    plan.gain = 2.0;
    PcmSource source{};
    std::string error;
    ASSERT_TRUE(OpenPcmSource(folder.File("g.wav"), source, error));
    plan.rate = source.file_rate;
    ASSERT_TRUE(PlanPcmSource(source, plan, error));
    std::vector<uint8_t> bytes;
    ASSERT_EQ(ReadPcmBlock(source, 16, bytes, nullptr), 3);
    // 16384 twice is full scale exactly, one step past the largest word.
    EXPECT_EQ(Words32(bytes), (std::vector<int32_t>{INT32_MAX, -(1 << 30), INT32_MAX}));
    EXPECT_EQ(source.overs, 1u);
    ClosePcmSource(source);
}

TEST(PcmSource, DownmixFoldsTheCentreIntoBothSidesAtMinusThreeDecibels)
{
    int channels = 0;
    const double share = 1.0 / std::sqrt(2.0);
    // 3.0 without a map: L R C.
    std::vector<double> three = DownmixMatrix(3, {}, channels);
    ASSERT_EQ(channels, 2);
    EXPECT_EQ(three.size(), 6u);
    EXPECT_DOUBLE_EQ(three[0], 1.0);   // L from L
    EXPECT_DOUBLE_EQ(three[1], 0.0);   // L from R
    EXPECT_NEAR(three[2], share, 1e-15);  // L from C
    EXPECT_DOUBLE_EQ(three[4], 1.0);   // R from R
    EXPECT_NEAR(three[5], share, 1e-15);  // R from C
    // 7.1 without a map: L R C LFE BL BR SL SR; a side and a back speaker
    // share each surround at -3 dB.
    std::vector<double> eight = DownmixMatrix(8, {}, channels);
    ASSERT_EQ(channels, 6);
    auto gain = [&](int to, int from) { return eight[static_cast<size_t>(to * 8 + from)]; };
    EXPECT_DOUBLE_EQ(gain(0, 0), 1.0);
    EXPECT_DOUBLE_EQ(gain(2, 2), 1.0);
    EXPECT_DOUBLE_EQ(gain(3, 3), 1.0);
    EXPECT_NEAR(gain(4, 4), share, 1e-15);
    EXPECT_NEAR(gain(4, 6), share, 1e-15);
    EXPECT_NEAR(gain(5, 5), share, 1e-15);
    EXPECT_NEAR(gain(5, 7), share, 1e-15);
    EXPECT_DOUBLE_EQ(gain(4, 5), 0.0);
    // 6.1: the back centre into both surrounds at -3 dB, the sides whole.
    std::vector<double> seven = DownmixMatrix(7, {}, channels);
    ASSERT_EQ(channels, 6);
    EXPECT_NEAR(seven[4 * 7 + 4], share, 1e-15);
    EXPECT_NEAR(seven[5 * 7 + 4], share, 1e-15);
    EXPECT_DOUBLE_EQ(seven[4 * 7 + 5], 1.0);
    EXPECT_DOUBLE_EQ(seven[5 * 7 + 6], 1.0);
}

TEST(PcmSource, ResampledFeedHasTheLengthAtTheNewRate)
{
    TempFolder folder;
    const std::string path = folder.File("low.wav");
    std::vector<float> tone;
    for (int i = 0; i < 22050; ++i) {
        const float value = static_cast<float>(0.5 * std::sin(2.0 * M_PI * 1000.0 * i / 22050.0));
        tone.push_back(value);
        tone.push_back(value);
    }
    WriteFloats(path, 2, tone, 22050);
    PcmSource source{};
    std::string error;
    ASSERT_TRUE(OpenPcmSource(path, source, error));
    ASSERT_TRUE(PlanPcmSource(source, FeedPlan{false, false, 1.0, true, 48000}, error)) << error;
    EXPECT_EQ(source.bits, 32);
    std::vector<uint8_t> bytes;
    std::vector<double> power;
    int64_t total = 0;
    double sum = 0.0;
    for (int64_t got; (got = ReadPcmBlock(source, 576, bytes, &power)) > 0;) {
        total += got;
        if (total > 4800 && total < 43000)
            for (double p : power)
                sum += p;
    }
    EXPECT_EQ(total, 48000);
    ClosePcmSource(source);
    // A sine of 0.5 has a mean square of 0.125, at any rate.
    EXPECT_NEAR(sum / static_cast<double>(43000 / 576 * 576 - 4800 / 576 * 576 - 576), 0.125, 0.002);
}

TEST(Resampler, LengthsAreRoundedToTheNearestFrame)
{
    EXPECT_EQ(ResampledLength(22050, 22050, 48000), 48000u);
    EXPECT_EQ(ResampledLength(1000, 22050, 48000), 2177u);  // 2176.87
    EXPECT_EQ(ResampledLength(5, 22050, 48000), 11u);       // 10.88
    EXPECT_EQ(ResampledLength(48000, 48000, 22050), 22050u);
    EXPECT_EQ(ResampledLength(uint64_t{1} << 40, 96000, 48000), uint64_t{1} << 39);
}

TEST(Resampler, StreamComesOutWithExactlyTheLengthAskedFor)
{
    for (uint64_t frames : {uint64_t{7}, uint64_t{1000}, uint64_t{48000}}) {
        Resampler resampler{};
        std::string error;
        ASSERT_TRUE(OpenResampler(resampler, 48000, 22050, 2, error)) << error;
        std::vector<double> in(static_cast<size_t>(frames) * 2, 0.25);
        std::vector<double> out;
        for (uint64_t at = 0; at < frames; at += 576)
            ResampleBlock(resampler, in.data() + at * 2, static_cast<size_t>(std::min<uint64_t>(576, frames - at)),
                          out);
        FinishResampling(resampler, ResampledLength(frames, 48000, 22050), out);
        CloseResampler(resampler);
        EXPECT_EQ(out.size(), 2 * ResampledLength(frames, 48000, 22050)) << frames;
    }
}

// --- Where outputs go ------------------------------------------------------------

TEST(OutputTarget, KindsOfPlaces)
{
    TempFolder folder;
    OutputTarget target{};
    std::string error;
    ASSERT_TRUE(ResolveTarget("-", target, error));
    EXPECT_EQ(target.kind, TargetKind::StandardOutput);
    ASSERT_TRUE(ResolveTarget(folder.File("new.wav"), target, error)) << error;
    EXPECT_EQ(target.kind, TargetKind::NewFile);
    std::ofstream(folder.File("old.wav")) << "x";
    ASSERT_TRUE(ResolveTarget(folder.File("old.wav"), target, error)) << error;
    EXPECT_EQ(target.kind, TargetKind::ExistingFile);
    // A link is followed to its end, relative to the link's folder.
    mkdir(folder.File("sub").c_str(), 0755);
    ASSERT_EQ(symlink("../old.wav", folder.File("sub/link.wav").c_str()), 0);
    ASSERT_TRUE(ResolveTarget(folder.File("sub/link.wav"), target, error)) << error;
    EXPECT_EQ(target.kind, TargetKind::ExistingFile);
    EXPECT_EQ(target.path, folder.File("sub/../old.wav"));
    EXPECT_EQ(target.given, folder.File("sub/link.wav"));
    ASSERT_EQ(mkfifo(folder.File("fifo").c_str(), 0600), 0);
    ASSERT_TRUE(ResolveTarget(folder.File("fifo"), target, error)) << error;
    EXPECT_EQ(target.kind, TargetKind::WriteThrough);
    ASSERT_TRUE(ResolveTarget("/dev/null", target, error)) << error;
    EXPECT_EQ(target.kind, TargetKind::WriteThrough);
    EXPECT_FALSE(ResolveTarget(folder.path, target, error));
    EXPECT_NE(error.find("folder"), std::string::npos) << error;
    EXPECT_FALSE(ResolveTarget(folder.File("no/such/x.wav"), target, error));
}

TEST(OutputTarget, ReplacingNeedsYesOrAnAnswer)
{
    TempFolder folder;
    std::ofstream(folder.File("old.wav")) << "x";
    OutputTarget existing{}, fresh{}, device{};
    std::string error;
    ASSERT_TRUE(ResolveTarget(folder.File("old.wav"), existing, error));
    ASSERT_TRUE(ResolveTarget(folder.File("new.wav"), fresh, error));
    ASSERT_TRUE(ResolveTarget("/dev/null", device, error));
    const std::vector<OutputTarget*> all = {&fresh, &device, &existing};
    const std::vector<OutputTarget*> harmless = {&fresh, &device};
    EXPECT_TRUE(MayReplace(all, Overwrite::Always, nullptr, nullptr, error));
    EXPECT_TRUE(MayReplace(harmless, Overwrite::Never, nullptr, nullptr, error));
    EXPECT_FALSE(MayReplace(all, Overwrite::Never, nullptr, nullptr, error));
    EXPECT_NE(error.find("not replacing " + folder.File("old.wav")), std::string::npos) << error;
    EXPECT_FALSE(MayReplace(all, Overwrite::Ask, nullptr, nullptr, error));
    EXPECT_NE(error.find("give -y"), std::string::npos) << error;
    // Asked, the answer decides.
    for (const char* answer : {"y\n", "Yes\n", "n\n", "\n", ""}) {
        char typed[8] = {};
        std::snprintf(typed, sizeof typed, "%s", answer);
        std::FILE* in = fmemopen(typed, std::max<size_t>(1, std::strlen(typed)), "r");
        char shown[256] = {};
        std::FILE* out = fmemopen(shown, sizeof shown, "w");
        const bool yes = MayReplace(all, Overwrite::Ask, in, out, error);
        std::fclose(in);
        std::fclose(out);
        EXPECT_EQ(yes, answer[0] == 'y' || answer[0] == 'Y') << answer;
        EXPECT_NE(std::string(shown).find("replace " + folder.File("old.wav") + "? [y/N]"), std::string::npos);
    }
}

TEST(OutputTarget, ACommittedFileReplacesTheOldOneWithItsPermissions)
{
    TempFolder folder;
    std::ofstream(folder.File("old.wav")) << "old";
    chmod(folder.File("old.wav").c_str(), 0640);
    OutputTarget target{};
    std::string error;
    ASSERT_TRUE(ResolveTarget(folder.File("old.wav"), target, error));
    ASSERT_TRUE(PrepareTarget(target, folder.path, error)) << error;
    EXPECT_EQ(target.temporary.rfind(folder.File(".old.wav.tmp-"), 0), 0u) << target.temporary;
    std::ofstream(target.temporary) << "new";
    EXPECT_EQ(ReadWholeFile(folder.File("old.wav")), "old");
    ASSERT_TRUE(CommitTarget(target, error)) << error;
    EXPECT_EQ(ReadWholeFile(folder.File("old.wav")), "new");
    struct stat info{};
    ASSERT_EQ(stat(folder.File("old.wav").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);
    EXPECT_EQ(FolderEntries(folder.path), std::vector<std::string>{"old.wav"});
}

// --- Settings in force --------------------------------------------------------------

TEST(RenderArgs, EverySettingSaysWhereItsValueCameFrom)
{
    std::vector<RegValue> saved;
    SetRegDword(saved, "Mode", 0);
    SetRegDword(saved, "Centre_Trim", -3);
    const RenderOptions options = Parse({"--centre-trim", "4", "--mute", "SL", "i", "o"});
    const std::vector<SettingInForce> settings = SettingsInForce(saved, options.overrides);
    ASSERT_EQ(settings.size(), 16u);
    std::map<std::string, std::pair<int32_t, std::string>> by_name;
    for (const SettingInForce& setting : settings)
        by_name[setting.name] = {setting.value, setting.source};
    EXPECT_EQ(by_name["Mode"], std::make_pair(0, std::string("saved")));
    EXPECT_EQ(by_name["Centre_Trim"], std::make_pair(4, std::string("option")));
    EXPECT_EQ(by_name["SL"], std::make_pair(0, std::string("option")));
    EXPECT_EQ(by_name["Surround_Delay"], std::make_pair(10, std::string("default")));
    EXPECT_EQ(by_name["Bass_Redir"], std::make_pair(120, std::string("default")));
    EXPECT_EQ(by_name["L"], std::make_pair(1, std::string("option")));
}

// --- Messages -------------------------------------------------------------------

TEST(Messages, ThePlugInsLinesOnStandardErrorGoAsideUnlessVerbose)
{
    TempFolder folder;
    SetVerbosity(Verbosity::Normal);
    ASSERT_TRUE(CaptureProcessorMessages(folder.File("captured")));
    std::fprintf(stderr, "Kelvane Processor: Failed to open output plugin\n");
    std::fflush(stderr);
    EXPECT_NE(UserErrors(), stderr);
    ReleaseProcessorMessages();
    EXPECT_EQ(UserErrors(), stderr);
    EXPECT_EQ(ReadWholeFile(folder.File("captured")), "Kelvane Processor: Failed to open output plugin\n");

    SetVerbosity(Verbosity::Verbose);
    ASSERT_TRUE(CaptureProcessorMessages(folder.File("verbose")));
    EXPECT_EQ(UserErrors(), stderr);
    ReleaseProcessorMessages();
    EXPECT_EQ(ReadWholeFile(folder.File("verbose")), "");
    SetVerbosity(Verbosity::Normal);
}

// --- Levels before the output conversion ------------------------------------------

TEST(Levels, OverFullScaleIsWhereTheOutputWordCannotHoldTheProduct)
{
    // 1.0 leaves at 0.85 of full scale; a float of 1.25 gives 34816 at 16
    // bits, beyond the word; from about 1.1764706 on a sample does not fit.
    for (int bits : {16, 24, 32}) {
        EXPECT_FALSE(OverFullScale(1.0f, bits)) << bits;
        EXPECT_FALSE(OverFullScale(-1.0f, bits)) << bits;
        EXPECT_FALSE(OverFullScale(1.17f, bits)) << bits;
        EXPECT_FALSE(OverFullScale(-1.17f, bits)) << bits;
        EXPECT_TRUE(OverFullScale(1.25f, bits)) << bits;
        EXPECT_TRUE(OverFullScale(-1.25f, bits)) << bits;
        EXPECT_TRUE(OverFullScale(1.1764706f, bits)) << bits;
        EXPECT_TRUE(OverFullScale(std::nanf(""), bits)) << bits;
        EXPECT_TRUE(OverFullScale(std::numeric_limits<float>::infinity(), bits)) << bits;
    }
    // At 16 bits the largest product that fits is 32767.99..., the lowest
    // -32768.99...; truncation toward zero keeps both.
    EXPECT_FALSE(OverFullScale(32767.5f / 27852.80078125f, 16));
    EXPECT_TRUE(OverFullScale(32768.5f / 27852.80078125f, 16));
    EXPECT_FALSE(OverFullScale(-32768.5f / 27852.80078125f, 16));
    EXPECT_TRUE(OverFullScale(-32769.5f / 27852.80078125f, 16));
}

TEST(Levels, OverCountsGoToTheirChannelAndWindow)
{
    OverCounts counts{};
    InitOverCounts(counts, 2);
    const float quiet[6] = {0.5f, -0.5f, 0.0f, 0.0f, 0.1f, 0.1f};
    const float loud[6] = {0.5f, -0.5f, 0.0f, 0.0f, 1.3f, -1.2f};
    AddProcessedFrame(counts, quiet, 16);
    AddProcessedFrame(counts, quiet, 16);
    AddProcessedFrame(counts, loud, 16);
    EXPECT_EQ(counts.frames, 3u);
    EXPECT_EQ(counts.overs[4], 1u);
    EXPECT_EQ(counts.overs[5], 1u);
    EXPECT_EQ(counts.overs[0], 0u);
    EXPECT_FLOAT_EQ(static_cast<float>(counts.peak[4]), 1.3f);
    ASSERT_EQ(counts.window_overs.size(), 12u);
    EXPECT_EQ(counts.window_overs[4], 0u);
    EXPECT_EQ(counts.window_overs[6 + 4], 1u);
    EXPECT_EQ(counts.window_overs[6 + 5], 1u);
    // 1.0 before the conversion is 0.85 of full scale: -1.41 dBFS.
    EXPECT_NEAR(OutputLevelDb(1.0), 20.0 * std::log10(0.85), 1e-5);
}

TEST(Levels, OversOfARunAreThoseOfTheTestInDoublePrecisionAtEveryWordSize)
{
    // Floats on both sides of each bound of each word, the conversion's
    // factor divided out, a NaN and the infinities; in a run of frames of
    // odd length, in windows of five frames.
    for (int bits : {16, 24, 32}) {
        SCOPED_TRACE(bits);
        const double steps = std::ldexp(1.0, bits - 1);
        const float scale = bits == 16 ? 27852.80078125f : bits == 24 ? 7130317.0f : 1825361152.0f;  // 0.85 of full scale
        std::vector<float> samples;
        for (double bound : {steps, -steps - 1.0, -steps}) {
            float x = static_cast<float>(bound / scale);
            for (int k = 0; k < 40; ++k)
                x = std::nextafter(x, -std::numeric_limits<float>::infinity());
            for (int k = 0; k < 81; ++k, x = std::nextafter(x, std::numeric_limits<float>::infinity()))
                samples.push_back(x);
        }
        samples.push_back(std::numeric_limits<float>::quiet_NaN());
        samples.push_back(std::numeric_limits<float>::infinity());
        samples.push_back(-std::numeric_limits<float>::infinity());
        while (samples.size() % 6 != 0 || (samples.size() / 6) % 2 == 0)
            samples.push_back(0.25f);
        const size_t frames = samples.size() / 6;
        uint64_t expected[6] = {};
        std::vector<uint32_t> expected_windows(((frames + 4) / 5) * 6, 0);
        for (size_t i = 0; i < samples.size(); ++i)
            if (OverFullScale(samples[i], bits)) {
                ++expected[i % 6];
                ++expected_windows[(i / 6) / 5 * 6 + i % 6];
            }
        OverCounts counts{};
        InitOverCounts(counts, 5);
        AddProcessedFrames(counts, samples.data(), frames, bits);
        EXPECT_EQ(counts.frames, frames);
        EXPECT_EQ(std::vector<uint64_t>(counts.overs, counts.overs + 6), std::vector<uint64_t>(expected, expected + 6));
        EXPECT_EQ(counts.window_overs, expected_windows);
        uint64_t total = 0;
        for (uint64_t over : expected)
            total += over;
        EXPECT_GT(total, 40u);  // both bounds crossed, and the three that are no number
    }
}

// --- The level report ---------------------------------------------------------------

TEST(Report, EachFileHasItsSectionNameBoundaryAndTimeFromZero)
{
    std::vector<ReportFile> files(2);
    for (size_t f = 0; f < files.size(); ++f) {
        ReportFile& file = files[f];
        file.name = f == 0 ? "dir/first.wav" : "second.flac";
        file.processor_rate = file.output_rate = f == 0 ? 48000 : 24000;
        InitLevels(file.input, 1, 4800);
        InitLevels(file.output, 6, 4800);
        InitOverCounts(file.processed, 4800);
        // Three seconds for the first, one for the second.
        const int64_t frames = (f == 0 ? 3 : 1) * file.output_rate;
        const double level = 0.1;
        const double six[6] = {0.1, 0.1, 0.1, 0.1, 0.1, 0.1};
        const float over[6] = {0.0f, 0.0f, 0.0f, 0.0f, f == 1 ? 1.5f : 0.0f, 0.0f};
        for (int64_t i = 0; i < frames; ++i) {
            AddLevelFrame(file.input, &level);
            AddLevelFrame(file.output, six);
            AddProcessedFrame(file.processed, over, 16);
        }
    }
    const ReportPicture picture = BuildLevelReport(files, false);
    std::vector<double> lines, zero_marks;
    std::vector<std::string> texts;
    int overs = 0;
    for (const ReportShape& shape : picture.shapes) {
        if (shape.kind == ReportShape::Line && shape.points[0] == shape.points[2] &&
            shape.points[3] - shape.points[1] > 100)
            lines.push_back(shape.points[0]);
        if (shape.kind == ReportShape::Text) {
            texts.push_back(shape.text);
            if (shape.text == "0 s")
                zero_marks.push_back(shape.points[0]);
        }
        if (shape.kind == ReportShape::Rect && shape.colour == "#e00000")
            ++overs;
    }
    // Sections in proportion to the files' lengths: 3 s and 1 s of 800 pixels.
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_DOUBLE_EQ(lines[0], 70.0);
    EXPECT_DOUBLE_EQ(lines[1], 70.0 + 600.0);
    ASSERT_EQ(zero_marks.size(), 2u);
    EXPECT_NEAR(zero_marks[1], 670.0, 3.0);
    EXPECT_NE(std::find(texts.begin(), texts.end(), "first.wav"), texts.end());
    EXPECT_NE(std::find(texts.begin(), texts.end(), "second.flac"), texts.end());
    EXPECT_EQ(std::find(texts.begin(), texts.end(), "3 s"), texts.end()) << "no mark runs on past a file";
    // One red band per window of the second file, in the SL lane only.
    EXPECT_EQ(overs, 24000 / 4800);
    const std::string svg = ReportSvg(picture);
    EXPECT_NE(svg.find(">second.flac<"), std::string::npos);
    EXPECT_EQ(svg.rfind("</svg>\n"), svg.size() - 7);
}
