// Frame6: one audio frame of six interleaved 32-bit floats, nominal full
// scale 1.0, in the speaker order of a six-channel source and of the PCM that
// leaves the plug-in. Frames lie back to back: slot s of frame i is float
// 6i + s of a block, so a stage that walks one channel steps by six floats.
#pragma once

#include <cstdint>

struct Frame6 {
    float L;    // slot 0, left front
    float R;    // slot 1, right front
    float C;    // slot 2, centre
    float LFE;  // slot 3, low-frequency effects; no switch, no trim
    float SL;   // slot 4, left surround
    float SR;   // slot 5, right surround
};
static_assert(sizeof(Frame6) == 6 * sizeof(float), "Frame6 is six packed floats");

constexpr uint32_t kFrameFloats = 6;  // floats per frame, the stride of one channel
constexpr uint32_t kSlotL = 0;
constexpr uint32_t kSlotR = 1;
constexpr uint32_t kSlotC = 2;
constexpr uint32_t kSlotLFE = 3;
constexpr uint32_t kSlotSL = 4;
constexpr uint32_t kSlotSR = 5;
