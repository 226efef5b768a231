// The fixed matrix decoder: L, R, C and one surround from stereo through a
// constant matrix, then centre and surround trims, the speaker switches and
// the surround tail. SL and SR carry the same surround signal.
#include "decoders/fixed_matrix.h"

#include "filters/surround_tail.h"
#include "signal/frame.h"
#include "signal/gain.h"

namespace {

constexpr float kMatrixInputScale = 0.5f;  // fixed input scale, applied in the loop
constexpr float kMatrixGain = 0.707f;      // 0.7070000171661377
constexpr float kVirtualCentreShare = 0.5f;

}  // namespace

void LoadFixedMatrix(float matrix[kMatrixFloats])
{
    for (int k = 0; k < kMatrixFloats; ++k)
        matrix[k] = 0.0f;
    matrix[2 * kSlotL + 0] = 1.0f;
    matrix[2 * kSlotR + 1] = 1.0f;
    matrix[2 * kSlotC + 0] = kMatrixGain;
    matrix[2 * kSlotC + 1] = kMatrixGain;
    matrix[2 * kSlotSL + 0] = kMatrixGain;
    matrix[2 * kSlotSL + 1] = -kMatrixGain;
    matrix[2 * kSlotSR + 0] = kMatrixGain;
    matrix[2 * kSlotSR + 1] = -kMatrixGain;
}

void ApplyMatrix6x2(const float matrix[kMatrixFloats], ProcessorBlock& block)
{
    float* f = block.Block->data;
    for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
        // Both inputs are taken before any slot is written.
        const float l = f[kSlotL] * kMatrixInputScale;
        const float r = f[kSlotR] * kMatrixInputScale;
        for (uint32_t k = 0; k < kFrameFloats; ++k)
            f[k] = matrix[2 * k] * l + matrix[2 * k + 1] * r;
    }
}

void FixedMatrixDecode(SurroundTailState& tail, ProcessorBlock& block)
{
    float matrix[kMatrixFloats];
    LoadFixedMatrix(matrix);
    ApplyMatrix6x2(matrix, block);

    const float Gc = DecibelGain(block.Centre_Trim);
    const float Gs = DecibelGain(block.Surround_Trim_00);  // already holds the +3
    float* frames = block.Block->data;

    if (block.Virtual_C != 0) {
        // The centre goes into both fronts before the switches, so `C` does
        // not stop it; slot 2 is left silent.
        float* f = frames;
        for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
            const float c = (f[kSlotC] * Gc) * kVirtualCentreShare;
            f[kSlotL] = f[kSlotL] + c;
            f[kSlotR] = c + f[kSlotR];
            f[kSlotC] = 0.0f;
        }
    }

    // The switch words are multipliers, not tests.
    const float switchL = float(block.L);
    const float switchR = float(block.R);
    const float switchC = float(block.C);
    const float switchSL = float(block.SL);
    const float switchSR = float(block.SR);
    float* f = frames;
    for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
        f[kSlotL] = switchL * f[kSlotL];
        f[kSlotR] = switchR * f[kSlotR];
        f[kSlotC] = (switchC * f[kSlotC]) * Gc;
        f[kSlotSL] = (switchSL * f[kSlotSL]) * Gs;
        f[kSlotSR] = (switchSR * f[kSlotSR]) * Gs;
    }

    SurroundTail(tail, block);
}
