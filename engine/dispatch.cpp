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
#include "signal/frame.h"

namespace {

constexpr int32_t kSurroundOffset = 3;  // surround levels sit 3 dB above the setting

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

uint32_t OutputFrames(const Engine& engine, const ProcessorBlock& block)
{
    const uint32_t total = block.Frames + engine.Headphone.Pending_Frames;
    if (block.Mode == kModeHeadphone)
        return total < kBlockFrames ? 0 : total & ~(kBlockFrames - 1);
    return total;
}

void DispatchMode(Engine& engine, ProcessorBlock& block)
{
    block.Out_Channels = block.In_Channels;
    if (block.Mode == kModeHeadphone) {
        // The convolver stands in for width, bass redirection, virtual centre
        // and the trims; delay, bass settings and switches stay in force.
        block.Centre_Width = 0;
        block.Bass_Redir_Enable = 0;
        block.Virtual_C = 0;
        block.Centre_Trim = 0;
        block.Surround_Trim_00 = 0;
    }
    // Setting words are 32-bit two's complement: the offset wraps at the top.
    block.Surround_Trim_00 = int32_t(uint32_t(block.Surround_Trim_00) + uint32_t(kSurroundOffset));

    switch (block.In_Channels) {
    case 2:
        switch (block.Mode) {
        case kModeBypass:
        case kModeEncode:  // the encoder needs four to six channels
            PassThrough(block);
            block.Out_Channels = 2;
            break;
        case kModeSteered:
        case kModeSteeredTwoSurround:
            SteeredMatrixDecode(engine.Steering, engine.Surround, block);
            BassRedirect(engine.Bass, block);
            block.Out_Channels = 6;
            break;
        case kModeHeadphone:
            // Out of range: the frames leave as converted, with no gain at
            // all, and the decoder is skipped too.
            if (!IsHeadphoneRate(block.Sample_Rate))
                return;
            SteeredMatrixDecode(engine.Steering, engine.Surround, block);
            ConvolveHeadphone(engine.Headphone, block);
            block.Out_Channels = 2;
            break;
        case kModeFixedMatrix:
        default:  // any value outside 0..5 decodes as the fixed matrix
            FixedMatrixDecode(engine.Surround, block);
            BassRedirect(engine.Bass, block);
            block.Out_Channels = 6;
            break;
        }
        break;
    case 4:
    case 5:
    case 6:
        if (block.Mode == kModeHeadphone) {
            if (!IsHeadphoneRate(block.Sample_Rate))
                return;
            ConvolveHeadphone(engine.Headphone, block);
            block.Out_Channels = 2;
        } else if (block.Mode == kModeEncode) {
            if (block.In_Channels == 4)
                DownmixFour(block);
            else if (block.In_Channels == 5)
                DownmixFive(block);
            else
                DownmixSix(block);
            EncodeMix(engine.Encoder, block);
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
    uint32_t& pending = engine.Headphone.Pending_Frames;
    if (block.Mode != kModeHeadphone && pending != 0) {
        block.Block->Extend(kFrameFloats * pending);
        block.Frames += pending;
        pending = 0;
    }
}
