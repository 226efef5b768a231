// The dialog on the host's interface thread while the host's playing thread
// opens, writes and closes, as a host runs them. What the two threads share
// on purpose is plain words read anew at every use: the settings, the reset
// request, the stream words that the status text shows. Everything else
// (the engine, its blocks, the chained record) belongs to the playing thread
// alone. Under ThreadSanitizer (the tsan preset) a race on anything but the
// shared words fails these tests.
#include <atomic>
#include <thread>

#include "settings/control_table.h"
#include "tests/shell/plugin_host.h"

namespace {

constexpr uintptr_t kPlay = 40045;
constexpr uintptr_t kStop = 40047;
constexpr int kBlockFrames = 1152;
constexpr int kOutFrameBytes16 = 12;  // six channels of 16 bits

class ThreadedHost : public PluginHost {
protected:
    // The playing thread: streams of `writesPerStream` writes, each opened
    // and closed, until told to stop. Counts what it wrote.
    void StartPlaying(int writesPerStream)
    {
        player = std::thread([this, writesPerStream] {
            while (!stop.load()) {
                if (module->Open(44100, 2, 16, 500, 0) < 0) {
                    failedOpens.fetch_add(1);
                    return;
                }
                for (int w = 0; w < writesPerStream && !stop.load(); ++w) {
                    std::vector<uint8_t> block = TwoTones(w * kBlockFrames, kBlockFrames);
                    if (module->Write(reinterpret_cast<char*>(block.data()), int(block.size())) != 0)
                        refusedWrites.fetch_add(1);
                    hostWrites.fetch_add(1);
                }
                module->Close();
            }
        });
    }

    void StopPlaying()
    {
        stop.store(true);
        if (player.joinable())
            player.join();
    }

    // Lets the playing thread get on by a few writes between two user
    // actions, so that every action falls among writes.
    void LetItPlay(int writes = 3)
    {
        const int target = hostWrites.load() + writes;
        for (int spin = 0; spin < 20000 && hostWrites.load() < target && failedOpens.load() == 0; ++spin)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
    }

    void TearDown() override
    {
        StopPlaying();
        PluginHost::TearDown();
    }

    // Each chained write is whole six-channel frames of 16 bits, and there is
    // exactly one for each write of the host.
    void ExpectEveryWriteForwardedWhole()
    {
        const auto writes = CallsOf("a", "Write");
        EXPECT_EQ(writes.size(), size_t(hostWrites.load()));
        for (const RecordedCall& call : writes)
            EXPECT_EQ(call.args[0] % kOutFrameBytes16, 0) << call.args[0];
        EXPECT_EQ(failedOpens.load(), 0);
        EXPECT_EQ(refusedWrites.load(), 0);
    }

    std::thread player;
    std::atomic<bool> stop{false};
    std::atomic<int> hostWrites{0};
    std::atomic<int> failedOpens{0};
    std::atomic<int> refusedWrites{0};
};

TEST_F(ThreadedHost, DialogChangesEverySettingDuringWrites_EachWriteWholeAndOkSavesWhatWasShown)
{
    Start(RecorderSettings(3, 16));
    StartPlaying(40);
    LetItPlay();

    int lastMode = -1;
    std::vector<Step> steps;
    // Every mode in turn, Headphone among them, with the sliders and the
    // switches moved in each.
    for (int mode : {0, 1, 2, 3, 4, 5, 2, 3}) {
        steps.push_back([this, mode, &lastMode](HWND dialog) {
            ChooseItem(dialog, kIdMode, mode);
            lastMode = mode;
            LetItPlay();
        });
        steps.push_back([this](HWND dialog) {
            for (int id : {kIdSurroundDelay, kIdCentreTrim, kIdSurroundTrim, kIdBassRedir, kIdBassTrim, kIdCentreWidth}) {
                DialogControl& bar = Control(dialog, id);
                if (bar.enabled)
                    Drag(dialog, id, (bar.rangeMin + bar.rangeMax) / 2 + 1);
            }
            LetItPlay();
        });
        steps.push_back([this](HWND dialog) {
            for (int id : {kIdBassRedirEnable, kIdVirtualC, kIdSpeakerC, kIdSpeakerSL, kIdBassInvert})
                if (Enabled(dialog, id))
                    Click(dialog, id);
            LetItPlay();
        });
    }
    steps.push_back(Press(IDOK));
    RunDialog(steps);
    LetItPlay();
    StopPlaying();

    ExpectEveryWriteForwardedWhole();
    EXPECT_EQ(SavedValues()["Mode"], "dword:0000000" + std::to_string(lastMode));
}

TEST_F(ThreadedHost, PlayStopAndCancelDuringWrites_ResetsAtOpenOrCloseAndSettingsReadAgain)
{
    Start(RecorderSettings(4, 16));
    StartPlaying(12);
    LetItPlay();

    // The host's Play and Stop on the interface thread, a Cancel that reads
    // the file again while the stream runs, and the status text refreshed
    // from the stream words all the while.
    std::vector<Step> steps;
    for (int round = 0; round < 6; ++round) {
        steps.push_back([this, round](HWND dialog) {
            SendCommand(WM_COMMAND, round % 2 == 0 ? kPlay : kStop);
            ChooseItem(dialog, kIdMode, round % 2 == 0 ? 4 : 3);
            LetItPlay(5);
        });
    }
    int writesAtCancel = 0;
    steps.push_back([this, &writesAtCancel](HWND dialog) {
        Click(dialog, IDCANCEL);
        writesAtCancel = hostWrites.load();
    });
    RunDialog(steps);
    LetItPlay(5);
    SendCommand(WM_COMMAND, kStop);
    LetItPlay(15);
    StopPlaying();

    ExpectEveryWriteForwardedWhole();
    // Cancel put back the file's mode, Headphone: from the write after the
    // one under way at that moment, the convolver holds frames back and
    // lets them out in whole blocks of 8192 only.
    const auto writes = CallsOf("a", "Write");
    ASSERT_GT(writes.size(), size_t(writesAtCancel + 1));
    for (size_t w = size_t(writesAtCancel) + 1; w < writes.size(); ++w)
        EXPECT_EQ(writes[w].args[0] % (8192 * kOutFrameBytes16), 0) << "write " << w;
    // Every command went on to the host's window.
    EXPECT_EQ(received.size(), 7u);
}

}  // namespace
