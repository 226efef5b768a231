// The matrix encoder. A front-end per channel count brings each frame to one
// form (L, R, C in slots 0..2, the surround sum in slot 3), then EncodeMix
// band-limits the surround sum (100 Hz high-pass, 7000 Hz low-pass), shifts
// its phase through a chain of four all-pass steps, and mixes:
//
//   left  = L + 0.707 C + 0.707 S
//   right = R + 0.707 C - 0.707 S
//
// Slots 2 to 5 leave silent. The five-channel front-end walks its second term
// as if frames were five floats wide; that walk is how this mode has always
// sounded on five-channel sources and it stays.
#include "encoders/matrix_encoder.h"

#include "filters/second_order.h"
#include "signal/frame.h"

namespace {

constexpr float kMixGain = 0.707f;        // 0.7070000171661377
constexpr float kLfeShare = 0.33333334f;  // 0.3333333432674408
constexpr float kLfeGain = 3.162f;        // 3.1619999408721924
constexpr float kSurroundHighPass = 100.0f;
constexpr float kSurroundLowPass = 7000.0f;
constexpr float kChain[4] = {
    0.1617585f,   // 0.16175849735736847
    0.7330289f,   // 0.7330288887023926
    0.94534963f,  // 0.9453496336936951
    0.99059916f,  // 0.9905991554260254
};

}  // namespace

void DownmixFour(ProcessorBlock& block)
{
    float* f = block.Block->data;
    for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
        f[kSlotC] = (f[kSlotL] + f[kSlotR]) * kMixGain;
        f[kSlotLFE] = (f[kSlotSR] + f[kSlotSL]) * kMixGain;
    }
}

void DownmixFive(ProcessorBlock& block)
{
    // F[6i + 3] = (F[6i + 4] + F[5i + 5]) x 0.707: the second term steps five
    // floats per frame, so only frame 0 reads its own right surround; from
    // frame 8 on it reads slot 3 values this loop has just rewritten. Each
    // call starts again at float 5.
    float* F = block.Block->data;
    for (uint32_t i = 0; i < block.Frames; ++i)
        F[6 * i + 3] = (F[6 * i + 4] + F[5 * i + 5]) * kMixGain;
}

void DownmixSix(ProcessorBlock& block)
{
    float* f = block.Block->data;
    for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
        // A third of the LFE, raised by 3.162, into all three fronts.
        const float t = (f[kSlotLFE] * kLfeShare) * kLfeGain;
        f[kSlotL] = f[kSlotL] + t;
        f[kSlotR] = f[kSlotR] + t;
        f[kSlotC] = t + f[kSlotC];
        f[kSlotLFE] = (f[kSlotSR] + f[kSlotSL]) * kMixGain;
    }
}

namespace {

// One sample through the four steps of the chain; moves the one memory.
inline float PhaseChainStep(FilterState& m, float input)
{
    float s = input;
    for (const float k : kChain) {
        const float x = s;
        const float y = k * (m.y2 + x) - m.x2;
        s = y;
        m.x2 = m.x1;
        m.x1 = x;
        m.y2 = m.y1;
        m.y1 = y;
    }
    return s;
}

}  // namespace

void SurroundPhaseChain(FilterState& memory, ProcessorBlock& block)
{
    // Four steps of the form (k - z^-2) / (1 - k z^-2), all on one memory:
    // each step sees the previous step's input and output as its older
    // samples. That sharing makes the chain one fourth-order system, which
    // is the phase response of this encoder.
    FilterState m = memory;
    float* s = block.Block->data + kSlotLFE;
    for (uint32_t i = 0; i < block.Frames; ++i, s += kFrameFloats)
        *s = PhaseChainStep(m, *s);
    memory = m;
}

void EncodeMix(MatrixEncoderState& encoder, ProcessorBlock& block)
{
    // High-pass, low-pass and chain on the surround sum, then the mix, all in
    // one pass: each sample goes through the three in turn, every recursion
    // with its own memory, so the values are those of three passes over the
    // block, while the three recursions overlap in the processor.
    const SectionCoefficients high = HighPassCoefficients(kSurroundHighPass, block.Sample_Rate);
    const SectionCoefficients low = LowPassCoefficients(kSurroundLowPass, block.Sample_Rate);
    FilterState highMemory = encoder.LfeHighPass;
    FilterState lowMemory = encoder.LfeLowPass;
    FilterState chainMemory = encoder.LfeChain;

    float* f = block.Block->data;
    for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
        const float band = LowPassStep(low, lowMemory, HighPassStep(high, highMemory, f[kSlotLFE]));
        const float shifted = PhaseChainStep(chainMemory, band);
        const float c = f[kSlotC] * kMixGain;
        const float s = shifted * kMixGain;
        f[kSlotL] = (s + f[kSlotL]) + c;
        f[kSlotR] = (c - s) + f[kSlotR];
        f[kSlotC] = 0.0f;
        f[kSlotLFE] = 0.0f;
        f[kSlotSL] = 0.0f;
        f[kSlotSR] = 0.0f;
    }
    encoder.LfeHighPass = highMemory;
    encoder.LfeLowPass = lowMemory;
    encoder.LfeChain = chainMemory;
}
