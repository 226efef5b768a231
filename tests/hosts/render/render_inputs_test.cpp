// kelvane-render and its inputs: the headphone mode at rates it was not
// made for goes through 48 kHz, files in a folder start from a reset
// processor, a mono file can be fed as stereo, three, seven and eight
// channels can be downmixed, and a truncated file is named.
#include "render_fixture.h"

namespace {

constexpr double kShare = 0.7071067811865476;  // -3 dB

TestAudio StereoTone(int rate, int64_t frames, double hertz, double amplitude)
{
    TestAudio audio{rate, 2, kStereo16, {}};
    for (int64_t i = 0; i < frames; ++i) {
        const int32_t value = static_cast<int32_t>(std::lround(amplitude * std::sin(2.0 * M_PI * hertz * i / rate)));
        audio.samples.push_back(value);
        audio.samples.push_back(value);
    }
    return audio;
}

// RMS in dB of one channel over frames [first, first + count).
double RmsDb(const TestAudio& audio, int channel, int64_t first, int64_t count)
{
    double sum = 0.0;
    for (int64_t i = first; i < first + count; ++i)
        sum += std::pow(static_cast<double>(audio.At(i, channel)), 2);
    return 10.0 * std::log10(sum / static_cast<double>(count));
}

// A changed sample as the processor gets it and bypass at 32 bits gives it
// back: the nearest 32-bit word, then word / 2^31, times 0.707, times 0.85
// of 2^31, truncated, step by step in single precision.
int32_t BypassFromChanged(double value)
{
    double word = std::nearbyint(value * 2147483648.0);
    word = std::min(word, 2147483647.0);
    word = std::max(word, -2147483648.0);
    const float x = static_cast<float>(static_cast<int32_t>(word)) * 4.656612873077393e-10f;
    const float y = x * 0.707f;
    const float z = y * 1825361152.0f;
    return static_cast<int32_t>(z);
}

}  // namespace

TEST_F(RenderFixture, HeadphoneModeOffItsRatesGoesThroughFortyEightKilohertzAndBack)
{
    const TestAudio low = StereoTone(22050, 22050, 1000.0, 8000.0);
    const TestAudio high = StereoTone(48000, 48000, 1000.0, 8000.0);
    const ProcessResult result =
        Render({"--mode", "headphone", Input("low.wav", low), work.File("low-out.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.err.find("goes to the processor at 48000 Hz"), std::string::npos) << result.err;
    ASSERT_EQ(Render({"-q", "--mode", "headphone", Input("high.wav", high), work.File("high-out.wav")}).status, 0);
    const TestAudio rendered = ReadTestAudio(work.File("low-out.wav"));
    EXPECT_EQ(rendered.rate, 22050);
    ASSERT_EQ(rendered.Frames(), 22050);
    // The same tone through the convolver at its own rate: the same level
    // in each ear, over the same stretch of time.
    const TestAudio reference = ReadTestAudio(work.File("high-out.wav"));
    for (int ear = 0; ear < 2; ++ear)
        EXPECT_NEAR(RmsDb(rendered, ear, 22050 / 4, 22050 / 2), RmsDb(reference, ear, 48000 / 4, 48000 / 2), 0.5)
            << ear;
    // Not the unprocessed input at 0.85 that the processor alone gives.
    int64_t unprocessed = 0;
    for (int64_t i = 0; i < rendered.Frames(); ++i)
        unprocessed += rendered.At(i, 0) ==
                       static_cast<int32_t>(static_cast<float>(low.At(i, 0)) * 3.0517578125e-05f * 27852.80078125f);
    EXPECT_LT(unprocessed, rendered.Frames() / 10);
}

TEST_F(RenderFixture, NoResampleKeepsThePassThroughAndWarns)
{
    const TestAudio low = StereoTone(22050, 5000, 1000.0, 8000.0);
    const ProcessResult result =
        Render({"--no-resample", "--mode", "headphone", Input("low.wav", low), work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.err.find("warning:"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("unprocessed"), std::string::npos) << result.err;
    const TestAudio rendered = ReadTestAudio(work.File("o.wav"));
    ASSERT_EQ(rendered.Frames(), 5000);
    // The frames go out as converted: sample / 32768 times 0.85 x 32768,
    // truncated, without the pass-through's 0.707.
    for (int64_t i = 0; i < 5000; ++i)
        for (int c = 0; c < 2; ++c) {
            const float x = static_cast<float>(low.At(i, c)) * 3.0517578125e-05f;
            ASSERT_EQ(rendered.At(i, c), static_cast<int32_t>(x * 27852.80078125f)) << i;
        }
}

TEST_F(RenderFixture, FilesInAFolderStartFromAResetProcessor)
{
    const auto [whole, all, a, b] = CutInTwo(63);
    for (const char* mode : {"asr", "headphone"}) {
        const bool headphone = std::string(mode) == "headphone";
        const ProcessResult split = Render({"-q", "--mode", mode, "-o", work.File("split"), a, b});
        ASSERT_EQ(split.status, 0) << split.err;
        ASSERT_EQ(Render({"-q", "--mode", mode, b, work.File("alone.wav")}).status, 0);
        // The second file sounds as it does on its own, not as the
        // continuation of the first.
        ExpectSameOutput(ReadTestAudio(work.File("split/b.wav")).samples,
                         ReadTestAudio(work.File("alone.wav")).samples, headphone, mode);
        ASSERT_EQ(Render({"-q", "--mode", mode, all, work.File("whole.wav")}).status, 0);
        EXPECT_GT(LargestDifference(Slice(ReadTestAudio(work.File("whole.wav")), 13001, 2000).samples,
                                    Slice(ReadTestAudio(work.File("split/b.wav")), 0, 2000).samples),
                  10 * kHeadphoneRunToRunSteps)
            << mode;
    }
}

TEST_F(RenderFixture, MonoAsStereoPutsAMonoFileInTheCentre)
{
    const TestAudio mono{kRate, 1, kStereo16, Noise16(8000, 12000, 64)};
    TestAudio stereo{kRate, 2, kStereo16, {}};
    for (int32_t sample : mono.samples)
        stereo.samples.insert(stereo.samples.end(), {sample, sample});
    const std::string in = Input("mono.wav", mono);
    ASSERT_EQ(Render({"-q", "--mode", "asr", "--mono-as-stereo", in, work.File("centre.wav")}).status, 0);
    ASSERT_EQ(Render({"-q", "--mode", "asr", Input("stereo.wav", stereo), work.File("stereo-out.wav")}).status, 0);
    const TestAudio centre = ReadTestAudio(work.File("centre.wav"));
    EXPECT_EQ(centre.samples, ReadTestAudio(work.File("stereo-out.wav")).samples);
    EXPECT_GT(RmsDb(centre, 2, 4000, 4000), RmsDb(centre, 0, 4000, 4000) + 10.0);
    // Without the option a mono file passes the decoder by: nothing in C.
    ASSERT_EQ(Render({"-q", "--mode", "asr", in, work.File("plain.wav")}).status, 0);
    const TestAudio plain = ReadTestAudio(work.File("plain.wav"));
    for (int64_t i = 0; i < plain.Frames(); ++i)
        ASSERT_EQ(plain.At(i, 2), 0);
}

TEST_F(RenderFixture, ThreeChannelsAreRefusedOrDownmixedToStereo)
{
    const TestAudio three{kRate, 3, kStereo16, Noise16(3 * 3000, 12000, 65)};
    const std::string in = Input("three.wav", three);
    const std::vector<std::string> before = FolderEntries(work.path);
    ExpectCleanFailure(Render({in, work.File("o.wav")}), "--downmix", work.path, before);
    ASSERT_EQ(Render({"-q", "--downmix", "--mode", "bypass", "--out-bits", "32", in, work.File("o.wav")}).status, 0);
    const TestAudio rendered = ReadTestAudio(work.File("o.wav"));
    ASSERT_EQ(rendered.Frames(), 3000);
    // L + C at -3 dB, R + C at -3 dB.
    for (int64_t i = 0; i < 3000; ++i) {
        const double l = three.At(i, 0) / 32768.0, r = three.At(i, 1) / 32768.0, c = three.At(i, 2) / 32768.0;
        ASSERT_EQ(rendered.At(i, 0), BypassFromChanged(l + kShare * c)) << i;
        ASSERT_EQ(rendered.At(i, 1), BypassFromChanged(r + kShare * c)) << i;
        ASSERT_EQ(rendered.At(i, 2), 0) << i;
    }
}

TEST_F(RenderFixture, SevenPointOneIsDownmixedToFivePointOne)
{
    // A plain WAV has no channel map: the usual order L R C LFE BL BR SL SR.
    const TestAudio eight{kRate, 8, SF_FORMAT_WAV | SF_FORMAT_PCM_16, Noise16(8 * 2000, 9000, 66)};
    const std::string in = Input("eight.wav", eight);
    ASSERT_EQ(Render({"-q", "--downmix", "--mode", "bypass", "--out-bits", "32", in, work.File("o.wav")}).status, 0);
    const TestAudio rendered = ReadTestAudio(work.File("o.wav"));
    ASSERT_EQ(rendered.channels, 6);
    ASSERT_EQ(rendered.Frames(), 2000);
    // Fronts and LFE as they are, each surround the back and the side
    // speaker of its side at -3 dB each.
    for (int64_t i = 0; i < 2000; ++i) {
        auto in_at = [&](int channel) { return eight.At(i, channel) / 32768.0; };
        ASSERT_EQ(rendered.At(i, 0), BypassFromChanged(in_at(0))) << i;
        ASSERT_EQ(rendered.At(i, 2), BypassFromChanged(in_at(2))) << i;
        ASSERT_EQ(rendered.At(i, 3), BypassFromChanged(in_at(3))) << i;
        ASSERT_EQ(rendered.At(i, 4), BypassFromChanged(kShare * in_at(4) + kShare * in_at(6))) << i;
        ASSERT_EQ(rendered.At(i, 5), BypassFromChanged(kShare * in_at(5) + kShare * in_at(7))) << i;
    }
}

TEST_F(RenderFixture, DownmixFollowsTheFilesChannelMap)
{
    // 6.1 as back left, back right and back centre, as the file's map says;
    // without a map, seven channels would be read as L R C LFE BC SL SR.
    const TestAudio seven{kRate, 7, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16, Noise16(7 * 1000, 9000, 68)};
    const std::string in = work.File("seven.wav");
    {
        SF_INFO info{};
        info.samplerate = kRate;
        info.channels = 7;
        info.format = seven.format;
        SNDFILE* file = sf_open(in.c_str(), SFM_WRITE, &info);
        ASSERT_NE(file, nullptr);
        int map[7] = {SF_CHANNEL_MAP_LEFT,      SF_CHANNEL_MAP_RIGHT,      SF_CHANNEL_MAP_CENTER,     SF_CHANNEL_MAP_LFE,
                      SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT, SF_CHANNEL_MAP_REAR_CENTER};
        ASSERT_EQ(sf_command(file, SFC_SET_CHANNEL_MAP_INFO, map, sizeof map), SF_TRUE);
        std::vector<short> words(seven.samples.begin(), seven.samples.end());
        sf_writef_short(file, words.data(), 1000);
        sf_close(file);
    }
    ASSERT_EQ(Render({"-q", "--downmix", "--mode", "bypass", "--out-bits", "32", in, work.File("o.wav")}).status, 0);
    const TestAudio rendered = ReadTestAudio(work.File("o.wav"));
    ASSERT_EQ(rendered.channels, 6);
    for (int64_t i = 0; i < 1000; ++i) {
        auto in_at = [&](int channel) { return seven.At(i, channel) / 32768.0; };
        ASSERT_EQ(rendered.At(i, 4), BypassFromChanged(in_at(4) + kShare * in_at(6))) << i;
        ASSERT_EQ(rendered.At(i, 5), BypassFromChanged(in_at(5) + kShare * in_at(6))) << i;
    }
}

TEST_F(RenderFixture, ATruncatedInputIsNamed)
{
    const std::string in = Input("cut.wav", StereoNoise(6000, 67));
    const std::string bytes = ReadWholeFile(in);
    std::ofstream(in, std::ios::binary | std::ios::trunc) << bytes.substr(0, bytes.size() / 2);
    const ProcessResult result = Render({"--mode", "bypass", in, work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.err.find("input " + in + " is truncated"), std::string::npos) << result.err;
    const TestAudio rendered = ReadTestAudio(work.File("o.wav"));
    EXPECT_GT(rendered.Frames(), 2900);
    EXPECT_LT(rendered.Frames(), 3000);
}
