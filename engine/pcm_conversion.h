// PCM conversion: the one routine between the plug-in shell and the
// processing. Host PCM (1 to 6 channels of 8, 16, 24 or 32 bits) becomes
// Frame6 records in FrameBlock, the dispatcher runs, and the frames leave as
// six-channel PCM of Output_Bits bits at 0.85 of full scale in PcmBlock.
#pragma once

#include <cstdint>

#include "signal/sample_block.h"

// The stream words latched at Open.
struct StreamWords {
    uint32_t Stream_Channels;  // source channels
    uint32_t Stream_Bits;      // source bits per sample
    int32_t Stream_Rate;       // sample rate in hertz
    uint32_t Output_Bits;      // Out_Bits as it stood at Open
};

constexpr uint32_t kFrameBlockFloats = 49152;  // 8192 frames, asked for at every write

constexpr float kScale8 = 0.0078125f;                  // 1/128
constexpr float kScale16 = 3.0517578125e-05f;          // 1/32768
constexpr float kScale32 = 4.656612873077393e-10f;     // 1/2147483648, also for 24 bits
constexpr float kOutputScale16 = 27852.80078125f;      // 0.85 x 32768
constexpr float kOutputScale24 = 7130317.0f;           // 0.85 x 8388608
constexpr float kOutputScale32 = 1825361152.0f;        // 0.85 x 2147483648

// The frames of the write; keeps earlier writes' frames behind the current ones.
extern SampleBlock FrameBlock;
// The output PCM as bytes; its size counts four-byte units.
extern SampleBlock PcmBlock;

// Converts `frames` frames at `source`, processes them, and leaves the output
// in PcmBlock; `frames` comes back as the count of frames in PcmBlock. The
// settings are read from ProcessorSettings as they stand. Write path.
void ConvertAndProcess(const StreamWords& stream, const uint8_t* source, uint32_t& frames);

// Float to signed 32-bit by truncation toward zero; anything outside the
// 32-bit range, and NaN, becomes 0x80000000.
int32_t TruncateToInt32(float value);
