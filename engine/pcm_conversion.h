// PCM conversion: the one routine between the plug-in shell and the
// processing. Host PCM (1 to 6 channels of 8, 16, 24 or 32 bits) becomes
// Frame6 records in the engine's FrameBlock, the dispatcher runs, and the
// frames leave as six-channel PCM of Output_Bits bits at 0.85 of full scale
// in its PcmBlock.
#pragma once

#include <cstdint>

#include "engine/engine.h"
#include "signal/processor.h"

constexpr uint32_t kFrameBlockFloats = 49152;  // 8192 frames, asked for at every write

constexpr float kScale8 = 0.0078125f;                  // 1/128
constexpr float kScale16 = 3.0517578125e-05f;          // 1/32768
constexpr float kScale32 = 4.656612873077393e-10f;     // 1/2147483648, also for 24 bits
constexpr float kOutputScale16 = 27852.80078125f;      // 0.85 x 32768
constexpr float kOutputScale24 = 7130317.0f;           // 0.85 x 8388608
constexpr float kOutputScale32 = 1825361152.0f;        // 0.85 x 2147483648

// Converts `frames` frames at `source`, processes them on `engine`, and
// leaves the output in engine.PcmBlock; `frames` comes back as the count of
// frames there. `sourceBytes` is the length of the host's buffer, at least
// the frames' bytes: the two run-on conversions read on into it and read
// nothing behind it. The settings are read word by word as they stand at
// this moment: the dialog may change them between writes. Write path.
void ConvertAndProcess(Engine& engine, const ProcessorSettingsRecord& settings, const StreamWords& stream,
                       const uint8_t* source, uint32_t sourceBytes, uint32_t& frames);

// Float to signed 32-bit by truncation toward zero; anything outside the
// 32-bit range, and NaN, becomes 0x80000000.
int32_t TruncateToInt32(float value);
