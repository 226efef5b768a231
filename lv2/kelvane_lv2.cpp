// The LV2 plug-ins: the player's engine, run by any LV2 host on float frames.
//
// Each instance owns one engine. A host's block becomes Frame6 records the
// way the player's conversion lays out a source of that many channels, but
// the floats enter as the host gives them and leave as the engine leaves
// them: there is no PCM on either side, so no input scale, no output factor
// of 0.85, no truncation and no wrap. What a host block of any length hears
// is what the engine makes of the same floats in writes of at most 8192
// frames, sample for sample.
//
// Hosts may send blocks longer than the engine's 8192-frame write; a block is
// cut into such writes. The headphone mode hands out its ears 8192 frames at
// a time; the plug-in delays everything by one such block, which its latency
// port reports, so that every run has a full block to return.
//
// Real time: the engine's plans are made and every array is grown to its
// largest size in instantiate(); run() allocates nothing of its own, takes no
// lock and makes no system call in the upmix and encode plug-ins. In the
// headphone plug-in FFTW's execute of the convolver's in-place plans takes a
// scratch array from malloc at each transform (see the README).
#include <lv2/core/lv2.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>

#include "encoders/headphone_convolver.h"
#include "engine/dispatch.h"
#include "engine/engine.h"
#include "engine/pcm_conversion.h"
#include "lv2/float_environment.h"
#include "lv2/planner_wisdom.h"
#include "lv2/plugin_ports.h"
#include "signal/frame.h"
#include "signal/mode.h"
#include "signal/processor.h"

namespace {

constexpr uint32_t kSlots = kFrameFloats;
constexpr int32_t kLargestDelay = 100;        // ms, the top of the surround delay's range
constexpr uint32_t kEarChannels = 2;          // the headphone output, L and R
constexpr uint32_t kHoldBack = kBlockFrames;  // frames of delay in the headphone mode
constexpr uint32_t kEarRingFrames = 2 * kBlockFrames;

struct PluginInstance {
    const PluginRow* plugin;  // the table row of this plug-in
    Engine* engine;           // all processing state; its plans are made at instantiation
    int32_t sampleRate;       // hertz, as the host gave it, rounded
    bool holdsBack;           // the headphone mode at a rate where the convolver runs

    // Ports, by what they carry; null while the host has connected nothing.
    const float* input[kSlots];                 // by Frame6 slot
    float* output[kSlots];                      // by Frame6 slot
    const float* control[kSettingWordCount];    // by setting word
    float* latency;                             // frames held back

    // Headphone mode only: the ears on their way out, one block late.
    float* earRing;        // kEarRingFrames frames, L and R interleaved
    uint32_t earRead;      // frame of the ring that leaves next
    uint32_t earFill;      // frames in the ring
};

// Which slots a source of `channels` channels fills, as the player's channel
// table has it: two fill L and R; four add SL and SR; five add C; six add LFE.
bool SourceFillsSlot(int32_t channels, uint32_t slot)
{
    switch (channels) {
    case 2:
        return slot == kSlotL || slot == kSlotR;
    case 4:
        return slot != kSlotC && slot != kSlotLFE;
    case 5:
        return slot != kSlotLFE;
    case 6:
        return true;
    default:
        return false;
    }
}

// The words of one write: the ports' values, or for a plug-in without the
// port its fixed mode and channel count. Words with neither are not read in
// this plug-in's modes and stay 0.
void ReadSettings(const PluginInstance& self, int32_t (&words)[kSettingWordCount])
{
    std::fill(words, words + kSettingWordCount, 0);
    words[uint32_t(SettingWord::Mode)] = self.plugin->fixedMode;
    words[uint32_t(SettingWord::Source)] = self.plugin->fixedSource;
    for (uint32_t i = 0; i < self.plugin->portCount; ++i) {
        const PortRow& port = self.plugin->ports[i];
        if (port.kind != PortKind::ControlIn)
            continue;
        const float* value = self.control[uint32_t(port.setting)];
        words[uint32_t(port.setting)] = value != nullptr ? ControlWord(port, *value) : port.defaultValue;
    }
}

ProcessorBlock MakeProcessorBlock(const int32_t (&words)[kSettingWordCount], int32_t sampleRate,
                                  uint32_t frames, SampleBlock* block)
{
    auto word = [&words](SettingWord w) { return words[uint32_t(w)]; };
    ProcessorBlock b{};
    b.Mode = word(SettingWord::Mode);
    b.Surround_Delay = word(SettingWord::Surround_Delay);
    b.Centre_Width = word(SettingWord::Centre_Width);
    b.Centre_Trim = word(SettingWord::Centre_Trim);
    b.Surround_Trim_00 = word(SettingWord::Surround_Trim_00);
    b.Bass_Redir = word(SettingWord::Bass_Redir);
    b.Bass_Redir_Enable = word(SettingWord::Bass_Redir_Enable);
    b.Bass_Trim = word(SettingWord::Bass_Trim);
    b.Bass_Invert = word(SettingWord::Bass_Invert);
    b.Virtual_C = word(SettingWord::Virtual_C);
    b.L = word(SettingWord::L);
    b.R = word(SettingWord::R);
    b.C = word(SettingWord::C);
    b.SL = word(SettingWord::SL);
    b.SR = word(SettingWord::SR);
    b.In_Channels = word(SettingWord::Source);
    b.Sample_Rate = sampleRate;
    b.Frames = frames;
    b.Block = block;
    return b;
}

// Writes `count` frames of the host's inputs from frame `at` into the frame
// block, the slots that the source does not fill as 0.0.
void LoadFrames(const PluginInstance& self, int32_t channels, uint32_t at, uint32_t count, float* frames)
{
    for (uint32_t s = 0; s < kSlots; ++s) {
        const float* in = SourceFillsSlot(channels, s) ? self.input[s] : nullptr;
        float* f = frames + s;
        if (in == nullptr) {
            for (uint32_t i = 0; i < count; ++i, f += kFrameFloats)
                *f = 0.0f;
        } else {
            for (uint32_t i = 0; i < count; ++i, f += kFrameFloats)
                *f = in[at + i];
        }
    }
}

// Copies `count` frames of `slots` slots to the connected outputs from frame `at`.
void StoreFrames(const PluginInstance& self, uint32_t slots, const float* frames, uint32_t at, uint32_t count)
{
    for (uint32_t s = 0; s < slots; ++s) {
        float* out = self.output[s];
        if (out == nullptr)
            continue;
        const float* f = frames + s;
        for (uint32_t i = 0; i < count; ++i, f += kFrameFloats)
            out[at + i] = *f;
    }
}

// Headphone mode: the ears that the engine released go into the ring, and
// `count` frames, one block behind the input, leave it.
void PassThroughEarRing(PluginInstance& self, const float* frames, uint32_t released, uint32_t at,
                        uint32_t count)
{
    float* ring = self.earRing;
    uint32_t in = (self.earRead + self.earFill) % kEarRingFrames;
    for (uint32_t i = 0; i < released; ++i, in = (in + 1) % kEarRingFrames) {
        ring[kEarChannels * in] = frames[kFrameFloats * i + kSlotL];
        ring[kEarChannels * in + 1] = frames[kFrameFloats * i + kSlotR];
    }
    self.earFill += released;
    for (uint32_t i = 0; i < count; ++i) {
        if (self.output[kSlotL] != nullptr)
            self.output[kSlotL][at + i] = ring[kEarChannels * self.earRead];
        if (self.output[kSlotR] != nullptr)
            self.output[kSlotR][at + i] = ring[kEarChannels * self.earRead + 1];
        self.earRead = (self.earRead + 1) % kEarRingFrames;
    }
    self.earFill -= count;
}

// One write of at most 8192 frames, from frame `at` of the host's block.
void ProcessWrite(PluginInstance& self, const int32_t (&words)[kSettingWordCount], uint32_t at,
                  uint32_t count)
{
    Engine& engine = *self.engine;
    const int32_t channels = words[uint32_t(SettingWord::Source)];
    float* frames = engine.FrameBlock.Resize(kFrameBlockFloats, false);
    LoadFrames(self, channels, at, count, frames);

    ProcessorBlock block = MakeProcessorBlock(words, self.sampleRate, count, &engine.FrameBlock);
    DispatchMode(engine, block);
    frames = engine.FrameBlock.data;  // a stage may have moved the array

    if (self.holdsBack)
        PassThroughEarRing(self, frames, block.Frames, at, count);
    else if (self.plugin->fixedMode < 0)
        StoreFrames(self, kSlots, frames, at, count);
    else
        StoreFrames(self, kEarChannels, frames, at, count);
}

// Grows every array that the plug-in's modes use to its largest size, with
// the largest delay and write, then clears what that left in the engine.
// Instantiation only: it allocates.
void GrowEngine(PluginInstance& self)
{
    const PluginRow& plugin = *self.plugin;
    int32_t words[kSettingWordCount] = {};
    words[uint32_t(SettingWord::Surround_Delay)] = kLargestDelay;
    words[uint32_t(SettingWord::Bass_Redir)] = 120;
    words[uint32_t(SettingWord::Bass_Redir_Enable)] = 1;
    for (uint32_t i = 0; i < plugin.portCount; ++i)
        if (plugin.ports[i].setting >= SettingWord::L && plugin.ports[i].setting <= SettingWord::SR)
            words[uint32_t(plugin.ports[i].setting)] = 1;

    for (int32_t mode = 0; mode < kModeCount; ++mode) {
        if (plugin.fixedMode >= 0 ? mode != plugin.fixedMode : mode > kModeSteeredTwoSurround)
            continue;
        for (int32_t channels = 2; channels <= 6; ++channels) {
            if (plugin.fixedSource >= 0 ? channels != plugin.fixedSource : channels == 3)
                continue;
            words[uint32_t(SettingWord::Mode)] = mode;
            words[uint32_t(SettingWord::Source)] = channels;
            self.engine->FrameBlock.Resize(kFrameBlockFloats, true);
            ProcessorBlock block =
                MakeProcessorBlock(words, self.sampleRate, kBlockFrames, &self.engine->FrameBlock);
            DispatchMode(*self.engine, block);
        }
    }
    EngineReset(*self.engine);
}

void ClearEarRing(PluginInstance& self)
{
    std::fill(self.earRing, self.earRing + kEarChannels * kEarRingFrames, 0.0f);
    self.earRead = 0;
    self.earFill = kHoldBack;
}

// [instantiation] Makes the engine (its FFT plans, about two seconds
// unless the planner's wisdom is at hand) and grows it.
LV2_Handle Instantiate(const LV2_Descriptor* descriptor, double rate, const char*, const LV2_Feature* const*)
{
    const PluginRow* plugin = FindPlugin(descriptor->URI);
    if (plugin == nullptr)
        return nullptr;
    ImportPlannerWisdom();
    PluginInstance* self = new (std::nothrow) PluginInstance{};
    if (self == nullptr)
        return nullptr;
    self->plugin = plugin;
    self->sampleRate = int32_t(std::lround(rate));
    self->holdsBack = plugin->fixedMode == kModeHeadphone && IsHeadphoneRate(self->sampleRate);
    try {
        // The impulse tables are transformed while the engine is built: in
        // the same float environment as every run.
        FloatEnvironment ieee;
        self->engine = new Engine();
        if (self->holdsBack) {
            self->earRing = new float[kEarChannels * kEarRingFrames];
            ClearEarRing(*self);
        }
        GrowEngine(*self);
    } catch (const std::bad_alloc&) {
        delete[] self->earRing;
        delete self->engine;
        delete self;
        return nullptr;
    }
    return self;
}

// [audio] Ports are looked up in the table: nothing in the code knows an index.
void ConnectPort(LV2_Handle handle, uint32_t index, void* data)
{
    PluginInstance& self = *static_cast<PluginInstance*>(handle);
    if (index >= self.plugin->portCount)
        return;
    const PortRow& port = self.plugin->ports[index];
    switch (port.kind) {
    case PortKind::AudioIn:
        self.input[port.slot] = static_cast<const float*>(data);
        break;
    case PortKind::AudioOut:
        self.output[port.slot] = static_cast<float*>(data);
        break;
    case PortKind::ControlIn:
        self.control[uint32_t(port.setting)] = static_cast<const float*>(data);
        break;
    case PortKind::LatencyOut:
        self.latency = static_cast<float*>(data);
        break;
    }
}

// [instantiation] A new stream: filter memories, delay rings, the overlap
// and held-back frames go, as at the player's Flush.
void Activate(LV2_Handle handle)
{
    PluginInstance& self = *static_cast<PluginInstance*>(handle);
    EngineReset(*self.engine);
    if (self.holdsBack)
        ClearEarRing(self);
}

// [audio] The settings are read once per run, as the player reads them once
// per write.
void Run(LV2_Handle handle, uint32_t frames)
{
    PluginInstance& self = *static_cast<PluginInstance*>(handle);
    FloatEnvironment ieee;
    int32_t words[kSettingWordCount];
    ReadSettings(self, words);
    for (uint32_t at = 0; at < frames;) {
        const uint32_t count = std::min(frames - at, kBlockFrames);
        ProcessWrite(self, words, at, count);
        at += count;
    }
    if (self.latency != nullptr)
        *self.latency = self.holdsBack ? float(kHoldBack) : 0.0f;
}

void Deactivate(LV2_Handle) {}

// [instantiation]
void Cleanup(LV2_Handle handle)
{
    PluginInstance* self = static_cast<PluginInstance*>(handle);
    delete[] self->earRing;
    delete self->engine;
    delete self;
}

const void* ExtensionData(const char*)
{
    return nullptr;
}

const LV2_Descriptor kDescriptors[kPluginCount] = {
    {kPlugins[0].uri, Instantiate, ConnectPort, Activate, Run, Deactivate, Cleanup, ExtensionData},
    {kPlugins[1].uri, Instantiate, ConnectPort, Activate, Run, Deactivate, Cleanup, ExtensionData},
    {kPlugins[2].uri, Instantiate, ConnectPort, Activate, Run, Deactivate, Cleanup, ExtensionData},
};

}  // namespace

LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(uint32_t index)
{
    return index < kPluginCount ? &kDescriptors[index] : nullptr;
}
