// The mode dispatcher. One switch, read top to bottom like the decision
// table it implements: the source's channel count first, then the mode, and
// for the Headphone mode the sample rate (44100 to 48000, signed). The
// decoders run only on stereo, the encoder only on four to six channels,
// and everything else takes the pass-through at 0.707.
#include "engine/dispatch.h"

#include "decoders/fixed_matrix.h"
#include "decoders/steered_matrix.h"
#include "encoders/headphone_convolver.h"
#include "encoders/matrix_encoder.h"
#include "filters/bass_redirect.h"
#include "engine/engine.h"
#include "signal/frame.h"

namespace {

constexpr int32_t kHeadphoneMode = 4;
constexpr int32_t kSurroundOffset = 3;  // surround levels sit 3 dB above the setting

bool HeadphoneRate(const ProcessorBlock& block)
{
    return block.Sample_Rate >= kHeadphoneRateLow && block.Sample_Rate <= kHeadphoneRateHigh;
}

}  // namespace

void PassThrough(ProcessorBlock& block)
{
    float* f = block.Block->data;
    const uint32_t floats = block.Frames * kFrameFloats;
    for (uint32_t k = 0; k < floats; ++k)
        f[k] = f[k] * kPassThroughGain;
}

uint32_t BlockLength()
{
    return kBlockFrames;
}

uint32_t OutputFrames(const ProcessorBlock& block)
{
    const uint32_t total = block.Frames + EngineState.Pending_Frames;
    if (block.Mode == kHeadphoneMode)
        return total < kBlockFrames ? 0 : total & ~(kBlockFrames - 1);
    return total;
}

void DispatchMode(ProcessorBlock& block)
{
    block.Out_Channels = block.In_Channels;
    if (block.Mode == kHeadphoneMode) {
        // The convolver stands in for width, bass redirection, virtual centre
        // and the trims; delay, bass settings and switches stay in force.
        block.Centre_Width = 0;
        block.Bass_Redir_Enable = 0;
        block.Virtual_C = 0;
        block.Centre_Trim = 0;
        block.Surround_Trim_00 = 0;
    }
    block.Surround_Trim_00 += kSurroundOffset;

    switch (block.In_Channels) {
    case 2:
        switch (block.Mode) {
        case 0:
        case 5:
            PassThrough(block);
            block.Out_Channels = 2;
            break;
        case 2:
        case 3:
            SteeredMatrixDecode(block);
            BassRedirect(block);
            block.Out_Channels = 6;
            break;
        case kHeadphoneMode:
            // Out of range: the frames leave as converted, with no gain at
            // all, and the decoder is skipped too.
            if (!HeadphoneRate(block))
                return;
            SteeredMatrixDecode(block);
            ConvolveHeadphone(block);
            block.Out_Channels = 2;
            break;
        default:  // 1, and any value outside 0..5
            FixedMatrixDecode(block);
            BassRedirect(block);
            block.Out_Channels = 6;
            break;
        }
        break;
    case 4:
    case 5:
    case 6:
        if (block.Mode == kHeadphoneMode) {
            if (!HeadphoneRate(block))
                return;
            ConvolveHeadphone(block);
            block.Out_Channels = 2;
        } else if (block.Mode == 5) {
            if (block.In_Channels == 4)
                DownmixFour(block);
            else if (block.In_Channels == 5)
                DownmixFive(block);
            else
                DownmixSix(block);
            EncodeMix(block);
            block.Out_Channels = 2;
        } else {
            PassThrough(block);
        }
        break;
    default:  // 1, 3, or above 6
        PassThrough(block);
        break;
    }

    // Leaving the Headphone mode with frames held back: the count makes up
    // for them. `size` is still 49152 here, so the zeros land from frame 8192
    // on; the frames that the count adds below that are whatever the array
    // still holds from earlier writes.
    if (block.Mode != kHeadphoneMode && EngineState.Pending_Frames != 0) {
        block.Block->Extend(kFrameFloats * EngineState.Pending_Frames);
        block.Frames += EngineState.Pending_Frames;
        EngineState.Pending_Frames = 0;
    }
}
