// kelvane-render telling its user what happened: the settings in force and
// where each came from, saved values that the processor will not take as
// expected, -q and -v, the level report as SVG or PNG (read here with zlib,
// not with the program's code), and --help with the demo's mode names.
#include <map>
#include <regex>
#include <sstream>

#include <zlib.h>

#include "render_fixture.h"

namespace {

TestAudio AntiphaseTone(int64_t frames, double amplitude)
{
    TestAudio audio{kRate, 2, kStereo16, {}};
    for (int64_t i = 0; i < frames; ++i) {
        const int32_t value = static_cast<int32_t>(std::lround(amplitude * std::sin(2.0 * M_PI * 440.0 * i / kRate)));
        audio.samples.insert(audio.samples.end(), {value, -value});
    }
    return audio;
}

// An 8-bit RGB or RGBA PNG decoded: width, height and rows of pixels.
struct Png {
    uint32_t width = 0;
    uint32_t height = 0;
    int channels = 0;
    std::vector<uint8_t> pixels;  // rows of width x channels bytes
    const uint8_t* At(uint32_t x, uint32_t y) const { return &pixels[(y * width + x) * static_cast<uint32_t>(channels)]; }
};

uint32_t BigEndian32(const std::string& bytes, size_t at)
{
    return static_cast<uint32_t>(static_cast<uint8_t>(bytes[at])) << 24 |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 1])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 2])) << 8 | static_cast<uint8_t>(bytes[at + 3]);
}

Png DecodePng(const std::string& bytes)
{
    Png png;
    EXPECT_EQ(bytes.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
    std::string compressed;
    int bit_depth = 0, colour_type = 0;
    for (size_t at = 8; at + 12 <= bytes.size();) {
        const uint32_t length = BigEndian32(bytes, at);
        const std::string type = bytes.substr(at + 4, 4);
        if (type == "IHDR") {
            png.width = BigEndian32(bytes, at + 8);
            png.height = BigEndian32(bytes, at + 12);
            bit_depth = static_cast<uint8_t>(bytes[at + 16]);
            colour_type = static_cast<uint8_t>(bytes[at + 17]);
        } else if (type == "IDAT") {
            compressed += bytes.substr(at + 8, length);
        }
        at += 12 + length;
    }
    EXPECT_EQ(bit_depth, 8);
    png.channels = colour_type == 6 ? 4 : 3;
    EXPECT_TRUE(colour_type == 2 || colour_type == 6) << colour_type;
    const size_t stride = png.width * static_cast<size_t>(png.channels);
    std::vector<uint8_t> raw((stride + 1) * png.height);
    uLongf raw_size = raw.size();
    EXPECT_EQ(uncompress(raw.data(), &raw_size, reinterpret_cast<const Bytef*>(compressed.data()), compressed.size()),
              Z_OK);
    png.pixels.assign(stride * png.height, 0);
    // Undo each row's filter: none, sub, up, average, Paeth.
    const size_t bpp = static_cast<size_t>(png.channels);
    for (uint32_t y = 0; y < png.height; ++y) {
        const uint8_t filter = raw[y * (stride + 1)];
        const uint8_t* in = &raw[y * (stride + 1) + 1];
        uint8_t* out = &png.pixels[y * stride];
        const uint8_t* up = y > 0 ? &png.pixels[(y - 1) * stride] : nullptr;
        for (size_t i = 0; i < stride; ++i) {
            const int a = i >= bpp ? out[i - bpp] : 0;
            const int b = up != nullptr ? up[i] : 0;
            const int c = (i >= bpp && up != nullptr) ? up[i - bpp] : 0;
            int predicted = 0;
            switch (filter) {
            case 1: predicted = a; break;
            case 2: predicted = b; break;
            case 3: predicted = (a + b) / 2; break;
            case 4: {
                const int p = a + b - c;
                const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
                predicted = (pa <= pb && pa <= pc) ? a : (pb <= pc ? b : c);
                break;
            }
            default: break;
            }
            out[i] = static_cast<uint8_t>(in[i] + predicted);
        }
    }
    return png;
}

bool IsRed(const uint8_t* pixel)
{
    return pixel[0] > 200 && pixel[1] < 60 && pixel[2] < 60;
}

}  // namespace

TEST_F(RenderFixture, SummaryNamesTheModeAndEverySettingWithWhereItCameFrom)
{
    SaveSettings("\"Mode\"=dword:00000000\n\"Surround_Delay\"=dword:0000001e\n");
    const ProcessResult result =
        Render({"--centre-trim", "-6", Input("in.wav", StereoNoise(3000, 71)), work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    const std::string& out = result.out;
    EXPECT_NE(out.find("saved ones from " + config.File("Morrowfen/Kelvane.reg")), std::string::npos) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("\\n  Mode +0  saved: bypass, Bypass\\n"))) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("\\n  Surround_Delay +30  saved\\n"))) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("\\n  Centre_Trim +-6  option\\n"))) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("\\n  Bass_Redir +120  default\\n"))) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("\\n  Out_Bits +16  the input\\n"))) << out;
    for (const char* name : {"Centre_Width", "Surround_Trim_00", "Bass_Redir_Enable", "Bass_Trim", "Bass_Invert",
                             "Virtual_C", "L", "R", "C", "SL", "SR"})
        EXPECT_TRUE(std::regex_search(out, std::regex(std::string("\\n  ") + name + " +-?[0-9]+  (default|saved|option)")))
            << name;
    EXPECT_EQ(result.err, "");
}

TEST_F(RenderFixture, SavedValuesThatTheProcessorWillNotTakeAreNamedWithTheFile)
{
    SaveSettings("\"Mode\"=dword:00000009\n\"Out_Bits\"=dword:00000014\n");
    const std::string file = config.File("Morrowfen/Kelvane.reg");
    const ProcessResult result = Render({Input("in.wav", StereoNoise(2000, 72)), work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.err.find("the saved Mode 9 in " + file), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("the saved Out_Bits 20 in " + file), std::string::npos) << result.err;
    // The output follows the input instead of Out_Bits 20.
    EXPECT_EQ(ReadTestAudio(work.File("o.wav")).format, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16);

    std::ofstream(file, std::ios::binary | std::ios::trunc) << "this is no settings file\n";
    const ProcessResult unreadable = Render({Input("in.wav", StereoNoise(2000, 72)), work.File("o.wav")});
    ASSERT_EQ(unreadable.status, 0) << unreadable.err;
    EXPECT_NE(unreadable.err.find("the saved settings in " + file + " cannot be read"), std::string::npos)
        << unreadable.err;
}

TEST_F(RenderFixture, QuietPrintsNothingButErrors)
{
    const std::string in = Input("anti.wav", AntiphaseTone(6000, 32767.0));
    // Clipping is reported, but not under -q.
    const ProcessResult loud = Render({"--mode", "asr", in, work.File("o.wav")});
    ASSERT_EQ(loud.status, 0);
    EXPECT_NE(loud.err.find("clipped"), std::string::npos);
    const ProcessResult quiet = Render({"-q", "--mode", "asr", in, work.File("o.wav")});
    EXPECT_EQ(quiet.status, 0);
    EXPECT_EQ(quiet.out, "");
    EXPECT_EQ(quiet.err, "");
    // An error still shows.
    const ProcessResult failed = Render({"-q", work.File("none.wav"), work.File("o.wav")});
    EXPECT_NE(failed.status, 0);
    EXPECT_NE(failed.err.find("cannot read input"), std::string::npos);
}

TEST_F(RenderFixture, VerboseAddsThePlayersCallsAndThePlugInsInUse)
{
    const std::string in = Input("in.wav", StereoNoise(2000, 73));
    const ProcessResult result = Render({"-v", "--mode", "asr", in, work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    const std::vector<std::string> lines = {"player: processor " + PluginPath(), "player: writer " + OutWavPath(),
                                            "player: Init", "player: Open 44100 Hz, 2 channels of 16 bits",
                                            "player: Close", "player: Quit"};
    for (const std::string& line : lines)
        EXPECT_NE(result.err.find(line), std::string::npos) << line << "\n" << result.err;
    const ProcessResult normal = Render({"--mode", "asr", in, work.File("o.wav")});
    EXPECT_EQ(normal.err.find("player:"), std::string::npos) << normal.err;
}

TEST_F(RenderFixture, ReportAsPngMarksFileBoundariesAndTheClippedSamples)
{
    const std::string quiet = Input("quiet.wav", AntiphaseTone(2 * kRate, 3000.0));
    const std::string loud = Input("loud.wav", AntiphaseTone(2 * kRate, 32767.0));
    const ProcessResult result = Render({"-q", "--mode", "asr", "--report", work.File("levels.PNG"), quiet, loud,
                                         work.File("o.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    const Png png = DecodePng(ReadWholeFile(work.File("levels.PNG")));
    ASSERT_GT(png.width, 800u);
    ASSERT_GT(png.height, 7u * 70u);
    // The picture spans the two files equally (both 2 s): red in the right
    // half only, in the SL and SR lanes (the sixth and seventh), nowhere
    // in the left half.
    int red_left = 0, red_right = 0;
    uint32_t lowest_red = png.height, highest_red = 0;
    const uint32_t middle = 70 + 400;
    for (uint32_t y = 0; y < png.height; ++y)
        for (uint32_t x = 70; x < 870 && x < png.width; ++x)
            if (IsRed(png.At(x, y))) {
                (x < middle - 3 ? red_left : red_right) += 1;
                lowest_red = std::min(lowest_red, y);
                highest_red = std::max(highest_red, y);
            }
    EXPECT_EQ(red_left, 0);
    EXPECT_GT(red_right, 100);
    EXPECT_GT(lowest_red, 48u + 5u * 82u - 1);   // below the LFE lane
    // The boundary: a dark line at the middle, through the lanes.
    int dark = 0;
    for (uint32_t y = 48; y < 48 + 7 * 82; ++y)
        for (uint32_t x = middle - 2; x <= middle + 2; ++x)
            dark += png.At(x, y)[0] < 80 && png.At(x, y)[1] < 80 && png.At(x, y)[2] < 80;
    EXPECT_GT(dark, 7 * 70);
}

TEST_F(RenderFixture, ReportAsSvgNamesEachFileOnItsOwnTimeAxis)
{
    TestAudio low = StereoNoise(22050, 74);
    low.rate = 22050;
    const std::string a = Input("first.wav", StereoNoise(kRate, 75));
    const std::string b = Input("second.wav", low);
    const ProcessResult result = Render({"-q", "--report", work.File("levels.svg"), "-o", work.File("out"), a, b});
    ASSERT_EQ(result.status, 0) << result.err;
    const std::string svg = ReadWholeFile(work.File("levels.svg"));
    EXPECT_NE(svg.find(">first.wav<"), std::string::npos);
    EXPECT_NE(svg.find(">second.wav<"), std::string::npos);
    // Each file's scale starts at 0 s; both last one second, at their own
    // rates, so no mark reaches 1 s.
    size_t zeros = 0;
    double latest = 0.0;
    const std::regex mark(">([0-9.]+) s<");
    for (std::sregex_iterator it(svg.begin(), svg.end(), mark), end; it != end; ++it) {
        zeros += std::string((*it)[1]) == "0";
        latest = std::max(latest, std::stod((*it)[1]));
    }
    EXPECT_EQ(zeros, 2u);
    EXPECT_GT(latest, 0.0);
    EXPECT_LT(latest, 1.0);
    EXPECT_EQ(svg.find("#e00000"), std::string::npos) << "nothing clipped";
    for (const char* lane : {">input<", ">L<", ">R<", ">C<", ">LFE<", ">SL<", ">SR<"})
        EXPECT_NE(svg.find(lane), std::string::npos) << lane;
}

TEST_F(RenderFixture, HelpGivesDefaultsTheSettingsFileExitCodesAndLimits)
{
    const ProcessResult help = Render({"--help"}, false);
    ASSERT_EQ(help.status, 0);
    const std::string& text = help.out;
    EXPECT_NE(text.find(config.File("Morrowfen/Kelvane.reg")), std::string::npos) << text;
    EXPECT_NE(text.find("[asr]"), std::string::npos);
    EXPECT_NE(text.find("Exit status: 0 done, 1 failed"), std::string::npos);
    EXPECT_NE(text.find("3 clipped with --fail-on-clip"), std::string::npos);
    EXPECT_NE(text.find("Limits:"), std::string::npos);
    EXPECT_NE(text.find("44100 to 48000 Hz"), std::string::npos);
    // The demo names the modes as --help does.
    const ProcessResult demo = Render({"--demo", work.File("demo"), "--mode", "bypass"});
    ASSERT_EQ(demo.status, 0) << demo.err;
    const std::regex row("\\n([0-5]) ([a-z+]+) ");
    int rows = 0;
    for (std::sregex_iterator it(demo.out.begin(), demo.out.end(), row), end; it != end; ++it, ++rows)
        EXPECT_NE(text.find(std::string((*it)[1]) + " " + std::string((*it)[2])), std::string::npos) << (*it)[0];
    EXPECT_GT(rows, 0) << demo.out;
    const ProcessResult all = Render({"--demo", work.File("demo")});
    for (const char* name : {"0 bypass", "1 kelvane+c", "2 as", "3 asr", "4 headphone", "5 encode"}) {
        EXPECT_NE(all.out.find(std::string("\n") + name + " "), std::string::npos) << name;
        EXPECT_NE(text.find(name), std::string::npos) << name;
    }
}
