// What the engine itself makes of float frames: the reference that the LV2
// plug-ins are held to. A fresh engine takes the source block by block as a
// host hands it over, each block in writes of at most 8192 frames, laid into
// Frame6 records by the player's channel table, and the dispatcher runs on
// each write with the test's settings. No PCM is involved on either side.
//
// Where writes begin matters to one stage (the five-channel encoder walks
// its frames with a stride that starts again at each write), so the
// reference is always cut into the same writes as the plug-in's input.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/lv2/lv2_host.h"
#include "tests/support/engine_settings.h"

// A stretch of the source with the settings in force for it, handed over in
// host blocks of these sizes, cycled.
struct SettingsSegment {
    SettingsWords words;
    uint32_t frames;
    std::vector<uint32_t> hostBlocks;
};

// The frames that the dispatcher hands out for `input` (by slot), concatenated
// per slot; `segments` cover the source from its start, in order.
SlotSignals EngineFloatOutput(const std::vector<SettingsSegment>& segments, int32_t inChannels, int32_t rate,
                              const SlotSignals& input);
// The same with one setting for the whole source.
SlotSignals EngineFloatOutput(const SettingsWords& words, int32_t inChannels, int32_t rate,
                              const SlotSignals& input, const std::vector<uint32_t>& hostBlocks);

// Each signal `frames` later, with silence in front, cut to `length`.
SlotSignals Delayed(const SlotSignals& signals, uint32_t frames, std::size_t length);

// A deterministic source of `frames` frames in the slots that `channels`
// channels fill; the other slots are empty. Every channel differs, and the
// front pair shares a tone so that the decoders have a centre to find.
SlotSignals TestSource(int32_t channels, uint32_t frames);

// Index of the first float of `slot` where the two signals differ bit for
// bit, or -1 when they are identical (and equally long).
long FirstDifference(const SlotSignals& actual, const SlotSignals& expected, int slot);
