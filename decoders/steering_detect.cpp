// Steering detector. The stereo input is split at 1200 Hz into a true
// high band and its residue, the low band. For each band two control signals
// are made per sample: x = ln((|l| + g|r|) / (|r| + g|l|)) for left against
// right and y the same for the sum against the difference. The leakage g
// bounds both to +-ln 10 and keeps the quotient finite. The logarithm comes
// first and the smoothing after it, a 7.95 Hz low-pass over the block.
#include "decoders/steering_detect.h"

#include <cmath>
#include <cstddef>
#include <cstring>

#include "signal/block_math.h"
#include "signal/frame.h"
#include "signal/lanes.h"

// Every function that takes or returns a wide vector is inlined into its
// caller, so the calling convention of wide vectors, which differs between
// vector units, never comes into play.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace {

constexpr float kBandSplit = 1200.0f;

// |v| as the detector forms it: anything not >= 0 becomes -0.0 - v.
inline float Magnitude(float v)
{
    return v >= 0.0f ? v : -0.0f - v;
}

// The quotient whose logarithm LogRatio takes; 1.0 when both magnitudes are
// zero, whose logarithm is the 0.0 that LogRatio gives then.
inline double RatioOf(float a, float b)
{
    if (a == 0.0f && b == 0.0f)
        return 1.0;
    const double g = double(kSteeringLeak);
    const double numerator = double(a) + g * double(b);
    const double denominator = double(b) + g * double(a);
    return numerator / denominator;
}

// ln((a + g b) / (b + g a)) in double precision, rounded once; 0.0 when both
// magnitudes are exactly zero.
inline float LogRatio(float a, float b)
{
    if (a == 0.0f && b == 0.0f)
        return 0.0f;
    return float(std::log(RatioOf(a, b)));
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
    // A block of 0 frames leaves the bands and the memories as they are and
    // forms no address in bands that a first write of 0 frames has not made.
    if (block.Frames == 0)
        return;
    float* high = steering.HighBand.data;
    float* low = steering.LowBand.data;
    const float* f = block.Block->data;
    for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
        high[2 * i] = f[kSlotL];
        high[2 * i + 1] = f[kSlotR];
    }
    const SectionLane lanes[2] = {{&steering.BandFilter[0], high}, {&steering.BandFilter[1], high + 1}};
    HighPass2Lanes(lanes, 2, kBandSplit, block);
    f = block.Block->data;
    for (uint32_t i = 0; i < block.Frames; ++i, f += kFrameFloats) {
        low[2 * i] = f[kSlotL] - high[2 * i];
        low[2 * i + 1] = f[kSlotR] - high[2 * i + 1];
    }
}

namespace {

// Frames per detection pass: the quotients of a pass wait in doubles on the
// stack for their logarithms.
constexpr uint32_t kDetectFrames = 256;

// Four frames side by side in the vector unit (Floats), each lane in the
// order of operations of RatioOf.
typedef double Doubles __attribute__((vector_size(32)));
constexpr uint32_t kLanes = 4;

__attribute__((always_inline)) inline Floats MagnitudeLanes(Floats v)
{
    const Floats zero = {0.0f, 0.0f, 0.0f, 0.0f};
    const Floats negativeZero = {-0.0f, -0.0f, -0.0f, -0.0f};
    return v >= zero ? v : negativeZero - v;
}

// Where both magnitudes are zero, both become 1, whose quotient is exactly
// the 1.0 that RatioOf gives there.
__attribute__((always_inline)) inline Doubles RatioLanes(Floats a, Floats b)
{
    const Floats zero = {0.0f, 0.0f, 0.0f, 0.0f};
    const Floats one = {1.0f, 1.0f, 1.0f, 1.0f};
    const auto silent = (a == zero) & (b == zero);
    a = silent ? one : a;
    b = silent ? one : b;
    const Doubles g = {double(kSteeringLeak), double(kSteeringLeak), double(kSteeringLeak), double(kSteeringLeak)};
    const Doubles da = __builtin_convertvector(a, Doubles);
    const Doubles db = __builtin_convertvector(b, Doubles);
    const Doubles numerator = da + g * db;
    const Doubles denominator = db + g * da;
    return numerator / denominator;
}

// Raw x and y of `count` frames of an interleaved band, as SteeringPair
// gives them, with the logarithms taken a pass at a time.
void DetectRaw(const float* band, float* x, float* y, uint32_t count)
{
    double qx[kDetectFrames];
    double qy[kDetectFrames];
    for (uint32_t first = 0; first < count; first += kDetectFrames) {
        const uint32_t n = count - first < kDetectFrames ? count - first : kDetectFrames;
        const float* b = band + 2 * std::size_t(first);
        uint32_t i = 0;
        for (; i + kLanes <= n; i += kLanes) {
            Floats lo, hi;
            std::memcpy(&lo, b + 2 * i, sizeof lo);
            std::memcpy(&hi, b + 2 * i + kLanes, sizeof hi);
            const Floats l = __builtin_shufflevector(lo, hi, 0, 2, 4, 6);
            const Floats r = __builtin_shufflevector(lo, hi, 1, 3, 5, 7);
            const Floats p = r + l;
            const Floats m = l - r;
            const Doubles ratioX = RatioLanes(MagnitudeLanes(l), MagnitudeLanes(r));
            const Doubles ratioY = RatioLanes(MagnitudeLanes(p), MagnitudeLanes(m));
            std::memcpy(qx + i, &ratioX, sizeof ratioX);
            std::memcpy(qy + i, &ratioY, sizeof ratioY);
        }
        for (; i < n; ++i) {
            const float l = b[2 * i];
            const float r = b[2 * i + 1];
            const float p = r + l;
            const float m = l - r;
            qx[i] = RatioOf(Magnitude(l), Magnitude(r));
            qy[i] = RatioOf(Magnitude(p), Magnitude(m));
        }
        LogToFloat(qx, x + first, n);
        LogToFloat(qy, y + first, n);
    }
}

}  // namespace

void SteeringDetect(const ProcessorBlock& block, const float* band, FilterState& xState,
                    FilterState& yState, float* x, float* y)
{
    DetectRaw(band, x, y, block.Frames);
    // The smoother works in place on the whole array, so it runs after the
    // detection pass; its memory carries the steering over block boundaries.
    const SectionLane lanes[2] = {{&xState, x}, {&yState, y}};
    LowPass2Lanes(lanes, 1, kSteeringSmoother, block);
}

KELVANE_VECTOR_CLONES void SteeringDetectBands(SteeringState& steering, const ProcessorBlock& block)
{
    DetectRaw(steering.HighBand.data, steering.SteerHighLR.data, steering.SteerHighCS.data, block.Frames);
    DetectRaw(steering.LowBand.data, steering.SteerLowLR.data, steering.SteerLowCS.data, block.Frames);
    const SectionLane lanes[4] = {
        {&steering.SteerFilter[0], steering.SteerHighLR.data},
        {&steering.SteerFilter[1], steering.SteerHighCS.data},
        {&steering.SteerFilter[2], steering.SteerLowLR.data},
        {&steering.SteerFilter[3], steering.SteerLowCS.data},
    };
    LowPass2Lanes(lanes, 1, kSteeringSmoother, block);
}
