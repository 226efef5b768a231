// Steering detector. The stereo input is split at 1200 Hz into a true
// high band and its residue, the low band. For each band two control signals
// are made per sample: x = ln((|l| + g|r|) / (|r| + g|l|)) for left against
// right and y the same for the sum against the difference. The leakage g
// bounds both to +-ln 10 and keeps the quotient finite. The logarithm comes
// first and the smoothing after it, a 7.95 Hz low-pass over the block.
#include "decoders/steering_detect.h"

#include <cmath>

#include "signal/frame.h"

namespace {

constexpr float kBandSplit = 1200.0f;

// |v| as the detector forms it: anything not >= 0 becomes -0.0 - v.
inline float Magnitude(float v)
{
    return v >= 0.0f ? v : -0.0f - v;
}

// ln((a + g b) / (b + g a)) in double precision, rounded once; 0.0 when both
// magnitudes are exactly zero.
inline float LogRatio(float a, float b)
{
    if (a == 0.0f && b == 0.0f)
        return 0.0f;
    const double g = double(kSteeringLeak);
    const double numerator = double(a) + g * double(b);
    const double denominator = double(b) + g * double(a);
    return float(std::log(numerator / denominator));
}

}  // namespace

void SteeringPair(float l, float r, float& x, float& y)
{
    const float p = r + l;
    const float m = l - r;
    x = LogRatio(Magnitude(l), Magnitude(r));
    y = LogRatio(Magnitude(p), Magnitude(m));
}

void BandSplit(SteeringState& steering, ProcessorBlock& block)
{
    float* high = steering.HighBand.data;
    float* low = steering.LowBand.data;
    const float* f = block.Block->data;
    for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
        high[2 * i] = f[kSlotL];
        high[2 * i + 1] = f[kSlotR];
    }
    HighPass2(steering.BandFilter[0], high, 0, kBandSplit, 2, block);
    HighPass2(steering.BandFilter[1], high, 1, kBandSplit, 2, block);
    f = block.Block->data;
    for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
        low[2 * i] = f[kSlotL] - high[2 * i];
        low[2 * i + 1] = f[kSlotR] - high[2 * i + 1];
    }
}

void SteeringDetect(const ProcessorBlock& block, const float* band, FilterState& xState,
                    FilterState& yState, float* x, float* y)
{
    for (uint32_t i = 0; i < block.Frames; ++i)
        SteeringPair(band[2 * i], band[2 * i + 1], x[i], y[i]);
    // The smoother works in place on the whole array, so it runs after the
    // detection pass; its memory carries the steering over block boundaries.
    LowPass2(xState, x, 0, kSteeringSmoother, 1, block);
    LowPass2(yState, y, 0, kSteeringSmoother, 1, block);
}
