// The headphone convolver. Each ear is the sum of five convolutions, every
// speaker reaching each ear through its own impulse response: the near table
// to the ear on the speaker's side, the far table to the other, the centre
// with one table per ear; LFE reaches neither ear.
//
// Overlap-add over 8192-frame blocks with 16384-point real transforms, so
// the full linear convolution of a block with an 8192-sample table fits
// without wrap-around. Frames are collected until a block is whole and then
// handed out 8192 at once, so a write mostly returns no frames and now and
// then 8192. The ten products are transformed back one by one and summed in
// the time domain. The overlap scale is 1/8192, not 1/16384, which makes the
// ears twice the convolution; the ear scale of 0.354 then takes them to 0.708
// of it. Both scalings stay separate steps.
#include "encoders/headphone_convolver.h"

#include <fftw3.h>

#include <cstring>
#include <type_traits>

#include "encoders/impulse_tables.h"
#include "signal/frame.h"
#include "signal/lanes.h"

static_assert(std::is_same_v<fftwf_plan, FftPlan>, "the engine holds FFTW's own plan handles");

namespace {

constexpr float kOverlapScale = 0.0001220703125f;  // 2^-13, exact
constexpr float kEarScale = 0.354f;                // 0.3540000021457672
constexpr int kSpeakers = 5;                       // L, R, C, SL, SR
constexpr int kProducts = 10;
constexpr uint32_t kPaddingFloats = kSpectrumFloats - kBlockFrames;  // 8194

// Per speaker: its frame slot and the two tables of its product pair
// (even product = near table, or centre-left; odd = far, or centre-right).
struct SpeakerRoute {
    uint32_t slot;
    int firstTable;
    int secondTable;
};
constexpr SpeakerRoute kRoutes[kSpeakers] = {
    {kSlotL, ImpulseFrontNear, ImpulseFrontFar},        // products 0 (left ear), 1 (right)
    {kSlotR, ImpulseFrontNear, ImpulseFrontFar},        // 2 (right ear), 3 (left)
    {kSlotC, ImpulseCentreLeft, ImpulseCentreRight},    // 4 (left ear), 5 (right)
    {kSlotSL, ImpulseSurroundNear, ImpulseSurroundFar}, // 6 (left ear), 7 (right)
    {kSlotSR, ImpulseSurroundNear, ImpulseSurroundFar}, // 8 (right ear), 9 (left)
};

fftwf_plan ForwardPlan(SampleBlock& block)
{
    return fftwf_plan_dft_r2c_1d(int(kTransformLength), block.data,
                                 reinterpret_cast<fftwf_complex*>(block.data), FFTW_MEASURE);
}

fftwf_plan InversePlan(SampleBlock& block)
{
    return fftwf_plan_dft_c2r_1d(int(kTransformLength), reinterpret_cast<fftwf_complex*>(block.data),
                                 block.data, FFTW_MEASURE);
}

// Collects `count` frames starting at `frames` into the five input blocks at
// float `at`, each speaker times its switch.
void Collect(HeadphoneConvolver& convolver, const ProcessorBlock& block, const float* frames, uint32_t count, uint32_t at)
{
    float* inputs[kSpeakers];
    for (int s = 0; s < kSpeakers; ++s)
        inputs[s] = convolver.InputBlock[s].data + at;
    const int32_t switches[kSpeakers] = {block.L, block.R, block.C, block.SL, block.SR};
    const float* f = frames;
    for (uint32_t m = 0; m < count; ++m, f += kFrameFloats)
        for (int s = 0; s < kSpeakers; ++s)
            inputs[s][m] = float(switches[s]) * f[kRoutes[s].slot];
}

// Plain complex product of a spectrum with a table's spectrum, all bins:
// re = xr ar - xi ai, im = xr ai + xi ar.
void MultiplySpectra(const float* x, const float* a, float* out)
{
    uint32_t k = 0;
    for (; k + 8 <= kSpectrumFloats; k += 8) {
        const Floats x0 = LoadFloats(x + k), x1 = LoadFloats(x + k + 4);
        const Floats a0 = LoadFloats(a + k), a1 = LoadFloats(a + k + 4);
        const Floats xr = __builtin_shufflevector(x0, x1, 0, 2, 4, 6);
        const Floats xi = __builtin_shufflevector(x0, x1, 1, 3, 5, 7);
        const Floats ar = __builtin_shufflevector(a0, a1, 0, 2, 4, 6);
        const Floats ai = __builtin_shufflevector(a0, a1, 1, 3, 5, 7);
        const Floats re = xr * ar - xi * ai;
        const Floats im = xr * ai + xi * ar;
        StoreFloats(out + k, __builtin_shufflevector(re, im, 0, 4, 1, 5));
        StoreFloats(out + k + 4, __builtin_shufflevector(re, im, 2, 6, 3, 7));
    }
    for (; k < kSpectrumFloats; k += 2) {
        const float re = x[k] * a[k] - x[k + 1] * a[k + 1];
        const float im = x[k] * a[k + 1] + x[k + 1] * a[k];
        out[k] = re;
        out[k + 1] = im;
    }
}

// The speakers of a block from `first` up to `last`: each one's forward
// transform, its two products and their inverse transforms. A speaker
// touches only its own input block and its own two product blocks, so
// shares of speakers may run side by side.
struct SpeakerShare {
    HeadphoneConvolver* convolver;
    int first;
    int last;
};

void TransformSpeakers(const SpeakerShare& share)
{
    HeadphoneConvolver& convolver = *share.convolver;
    for (int s = share.first; s < share.last; ++s)
        fftwf_execute(convolver.InputPlan[s]);
    for (int s = share.first; s < share.last; ++s) {
        const int p = 2 * s;
        const float* x = convolver.InputBlock[s].data;
        MultiplySpectra(x, convolver.ImpulseSpectrum[kRoutes[s].firstTable].data,
                        convolver.ProductBlock[p].data);
        MultiplySpectra(x, convolver.ImpulseSpectrum[kRoutes[s].secondTable].data,
                        convolver.ProductBlock[p + 1].data);
        fftwf_execute(convolver.ProductPlan[p]);
        fftwf_execute(convolver.ProductPlan[p + 1]);
    }
}

void TransformSpeakersOnHelper(void* share)
{
    TransformSpeakers(*static_cast<const SpeakerShare*>(share));
}

// The share offered to the helper: SL and SR, six of the fifteen
// transforms; the caller takes L, R and C meanwhile, and SL and SR as well
// when the helper has not woken by then.
constexpr int kFirstHelperSpeaker = 3;

// One whole block of collected input: transforms, products, overlap-add into
// `ears` (16384 floats, ears interleaved).
void ConvolveBlock(HeadphoneConvolver& convolver, float* ears)
{
    for (int s = 0; s < kSpeakers; ++s)
        std::memset(convolver.InputBlock[s].data + kBlockFrames, 0, kPaddingFloats * sizeof(float));
    if (convolver.Helper != nullptr) {
        SpeakerShare helper_share{&convolver, kFirstHelperSpeaker, kSpeakers};
        OfferToHelper(*convolver.Helper, TransformSpeakersOnHelper, &helper_share);
        TransformSpeakers(SpeakerShare{&convolver, 0, kFirstHelperSpeaker});
        FinishOffer(*convolver.Helper);
    } else {
        TransformSpeakers(SpeakerShare{&convolver, 0, kSpeakers});
    }

    const float* P[kProducts];
    for (int p = 0; p < kProducts; ++p)
        P[p] = convolver.ProductBlock[p].data;
    float* overlap = convolver.OverlapBlock.data;
    // Four frames at a time. Left ear: products 0, 3, 4, 6, 9. Right ear: 1,
    // 2, 5, 7, 8. The sum is scaled once, after its five terms.
    for (uint32_t i = 0; i < kBlockFrames; i += 4) {
        const uint32_t j = i + kBlockFrames;
        const Floats left = ((((LoadFloats(P[0] + i) + LoadFloats(P[3] + i)) + LoadFloats(P[4] + i)) +
                              LoadFloats(P[6] + i)) + LoadFloats(P[9] + i)) * kOverlapScale;
        const Floats right = ((((LoadFloats(P[1] + i) + LoadFloats(P[2] + i)) + LoadFloats(P[5] + i)) +
                               LoadFloats(P[7] + i)) + LoadFloats(P[8] + i)) * kOverlapScale;
        const Floats tailLeft = ((((LoadFloats(P[0] + j) + LoadFloats(P[3] + j)) + LoadFloats(P[4] + j)) +
                                  LoadFloats(P[6] + j)) + LoadFloats(P[9] + j)) * kOverlapScale;
        const Floats tailRight = ((((LoadFloats(P[1] + j) + LoadFloats(P[2] + j)) + LoadFloats(P[5] + j)) +
                                   LoadFloats(P[7] + j)) + LoadFloats(P[8] + j)) * kOverlapScale;
        // Ears and overlap hold the two ears interleaved.
        float* e = ears + 2 * i;
        float* o = overlap + 2 * i;
        const Floats e0 = LoadFloats(e), e1 = LoadFloats(e + 4);
        const Floats o0 = LoadFloats(o), o1 = LoadFloats(o + 4);
        const Floats earLeft = (left + __builtin_shufflevector(e0, e1, 0, 2, 4, 6)) +
                               __builtin_shufflevector(o0, o1, 0, 2, 4, 6);
        const Floats earRight = (right + __builtin_shufflevector(e0, e1, 1, 3, 5, 7)) +
                                __builtin_shufflevector(o0, o1, 1, 3, 5, 7);
        StoreFloats(e, __builtin_shufflevector(earLeft, earRight, 0, 4, 1, 5));
        StoreFloats(e + 4, __builtin_shufflevector(earLeft, earRight, 2, 6, 3, 7));
        StoreFloats(o, __builtin_shufflevector(tailLeft, tailRight, 0, 4, 1, 5));
        StoreFloats(o + 4, __builtin_shufflevector(tailLeft, tailRight, 2, 6, 3, 7));
    }
}

}  // namespace

void BuildHeadphoneConvolver(HeadphoneConvolver& convolver)
{
    // The planner may scribble on its array, so every array is filled after
    // its plan exists.
    for (int t = 0; t < kImpulseTableCount; ++t)
        convolver.ImpulseSpectrum[t].Resize(kSpectrumFloats, false);
    for (int t = 0; t < kImpulseTableCount; ++t) {
        SampleBlock& spectrum = convolver.ImpulseSpectrum[t];
        // Overwritten for each table: the first five handles are dropped and
        // never destroyed, on purpose.
        convolver.ImpulsePlan = ForwardPlan(spectrum);
        CopyImpulseTable(t, spectrum.data);
        std::memset(spectrum.data + kBlockFrames, 0, kPaddingFloats * sizeof(float));
        fftwf_execute(convolver.ImpulsePlan);
    }
    for (int s = 0; s < kSpeakers; ++s)
        convolver.InputBlock[s].Resize(kSpectrumFloats, false);
    for (int s = 0; s < kSpeakers; ++s)
        convolver.InputPlan[s] = ForwardPlan(convolver.InputBlock[s]);
    for (int p = 0; p < kProducts; ++p)
        convolver.ProductBlock[p].Resize(kSpectrumFloats, false);
    for (int p = 0; p < kProducts; ++p)
        convolver.ProductPlan[p] = InversePlan(convolver.ProductBlock[p]);
    convolver.OverlapBlock.Resize(kTransformLength, true);
    convolver.Pending_Frames = 0;
}

void DestroyHeadphonePlans(HeadphoneConvolver& convolver)
{
    for (int s = 0; s < kSpeakers; ++s)
        fftwf_destroy_plan(convolver.InputPlan[s]);
    fftwf_destroy_plan(convolver.ImpulsePlan);
    for (int p = 0; p < kProducts; ++p)
        fftwf_destroy_plan(convolver.ProductPlan[p]);
}

void ConvolveHeadphone(HeadphoneConvolver& convolver, ProcessorBlock& block)
{
    const uint32_t n = block.Frames;
    const uint32_t blocks = (n + convolver.Pending_Frames) >> 13;
    uint32_t r = 0;

    float* ears = convolver.EarBlock.Resize(blocks * kTransformLength, true);
    for (uint32_t j = 0; j < blocks; ++j) {
        const uint32_t c = kBlockFrames - convolver.Pending_Frames;
        Collect(convolver, block, block.Block->data + std::size_t(r) * kFrameFloats, c,
                convolver.Pending_Frames);
        r += c;
        convolver.Pending_Frames = 0;
        ConvolveBlock(convolver, ears + std::size_t(j) * kTransformLength);
    }

    // The frames behind the last whole block wait for the next call.
    const uint32_t rest = n - r;
    Collect(convolver, block, block.Block->data + std::size_t(r) * kFrameFloats, rest,
            convolver.Pending_Frames);
    convolver.Pending_Frames += rest;

    if (blocks == 0) {
        block.Frames = 0;
        return;
    }
    block.Frames = blocks * kBlockFrames;
    float* f = block.Block->Resize(kFrameFloats * block.Frames, false);
    for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
        f[kSlotL] = ears[2 * i] * kEarScale;
        f[kSlotR] = ears[2 * i + 1] * kEarScale;
        f[kSlotC] = 0.0f;
        f[kSlotLFE] = 0.0f;
        f[kSlotSL] = 0.0f;
        f[kSlotSR] = 0.0f;
    }
}
