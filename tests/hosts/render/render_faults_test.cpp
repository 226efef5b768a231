// The renderer when the world will not play along: a full disk under the
// output or under its work folder, an input that disappears or changes while
// it is read, an unreadable input among several; and the renderer refusing
// what would make it a faulty host of the processor: a writer that is the
// processor itself, a saved negative surround delay, an input of no
// channels. Each failure says what and why in one line, ends non-zero and
// leaves no partial output; files that do not depend on the failed one are
// done all the same.
#include <csignal>
#include <functional>

#include "hosts/render/render_options.h"
#include "render_fixture.h"
#include "tests/support/scratch_disk.h"

namespace {

// Two seconds of stereo noise.
constexpr int64_t kShortFrames = 2 * kRate;

struct RenderFaults : RenderFixture {
    ScratchDisk disk;

    void TearDown() override { disk.Unmount(); }

    // A small disk of the test's own at `folder`; empty, or why no disk
    // can be mounted here.
    std::string MountSmallDisk(const std::string& folder, size_t bytes)
    {
        std::string why;
        disk.Mount(folder, bytes, why);
        return why;
    }

    // The renderer started with -v, its standard error a pipe: stopped as
    // soon as it says that it opened the processor for `input`, so that the
    // test can pull the input away in mid-read, then let go again. The
    // result of the whole run.
    ProcessResult RenderAndInterfere(std::vector<std::string> args, const std::string& input,
                                     const std::function<void()>& interfere) const
    {
        args.insert(args.begin(), {RenderPath(), "-y", "-v", "--plugin", PluginPath(), "--out-wav", OutWavPath()});
        int pipe_ends[2];
        EXPECT_EQ(pipe(pipe_ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            dup2(pipe_ends[1], STDERR_FILENO);
            close(pipe_ends[0]);
            close(pipe_ends[1]);
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, STDOUT_FILENO);
            ExecProgram(args, Environment());
        }
        close(pipe_ends[1]);
        ProcessResult result;
        bool done = false;
        char chunk[4096];
        for (;;) {
            const ssize_t got = read(pipe_ends[0], chunk, sizeof chunk);
            if (got <= 0)
                break;
            result.err.append(chunk, static_cast<size_t>(got));
            if (!done && result.err.find("player: Open ") != std::string::npos &&
                result.err.find(input, result.err.find("player: Open ")) != std::string::npos) {
                kill(child, SIGSTOP);
                interfere();
                kill(child, SIGCONT);
                done = true;
            }
        }
        close(pipe_ends[0]);
        int code = 0;
        waitpid(child, &code, 0);
        result.status = WIFEXITED(code) ? WEXITSTATUS(code) : 128 + WTERMSIG(code);
        EXPECT_TRUE(done) << result.err;
        return result;
    }
};

// The lines of standard error that are the renderer's own error messages.
std::vector<std::string> ErrorLines(const std::string& err)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < err.size()) {
        size_t end = err.find('\n', start);
        if (end == std::string::npos)
            end = err.size();
        const std::string line = err.substr(start, end - start);
        if (line.rfind("kelvane-render: ", 0) == 0 && line.find("player: ") == std::string::npos &&
            line.find("warning: ") == std::string::npos && line.find("note: ") == std::string::npos)
            lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

TEST_F(RenderFaults, FullOutputDisk_TheReasonNonZeroAndNothingLeftOnIt)
{
    const std::string full = work.File("full");
    if (const std::string why = MountSmallDisk(full, 256 * 1024); !why.empty())
        GTEST_SKIP() << why;
    const std::string input = Input("in.wav", StereoNoise(kShortFrames, 11));
    // Six channels of two seconds are about 1 MB: more than the disk holds.
    const ProcessResult result = Render({"-q", input, full + "/out.wav"});
    EXPECT_EQ(result.status, kExitFailure);
    EXPECT_NE(result.err.find(full + "/out.wav"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("No space left on device"), std::string::npos) << result.err;
    EXPECT_EQ(FolderEntries(full), std::vector<std::string>{});
}

TEST_F(RenderFaults, FullWorkDisk_TheWriterRefusesNonZeroAndNoOutput)
{
    // The processor's output goes through out_wav's pieces in the work
    // folder, under TMPDIR; here that disk is full from the start.
    const std::string full = work.File("tmp");
    if (const std::string why = MountSmallDisk(full, 64 * 1024); !why.empty())
        GTEST_SKIP() << why;
    disk.Fill();
    const std::string input = Input("in.wav", StereoNoise(kShortFrames, 12));
    std::vector<std::string> args = {RenderPath(), "-y", "-q", "--plugin", PluginPath(), "--out-wav", OutWavPath(),
                                     input, work.File("out.wav")};
    auto env = Environment();
    env.emplace_back("TMPDIR", full);
    const ProcessResult result = RunProgram(args, env);
    EXPECT_EQ(result.status, kExitFailure);
    EXPECT_EQ(ErrorLines(result.err).size(), 1u) << result.err;
    EXPECT_EQ(FolderEntries(work.path), (std::vector<std::string>{"in.wav", "tmp"}));
    EXPECT_EQ(FolderEntries(full), std::vector<std::string>{"filler"});
}

TEST_F(RenderFaults, InputRemovedWhileItIsRead_TheReasonNonZeroAndNoOutput)
{
    // A minute of audio, so that the renderer is still reading it when the
    // test has stopped it.
    const std::string input = Input("long.wav", StereoNoise(60 * kRate, 13));
    const ProcessResult result = RenderAndInterfere({"--mode", "bypass", input, work.File("out.wav")}, input,
                                                    [&] { std::remove(input.c_str()); });
    EXPECT_EQ(result.status, kExitFailure);
    const std::vector<std::string> errors = ErrorLines(result.err);
    ASSERT_EQ(errors.size(), 1u) << result.err;
    EXPECT_EQ(errors[0], "kelvane-render: input " + input +
                             " disappeared while it was being read: No such file or directory");
    EXPECT_EQ(FolderEntries(work.path), std::vector<std::string>{});
}

TEST_F(RenderFaults, InputCutShortWhileItIsRead_TheReasonNonZeroAndNoOutput)
{
    const std::string input = Input("long.wav", StereoNoise(60 * kRate, 14));
    const ProcessResult result = RenderAndInterfere({"--mode", "bypass", input, work.File("out.wav")}, input,
                                                    [&] { EXPECT_EQ(truncate(input.c_str(), 4096), 0); });
    EXPECT_EQ(result.status, kExitFailure);
    const std::vector<std::string> errors = ErrorLines(result.err);
    ASSERT_EQ(errors.size(), 1u) << result.err;
    EXPECT_EQ(errors[0], "kelvane-render: input " + input + " changed while it was being read");
    EXPECT_EQ(FolderEntries(work.path), std::vector<std::string>{"long.wav"});
}

TEST_F(RenderFaults, UnreadableInputAmongSeveral_TheOthersAreDoneAndTheRunFails)
{
    const std::string a = Input("a.wav", StereoNoise(kShortFrames, 15));
    const std::string broken = work.File("broken.wav");
    std::ofstream(broken, std::ios::binary) << "RIFF, but not a sound file at all";
    const std::string b = Input("b.wav", StereoNoise(kShortFrames, 16));
    const std::string out = work.File("out");

    const ProcessResult result = Render({"-q", "--mode", "as", "-o", out, a, broken, b});
    EXPECT_EQ(result.status, kExitFailure);
    const std::vector<std::string> errors = ErrorLines(result.err);
    ASSERT_EQ(errors.size(), 1u) << result.err;
    EXPECT_EQ(errors[0].rfind("kelvane-render: cannot read input " + broken + ": ", 0), 0u) << errors[0];
    EXPECT_NE(errors[0].find("(the other inputs are rendered)"), std::string::npos) << errors[0];

    // The two others, each as it comes out when rendered alone.
    EXPECT_EQ(FolderEntries(out), (std::vector<std::string>{"a.wav", "b.wav"}));
    for (const char* name : {"a", "b"}) {
        const std::string alone = work.File(std::string(name) + "-alone.wav");
        ASSERT_EQ(Render({"-q", "--mode", "as", work.File(std::string(name) + ".wav"), alone}).status, 0);
        EXPECT_EQ(ReadTestAudio(out + "/" + name + ".wav").samples, ReadTestAudio(alone).samples) << name;
    }
}

TEST_F(RenderFaults, WriterThatIsTheProcessorItself_Refused)
{
    const std::string input = Input("in.wav", StereoNoise(kShortFrames, 17));
    const ProcessResult result = RunProgram(
        {RenderPath(), "-y", "--plugin", PluginPath(), "--out-wav", PluginPath(), input, work.File("out.wav")},
        Environment());
    EXPECT_EQ(result.status, kExitFailure);
    const std::vector<std::string> errors = ErrorLines(result.err);
    ASSERT_EQ(errors.size(), 1u) << result.err;
    EXPECT_EQ(errors[0], "kelvane-render: the output plug-in " + PluginPath() +
                             " is the processor itself: --out-wav names out_wav.so");
    EXPECT_EQ(FolderEntries(work.path), std::vector<std::string>{"in.wav"});
}

TEST_F(RenderFaults, NegativeSavedSurroundDelay_RefusedUnlessTheOptionGivesOne)
{
    SaveSettings("\"Surround_Delay\"=dword:fffffffb\n");  // -5
    const std::string input = Input("in.wav", StereoNoise(kShortFrames, 18));
    const ProcessResult refused = Render({"-q", input, work.File("out.wav")});
    EXPECT_EQ(refused.status, kExitFailure);
    const std::vector<std::string> errors = ErrorLines(refused.err);
    ASSERT_EQ(errors.size(), 1u) << refused.err;
    EXPECT_EQ(errors[0], "kelvane-render: the saved Surround_Delay -5 in " + config.File("Morrowfen/Kelvane.reg") +
                             " is negative: give 0 to 100 ms with --surround-delay, or correct the file");
    EXPECT_EQ(FolderEntries(work.path), std::vector<std::string>{"in.wav"});

    // A delay given on the command line stands in for the saved one.
    EXPECT_EQ(Render({"-q", "--surround-delay", "20", input, work.File("out.wav")}).status, 0);
}

TEST_F(RenderFaults, InputOfNoChannels_Refused)
{
    // A WAV header that states no channels, with a little data behind it.
    std::string header = "RIFF";
    auto put32 = [&](uint32_t v) { for (int i = 0; i < 4; ++i) header += char((v >> (8 * i)) & 0xFF); };
    auto put16 = [&](uint16_t v) { for (int i = 0; i < 2; ++i) header += char((v >> (8 * i)) & 0xFF); };
    put32(36 + 16);
    header += "WAVEfmt ";
    put32(16);
    put16(1);       // PCM
    put16(0);       // no channels
    put32(44100);
    put32(0);
    put16(0);
    put16(16);
    header += "data";
    put32(16);
    header += std::string(16, '\0');
    const std::string input = work.File("none.wav");
    std::ofstream(input, std::ios::binary) << header;

    const ProcessResult result = Render({"-q", input, work.File("out.wav")});
    EXPECT_EQ(result.status, kExitFailure);
    const std::vector<std::string> errors = ErrorLines(result.err);
    ASSERT_EQ(errors.size(), 1u) << result.err;
    EXPECT_EQ(errors[0].rfind("kelvane-render: ", 0), 0u);
    EXPECT_NE(errors[0].find(input), std::string::npos) << errors[0];
    EXPECT_EQ(FolderEntries(work.path), std::vector<std::string>{"none.wav"});
}

}  // namespace
