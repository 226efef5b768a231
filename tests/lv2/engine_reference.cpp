#include "tests/lv2/engine_reference.h"

#include <algorithm>
#include <bit>

#include "engine/dispatch.h"
#include "engine/engine.h"
#include "engine/pcm_conversion.h"
#include "tests/support/test_signal.h"

namespace {

constexpr uint32_t kSlots = 6;
constexpr uint32_t kWriteFrames = 8192;  // the most that one write of the player carries

// The player's channel table: which slots a source of this many channels fills.
bool Fills(int32_t channels, uint32_t slot)
{
    static const bool table[7][kSlots] = {
        {}, {}, {true, true, false, false, false, false}, {},
        {true, true, false, false, true, true},
        {true, true, true, false, true, true},
        {true, true, true, true, true, true},
    };
    return channels >= 0 && channels <= 6 && table[channels][slot];
}

ProcessorBlock RecordOf(const SettingsWords& s, int32_t inChannels, int32_t rate, uint32_t frames,
                        SampleBlock* block)
{
    ProcessorBlock b{};
    b.Mode = s.Mode;
    b.Surround_Delay = s.Surround_Delay;
    b.Centre_Width = s.Centre_Width;
    b.Centre_Trim = s.Centre_Trim;
    b.Surround_Trim_00 = s.Surround_Trim_00;
    b.Bass_Redir = s.Bass_Redir;
    b.Bass_Redir_Enable = s.Bass_Redir_Enable;
    b.Bass_Trim = s.Bass_Trim;
    b.Bass_Invert = s.Bass_Invert;
    b.Virtual_C = s.Virtual_C;
    b.L = s.L;
    b.R = s.R;
    b.C = s.C;
    b.SL = s.SL;
    b.SR = s.SR;
    b.In_Channels = inChannels;
    b.Sample_Rate = rate;
    b.Frames = frames;
    b.Block = block;
    return b;
}

}  // namespace

SlotSignals EngineFloatOutput(const std::vector<SettingsSegment>& segments, int32_t inChannels, int32_t rate,
                              const SlotSignals& input)
{
    Engine engine;
    SlotSignals out;
    uint32_t at = 0;
    for (const SettingsSegment& segment : segments) {
        const uint32_t end = at + segment.frames;
        for (std::size_t b = 0; at < end; ++b) {
            const uint32_t blockEnd = std::min(end, at + segment.hostBlocks[b % segment.hostBlocks.size()]);
            while (at < blockEnd) {
                const uint32_t n = std::min(kWriteFrames, blockEnd - at);
                float* f = engine.FrameBlock.Resize(kFrameBlockFloats, false);
                for (uint32_t i = 0; i < n; ++i)
                    for (uint32_t s = 0; s < kSlots; ++s)
                        f[kSlots * i + s] = Fills(inChannels, s) ? input[s][at + i] : 0.0f;
                ProcessorBlock block = RecordOf(segment.words, inChannels, rate, n, &engine.FrameBlock);
                DispatchMode(engine, block);
                f = engine.FrameBlock.data;
                for (uint32_t i = 0; i < block.Frames; ++i)
                    for (uint32_t s = 0; s < kSlots; ++s)
                        out[s].push_back(f[kSlots * i + s]);
                at += n;
            }
        }
    }
    return out;
}

SlotSignals EngineFloatOutput(const SettingsWords& words, int32_t inChannels, int32_t rate,
                              const SlotSignals& input, const std::vector<uint32_t>& hostBlocks)
{
    std::size_t frames = 0;
    for (const std::vector<float>& signal : input)
        frames = std::max(frames, signal.size());
    return EngineFloatOutput({SettingsSegment{words, uint32_t(frames), hostBlocks}}, inChannels, rate, input);
}

SlotSignals Delayed(const SlotSignals& signals, uint32_t frames, std::size_t length)
{
    SlotSignals out;
    for (uint32_t s = 0; s < kSlots; ++s) {
        out[s].assign(length, 0.0f);
        for (std::size_t i = frames; i < length && i - frames < signals[s].size(); ++i)
            out[s][i] = signals[s][i - frames];
    }
    return out;
}

SlotSignals TestSource(int32_t channels, uint32_t frames)
{
    // A tone common to L and R, noise and a second tone of its own in each.
    const std::vector<float> common = MixedSignal(frames, 1, SignalMix{0.3, 0.0571, 0.0, 0.0, 0.0});
    SlotSignals source;
    for (uint32_t s = 0; s < kSlots; ++s) {
        if (!Fills(channels, s))
            continue;
        const std::vector<float> own = MixedSignal(frames, 7 + s, SignalMix{0.2, 0.011 * (s + 1), 0.1, 0.31, 0.05});
        source[s].resize(frames);
        for (uint32_t i = 0; i < frames; ++i)
            source[s][i] = s < 2 ? common[i] + own[i] : own[i];
    }
    return source;
}

long FirstDifference(const SlotSignals& actual, const SlotSignals& expected, int slot)
{
    const std::vector<float>& a = actual[slot];
    const std::vector<float>& e = expected[slot];
    const std::size_t n = std::min(a.size(), e.size());
    for (std::size_t i = 0; i < n; ++i)
        if (std::bit_cast<uint32_t>(a[i]) != std::bit_cast<uint32_t>(e[i]))
            return long(i);
    return a.size() == e.size() ? -1 : long(n);
}
