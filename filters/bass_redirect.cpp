// Bass redirection: L, R and C are high-passed in place at Bass_Redir and the
// three removed parts, summed, go to the LFE slot at -10 dB plus the trim.
// The low part is the complement of the high-pass, not a filter of its own.
#include "filters/bass_redirect.h"

#include "filters/second_order.h"
#include "signal/frame.h"
#include "signal/gain.h"

namespace {

constexpr float kBassDrop = 0.316f;  // 0.316000015, a fixed drop of about 10 dB

}  // namespace

float BassRedirectGain(int32_t bassTrim, int32_t bassInvert)
{
    const double sign = bassInvert != 0 ? -1.0 : 1.0;
    // Multiplied in double in this order and rounded once.
    return float(DecibelPower(bassTrim) * sign * double(kBassDrop));
}

void BassRedirect(BassRedirectState& bass, ProcessorBlock& block)
{
    // The sum is cleared on every block, also while the stage is off.
    float* sum = bass.BassSum.Resize(block.Frames, true);
    if (block.Bass_Redir_Enable == 0)
        return;

    const float gain = BassRedirectGain(block.Bass_Trim, block.Bass_Invert);
    const float cutoff = float(block.Bass_Redir);
    // The three sections side by side; the removed parts are summed L, R, C.
    FilterState* const states[3] = {&bass.BassFilter[0], &bass.BassFilter[1], &bass.BassFilter[2]};
    const uint32_t slots[3] = {kSlotL, kSlotR, kSlotC};
    SplitHighPass2Lanes(states, slots, sum, cutoff, block);

    float* lfe = block.Block->data + kSlotLFE;
    for (uint32_t i = 0; i < block.Frames; ++i, lfe += kFrameFloats)
        *lfe = sum[i] * gain + *lfe;
}
