// kelvane-render and its output files: an existing file is never replaced
// without consent, the container comes from the extension or --format, the
// word follows the input unless asked otherwise, shorter words are dithered,
// a WAV too large for RIFF becomes RF64, "-" is standard input and output,
// and links, FIFOs and devices are written through.
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <thread>

#include "render_fixture.h"

namespace {

// Bypass at 16 bits, as the processor computes it: sample / 32768, times
// 0.707, times 0.85 x 32768, truncated toward zero.
int32_t BypassWord16(int32_t sample)
{
    const float x = static_cast<float>(sample) * 3.0517578125e-05f;
    const float y = x * 0.707f;
    const float z = y * 27852.80078125f;
    return static_cast<int32_t>(z);
}

std::vector<char> FileBytes(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

SF_INFO FileInfo(const std::string& path)
{
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    EXPECT_NE(file, nullptr) << path;
    if (file != nullptr)
        sf_close(file);
    return info;
}

}  // namespace

TEST_F(RenderFixture, AnExistingOutputIsRefusedWithoutATerminalAndKept)
{
    const std::string in = Input("in.wav", StereoNoise(2000, 51));
    std::ofstream(work.File("out.wav")) << "precious\n";
    const ProcessResult result = Render({in, work.File("out.wav")}, true, false);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("exists; give -y"), std::string::npos) << result.err;
    EXPECT_EQ(ReadWholeFile(work.File("out.wav")), "precious\n");
}

TEST_F(RenderFixture, TheLastOfSeveralWavFilesIsNotTakenForAnOutputToOverwrite)
{
    // kelvane-render *.wav: the last input is taken as the output, and it
    // exists.
    const std::string a = Input("a.wav", StereoNoise(2000, 52));
    const std::string b = Input("b.wav", StereoNoise(2000, 53));
    const std::string b_before = ReadWholeFile(b);
    const ProcessResult result = Render({a, b}, true, false);
    EXPECT_NE(result.status, 0);
    EXPECT_EQ(ReadWholeFile(b), b_before);
}

TEST_F(RenderFixture, MinusNNeverReplacesAndMinusYAlwaysDoes)
{
    const std::string in = Input("in.wav", StereoNoise(2000, 54));
    std::ofstream(work.File("out.wav")) << "precious\n";
    const ProcessResult never = Render({"-n", in, work.File("out.wav")}, true, false);
    EXPECT_EQ(never.status, 1);
    EXPECT_NE(never.err.find("not replacing"), std::string::npos) << never.err;
    EXPECT_EQ(ReadWholeFile(work.File("out.wav")), "precious\n");
    // -n leaves new files alone: they are written.
    EXPECT_EQ(Render({"-q", "-n", in, work.File("new.wav")}, true, false).status, 0);
    EXPECT_EQ(ReadTestAudio(work.File("new.wav")).Frames(), 2000);
    const ProcessResult always = Render({"-q", "-y", in, work.File("out.wav")}, true, false);
    EXPECT_EQ(always.status, 0) << always.err;
    EXPECT_EQ(ReadTestAudio(work.File("out.wav")).Frames(), 2000);
}

TEST_F(RenderFixture, OnATerminalTheUserIsAskedAndTheAnswerDecides)
{
    const std::string in = Input("in.wav", StereoNoise(2000, 55));
    const std::vector<std::string> args = {RenderPath(), "-q", "--plugin", PluginPath(), "--out-wav", OutWavPath(),
                                           in, work.File("out.wav")};
    std::ofstream(work.File("out.wav")) << "precious\n";
    int status = -1;
    const std::string refused = RenderOnTerminal(args, Environment(), "n\n", &status);
    EXPECT_NE(refused.find("replace " + work.File("out.wav") + "? [y/N]"), std::string::npos) << refused;
    EXPECT_EQ(status, 1);
    EXPECT_EQ(ReadWholeFile(work.File("out.wav")), "precious\n");
    const std::string accepted = RenderOnTerminal(args, Environment(), "y\n", &status);
    EXPECT_EQ(status, 0) << accepted;
    EXPECT_EQ(ReadTestAudio(work.File("out.wav")).Frames(), 2000);
}

TEST_F(RenderFixture, TheContainerFollowsTheExtensionOrFormat)
{
    const TestAudio input = StereoNoise(3000, 56);
    const std::string in = Input("in.wav", input);
    struct Case {
        const char* name;
        std::vector<std::string> options;
        int major;
    };
    const Case cases[] = {
        {"o.flac", {}, SF_FORMAT_FLAC},  {"o.w64", {}, SF_FORMAT_W64},
        {"o.caf", {}, SF_FORMAT_CAF},    {"o.rf64", {}, SF_FORMAT_RF64},
        {"o.WAV", {}, SF_FORMAT_WAVEX},  {"o.data", {"--format", "flac"}, SF_FORMAT_FLAC},
        {"o.wav", {"--format", "w64"}, SF_FORMAT_W64},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"-q"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        args.insert(args.end(), {"--mode", "bypass", in, work.File(c.name)});
        const ProcessResult result = Render(args);
        ASSERT_EQ(result.status, 0) << c.name << ": " << result.err;
        const TestAudio rendered = ReadTestAudio(work.File(c.name));
        EXPECT_EQ(rendered.format & SF_FORMAT_TYPEMASK, c.major) << c.name;
        EXPECT_EQ(rendered.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16) << c.name;
        ASSERT_EQ(rendered.Frames(), input.Frames()) << c.name;
        EXPECT_EQ(rendered.channels, 6) << c.name;
        for (int64_t i = 0; i < input.Frames(); i += 97)
            EXPECT_EQ(rendered.At(i, 1), BypassWord16(input.At(i, 1))) << c.name << " frame " << i;
    }
    const ProcessResult unknown = Render({in, work.File("o.mp3")});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("--format"), std::string::npos) << unknown.err;
}

// A WAV output of one input is written by out_wav itself and cut to length
// at the end; a CAF output is cut from the pieces. Through the headphone
// mode, which holds frames back until the silence behind the input lets
// them go, both hold the same frames, and the same with -o DIR, where each
// file starts from a reset processor.
TEST_F(RenderFixture, AnOutputWrittenStraightHoldsWhatOneCutFromThePiecesHolds)
{
    const TestAudio input = StereoNoise(30000, 58);
    const std::string in = Input("in.wav", input);
    ASSERT_EQ(Render({"-q", "--mode", "headphone", in, work.File("straight.wav")}).status, 0);
    ASSERT_EQ(Render({"-q", "--mode", "headphone", in, work.File("cut.caf")}).status, 0);
    const TestAudio straight = ReadTestAudio(work.File("straight.wav"));
    const TestAudio cut = ReadTestAudio(work.File("cut.caf"));
    EXPECT_EQ(straight.format, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16);
    EXPECT_EQ(straight.Frames(), input.Frames());
    EXPECT_EQ(straight.channels, 6);
    EXPECT_EQ(straight.samples, cut.samples);

    const std::string second = Input("second.wav", StereoNoise(20000, 59));
    ASSERT_EQ(Render({"-q", "--mode", "headphone", "-o", work.File("wav"), in, second}).status, 0);
    ASSERT_EQ(Render({"-q", "--mode", "headphone", "--format", "caf", "-o", work.File("caf"), in, second}).status, 0);
    EXPECT_EQ(ReadTestAudio(work.File("wav/in.wav")).samples, cut.samples);
    EXPECT_EQ(ReadTestAudio(work.File("wav/second.wav")).samples, ReadTestAudio(work.File("caf/second.caf")).samples);
    EXPECT_EQ(ReadTestAudio(work.File("wav/second.wav")).Frames(), 20000);
}

// With -q and nothing that needs them the levels are not measured; the
// files are the same, byte for byte, written straight or cut from pieces.
TEST_F(RenderFixture, AQuietRunWritesTheSameBytes)
{
    const std::string first = Input("first.wav", StereoNoise(20000, 60));
    const std::string second = Input("second.wav", StereoNoise(10000, 61));
    for (const std::vector<std::string>& inputs : {std::vector<std::string>{first},
                                                   std::vector<std::string>{first, second}}) {
        std::vector<std::string> loud = {"--mode", "asr"}, quiet = {"-q", "--mode", "asr"};
        loud.insert(loud.end(), inputs.begin(), inputs.end());
        quiet.insert(quiet.end(), inputs.begin(), inputs.end());
        loud.push_back(work.File("loud.wav"));
        quiet.push_back(work.File("quiet.wav"));
        const ProcessResult shown = Render(loud);
        ASSERT_EQ(shown.status, 0) << shown.err;
        EXPECT_NE(shown.out.find("clipped"), std::string::npos) << shown.out;
        ASSERT_EQ(Render(quiet).status, 0);
        EXPECT_EQ(FileBytes(work.File("loud.wav")), FileBytes(work.File("quiet.wav"))) << inputs.size() << " inputs";
    }
}

TEST_F(RenderFixture, TheWordFollowsTheInputAndFloatStaysFloat)
{
    TestAudio deep{kRate, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_24, Noise16(2 * 3000, 30000, 57)};
    for (int32_t& sample : deep.samples)
        sample *= 256;
    ASSERT_EQ(Render({"-q", Input("deep.wav", deep), work.File("deep-out.wav")}).status, 0);
    EXPECT_EQ(FileInfo(work.File("deep-out.wav")).format, SF_FORMAT_WAVEX | SF_FORMAT_PCM_24);

    // Float in, float out: the processor's 32-bit words as floats, which
    // may pass 1.0 no more than the words can.
    const std::string floats = work.File("float.wav");
    {
        SF_INFO info{};
        info.samplerate = kRate;
        info.channels = 2;
        info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        SNDFILE* file = sf_open(floats.c_str(), SFM_WRITE, &info);
        ASSERT_NE(file, nullptr);
        std::vector<float> samples(2 * 3000);
        for (size_t i = 0; i < samples.size(); ++i)
            samples[i] = 0.5f * std::sin(0.01f * static_cast<float>(i));
        sf_writef_float(file, samples.data(), 3000);
        sf_close(file);
    }
    ASSERT_EQ(Render({"-q", "--mode", "bypass", floats, work.File("float-out.wav")}).status, 0);
    const SF_INFO info = FileInfo(work.File("float-out.wav"));
    EXPECT_EQ(info.format, SF_FORMAT_WAVEX | SF_FORMAT_FLOAT);
    EXPECT_EQ(info.frames, 3000);

    // --out-bits overrides, and FLAC gets at most 24 bits.
    ASSERT_EQ(Render({"-q", "--out-bits", "16", work.File("deep.wav"), work.File("short.wav")}).status, 0);
    EXPECT_EQ(FileInfo(work.File("short.wav")).format, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16);
    ASSERT_EQ(Render({"-q", floats, work.File("f.flac")}).status, 0);
    EXPECT_EQ(FileInfo(work.File("f.flac")).format, SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
}

TEST_F(RenderFixture, ShorterWordsAreDitheredAndOtherwiseTheSameSignal)
{
    TestAudio deep{kRate, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_24, Noise16(2 * 20000, 20000, 58)};
    for (int32_t& sample : deep.samples)
        sample = sample * 256 + 77;
    const std::string in = Input("deep.wav", deep);
    ASSERT_EQ(Render({"-q", "--mode", "asr", in, work.File("o24.wav")}).status, 0);
    const ProcessResult dithered = Render({"--mode", "asr", "--out-bits", "16", in, work.File("o16.wav")});
    ASSERT_EQ(dithered.status, 0) << dithered.err;
    EXPECT_NE(dithered.out.find("dithered"), std::string::npos) << dithered.out;
    ASSERT_EQ(Render({"-q", "--mode", "asr", "--out-bits", "16", "--no-dither", in, work.File("plain.wav")}).status, 0);
    const TestAudio wide = ReadTestAudio(work.File("o24.wav"));
    const TestAudio narrow = ReadTestAudio(work.File("o16.wav"));
    const TestAudio plain = ReadTestAudio(work.File("plain.wav"));
    ASSERT_EQ(narrow.Frames(), wide.Frames());
    // Against the 24-bit words scaled to 16 bits: plain rounding is off by at
    // most half a step and never more; dither by up to one and a half, with
    // no bias, and with the triangular noise's variance of 1/6 on top of
    // rounding's 1/12.
    double sum = 0.0, square = 0.0, largest = 0.0, plain_largest = 0.0;
    const size_t count = wide.samples.size();
    for (size_t i = 0; i < count; ++i) {
        const double exact = wide.samples[i] / 256.0;
        const double error = narrow.samples[i] - exact;
        sum += error;
        square += error * error;
        largest = std::max(largest, std::fabs(error));
        plain_largest = std::max(plain_largest, std::fabs(plain.samples[i] - exact));
    }
    EXPECT_LE(plain_largest, 0.5);
    EXPECT_LE(largest, 1.5);
    EXPECT_NEAR(sum / static_cast<double>(count), 0.0, 0.02);
    EXPECT_NEAR(square / static_cast<double>(count), 0.25, 0.03);
}

TEST_F(RenderFixture, AWavTooLargeForRiffSizesIsWrittenAsRf64)
{
    // The limit is lowered for the test, so that RF64 needs no gigabytes.
    const TestAudio input = StereoNoise(5000, 59);
    const std::string in = Input("in.wav", input);
    std::vector<std::pair<std::string, std::string>> env = Environment();
    env.emplace_back("KELVANE_RENDER_RIFF_LIMIT", "50000");  // six channels: 60000 bytes of data
    const ProcessResult result = RunProgram({RenderPath(), "-q", "--plugin", PluginPath(), "--out-wav", OutWavPath(),
                                             "--mode", "bypass", in, work.File("big.wav")},
                                            env);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(ReadWholeFile(work.File("big.wav")).substr(0, 4), "RF64");
    const TestAudio rendered = ReadTestAudio(work.File("big.wav"));
    EXPECT_EQ(rendered.format, SF_FORMAT_RF64 | SF_FORMAT_PCM_16);
    ASSERT_EQ(rendered.Frames(), 5000);
    EXPECT_EQ(rendered.At(4999, 0), BypassWord16(input.At(4999, 0)));
    // Below the limit (two channels: 20000 bytes) it stays RIFF.
    const ProcessResult small = RunProgram({RenderPath(), "-q", "--plugin", PluginPath(), "--out-wav", OutWavPath(),
                                            "--mode", "bypass", "--two-channel", in, work.File("small.wav")},
                                           env);
    ASSERT_EQ(small.status, 0) << small.err;
    EXPECT_EQ(ReadWholeFile(work.File("small.wav")).substr(0, 4), "RIFF");
}

TEST_F(RenderFixture, MinusReadsStandardInputAndWritesStandardOutput)
{
    const TestAudio input = StereoNoise(4000, 60);
    const std::string in = Input("in.wav", input);
    ASSERT_EQ(Render({"-q", "--mode", "asr", in, work.File("file.wav")}).status, 0);
    // A shell pipe: the file on standard input, the result on standard output.
    const std::string command = "'" + RenderPath() + "' -q --plugin '" + PluginPath() + "' --out-wav '" +
                                OutWavPath() + "' --mode asr - - < '" + in + "' > '" + work.File("piped.wav") + "'";
    const ProcessResult piped = RunProgram({"/bin/sh", "-c", command}, Environment());
    ASSERT_EQ(piped.status, 0) << piped.err;
    EXPECT_EQ(piped.err, "");
    const TestAudio got = ReadTestAudio(work.File("piped.wav"));
    EXPECT_EQ(got.format, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16);
    EXPECT_EQ(got.samples, ReadTestAudio(work.File("file.wav")).samples);
    // Without -q the summary goes to standard error, out of the audio's way.
    const std::string loud = "'" + RenderPath() + "' --plugin '" + PluginPath() + "' --out-wav '" + OutWavPath() +
                             "' --mode asr '" + in + "' - > '" + work.File("loud.wav") + "'";
    const ProcessResult summary = RunProgram({"/bin/sh", "-c", loud}, Environment());
    ASSERT_EQ(summary.status, 0) << summary.err;
    EXPECT_NE(summary.err.find("4000 frames"), std::string::npos) << summary.err;
    EXPECT_EQ(ReadTestAudio(work.File("loud.wav")).samples, got.samples);
}

TEST_F(RenderFixture, ASymbolicLinkIsWrittenThroughAndStaysALink)
{
    const TestAudio input = StereoNoise(2000, 61);
    const std::string in = Input("in.wav", input);
    mkdir(work.File("real").c_str(), 0755);
    ASSERT_EQ(symlink(work.File("real/target.wav").c_str(), work.File("link.wav").c_str()), 0);
    ASSERT_EQ(Render({"-q", "--mode", "bypass", in, work.File("link.wav")}, true, false).status, 0);
    struct stat info{};
    ASSERT_EQ(lstat(work.File("link.wav").c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
    EXPECT_EQ(ReadTestAudio(work.File("real/target.wav")).Frames(), 2000);
    // Now the link leads to a file: replacing it needs consent like any file.
    const ProcessResult again = Render({"--mode", "bypass", in, work.File("link.wav")}, true, false);
    EXPECT_EQ(again.status, 1);
    ASSERT_EQ(Render({"-q", "-y", "--mode", "bypass", in, work.File("link.wav")}, true, false).status, 0);
    ASSERT_EQ(lstat(work.File("link.wav").c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
}

TEST_F(RenderFixture, AFifoAndADeviceAreWrittenThroughWithoutAsking)
{
    const TestAudio input = StereoNoise(3000, 62);
    const std::string in = Input("in.wav", input);
    ASSERT_EQ(Render({"-q", "--mode", "bypass", in, work.File("file.wav")}).status, 0);
    const std::string fifo = work.File("pipe");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::string received;
    std::thread reader([&] { received = ReadWholeFile(fifo); });
    const ProcessResult result = Render({"-q", "--mode", "bypass", in, fifo}, true, false);
    reader.join();
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(received, ReadWholeFile(work.File("file.wav")));
    struct stat info{};
    ASSERT_EQ(stat(fifo.c_str(), &info), 0);
    EXPECT_TRUE(S_ISFIFO(info.st_mode));
    // A device, as a throw-away output.
    const ProcessResult null = Render({"-q", "--mode", "bypass", in, "/dev/null"}, true, false);
    EXPECT_EQ(null.status, 0) << null.err;
    ASSERT_EQ(stat("/dev/null", &info), 0);
    EXPECT_TRUE(S_ISCHR(info.st_mode));
}
