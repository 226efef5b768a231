// The engine meter on its own thread: the counts of each input are those of
// the same meter run write by write on one thread, each frame that comes back
// counted to the input whose place in the stream it has. Also run under
// ThreadSanitizer (label threads).
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

#include "hosts/render/engine_meter.h"
#include "hosts/render/levels.h"
#include "hosts/render/meter_thread.h"
#include "test_audio.h"

namespace {

constexpr int kRate = 44100;
constexpr uint32_t kWindowFrames = 1000;
constexpr int kBits = 16;
constexpr uint32_t kWriteFrames = 576;
constexpr uint32_t kPaddingFrames = 8192;  // the convolver's block: it lets go of all it holds

// Three inputs: the first two play on into each other, the third starts
// after a reset. Stereo of 16 bits, loud and in antiphase, so that the
// surrounds of the steered decoder go over full scale. Long enough that the
// queue fills up and the pass goes on while the thread counts.
const uint32_t kInputFrames[3] = {200000, 1000, 150000};
const bool kResetBefore[3] = {false, false, true};
const int kSegment[3] = {0, 0, 1};  // inputs between two resets

std::vector<uint8_t> Pcm(uint32_t frames, uint32_t seed)
{
    std::vector<uint8_t> bytes(static_cast<size_t>(frames) * 4);
    uint32_t state = seed;
    for (uint32_t i = 0; i < frames; ++i) {
        state = state * 1664525u + 1013904223u;
        const int16_t x = static_cast<int16_t>(static_cast<int32_t>(state >> 16) - 32768);
        const int16_t left = static_cast<int16_t>(x / 2 + (x > 0 ? 16000 : -16000));
        const int16_t right = static_cast<int16_t>(-left);
        bytes[4 * i] = static_cast<uint8_t>(left);
        bytes[4 * i + 1] = static_cast<uint8_t>(static_cast<uint16_t>(left) >> 8);
        bytes[4 * i + 2] = static_cast<uint8_t>(right);
        bytes[4 * i + 3] = static_cast<uint8_t>(static_cast<uint16_t>(right) >> 8);
    }
    return bytes;
}

// The bytes of one write.
std::vector<uint8_t> WriteBuffer(const std::vector<uint8_t>& pcm, size_t from, size_t length)
{
    return std::vector<uint8_t>(pcm.begin() + static_cast<long>(from), pcm.begin() + static_cast<long>(from + length));
}

// Calls `write(input, buffer, bytes)` for every write of the play-list,
// padding included, and `reset(input)` before an input that starts afresh.
template <typename Reset, typename Write>
void PlayList(Reset reset, Write write)
{
    for (size_t input = 0; input < 3; ++input) {
        if (kResetBefore[input])
            reset(input);
        const std::vector<uint8_t> pcm = Pcm(kInputFrames[input], 7 + static_cast<uint32_t>(input));
        for (size_t done = 0; done < kInputFrames[input]; done += kWriteFrames) {
            const size_t frames = std::min<size_t>(kWriteFrames, kInputFrames[input] - done);
            write(input, WriteBuffer(pcm, 4 * done, 4 * frames), static_cast<uint32_t>(4 * frames), frames);
        }
        if (input == 1 || input == 2) {
            const std::vector<uint8_t> silence(4 * kPaddingFrames, 0);
            for (size_t done = 0; done < kPaddingFrames; done += kWriteFrames) {
                const size_t frames = std::min<size_t>(kWriteFrames, kPaddingFrames - done);
                write(input, WriteBuffer(silence, 0, 4 * frames), static_cast<uint32_t>(4 * frames), 0);
            }
        }
    }
}

class MeterThreadTest : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override
    {
        // No saved settings: the processor's defaults, then the mode asked for.
        setenv("XDG_CONFIG_HOME", "/nonexistent/kelvane-meter-test", 1);
        StartEngineMeter(meter);
        meter.settings.Mode = GetParam();
        ResetEngineMeter(meter);
    }

    EngineMeter meter{};
};

TEST_P(MeterThreadTest, CountsEachFrameToItsInputAsTheMeterAloneDoes)
{
    // On the thread, as a pass queues the steps.
    std::vector<uint64_t> offset(3, 0), fed(3, 0);
    std::vector<OverCounts> threaded(3);
    for (OverCounts& counts : threaded)
        InitOverCounts(counts, kWindowFrames);
    {
        MeterThread thread;
        StartMeterThread(thread, meter, offset, fed, threaded, kBits);
        uint64_t stream = 0;
        size_t opened = 3;
        PlayList(
            [&](size_t input) {
                QueueMeterReset(thread);
                QueueMeterRestart(thread, input);
                stream = 0;
            },
            [&](size_t input, const std::vector<uint8_t>& buffer, uint32_t bytes, size_t frames) {
                if (opened != input) {
                    QueueMeterOpen(thread, kRate, 2, kBits);
                    offset[input] = stream;
                    opened = input;
                }
                fed[input] += frames;
                stream += bytes / 4;
                QueueMeterWrite(thread, buffer, input, fed[input]);
            });
        QueueMeterReset(thread);
        FinishMeterThread(thread);
    }

    // The same meter alone, write by write; a frame that comes back is the
    // input's whose frames since the last reset it falls among.
    ResetEngineMeter(meter);
    std::vector<OverCounts> alone(3);
    for (OverCounts& counts : alone)
        InitOverCounts(counts, kWindowFrames);
    uint64_t returned = 0;
    size_t opened = 3;
    PlayList(
        [&](size_t) {
            ResetEngineMeter(meter);
            returned = 0;
        },
        [&](size_t input, const std::vector<uint8_t>& buffer, uint32_t bytes, size_t) {
            if (opened != input) {
                OpenEngineMeter(meter, kRate, 2, kBits);
                opened = input;
            }
            uint32_t count = 0;
            const float* frames = MeterWrite(meter, buffer.data(), bytes, count);
            for (uint32_t f = 0; f < count; ++f, ++returned)
                for (size_t k = 0; k <= input; ++k)
                    if (kSegment[k] == kSegment[input] && returned >= offset[k] && returned < offset[k] + fed[k])
                        AddProcessedFrame(alone[k], frames + 6 * f, kBits);
        });

    uint64_t overs = 0;
    for (size_t k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        EXPECT_EQ(threaded[k].frames, kInputFrames[k]);
        EXPECT_EQ(threaded[k].frames, alone[k].frames);
        for (int c = 0; c < 6; ++c) {
            EXPECT_EQ(threaded[k].peak[c], alone[k].peak[c]) << c;
            EXPECT_EQ(threaded[k].overs[c], alone[k].overs[c]) << c;
            overs += threaded[k].overs[c];
        }
        EXPECT_EQ(threaded[k].window_overs, alone[k].window_overs);
    }
    // Something to count: the steered decoder's surrounds went over. (The
    // headphone mode keeps this input within full scale; there the peaks
    // and the late frames' places are what is compared.)
    if (GetParam() == 3) {
        EXPECT_GT(overs, 0u);
    }
}

// The steered decoder gives its frames back in the write; the headphone
// mode one convolver block late, so that an input's frames come back
// during the next input's writes and the padding's.
INSTANTIATE_TEST_SUITE_P(SteeredAndHeadphone, MeterThreadTest, ::testing::Values(3, 4));

}  // namespace
