// Faults of the chained output plug-in: a Write that refuses, an Open that
// fails, a library that cannot be loaded or has no export, an output that
// takes its time over every call. The plug-in passes results through as
// they are, keeps no queue and makes no retry of its own, answers a failed
// load with its message and -1 and tries again at the next Open, and loses
// none of the frames that the convolver holds back, which only a reset may
// let go.
#include <chrono>

#include "tests/shell/plugin_host.h"

namespace {

constexpr int kHeadphone = 4;
constexpr int kBypass = 0;
constexpr int kBlock = 8192;          // the convolver's block, in frames
constexpr int kOutFrameBytes16 = 12;  // six channels of 16 bits

class ChainedFaults : public PluginHost {
protected:
    // The bytes that the convolver lets out for the first 8192 frames of the
    // signal written as 3000 frames and then the rest, from a reset engine,
    // with every call of the chained plug-in accepted.
    std::vector<uint8_t> ReferenceBlock(const std::string& recorder)
    {
        module->Flush(0);
        Replies().write = 0;
        Write(TwoTones(0, 3000));
        Write(TwoTones(3000, kBlock - 3000));
        return LastWrite(recorder);
    }
};

TEST_F(ChainedFaults, WriteRefused_ResultBackAndTheBlockNotSentAgain)
{
    Start(RecorderSettings(kBypass, 16));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    Replies().write = 7;
    EXPECT_EQ(Write(TwoTones(0, 1152)), 7);
    Replies().write = 0;
    EXPECT_EQ(Write(TwoTones(1152, 1152)), 0);

    // No queue and no retry: the second block goes on alone, the first is
    // gone from the plug-in's point of view.
    const auto writes = CallsOf("a", "Write");
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[1].bytes, BypassOutput(Words16(TwoTones(1152, 1152)), 16));
}

TEST_F(ChainedFaults, WriteRefusedInHeadphone_HeldFramesStillComeOut)
{
    Start(RecorderSettings(kHeadphone, 16));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    Replies().write = -1;
    EXPECT_EQ(Write(TwoTones(0, 3000)), -1);
    EXPECT_EQ(CallsOf("a", "Write").back().args[0], 0);
    Replies().write = 0;
    EXPECT_EQ(Write(TwoTones(3000, kBlock - 3000)), 0);
    const std::vector<uint8_t> released = LastWrite();
    ASSERT_EQ(released.size(), size_t(kBlock * kOutFrameBytes16));

    // The refusal changed nothing in the engine: the block is the one that
    // an accepted write would have given.
    EXPECT_EQ(released, ReferenceBlock("a"));
}

TEST_F(ChainedFaults, ChainedOpenFails_ResultBackAndHeldFramesKeptForTheNextStream)
{
    Start(RecorderSettings(kHeadphone, 16));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    Write(TwoTones(0, 3000));
    module->Close();

    Replies().open = -3;
    EXPECT_EQ(module->Open(44100, 2, 16, 0, 0), -3);
    EXPECT_EQ(Stderr(), "");  // the plug-in tells of no chained failure
    Replies().open = 0;
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    Write(TwoTones(3000, kBlock - 3000));
    const std::vector<uint8_t> released = LastWrite();
    ASSERT_EQ(released.size(), size_t(kBlock * kOutFrameBytes16));
    EXPECT_EQ(released, ReferenceBlock("a"));
    // One load served all three Opens.
    EXPECT_EQ(CallsOf("a", "load").size(), 1u);
}

TEST_F(ChainedFaults, NewLibraryGoneAtOpen_MessageMinusOneThenRetryLoadsItAndHeldFramesSurvive)
{
    Start(RecorderSettings(kHeadphone, 16));
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    Write(TwoTones(0, 3000));
    module->Close();

    // The user picks a new output, which is then taken away before the next
    // Open: the old library is let go, the new one does not load.
    const fs::path chosen = root / "outputs" / "out_chosen.so";
    fs::create_directories(chosen.parent_path());
    fs::copy_file(RECORDER_B_PATH, chosen);
    PickFile(Widen(chosen.string()).c_str());
    fs::remove(chosen);
    EXPECT_EQ(module->Open(44100, 2, 16, 0, 0), -1);
    ExpectOneFailureBox("Failed to open output plugin");
    EXPECT_EQ(CallsOf("a", "unload").size(), 1u);
    EXPECT_TRUE(CallsOf("b", "Open").empty());

    // It comes back; the next Open tries again, and the frames held since
    // the first stream come out through it.
    fs::copy_file(RECORDER_B_PATH, chosen);
    ASSERT_EQ(module->Open(44100, 2, 16, 0, 0), 0);
    ASSERT_EQ(CallsOf("b", "Open").size(), 1u);
    Write(TwoTones(3000, kBlock - 3000));
    const std::vector<uint8_t> released = LastWrite("b");
    ASSERT_EQ(released.size(), size_t(kBlock * kOutFrameBytes16));
    EXPECT_EQ(released, ReferenceBlock("b"));
}

TEST_F(ChainedFaults, LibraryWithoutExportInTheSettings_OpenFaultsTheProcess)
{
    // Only the dialog tests for the export, and it never stores such a path;
    // a settings file edited by hand to hold one makes Open call through a
    // null address: that is how it is meant.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Start(RecorderSettings(kBypass, 16, NO_EXPORT_PATH));
    EXPECT_DEATH(module->Open(44100, 2, 16, 0, 0), "");
}

TEST_F(ChainedFaults, SlowChainedPlugin_EveryCallWaitsForItsAnswerAndNothingIsLostOrSentTwice)
{
    using Clock = std::chrono::steady_clock;
    constexpr int kDelayMs = 30;
    Start(RecorderSettings(kBypass, 16));
    Replies().delayMs = kDelayMs;
    Replies().write = 2;
    Replies().canWrite = 65536;

    auto timed = [](auto call) {
        const auto start = Clock::now();
        call();
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    };
    int opened = -1;
    EXPECT_GE(timed([&] { opened = module->Open(44100, 2, 16, 0, 0); }), kDelayMs);
    EXPECT_EQ(opened, 0);
    std::vector<std::vector<uint8_t>> expected;
    for (int block = 0; block < 4; ++block) {
        int result = -1;
        const std::vector<uint8_t> pcm = TwoTones(block * 576, 576);
        EXPECT_GE(timed([&] { result = Write(pcm); }), kDelayMs);
        EXPECT_EQ(result, 2);
        expected.push_back(BypassOutput(Words16(pcm), 16));
    }
    int room = 0;
    EXPECT_GE(timed([&] { room = module->CanWrite(); }), kDelayMs);
    EXPECT_EQ(room, 65536);
    EXPECT_GE(timed([&] { module->Flush(250); }), kDelayMs);
    EXPECT_GE(timed([&] { module->Close(); }), kDelayMs);

    const auto writes = CallsOf("a", "Write");
    ASSERT_EQ(writes.size(), expected.size());
    for (size_t w = 0; w < writes.size(); ++w)
        EXPECT_EQ(writes[w].bytes, expected[w]) << "write " << w;
    EXPECT_EQ(CallOrder(), (std::vector<std::string>{"a.load", "a.Open", "a.Write", "a.Write", "a.Write", "a.Write",
                                                     "a.CanWrite", "a.Flush", "a.Close"}));
}

}  // namespace
