// kelvane-render as a user gets it: installed by `cmake --install` into a
// prefix, run from $PATH, finding its plug-ins there; its manual page; and
// every example of the README's renderer section, run as written.
#include <regex>
#include <sstream>

#include "render_fixture.h"

namespace {

// The files that the README's examples name, made in `folder`.
void MakeExampleInputs(const TempFolder& folder)
{
    TestAudio song{kRate, 2, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, Noise16(2 * 20000, 9000, 81)};
    WriteTestAudio(folder.File("song.flac"), song);
    WriteTestAudio(folder.File("a.flac"), Slice(song, 0, 9000));
    WriteTestAudio(folder.File("b.flac"), Slice(song, 9000, 11000));
    WriteTestAudio(folder.File("surround.wav"),
                   TestAudio{kRate, 6, SF_FORMAT_WAVEX | SF_FORMAT_PCM_24, Noise16(6 * 8000, 9000, 82)});
    WriteTestAudio(folder.File("film-7.1.flac"),
                   TestAudio{48000, 8, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, Noise16(8 * 8000, 6000, 83)});
    WriteTestAudio(folder.File("voice.wav"), TestAudio{22050, 1, kStereo16, Noise16(6000, 9000, 84)});
}

// The example commands of the README's renderer section: its indented
// lines that run kelvane-render, without their comments.
std::vector<std::string> ReadmeExamples()
{
    const std::string readme = ReadWholeFile(std::string(KELVANE_TEST_SOURCE_DIR) + "/README.md");
    const size_t start = readme.find("## Rendering files on Linux");
    const size_t end = readme.find("\n## ", start + 1);
    EXPECT_NE(start, std::string::npos);
    std::istringstream lines(readme.substr(start, end - start));
    std::vector<std::string> examples;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("    ", 0) != 0 || line.find("kelvane-render") == std::string::npos)
            continue;
        const size_t comment = line.find("  #");
        examples.push_back(line.substr(4, comment == std::string::npos ? std::string::npos : comment - 4));
    }
    return examples;
}

std::string ProgramFolderOf(const std::string& path)
{
    return path.substr(0, path.rfind('/'));
}

std::string FindUnder(const std::string& folder, const std::string& name)
{
    const ProcessResult found = RunProgram({"/usr/bin/find", folder, "-name", name});
    const std::string path = found.out.substr(0, found.out.find('\n'));
    return path;
}

}  // namespace

TEST_F(RenderFixture, InstallPutsTheRendererAndItsPlugInsInAPrefixWhereTheyFindEachOther)
{
    TempFolder prefix;
    const ProcessResult install =
        RunProgram({KELVANE_TEST_CMAKE, "--install", KELVANE_TEST_BUILD_DIR, "--prefix", prefix.path});
    ASSERT_EQ(install.status, 0) << install.out << install.err;
    EXPECT_EQ(ReadWholeFile(prefix.File("bin/kelvane-render")).substr(1, 3), "ELF");
    const std::string processor = FindUnder(prefix.path, "out_kelvane.so");
    const std::string writer = FindUnder(prefix.path, "out_wav.so");
    ASSERT_FALSE(processor.empty()) << install.out;
    ASSERT_FALSE(writer.empty()) << install.out;
    EXPECT_EQ(ProgramFolderOf(processor), ProgramFolderOf(writer));
    EXPECT_FALSE(FindUnder(prefix.path, "kelvane-render.1").empty());

    // From $PATH, with nothing to point it at its plug-ins.
    const std::string in = Input("in.wav", StereoNoise(3000, 85));
    std::vector<std::pair<std::string, std::string>> env = Environment();
    env.emplace_back("PATH", prefix.File("bin") + ":/usr/bin:/bin");
    const ProcessResult run =
        RunProgram({"/bin/sh", "-c", "kelvane-render -v --mode asr '" + in + "' '" + work.File("o.wav") + "'"}, env);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.err.find("player: processor " + processor), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("player: writer " + writer), std::string::npos) << run.err;
    EXPECT_EQ(ReadTestAudio(work.File("o.wav")).Frames(), 3000);
}

TEST_F(RenderFixture, TheManualPageHasEveryOptionOfHelp)
{
    const std::string page = ReadWholeFile(std::string(KELVANE_TEST_SOURCE_DIR) + "/hosts/render/kelvane-render.1");
    ASSERT_FALSE(page.empty());
    EXPECT_EQ(page.rfind(".TH KELVANE-RENDER 1", 0), 0u);
    const ProcessResult help = Render({"--help"}, false);
    const std::regex option("(^|[ ,])(--?[a-z][a-z0-9-]*)");
    int options = 0;
    for (std::sregex_iterator it(help.out.begin(), help.out.end(), option), end; it != end; ++it) {
        // In the page a minus sign is written \-.
        const std::string name = std::regex_replace(std::string((*it)[2]), std::regex("-"), "\\-");
        EXPECT_NE(page.find(name), std::string::npos) << (*it)[2];
        ++options;
    }
    EXPECT_GT(options, 30);
    for (const char* topic : {"EXIT STATUS", "FILES", "Kelvane.reg", "ENVIRONMENT", "KELVANE_PLUGIN"})
        EXPECT_NE(page.find(topic), std::string::npos) << topic;
}

TEST_F(RenderFixture, EveryExampleOfTheReadmeRunsAsWritten)
{
    const std::vector<std::string> examples = ReadmeExamples();
    ASSERT_GE(examples.size(), 6u);
    for (const std::string& example : examples) {
        TempFolder folder;
        MakeExampleInputs(folder);
        std::vector<std::pair<std::string, std::string>> env = Environment();
        env.emplace_back("PATH", ProgramFolderOf(RenderPath()) + ":/usr/bin:/bin");
        const ProcessResult result = RunProgram({"/bin/sh", "-c", "cd '" + folder.path + "' && " + example}, env);
        EXPECT_EQ(result.status, 0) << example << "\n" << result.err;
        // Each example but --help leaves something beside the six inputs.
        if (example.find("--help") == std::string::npos) {
            EXPECT_GT(FolderEntries(folder.path).size(), 6u) << example;
        }
    }
}
