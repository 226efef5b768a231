// The bundle in the hands of real hosts and tools: lv2ls finds it, lv2info
// accepts each plug-in, sord_validate checks the Turtle against the LV2
// schemas, `cmake --install` puts it where hosts look, and lv2apply renders
// files that this test writes through each plug-in in each mode, equal to the
// engine's float output sample for sample.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/lv2/engine_reference.h"
#include "tests/lv2/host_programs.h"

namespace {

const char* const kUris[] = {"urn:kelvane:upmix", "urn:kelvane:headphone", "urn:kelvane:encode"};

// lv2apply hands the plug-in the file in blocks of this many frames.
constexpr uint32_t kLv2applyBlock = 1;
constexpr uint32_t kHoldBack = 8192;

std::vector<std::string> BuildTreeLv2Path()
{
    return {std::string("LV2_PATH=") + KELVANE_TEST_LV2_PATH};
}

bool ContainsAny(const std::string& text, std::initializer_list<const char*> words)
{
    for (const char* w : words)
        if (text.find(w) != std::string::npos)
            return true;
    return false;
}

void RequireProgram(const char* name)
{
    if (!HaveProgram(name))
        GTEST_SKIP() << name << " is not installed (scripts/install-deps.sh installs it)";
}

TEST(Lv2Tools, Lv2lsListsTheThreePluginsOfTheBuildTree)
{
    RequireProgram("lv2ls");
    const CommandResult r = RunCommand({"lv2ls"}, BuildTreeLv2Path());
    ASSERT_EQ(r.status, 0) << r.output;
    for (const char* uri : kUris)
        EXPECT_NE(r.output.find(uri), std::string::npos) << uri << " missing from:\n" << r.output;
}

TEST(Lv2Tools, Lv2infoAcceptsEveryPluginWithoutAComplaint)
{
    RequireProgram("lv2info");
    const char* const names[] = {"Kelvane upmix", "Kelvane headphone", "Kelvane encode"};
    for (int p = 0; p < 3; ++p) {
        const CommandResult r = RunCommand({"lv2info", kUris[p]}, BuildTreeLv2Path());
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_NE(r.output.find(names[p]), std::string::npos) << r.output;
        EXPECT_FALSE(ContainsAny(r.output, {"error", "warning", "Error", "Warning"})) << r.output;
        const bool latency = r.output.find("Has latency:       yes") != std::string::npos;
        EXPECT_EQ(latency, p == 1) << r.output;
    }
}

TEST(Lv2Tools, SordValidateFindsNoErrorAgainstTheLv2Schemas)
{
    RequireProgram("sord_validate");
    std::vector<std::string> argv = {"sord_validate"};
    for (const auto& entry : std::filesystem::recursive_directory_iterator("/usr/lib/lv2"))
        if (entry.path().extension() == ".ttl")
            argv.push_back(entry.path().string());
    if (argv.size() == 1)
        GTEST_SKIP() << "no LV2 schemas in /usr/lib/lv2 (Debian's lv2-dev ships them)";
    for (const char* file : {"manifest.ttl", "upmix.ttl", "headphone.ttl", "encode.ttl"})
        argv.push_back(std::string(KELVANE_TEST_LV2_BUNDLE) + file);
    const CommandResult r = RunCommand(argv);
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("Found 0 errors"), std::string::npos) << r.output;
}

TEST(Lv2Tools, CmakeInstallPutsTheBundleWhereHostsFindIt)
{
    RequireProgram("lv2ls");
    const std::string prefix = MakeTemporaryFolder("lv2-install");
    ASSERT_FALSE(prefix.empty());
    const CommandResult install = RunCommand({KELVANE_TEST_CMAKE, "--install", KELVANE_TEST_BUILD_DIR, "--prefix", prefix});
    ASSERT_EQ(install.status, 0) << install.output;
    const std::string bundle = prefix + "/lib/lv2/kelvane.lv2/";
    for (const char* file : {"manifest.ttl", "upmix.ttl", "headphone.ttl", "encode.ttl", "kelvane.so"})
        EXPECT_TRUE(std::filesystem::exists(bundle + file)) << bundle + file;

    const std::vector<std::string> installed = {"LV2_PATH=" + prefix + "/lib/lv2"};
    const CommandResult listed = RunCommand({"lv2ls"}, installed);
    ASSERT_EQ(listed.status, 0) << listed.output;
    for (const char* uri : kUris) {
        EXPECT_NE(listed.output.find(uri), std::string::npos) << listed.output;
        const CommandResult info = RunCommand({"lv2info", uri}, installed);
        EXPECT_EQ(info.status, 0) << info.output;
        EXPECT_NE(info.output.find(bundle + "kelvane.so"), std::string::npos) << info.output;
    }
    std::filesystem::remove_all(prefix);
}

struct ApplyCase {
    const char* name;
    const char* uri;
    int32_t mode;      // the engine's mode for the reference
    int32_t channels;  // source channels, as the plug-in is told them
    int rate;
    std::vector<std::pair<std::string, int32_t>> controls;
};

void PrintTo(const ApplyCase& c, std::ostream* os)
{
    *os << c.name;
}

class Lv2apply : public testing::TestWithParam<ApplyCase> {};

TEST_P(Lv2apply, RendersTheEnginesFloatOutputSampleForSample)
{
    RequireProgram("lv2apply");
    const ApplyCase c = GetParam();
    const uint32_t frames = 40000;
    const SlotSignals source = TestSource(c.channels, frames);

    // The file has one channel per input port of the plug-in, in port order.
    const int ports = std::string(c.uri) == "urn:kelvane:upmix" ? 2 : 6;
    AudioFile in;
    in.rate = c.rate;
    for (int s = 0; s < ports; ++s)
        in.channels.push_back(source[s].empty() ? std::vector<float>(frames, 0.0f) : source[s]);
    const std::string folder = MakeTemporaryFolder(std::string("lv2apply-") + c.name);
    ASSERT_FALSE(folder.empty());
    ASSERT_TRUE(WriteFloatWav(folder + "/in.wav", in));

    SettingsWords words;
    words.Mode = c.mode;
    std::vector<std::string> argv = {"lv2apply", "-i", folder + "/in.wav", "-o", folder + "/out.wav"};
    for (const auto& [symbol, value] : c.controls) {
        argv.insert(argv.end(), {"-c", symbol, std::to_string(value)});
        if (symbol == "mode")
            words.Mode = value;
        else if (symbol == "surround_delay")
            words.Surround_Delay = value;
        else if (symbol == "centre_width")
            words.Centre_Width = value;
        else if (symbol == "centre_trim")
            words.Centre_Trim = value;
        else if (symbol == "surround_trim")
            words.Surround_Trim_00 = value;
        else if (symbol == "bass_redir")
            words.Bass_Redir = value;
        else if (symbol == "bass_redir_enable")
            words.Bass_Redir_Enable = value;
        else if (symbol == "bass_trim")
            words.Bass_Trim = value;
        else if (symbol == "bass_invert")
            words.Bass_Invert = value;
        else if (symbol == "virtual_c")
            words.Virtual_C = value;
        else if (symbol == "speaker_c")
            words.C = value;
        else if (symbol == "speaker_sl")
            words.SL = value;
    }
    argv.push_back(c.uri);
    const CommandResult r = RunCommand(argv, BuildTreeLv2Path());
    ASSERT_EQ(r.status, 0) << r.output;

    AudioFile out;
    ASSERT_TRUE(ReadAudioFile(folder + "/out.wav", out));
    const bool upmix = std::string(c.uri) == "urn:kelvane:upmix";
    ASSERT_EQ(out.channels.size(), upmix ? 6u : 2u);
    ASSERT_EQ(out.channels[0].size(), frames);
    SlotSignals actual;
    for (std::size_t s = 0; s < out.channels.size(); ++s)
        actual[s] = out.channels[s];

    SlotSignals expected = EngineFloatOutput(words, c.channels, c.rate, source, {kLv2applyBlock});
    if (c.mode == 4 && c.rate >= 44100 && c.rate <= 48000)
        expected = Delayed(expected, kHoldBack, frames);
    for (std::size_t s = 0; s < out.channels.size(); ++s) {
        const long at = FirstDifference(actual, expected, int(s));
        EXPECT_EQ(at, -1) << "channel " << s << " first differs at frame " << at;
    }
    std::filesystem::remove_all(folder);
}

const std::vector<std::pair<std::string, int32_t>> kBusyUpmix = {
    {"surround_delay", 17}, {"centre_width", 40}, {"centre_trim", -3},     {"surround_trim", 2},
    {"bass_redir", 90},     {"bass_redir_enable", 1}, {"bass_trim", 4}, {"bass_invert", 1},
};

std::vector<std::pair<std::string, int32_t>> WithMode(int32_t mode)
{
    std::vector<std::pair<std::string, int32_t>> controls = kBusyUpmix;
    controls.emplace_back("mode", mode);
    return controls;
}

INSTANTIATE_TEST_SUITE_P(
    EveryMode, Lv2apply,
    testing::Values(ApplyCase{"Bypass", "urn:kelvane:upmix", 0, 2, 48000, WithMode(0)},
                    ApplyCase{"FixedMatrix", "urn:kelvane:upmix", 1, 2, 44100, WithMode(1)},
                    ApplyCase{"Steered", "urn:kelvane:upmix", 2, 2, 48000, WithMode(2)},
                    ApplyCase{"SteeredTwoSurrounds", "urn:kelvane:upmix", 3, 2, 48000, WithMode(3)},
                    ApplyCase{"HeadphoneStereo", "urn:kelvane:headphone", 4, 2, 48000,
                              {{"source", 2}, {"surround_delay", 23}}},
                    ApplyCase{"HeadphoneSixChannels", "urn:kelvane:headphone", 4, 6, 44100,
                              {{"source", 6}, {"speaker_sl", 0}}},
                    ApplyCase{"HeadphoneOutsideItsRates", "urn:kelvane:headphone", 4, 2, 96000, {{"source", 2}}},
                    ApplyCase{"EncodeFour", "urn:kelvane:encode", 5, 4, 48000, {{"source", 4}}},
                    ApplyCase{"EncodeFive", "urn:kelvane:encode", 5, 5, 48000, {{"source", 5}}},
                    ApplyCase{"EncodeSix", "urn:kelvane:encode", 5, 6, 48000, {{"source", 6}}}),
    [](const testing::TestParamInfo<ApplyCase>& info) { return std::string(info.param.name); });

}  // namespace
