// kelvane-render and levels: the samples that go over full scale before the
// output conversion are counted and reported, --gain acts before the
// processor, --normalize finds the gain that leaves the largest level at
// -0.1 dBFS, and --fail-on-clip fails a run that clips. The counts are
// checked against the words in the files: at 32 bits a sample over full
// scale comes out as the most negative word, whichever way it went over.
#include <map>
#include <regex>

#include "render_fixture.h"

namespace {

// A full-scale sine at 440 Hz, left and right in antiphase: the steered
// decoder sends it to the surrounds, and with their +3 dB it goes over.
TestAudio AntiphaseSine(int64_t frames, double amplitude = 32767.0)
{
    TestAudio audio{kRate, 2, kStereo16, {}};
    for (int64_t i = 0; i < frames; ++i) {
        const int32_t value = static_cast<int32_t>(std::lround(amplitude * std::sin(2.0 * M_PI * 440.0 * i / kRate)));
        audio.samples.push_back(value);
        audio.samples.push_back(-value);
    }
    return audio;
}

constexpr const char* kSpeakers[6] = {"L", "R", "C", "LFE", "SL", "SR"};

// The counts that the warnings on standard error give, by speaker.
std::map<std::string, uint64_t> ReportedOvers(const std::string& err)
{
    std::map<std::string, uint64_t> counts;
    const std::regex line("clipped ([0-9]+) samples in ([A-Z]+)");
    for (std::sregex_iterator it(err.begin(), err.end(), line), end; it != end; ++it)
        counts[(*it)[2]] += std::stoull((*it)[1]);
    return counts;
}

// The words of a 32-bit file that are the most negative one, by channel.
std::map<std::string, uint64_t> MostNegativeWords(const TestAudio& audio)
{
    std::map<std::string, uint64_t> counts;
    for (int64_t i = 0; i < audio.Frames(); ++i)
        for (int c = 0; c < audio.channels; ++c)
            if (audio.At(i, c) == INT32_MIN)
                ++counts[kSpeakers[c]];
    return counts;
}

double PeakDbfs(const TestAudio& audio, double full_scale)
{
    double largest = 0.0;
    for (int32_t sample : audio.samples)
        largest = std::max(largest, std::fabs(static_cast<double>(sample)));
    return 20.0 * std::log10(largest / full_scale);
}

}  // namespace

TEST_F(RenderFixture, SamplesOverFullScaleAreCountedPerChannelAsTheThirtyTwoBitWordsShow)
{
    const std::string in = Input("anti.wav", AntiphaseSine(kRate));
    const ProcessResult result = Render({"--mode", "asr", "--out-bits", "32", in, work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    const TestAudio rendered = ReadTestAudio(work.File("o.wav"));
    ASSERT_EQ(rendered.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_32);
    const std::map<std::string, uint64_t> wrapped = MostNegativeWords(rendered);
    ASSERT_GT(wrapped.count("SL"), 0u) << "the test signal must go over";
    EXPECT_GT(wrapped.at("SL"), 1000u);
    EXPECT_EQ(ReportedOvers(result.err), wrapped) << result.err;
    EXPECT_NE(result.err.find("suggested gain: --gain -"), std::string::npos) << result.err;
    // The summary's row of counts, in speaker order.
    std::string row = "  clipped   ";
    for (int c = 0; c < 6; ++c) {
        char cell[16];
        std::snprintf(cell, sizeof cell, "%7llu",
                      static_cast<unsigned long long>(wrapped.count(kSpeakers[c]) ? wrapped.at(kSpeakers[c]) : 0));
        row += cell;
    }
    EXPECT_NE(result.out.find(row), std::string::npos) << result.out;
    // And the peak before the conversion is above full scale.
    const std::regex peak("peak dBFS +[-0-9.]+ +[-0-9.]+ +[-0-9.inf]+ +[-0-9.inf]+ +([0-9.]+)");
    std::smatch match;
    ASSERT_TRUE(std::regex_search(result.out, match, peak)) << result.out;
    EXPECT_GT(std::stod(match[1]), 0.0);
}

TEST_F(RenderFixture, SixteenBitCountsAreTheSamplesBeyondTheSixteenBitRange)
{
    const std::string in = Input("anti.wav", AntiphaseSine(kRate / 2));
    ASSERT_EQ(Render({"-q", "--mode", "asr", "--out-bits", "32", in, work.File("o32.wav")}).status, 0);
    const ProcessResult result = Render({"--mode", "asr", in, work.File("o16.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    // From the 32-bit words, the float before the conversion, and whether
    // 0.85 of 16-bit full scale times it, truncated, leaves the 16-bit range.
    // A 32-bit word is that float truncated, so a sample within a step of
    // the limit may fall either way.
    const TestAudio deep = ReadTestAudio(work.File("o32.wav"));
    std::map<std::string, uint64_t> expected;
    for (int64_t i = 0; i < deep.Frames(); ++i)
        for (int c = 0; c < 6; ++c) {
            const int32_t word = deep.At(i, c);
            const double product = word / 1825361152.0 * 27852.80078125;
            if (word == INT32_MIN || product >= 32768.0 || product <= -32769.0)
                ++expected[kSpeakers[c]];
        }
    ASSERT_FALSE(expected.empty());
    const std::map<std::string, uint64_t> reported = ReportedOvers(result.err);
    ASSERT_EQ(reported.size(), expected.size()) << result.err;
    for (const auto& [speaker, count] : expected) {
        ASSERT_TRUE(reported.count(speaker)) << speaker;
        EXPECT_NEAR(static_cast<double>(reported.at(speaker)), static_cast<double>(count), 2.0) << speaker;
    }
}

TEST_F(RenderFixture, GainActsOnTheInputBeforeTheProcessor)
{
    const TestAudio input = StereoNoise(4000, 41, 32767);
    // -6.0206 dB is a gain of one half: the input goes to the processor in
    // 32-bit words of sample x 2^15, and in bypass at 32 bits leaves as
    // word / 2^31 x 0.707 x 0.85 of 2^31, truncated, step by step in
    // single precision.
    const ProcessResult result = Render({"-q", "--mode", "bypass", "--out-bits", "32", "--gain",
                                         "-6.020599913279624", Input("in.wav", input), work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    const TestAudio rendered = ReadTestAudio(work.File("o.wav"));
    ASSERT_EQ(rendered.Frames(), input.Frames());
    for (int64_t i = 0; i < input.Frames(); ++i)
        for (int c = 0; c < 2; ++c) {
            const int32_t word = input.At(i, c) * 32768;
            const float x = static_cast<float>(word) * 4.656612873077393e-10f;
            const float y = x * 0.707f;
            const float z = y * 1825361152.0f;
            ASSERT_EQ(rendered.At(i, c), static_cast<int32_t>(z)) << "frame " << i;
        }
}

TEST_F(RenderFixture, GainThatTakesTheInputPastFullScaleIsReported)
{
    const std::string in = Input("loud.wav", StereoNoise(3000, 42, 30000));
    const ProcessResult result = Render({"--mode", "bypass", "--gain", "6", in, work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.err.find("went over full scale with the gain"), std::string::npos) << result.err;
}

TEST_F(RenderFixture, NormalizeLeavesTheLargestLevelAtMinusATenthOfADecibel)
{
    const std::string in = Input("anti.wav", AntiphaseSine(kRate / 2));
    const ProcessResult result =
        Render({"--mode", "asr", "--normalize", "--out-bits", "32", in, work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    const TestAudio rendered = ReadTestAudio(work.File("o.wav"));
    EXPECT_EQ(MostNegativeWords(rendered), (std::map<std::string, uint64_t>{}));
    EXPECT_NEAR(PeakDbfs(rendered, 2147483648.0), -0.1, 0.05);
    EXPECT_EQ(result.err.find("clipped"), std::string::npos) << result.err;
    EXPECT_NE(result.out.find("gain before the processor: -"), std::string::npos) << result.out;

    // A quiet input is raised, as far as its own peak allows.
    const std::string quiet = Input("quiet.wav", AntiphaseSine(kRate / 2, 3276.7));
    ASSERT_EQ(Render({"-q", "--mode", "asr", "--normalize", "--out-bits", "32", quiet, work.File("q.wav")}).status, 0);
    EXPECT_NEAR(PeakDbfs(ReadTestAudio(work.File("q.wav")), 2147483648.0), -0.1, 0.05);
}

TEST_F(RenderFixture, FailOnClipExitsWithThreeAndWritesNothing)
{
    const std::string in = Input("anti.wav", AntiphaseSine(kRate / 4));
    const std::vector<std::string> before = FolderEntries(work.path);
    const ProcessResult clipped = Render({"--fail-on-clip", "--mode", "asr", in, work.File("o.wav")});
    EXPECT_EQ(clipped.status, 3);
    EXPECT_NE(clipped.err.find("clipped"), std::string::npos) << clipped.err;
    EXPECT_EQ(FolderEntries(work.path), before);
    // Lower, it does not clip, and the run succeeds.
    const ProcessResult lower = Render({"-q", "--fail-on-clip", "--gain", "-3", "--mode", "asr", in,
                                        work.File("o.wav")});
    EXPECT_EQ(lower.status, 0) << lower.err;
    EXPECT_EQ(lower.err, "");
    EXPECT_EQ(ReadTestAudio(work.File("o.wav")).Frames(), kRate / 4);
}
