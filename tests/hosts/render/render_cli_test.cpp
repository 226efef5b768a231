// kelvane-render end to end: the program run as a user runs it, driving the
// real out_kelvane.so and out_wav.so of this build, its files read back with
// libsndfile and compared with what driving the processor directly gives.
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <fstream>
#include <fcntl.h>
#include <map>
#include <pty.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "render_fixture.h"

TEST_F(RenderFixture, EveryModeGivesSixChannelsOfTheInputsLengthAndTheDirectResult)
{
    const TestAudio input = StereoNoise(20000, 11);
    const std::string in = Input("in.wav", input);
    for (int mode = 0; mode < 6; ++mode) {
        const std::string out = work.File("out" + std::to_string(mode) + ".wav");
        const ProcessResult result = Render({"-q", "--mode", std::to_string(mode), in, out});
        ASSERT_EQ(result.status, 0) << result.err;
        const TestAudio rendered = ReadTestAudio(out);
        EXPECT_EQ(rendered.rate, kRate) << mode;
        EXPECT_EQ(rendered.channels, 6) << mode;
        EXPECT_EQ(rendered.format, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16) << mode;
        EXPECT_EQ(ReadChannelMap(out), kFiveOneMap) << mode;
        EXPECT_EQ(rendered.Frames(), input.Frames()) << mode;
        const TestAudio direct = DriveDirectly(input, ModeValues(mode));
        ExpectSameOutput(rendered.samples, direct.samples, mode == 4, "mode " + std::to_string(mode));
    }
}

TEST_F(RenderFixture, DeeperOutputWordsMatchTheDirectResult)
{
    const TestAudio input = StereoNoise(9000, 12);
    const std::string in = Input("in.wav", input);
    for (int bits : {24, 32}) {
        const std::string out = work.File("deep.wav");
        const ProcessResult result = Render({"-q", "--mode", "asr", "--out-bits", std::to_string(bits), in, out});
        ASSERT_EQ(result.status, 0) << result.err;
        const TestAudio rendered = ReadTestAudio(out);
        EXPECT_EQ(rendered.format, SF_FORMAT_WAVEX | (bits == 24 ? SF_FORMAT_PCM_24 : SF_FORMAT_PCM_32));
        EXPECT_EQ(ReadChannelMap(out), kFiveOneMap);
        EXPECT_EQ(rendered.Frames(), input.Frames());
        EXPECT_EQ(rendered.samples, DriveDirectly(input, ModeValues(3, bits)).samples) << bits;
    }
}

TEST_F(RenderFixture, BypassWordsAreTheInputTimes0707AtEightyFivePercent)
{
    const TestAudio input = StereoNoise(3000, 13, 32767);
    const std::string out = work.File("bypass.wav");
    const ProcessResult result = Render({"-q", "--mode", "bypass", Input("in.wav", input), out});
    ASSERT_EQ(result.status, 0) << result.err;
    const TestAudio rendered = ReadTestAudio(out);
    ASSERT_EQ(rendered.Frames(), input.Frames());
    // In single precision, step by step: sample / 32768, times 0.707, times
    // 0.85 x 32768, truncated toward zero.
    for (int64_t i = 0; i < input.Frames(); ++i) {
        for (int c = 0; c < 2; ++c) {
            const float x = static_cast<float>(input.At(i, c)) * 3.0517578125e-05f;
            const float y = x * 0.707f;
            const float z = y * 27852.80078125f;
            ASSERT_EQ(rendered.At(i, c), static_cast<int32_t>(z)) << "frame " << i << " channel " << c;
        }
        for (int c = 2; c < 6; ++c)
            ASSERT_EQ(rendered.At(i, c), 0) << "frame " << i << " channel " << c;
    }
}

TEST_F(RenderFixture, HeadphoneOutputHasTheInputsLengthWithNothingLostAtTheEnd)
{
    // Silence, then a burst in the last 1000 frames: it must reach the file.
    TestAudio input = StereoNoise(10000, 14);
    for (int64_t i = 0; i < 9000 * 2; ++i)
        input.samples[static_cast<size_t>(i)] = 0;
    const std::string out = work.File("phones.wav");
    const ProcessResult result = Render({"-q", "--mode", "headphone", Input("in.wav", input), out});
    ASSERT_EQ(result.status, 0) << result.err;
    const TestAudio rendered = ReadTestAudio(out);
    ASSERT_EQ(rendered.Frames(), 10000);
    double tail_energy = 0.0;
    for (int64_t i = 9000; i < 10000; ++i)
        tail_energy += std::pow(rendered.At(i, 0), 2) + std::pow(rendered.At(i, 1), 2);
    EXPECT_GT(tail_energy, 0.0);
    ExpectSameOutput(rendered.samples, DriveDirectly(input, ModeValues(4)).samples, true, "headphone");
}

TEST_F(RenderFixture, HeadphoneModeOutsideItsRatesStillKeepsTheLength)
{
    TestAudio input = StereoNoise(5000, 15);
    input.rate = 22050;
    const std::string out = work.File("low.wav");
    const ProcessResult result = Render({"-q", "--mode", "4", Input("in.wav", input), out});
    ASSERT_EQ(result.status, 0) << result.err;
    const TestAudio rendered = ReadTestAudio(out);
    EXPECT_EQ(rendered.rate, 22050);
    EXPECT_EQ(rendered.Frames(), 5000);
}

TEST_F(RenderFixture, PlayListEqualsOneConcatenatedRender)
{
    const auto [whole, all, a, b] = CutInTwo(16);
    for (const char* mode : {"asr", "headphone"}) {
        ASSERT_EQ(Render({"-q", "--mode", mode, all, work.File("whole.wav")}).status, 0);
        const ProcessResult joined = Render({"-q", "--mode", mode, a, b, work.File("joined.wav")});
        ASSERT_EQ(joined.status, 0) << joined.err;
        const TestAudio expected = ReadTestAudio(work.File("whole.wav"));
        const TestAudio got = ReadTestAudio(work.File("joined.wav"));
        const bool headphone = std::string(mode) == "headphone";
        EXPECT_EQ(got.Frames(), 30000) << mode;
        ExpectSameOutput(got.samples, expected.samples, headphone, mode);

        // One file per input, run on like a play-list: the files have their
        // inputs' lengths, and together they are the same stream.
        const ProcessResult split = Render({"-q", "--gapless", "--mode", mode, "-o", work.File("split"), a, b});
        ASSERT_EQ(split.status, 0) << split.err;
        const TestAudio first = ReadTestAudio(work.File("split/a.wav"));
        const TestAudio second = ReadTestAudio(work.File("split/b.wav"));
        EXPECT_EQ(first.Frames(), 13001) << mode;
        EXPECT_EQ(second.Frames(), 16999) << mode;
        std::vector<int32_t> both = first.samples;
        both.insert(both.end(), second.samples.begin(), second.samples.end());
        ExpectSameOutput(both, expected.samples, headphone, mode);
    }
}

TEST_F(RenderFixture, ResetBetweenFilesChangesTheSeamOnly)
{
    const auto [whole, all, a, b] = CutInTwo(17);
    for (const char* mode : {"asr", "headphone"}) {
        ASSERT_EQ(Render({"-q", "--mode", mode, all, work.File("whole.wav")}).status, 0);
        const ProcessResult reset = Render({"-q", "--reset-between", "--mode", mode, a, b, work.File("reset.wav")});
        ASSERT_EQ(reset.status, 0) << reset.err;
        const TestAudio expected = ReadTestAudio(work.File("whole.wav"));
        const TestAudio got = ReadTestAudio(work.File("reset.wav"));
        ASSERT_EQ(got.Frames(), 30000) << mode;
        const bool headphone = std::string(mode) == "headphone";
        // Before the seam nothing changes.
        ExpectSameOutput(Slice(got, 0, 13001).samples, Slice(expected, 0, 13001).samples, headphone, mode);
        // After it the engine starts from nothing instead of running on:
        // the second file sounds as it does rendered on its own.
        EXPECT_GT(LargestDifference(Slice(got, 13001, 2000).samples, Slice(expected, 13001, 2000).samples),
                  10 * kHeadphoneRunToRunSteps) << mode;
        ASSERT_EQ(Render({"-q", "--mode", mode, b, work.File("alone.wav")}).status, 0);
        ExpectSameOutput(Slice(got, 13001, 16999).samples, ReadTestAudio(work.File("alone.wav")).samples, headphone,
                         mode);
    }
}

TEST_F(RenderFixture, SavedSettingsApplyWithoutOptionsAndOptionsNeverChangeThem)
{
    SaveSettings(ModeValues(0, 24));
    const std::string saved_file = config.File("Morrowfen/Kelvane.reg");
    const std::string saved_text = ReadWholeFile(saved_file);
    struct stat before{};
    stat(saved_file.c_str(), &before);

    const TestAudio input = StereoNoise(4000, 18);
    const std::string in = Input("in.wav", input);
    ASSERT_EQ(Render({"-q", in, work.File("saved.wav")}).status, 0);
    const TestAudio saved = ReadTestAudio(work.File("saved.wav"));
    EXPECT_EQ(saved.format, SF_FORMAT_WAVEX | SF_FORMAT_PCM_24);
    EXPECT_EQ(saved.samples, DriveDirectly(input, ModeValues(0, 24)).samples);

    const ProcessResult changed = Render({"-q", "--mode", "asr", "--out-bits", "16", "--centre-trim", "-6",
                                          "--mute", "SL", "--bass-redir", "80", in, work.File("changed.wav")});
    ASSERT_EQ(changed.status, 0) << changed.err;
    EXPECT_EQ(ReadTestAudio(work.File("changed.wav")).format, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16);

    EXPECT_EQ(ReadWholeFile(saved_file), saved_text);
    struct stat after{};
    stat(saved_file.c_str(), &after);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    EXPECT_EQ(FolderEntries(config.File("Morrowfen")), std::vector<std::string>{"Kelvane.reg"});
    EXPECT_EQ(FolderEntries(home.path), std::vector<std::string>{});
}

TEST_F(RenderFixture, WithoutSavedSettingsTheDefaultsApplyAndNothingIsSaved)
{
    const TestAudio input = StereoNoise(4000, 19);
    ASSERT_EQ(Render({"-q", Input("in.wav", input), work.File("default.wav")}).status, 0);
    // The processor's defaults: mode 3 at 16 bits.
    EXPECT_EQ(ReadTestAudio(work.File("default.wav")).samples, DriveDirectly(input, "").samples);
    EXPECT_EQ(ReadTestAudio(work.File("default.wav")).samples, DriveDirectly(input, ModeValues(3, 16)).samples);
    EXPECT_EQ(FolderEntries(config.path), std::vector<std::string>{});
}

TEST_F(RenderFixture, OptionsReachTheProcessor)
{
    const TestAudio input = StereoNoise(6000, 20);
    const std::string in = Input("in.wav", input);
    ASSERT_EQ(Render({"-q", "--mode", "asr", "--surround-delay", "30", "--centre-trim", "-6", "--mute", "C",
                      "--bass-redir", "90", "--bass-trim", "3", "--bass-invert", in, work.File("o.wav")}).status, 0);
    const std::string values = ModeValues(3) +
                               "\"Surround_Delay\"=dword:0000001e\n\"Centre_Trim\"=dword:fffffffa\n"
                               "\"C\"=dword:00000000\n\"Bass_Redir\"=dword:0000005a\n"
                               "\"Bass_Redir_Enable\"=dword:00000001\n\"Bass_Trim\"=dword:00000003\n"
                               "\"Bass_Invert\"=dword:00000001\n";
    const TestAudio expected = DriveDirectly(input, values);
    const TestAudio got = ReadTestAudio(work.File("o.wav"));
    EXPECT_EQ(got.samples, expected.samples);
    // Muted centre, redirected bass: C silent, LFE not.
    bool lfe = false;
    for (int64_t i = 0; i < got.Frames(); ++i) {
        EXPECT_EQ(got.At(i, 2), 0);
        lfe = lfe || got.At(i, 3) != 0;
    }
    EXPECT_TRUE(lfe);
}

TEST_F(RenderFixture, TwoChannelKeepsLeftAndRight)
{
    const TestAudio input = StereoNoise(9000, 21);
    const std::string in = Input("in.wav", input);
    ASSERT_EQ(Render({"-q", "--mode", "headphone", in, work.File("six.wav")}).status, 0);
    const ProcessResult result = Render({"-q", "--mode", "headphone", "--two-channel", in, work.File("two.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    const TestAudio two = ReadTestAudio(work.File("two.wav"));
    EXPECT_EQ(two.channels, 2);
    EXPECT_EQ(two.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    EXPECT_EQ(two.Frames(), 9000);
    ExpectSameOutput(two.samples, FirstChannels(ReadTestAudio(work.File("six.wav")), 2), true, "two channels");
}

TEST_F(RenderFixture, SixChannelSourceIsEncodedToTwo)
{
    TestAudio input{kRate, 6, SF_FORMAT_WAVEX | SF_FORMAT_PCM_24, {}};
    input.samples = Noise16(6 * 7000, 12000, 22);
    for (int32_t& sample : input.samples)
        sample *= 256;  // the same noise at 24 bits
    const std::string out = work.File("enc.wav");
    const ProcessResult result = Render({"-q", "--mode", "encode", Input("six.wav", input), out});
    ASSERT_EQ(result.status, 0) << result.err;
    const TestAudio rendered = ReadTestAudio(out);
    EXPECT_EQ(rendered.channels, 6);
    EXPECT_EQ(rendered.Frames(), 7000);
    for (int64_t i = 0; i < rendered.Frames(); ++i)
        for (int c = 2; c < 6; ++c)
            ASSERT_EQ(rendered.At(i, c), 0);
}

TEST_F(RenderFixture, SummaryOnStandardOutputAndNoProgressWithoutATerminal)
{
    const ProcessResult result = Render({Input("in.wav", StereoNoise(5000, 23)), work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find("5000 frames"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("RMS dBFS"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("peak dBFS"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("real time"), std::string::npos) << result.out;
}

TEST_F(RenderFixture, ReportIsAnSvgPictureOfTheLevels)
{
    const ProcessResult result = Render({"-q", "--report", work.File("levels.svg"),
                                         Input("in.wav", StereoNoise(20000, 24)), work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    const std::string svg = ReadWholeFile(work.File("levels.svg"));
    EXPECT_NE(svg.find("<svg"), std::string::npos);
    EXPECT_NE(svg.find("</svg>"), std::string::npos);
    for (const char* lane : {">input<", ">L<", ">R<", ">C<", ">LFE<", ">SL<", ">SR<"})
        EXPECT_NE(svg.find(lane), std::string::npos) << lane;
}

TEST_F(RenderFixture, MissingInputFailsCleanly)
{
    const std::vector<std::string> before = FolderEntries(work.path);
    ExpectCleanFailure(Render({work.File("nothing.wav"), work.File("o.wav")}), "cannot read input", work.path, before);
}

TEST_F(RenderFixture, UnreadableInputFailsCleanly)
{
    std::ofstream(work.File("text.wav")) << "this is not audio\n";
    const std::vector<std::string> before = FolderEntries(work.path);
    ExpectCleanFailure(Render({work.File("text.wav"), work.File("o.wav")}), "cannot read input", work.path, before);
}

TEST_F(RenderFixture, UnsupportedChannelCountFailsCleanly)
{
    const std::string in = Input("three.wav", TestAudio{kRate, 3, kStereo16, std::vector<int32_t>(300, 5)});
    const std::vector<std::string> before = FolderEntries(work.path);
    ExpectCleanFailure(Render({in, work.File("o.wav")}), "unsupported input", work.path, before);
}

TEST_F(RenderFixture, UnwritableOutputFailsCleanly)
{
    const std::string in = Input("in.wav", StereoNoise(1000, 25));
    const std::vector<std::string> before = FolderEntries(work.path);
    ExpectCleanFailure(Render({in, work.File("no/such/folder/o.wav")}), "cannot write", work.path, before);
}

TEST_F(RenderFixture, PluginThatCannotBeLoadedFailsCleanly)
{
    const std::string in = Input("in.wav", StereoNoise(1000, 26));
    std::ofstream(work.File("fake.so")) << "not a library\n";
    const std::vector<std::string> before = FolderEntries(work.path);
    ExpectCleanFailure(RunProgram({RenderPath(), "--plugin", work.File("fake.so"), in, work.File("o.wav")},
                                  Environment()),
                       "cannot load plug-in", work.path, before);
    ExpectCleanFailure(RunProgram({RenderPath(), "--plugin", work.File("none.so"), in, work.File("o.wav")},
                                  Environment()),
                       "cannot load plug-in", work.path, before);
    // A library that is not an output plug-in.
    ExpectCleanFailure(RunProgram({RenderPath(), "--plugin", PluginPath(), "--out-wav",
                                   work.File("fake.so"), in, work.File("o.wav")},
                                  Environment()),
                       "", work.path, before);
}

TEST_F(RenderFixture, InterruptedRunLeavesNoOutput)
{
    // Three minutes of noise in the headphone mode take a few tenths of a second.
    const std::string in = Input("long.wav", StereoNoise(kRate * 180, 27));
    const std::vector<std::string> before = FolderEntries(work.path);
    const pid_t child = fork();
    if (child == 0) {
        for (const auto& [name, value] : Environment())
            value.empty() ? unsetenv(name.c_str()) : setenv(name.c_str(), value.c_str(), 1);
        std::freopen("/dev/null", "w", stdout);
        const std::string render = RenderPath(), plugin = PluginPath(), writer = OutWavPath();
        execl(render.c_str(), render.c_str(), "-q", "--mode", "headphone", "--plugin", plugin.c_str(), "--out-wav",
              writer.c_str(), in.c_str(), work.File("o.wav").c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    // Interrupted while it renders: once the output's temporary file is
    // there (it is made before the first block goes in), or after a while.
    for (int waited = 0; waited < 10000; ++waited) {
        bool started = false;
        for (const std::string& entry : FolderEntries(work.path))
            started = started || entry.rfind(".o.wav.tmp-", 0) == 0;
        if (started)
            break;
        usleep(1000);
    }
    kill(child, SIGINT);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130);
    EXPECT_EQ(FolderEntries(work.path), before);
}

TEST_F(RenderFixture, DemoTableShowsWhereEachSourceLands)
{
    const std::string dir = work.File("demo");
    const ProcessResult result = Render({"--demo", dir});
    ASSERT_EQ(result.status, 0) << result.err;

    // Rows: [mode number, mode name,] segment, six levels.
    std::map<std::pair<int, std::string>, std::vector<double>> table;
    std::istringstream lines(result.out);
    std::string line;
    int mode = -1;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::vector<std::string> tokens;
        for (std::string word; words >> word;)
            tokens.push_back(word);
        if (tokens.size() == 9 && std::isdigit(static_cast<unsigned char>(tokens[0][0])))
            mode = std::stoi(tokens[0]);
        else if (tokens.size() != 7 || mode < 0)
            continue;
        std::vector<double> levels;
        for (size_t t = tokens.size() - 6; t < tokens.size(); ++t)
            levels.push_back(tokens[t] == "-inf" ? -INFINITY : std::stod(tokens[t]));
        table[{mode, tokens[tokens.size() - 7]}] = levels;
    }
    ASSERT_TRUE(table.count({3, "centre"})) << result.out;
    ASSERT_TRUE(table.count({3, "behind"})) << result.out;
    const std::vector<double>& centre = table[{3, "centre"}];
    EXPECT_GE(centre[2], centre[0] + 10.0) << result.out;
    EXPECT_GE(centre[2], centre[1] + 10.0) << result.out;
    const std::vector<double>& behind = table[{3, "behind"}];
    EXPECT_GE(behind[4], behind[2] + 10.0) << result.out;
    EXPECT_GE(behind[5], behind[2] + 10.0) << result.out;
    for (int m = 0; m < 6; ++m)
        EXPECT_TRUE(table.count({m, "pan"})) << m;
    for (int m = 0; m < 6; ++m)
        EXPECT_TRUE(table.count({m, "LFE"})) << m;

    // The table's centre figure for C, measured here from the file: the
    // segment is 2 s long, and the table measures from 0.5 s into it to 0.1 s
    // before its end.
    const TestAudio rendered = ReadTestAudio(dir + "/stereo-3-asr.wav");
    ASSERT_EQ(rendered.Frames(), 5 * 2 * kRate);
    double sum = 0.0;
    const int64_t first = 2 * 2 * kRate + kRate / 2;
    const int64_t count = 2 * kRate - kRate / 2 - kRate / 10;
    for (int64_t i = first; i < first + count; ++i)
        sum += std::pow(rendered.At(i, 2) / 32768.0, 2);
    EXPECT_NEAR(10.0 * std::log10(sum / static_cast<double>(count)), centre[2], 0.051);
    // The scene files are there for anyone to listen to.
    EXPECT_EQ(ReadTestAudio(dir + "/scene-stereo.wav").channels, 2);
    EXPECT_EQ(ReadTestAudio(dir + "/scene-six.wav").channels, 6);
}

TEST_F(RenderFixture, DeepAndShallowSourcesReachTheProcessorAtTheirOwnDepth)
{
    // Bypass, step by step in single precision from the source's own integer
    // value to the output word, which follows the input: 24 bits sit in the top of a 32-bit word scaled by 1/2^31, 8 bits
    // are unsigned around 128, scaled by 1/128.
    TestAudio deep{kRate, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_24, Noise16(2 * 3000, 32767, 28)};
    for (int32_t& sample : deep.samples)
        sample = sample * 256 + (sample & 0xFF);
    TestAudio shallow{kRate, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_U8, Noise16(2 * 3000, 127, 29)};
    shallow.samples[0] = -128;  // the byte 0, which the processor takes for silence
    for (const TestAudio* input : {&deep, &shallow}) {
        const bool is_deep = input == &deep;
        const std::string out = work.File("o.wav");
        ASSERT_EQ(Render({"-q", "--mode", "0", Input(is_deep ? "deep.wav" : "shallow.wav", *input), out}).status, 0);
        const TestAudio rendered = ReadTestAudio(out);
        ASSERT_EQ(rendered.Frames(), 3000);
        // The output word follows the input: 24 bits from 24, 16 from 8.
        EXPECT_EQ(rendered.format & SF_FORMAT_SUBMASK, is_deep ? SF_FORMAT_PCM_24 : SF_FORMAT_PCM_16);
        const float scale = is_deep ? 7130317.0f : 27852.80078125f;
        for (int64_t i = 0; i < 3000; ++i)
            for (int c = 0; c < 2; ++c) {
                const int32_t v = input->At(i, c);
                float x = 0.0f;
                if (is_deep) {
                    x = static_cast<float>(static_cast<int32_t>(static_cast<uint32_t>(v) << 8)) * 4.656612873077393e-10f;
                } else {
                    const int32_t byte = v + 128;
                    x = static_cast<float>(byte == 0 ? 0 : byte - 128) * 0.0078125f;
                }
                const float y = x * 0.707f;
                const float z = y * scale;
                ASSERT_EQ(rendered.At(i, c), static_cast<int32_t>(z)) << (is_deep ? "24" : "8") << " bits, frame " << i;
            }
    }
}

TEST_F(RenderFixture, FlacAndWavOfTheSameSamplesRenderAlike)
{
    const TestAudio input = StereoNoise(7000, 30);
    TestAudio flac = input;
    flac.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
    ASSERT_EQ(Render({"-q", Input("in.wav", input), work.File("a.wav")}).status, 0);
    ASSERT_EQ(Render({"-q", Input("in.flac", flac), work.File("b.wav")}).status, 0);
    EXPECT_EQ(ReadTestAudio(work.File("a.wav")).samples, ReadTestAudio(work.File("b.wav")).samples);
}

TEST_F(RenderFixture, MonoAndFourChannelSourcesKeepTheirLength)
{
    const std::string mono = Input("mono.wav", TestAudio{kRate, 1, kStereo16, Noise16(5000, 9000, 31)});
    TestAudio quad{kRate, 4, SF_FORMAT_WAVEX | SF_FORMAT_PCM_32, Noise16(4 * 5000, 9000, 32)};
    for (int32_t& sample : quad.samples)
        sample *= 65536;
    const std::string four = Input("quad.wav", quad);
    for (const char* mode : {"asr", "headphone", "encode"}) {
        const ProcessResult result = Render({"-q", "--mode", mode, "-o", work.File("out"), mono, four});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(ReadTestAudio(work.File("out/mono.wav")).Frames(), 5000) << mode;
        EXPECT_EQ(ReadTestAudio(work.File("out/quad.wav")).Frames(), 5000) << mode;
    }
}

TEST_F(RenderFixture, InputsOfDifferentRatesNeedAFolderOfOutputs)
{
    TestAudio low = StereoNoise(3000, 33);
    low.rate = 22050;
    const std::string a = Input("a.wav", StereoNoise(3000, 34));
    const std::string b = Input("b.wav", low);
    const std::vector<std::string> before = FolderEntries(work.path);
    ExpectCleanFailure(Render({a, b, work.File("o.wav")}), "different sample rates", work.path, before);
    // In the headphone mode too, where the convolver holds frames of the
    // first file while the second, out of its range of rates, passes it by.
    for (const char* mode : {"asr", "headphone"}) {
        const ProcessResult result = Render({"-q", "--mode", mode, "-o", work.File("out"), a, b});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(ReadTestAudio(work.File("out/a.wav")).rate, kRate);
        EXPECT_EQ(ReadTestAudio(work.File("out/a.wav")).Frames(), 3000);
        EXPECT_EQ(ReadTestAudio(work.File("out/b.wav")).rate, 22050);
        EXPECT_EQ(ReadTestAudio(work.File("out/b.wav")).Frames(), 3000);
    }
    // The file at the supported rate sounds as it does on its own.
    ASSERT_EQ(Render({"-q", "--mode", "headphone", a, work.File("alone.wav")}).status, 0);
    ExpectSameOutput(ReadTestAudio(work.File("out/a.wav")).samples, ReadTestAudio(work.File("alone.wav")).samples,
                     true, "headphone");
}


TEST_F(RenderFixture, ProgressShowsOnATerminalUnlessQuiet)
{
    const std::string in = Input("in.wav", StereoNoise(kRate * 20, 35));
    const std::vector<std::string> common = {RenderPath(), "--plugin", PluginPath(), "--out-wav", OutWavPath(),
                                             "--mode", "headphone"};
    std::vector<std::string> loud = common;
    loud.insert(loud.end(), {in, work.File("loud.wav")});
    const std::string shown = RenderOnTerminal(loud, Environment());
    EXPECT_NE(shown.find("%"), std::string::npos) << shown;
    EXPECT_NE(shown.find("x real time"), std::string::npos) << shown;
    EXPECT_NE(shown.find("left"), std::string::npos) << shown;

    std::vector<std::string> quiet = common;
    quiet.insert(quiet.end(), {"-q", in, work.File("quiet.wav")});
    EXPECT_EQ(RenderOnTerminal(quiet, Environment()), "");
}

TEST_F(RenderFixture, PlannerWisdomIsCachedAndTheSecondRunGivesTheSameOutput)
{
    TempFolder cache;
    std::vector<std::pair<std::string, std::string>> env = Environment();
    env.back().second = cache.path;  // XDG_CACHE_HOME
    const std::string in = Input("in.wav", StereoNoise(20000, 31));
    auto render = [&](const std::string& out) {
        return RunProgram({RenderPath(), "--plugin", PluginPath(), "--out-wav", OutWavPath(), "-q", "--mode",
                           "headphone", in, work.File(out)},
                          env);
    };
    ASSERT_EQ(render("first.wav").status, 0);
    const std::string wisdom = ReadWholeFile(cache.File("kelvane/fftw-wisdom"));
    EXPECT_EQ(wisdom.rfind("kelvane fftw-wisdom fftw-", 0), 0u) << wisdom.substr(0, 80);
    EXPECT_NE(wisdom.find("fftwf_wisdom"), std::string::npos);

    ASSERT_EQ(render("second.wav").status, 0);
    // The plans of the first run, so the same output to the last bit.
    EXPECT_EQ(ReadWholeFile(work.File("second.wav")), ReadWholeFile(work.File("first.wav")));
    EXPECT_EQ(ReadWholeFile(cache.File("kelvane/fftw-wisdom")), wisdom);
    EXPECT_EQ(FolderEntries(cache.File("kelvane")), std::vector<std::string>{"fftw-wisdom"});
}

TEST_F(RenderFixture, WisdomOfAnotherBuildOrAnUnreadableCacheIsPassedOver)
{
    TempFolder cache;
    std::vector<std::pair<std::string, std::string>> env = Environment();
    env.back().second = cache.path;  // XDG_CACHE_HOME
    const TestAudio input = StereoNoise(4000, 32);
    const std::string in = Input("in.wav", input);
    const std::vector<int32_t> expected = DriveDirectly(input, ModeValues(3)).samples;
    auto render = [&](const std::string& out) {
        return RunProgram({RenderPath(), "--plugin", PluginPath(), "--out-wav", OutWavPath(), "-q", "--mode", "asr",
                           in, work.File(out)},
                          env);
    };

    mkdir(cache.File("kelvane").c_str(), 0755);
    std::ofstream(cache.File("kelvane/fftw-wisdom"), std::ios::binary)
        << "kelvane fftw-wisdom fftw-0.0.1 elsewhere\n(fftw-0.0.1 fftwf_wisdom #x0 #x0 #x0 #x0\n)\n";
    ASSERT_EQ(render("other.wav").status, 0);
    EXPECT_EQ(ReadTestAudio(work.File("other.wav")).samples, expected);
    // Replaced by what this build's planner learned.
    EXPECT_EQ(ReadWholeFile(cache.File("kelvane/fftw-wisdom")).find("fftw-0.0.1"), std::string::npos);

    // A folder where the file should be: nothing to read, nothing written.
    std::remove(cache.File("kelvane/fftw-wisdom").c_str());
    mkdir(cache.File("kelvane/fftw-wisdom").c_str(), 0755);
    ASSERT_EQ(render("folder.wav").status, 0);
    EXPECT_EQ(ReadTestAudio(work.File("folder.wav")).samples, expected);
    EXPECT_EQ(FolderEntries(cache.File("kelvane")), std::vector<std::string>{"fftw-wisdom"});
}

TEST_F(RenderFixture, FilesRenderedSideBySideEqualThoseOfOneProcess)
{
    const std::string a = Input("a.wav", StereoNoise(9000, 33));
    const std::string b = Input("b.wav", StereoNoise(13001, 34));
    const std::string c = Input("c.wav", StereoNoise(700, 35));
    for (const std::string mode : {"asr", "headphone"}) {
        // A cold planner cache of this test's own: the processes side by side
        // must all make the plans that one process makes, and the run in one
        // process afterwards finds the plans they left in the cache.
        TempFolder cache;
        std::vector<std::pair<std::string, std::string>> env = Environment();
        env.back().second = cache.path;  // XDG_CACHE_HOME
        const std::string one = work.File(std::string("one-") + mode);
        const std::string three = work.File(std::string("three-") + mode);
        auto render = [&](std::vector<std::string> args) {
            args.insert(args.begin(), {RenderPath(), "-y", "--plugin", PluginPath(), "--out-wav", OutWavPath()});
            return RunProgram(args, env);
        };
        const ProcessResult side = render({"--mode", mode, "-j", "3", "-o", three, a, b, c});
        ASSERT_EQ(side.status, 0) << side.err;
        ASSERT_EQ(render({"-q", "--mode", mode, "-j", "1", "-o", one, a, b, c}).status, 0);
        for (const std::string name : {"a.wav", "b.wav", "c.wav"})
            EXPECT_EQ(ReadWholeFile(three + "/" + name), ReadWholeFile(one + "/" + name)) << mode << " " << name;
        // Each file's summary, from whichever process rendered it.
        for (const std::string name : {"a.wav", "b.wav", "c.wav"})
            EXPECT_NE(side.out.find(three + "/" + name + ":"), std::string::npos) << side.out;
    }
}

TEST_F(RenderFixture, JobsTakeAWholeNumberOfProcesses)
{
    for (const std::string bad : {"0", "x", "-2", "257"}) {
        const ProcessResult result = Render({"-j", bad, "-o", work.path, "in.wav"});
        EXPECT_EQ(result.status, 2) << bad;
        EXPECT_NE(result.err.find("-j"), std::string::npos) << result.err;
    }
}
