// The engine as a value: any number of engines live in one process, each
// with its own memories, rings, blocks, plans and held-back frames. Two
// engines run with different settings and streams, write by write in turn,
// must each give exactly what the same engine gives when it runs alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "engine/engine.h"
#include "engine/pcm_conversion.h"
#include "signal/mode.h"
#include "signal/processor.h"
#include "tests/support/engine_settings.h"
#include "tests/support/test_engine.h"
#include "tests/support/moving_signal.h"

namespace {

// One stream through one engine: its settings, its source and how the host
// cuts it into writes.
struct StreamRun {
    SettingsWords settings;
    StreamWords stream;
    uint32_t frames;                 // the source's length
    std::vector<uint32_t> lengths;   // frames per write, taken in turn until the source ends
};

struct Player {
    const StreamRun& run;
    std::unique_ptr<Engine> engine = std::make_unique<Engine>();
    ProcessorSettingsRecord settings{};
    std::vector<uint8_t> source;
    uint32_t at = 0;     // frames written so far
    uint32_t write = 0;  // writes made so far
    std::vector<uint8_t> output;

    explicit Player(const StreamRun& r)
        : run(r), source(MakeSource(r.frames, r.stream.Stream_Channels, r.stream.Stream_Bits))
    {
        ApplySettings(run.settings, settings);
    }

    bool Done() const { return at >= run.frames; }

    // One write of the next length, its output appended.
    void Step()
    {
        const uint32_t frameBytes = run.stream.Stream_Channels * (run.stream.Stream_Bits / 8);
        uint32_t frames = std::min(run.lengths[write % run.lengths.size()], run.frames - at);
        const uint8_t* from = source.data() + std::size_t(at) * frameBytes;
        at += frames;
        ++write;
        ConvertWholeFrames(*engine, settings, run.stream, from, frames);
        const std::size_t bytes = std::size_t(run.stream.Output_Bits / 8) * frames * 6;
        const auto* pcm = reinterpret_cast<const uint8_t*>(engine->PcmBlock.data);
        output.insert(output.end(), pcm, pcm + bytes);
    }
};

std::vector<uint8_t> Solo(const StreamRun& run)
{
    Player player(run);
    while (!player.Done())
        player.Step();
    return player.output;
}

void ExpectIndependent(const StreamRun& first, const StreamRun& second)
{
    const std::vector<uint8_t> firstAlone = Solo(first);
    const std::vector<uint8_t> secondAlone = Solo(second);
    ASSERT_FALSE(firstAlone.empty());
    ASSERT_FALSE(secondAlone.empty());

    Player a(first);
    Player b(second);
    while (!a.Done() || !b.Done()) {
        if (!a.Done())
            a.Step();
        if (!b.Done())
            b.Step();
    }
    EXPECT_EQ(a.output.size(), firstAlone.size());
    EXPECT_EQ(b.output.size(), secondAlone.size());
    EXPECT_TRUE(a.output == firstAlone) << "the first engine heard the second";
    EXPECT_TRUE(b.output == secondAlone) << "the second engine heard the first";
}

SettingsWords Settings(int32_t mode, int32_t outBits)
{
    SettingsWords s;
    s.Mode = mode;
    s.Out_Bits = outBits;
    return s;
}

}  // namespace

TEST(Engine, TwoEnginesInterleaved_SteeredDecoderBesideHeadphone_EachAsAlone)
{
    // Steered decoding with two surrounds, a 20 ms delay and bass redirection
    // on a 16-bit stereo stream; beside it the convolver on a 24-bit
    // six-channel stream at another rate, holding frames back across writes.
    SettingsWords steered = Settings(kModeSteeredTwoSurround, 16);
    steered.Surround_Delay = 20;
    steered.Bass_Redir_Enable = 1;
    steered.Centre_Width = 40;
    const StreamRun decoder{steered, {2, 16, 44100, 16}, 30000, {576, 1000, 4096}};
    const StreamRun headphone{Settings(kModeHeadphone, 24), {6, 24, 48000, 24}, 30000, {1152, 3000}};
    ExpectIndependent(decoder, headphone);
}

TEST(Engine, TwoEnginesInterleaved_SameModeDifferentSettings_EachAsAlone)
{
    // The same stages in both engines, so that shared memory would show: the
    // fixed matrix with a delay and bass redirection against one with other
    // trims, virtual centre and inverted bass.
    SettingsWords plain = Settings(kModeFixedMatrix, 16);
    plain.Surround_Delay = 15;
    plain.Bass_Redir_Enable = 1;
    SettingsWords other = Settings(kModeFixedMatrix, 32);
    other.Surround_Delay = 3;
    other.Bass_Redir_Enable = 1;
    other.Bass_Invert = 1;
    other.Virtual_C = 1;
    other.Centre_Trim = -6;
    const StreamRun first{plain, {2, 16, 44100, 16}, 20000, {576}};
    const StreamRun second{other, {2, 16, 48000, 32}, 20000, {300, 2000}};
    ExpectIndependent(first, second);
}

TEST(Engine, TwoEnginesInterleaved_EncoderBesideHeadphoneOnStereo_EachAsAlone)
{
    // The encoder's phase chain on five channels beside the steered decoder
    // feeding the convolver on stereo.
    const StreamRun encoder{Settings(kModeEncode, 16), {5, 16, 44100, 16}, 25000, {700}};
    const StreamRun headphone{Settings(kModeHeadphone, 16), {2, 16, 44100, 16}, 25000, {4096, 576}};
    ExpectIndependent(encoder, headphone);
}

TEST(Engine, NewEngine_HoldsNothingBackAndHasClearMemories)
{
    Engine engine;
    EXPECT_EQ(engine.Headphone.Pending_Frames, 0u);
    const FilterState* memories[] = {&engine.Bass.BassFilter[2], &engine.Surround.SurroundFilter[1],
                                     &engine.Encoder.LfeChain, &engine.Steering.SteerFilter[3]};
    for (const FilterState* m : memories) {
        EXPECT_EQ(m->x1, 0.0f);
        EXPECT_EQ(m->x2, 0.0f);
        EXPECT_EQ(m->y1, 0.0f);
        EXPECT_EQ(m->y2, 0.0f);
    }
    EXPECT_EQ(engine.Surround.SurroundDelayLine[0].data, nullptr);
    EXPECT_EQ(engine.FrameBlock.data, nullptr);
    EXPECT_EQ(engine.PcmBlock.data, nullptr);
    EXPECT_EQ(engine.Headphone.OverlapBlock.size, 16384u);
}
