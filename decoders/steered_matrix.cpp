// The steered matrix decoder: for each frame and each band, the smoothed
// steering becomes four exponential terms, and every output is a
// combination of the band's l and r with coefficients linear in those terms.
// The two bands are added, the centre is distributed by width or folded into
// the fronts, the switches act last, then the surround tail.
//
// Mode 2 has one surround (to both SL and SR, with a further 0.707); every
// other mode that reaches this stage, the Headphone mode included, has the
// two separate surround rows.
#include "decoders/steered_matrix.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "decoders/steering_detect.h"
#include "filters/surround_tail.h"
#include "signal/block_math.h"
#include "signal/frame.h"
#include "signal/gain.h"
#include "signal/lanes.h"

namespace {

constexpr float kBandInputGain = 0.707f;   // 0.7070000171661377
constexpr float kSteerSlope = 0.839f;      // 0.838999987
constexpr float kSingleSurroundGain = 0.707f;
constexpr float kWidthStep = 0.00666666683f;  // 1/150 as a float
constexpr float kCentreKeep = 0.333f;         // 0.333000004
constexpr float kVirtualCentreShare = 0.5f;
constexpr float kFullWidth = 100.0f;

// The row constants, as floats.
constexpr float k013 = 0.13f, k0273 = 0.273f, k0293 = 0.293f, k0299 = 0.299f, k0408 = 0.408f;
constexpr float k05 = 0.5f, k0077 = 0.077f, k0092 = 0.092f, k0193 = 0.193f, k0207 = 0.207f;
constexpr float k00547 = 0.0547f, k00649 = 0.0649f, k0136 = 0.136f, k0146 = 0.146f;
constexpr float k0204 = 0.204f, k0254 = 0.254f, k0274 = 0.274f, k0324 = 0.324f;
constexpr float k0354 = 0.354f, k0612 = 0.612f;

// 0.839 t in double precision, not rounded.
inline double SteerExpArgument(float t)
{
    return double(kSteerSlope) * double(t);
}

// exp(0.839 t), the product and the exponential in double, rounded once. A
// t of exactly zero, either sign, gives exactly 1 without the exponential.
inline float SteerExp(float t)
{
    if (t == 0.0f)
        return 1.0f;
    return float(std::exp(SteerExpArgument(t)));
}

// Four frames side by side, in the vector unit (Floats); every lane follows
// the operations of one frame in its order.
constexpr uint32_t kLanes = 4;

template <class T>
inline T RowValue(const T row[2], T l, T r)
{
    return row[0] * l + row[1] * r;
}

template <class T>
inline SteeredRowsOf<T> RowsOf(const SteeringTermsOf<T>& e)
{
    const T eL = e.eL, eR = e.eR, eC = e.eC, eS = e.eS;
    SteeredRowsOf<T> m;
    // Evaluated from the innermost bracket, in the order written.
    m.frontLeft[0] = ((k013 * eR + k0299 * (eS + eC)) - k0293 * eL) + k0273;
    m.frontLeft[1] = k0408 * eC - k0408 * eS;
    m.frontRight[0] = k0408 * eC - k0408 * eS;
    m.frontRight[1] = ((k0299 * (eS + eC) - k0293 * eR) + k013 * eL) + k0273;
    m.centre[0] = (((k0092 * eS - k0207 * eC) - k0077 * eR) + k05 * eL) + k0193;
    m.centre[1] = ((k05 * eR + (k0092 * eS - k0207 * eC)) - k0077 * eL) + k0193;
    m.surround[0] = (((k0092 * eC - k0207 * eS) - k0077 * eR) + k05 * eL) + k0193;
    m.surround[1] = (((k0207 * eS - k0092 * eC) - k05 * eR) + k0077 * eL) - k0193;
    m.leftSurround[0] = (((k0324 * eC - k0254 * eS) + k0204 * eR) + k0612 * eL) - k0274;
    m.leftSurround[1] = (((k0146 * eS - k00649 * eC) - k0354 * eR) + k00547 * eL) - k0136;
    // The right surround mirrors the left (l with r, eL with eR) and negates it.
    m.rightSurround[0] = (((k00649 * eC - k0146 * eS) - k00547 * eR) + k0354 * eL) + k0136;
    m.rightSurround[1] = (((k0254 * eS - k0324 * eC) - k0612 * eR) - k0204 * eL) + k0274;
    return m;
}

// The six values of one band: each row applied to the band's l and r.
struct BandValues {
    Floats frontLeft, frontRight, centre, surround, leftSurround, rightSurround;
};

inline BandValues BandRows(const SteeringTermsOf<Floats>& e, Floats bandLeft, Floats bandRight)
{
    const SteeredRowsOf<Floats> rows = RowsOf(e);
    const Floats l = kBandInputGain * bandLeft;
    const Floats r = kBandInputGain * bandRight;
    return {RowValue(rows.frontLeft, l, r),    RowValue(rows.frontRight, l, r),
            RowValue(rows.centre, l, r),       RowValue(rows.surround, l, r),
            RowValue(rows.leftSurround, l, r), RowValue(rows.rightSurround, l, r)};
}

// The terms of one band from its smoothed steering and the exponentials of
// -0.839 |x| and -0.839 |y|: of each pair one term is that exponential and
// the other exp(0) = 1, as MakeSteeringTerms forms them.
inline SteeringTermsOf<Floats> TermsOf(Floats x, Floats y, Floats expX, Floats expY)
{
    const Floats one = {1.0f, 1.0f, 1.0f, 1.0f};
    const Floats zero = {0.0f, 0.0f, 0.0f, 0.0f};
    return {x >= zero ? expX : one, x < zero ? expX : one, y >= zero ? expY : one, y < zero ? expY : one};
}

// The argument of the one exponential of a steering value that is not
// exp(0): 0.839 t for t = -|v|, as MakeSteeringTerms forms it.
inline double HalfWaveArgument(float v)
{
    return SteerExpArgument(v >= 0.0f ? -0.0f - v : v);
}

// Frames per pass of the decoder: the exponentials of a pass wait on the stack.
constexpr uint32_t kDecodeFrames = 256;

// Up to four values from `p`, the rest of the lanes `fill`.
inline Floats Load(const float* p, uint32_t count, float fill)
{
    Floats v = {fill, fill, fill, fill};
    if (count >= kLanes) {
        std::memcpy(&v, p, sizeof v);
    } else {
        for (uint32_t j = 0; j < count; ++j)
            v[j] = p[j];
    }
    return v;
}

// The decoder's settings of one block, made once.
struct DecodeSettings {
    float Gc, Gs;
    float switchL, switchR, switchC, switchSL, switchSR;
    float W;
    bool singleSurround;
    bool virtualCentre;
};

// Up to four frames from `first`: both bands' rows, the sum, the centre, the switches.
void DecodeLanes(const SteeringState& steering, const DecodeSettings& s, const float (&exps)[4][kDecodeFrames],
                 uint32_t first, uint32_t at, uint32_t count, float* frames)
{
    // Steering of the unused lanes is 0, whose terms are all 1.
    const Floats highX = Load(steering.SteerHighLR.data + first, count, 0.0f);
    const Floats highY = Load(steering.SteerHighCS.data + first, count, 0.0f);
    const Floats lowX = Load(steering.SteerLowLR.data + first, count, 0.0f);
    const Floats lowY = Load(steering.SteerLowCS.data + first, count, 0.0f);
    const Floats highExpX = Load(exps[0] + at, count, 1.0f);
    const Floats highExpY = Load(exps[1] + at, count, 1.0f);
    const Floats lowExpX = Load(exps[2] + at, count, 1.0f);
    const Floats lowExpY = Load(exps[3] + at, count, 1.0f);
    // The bands hold l and r interleaved.
    const float* high = steering.HighBand.data + 2 * std::size_t(first);
    const float* low = steering.LowBand.data + 2 * std::size_t(first);
    const Floats high0 = Load(high, 2 * count, 0.0f), high1 = Load(high + kLanes, 2 * count - std::min(2 * count, kLanes), 0.0f);
    const Floats low0 = Load(low, 2 * count, 0.0f), low1 = Load(low + kLanes, 2 * count - std::min(2 * count, kLanes), 0.0f);
    const Floats highL = __builtin_shufflevector(high0, high1, 0, 2, 4, 6);
    const Floats highR = __builtin_shufflevector(high0, high1, 1, 3, 5, 7);
    const Floats lowL = __builtin_shufflevector(low0, low1, 0, 2, 4, 6);
    const Floats lowR = __builtin_shufflevector(low0, low1, 1, 3, 5, 7);

    const BandValues h = BandRows(TermsOf(highX, highY, highExpX, highExpY), highL, highR);
    const BandValues b = BandRows(TermsOf(lowX, lowY, lowExpX, lowExpY), lowL, lowR);

    const Floats FL = b.frontLeft + h.frontLeft;
    const Floats FR = b.frontRight + h.frontRight;
    const Floats Craw = (b.centre + h.centre) * s.Gc;
    Floats SLo, SRo;
    if (s.singleSurround) {
        SLo = ((b.surround + h.surround) * s.Gs) * kSingleSurroundGain;
        SRo = SLo;
    } else {
        SLo = (b.leftSurround + h.leftSurround) * s.Gs;
        SRo = (b.rightSurround + h.rightSurround) * s.Gs;
    }

    Floats Lo, Ro, Co;
    if (s.virtualCentre) {
        const Floats p = Craw * kVirtualCentreShare;
        Lo = FL + p;
        Ro = FR + p;
        Co = Floats{0.0f, 0.0f, 0.0f, 0.0f};
    } else {
        // Unclamped: a width outside 0..100 is used as it stands.
        const Floats p = (s.W * kWidthStep) * Craw;
        Lo = FL + p;
        Ro = FR + p;
        Co = (((kFullWidth - s.W) * kWidthStep) + kCentreKeep) * Craw;
    }

    const Floats outL = Lo * s.switchL;
    const Floats outR = Ro * s.switchR;
    const Floats outC = Co * s.switchC;
    const Floats outSL = SLo * s.switchSL;
    const Floats outSR = SRo * s.switchSR;
    // Four frames of six slots, L R C LFE SL SR each, are six vectors.
    const Floats zero = {0.0f, 0.0f, 0.0f, 0.0f};
    const Floats fronts01 = __builtin_shufflevector(outL, outR, 0, 4, 1, 5);
    const Floats fronts23 = __builtin_shufflevector(outL, outR, 2, 6, 3, 7);
    const Floats centres01 = __builtin_shufflevector(outC, zero, 0, 4, 1, 5);
    const Floats centres23 = __builtin_shufflevector(outC, zero, 2, 6, 3, 7);
    const Floats surrounds01 = __builtin_shufflevector(outSL, outSR, 0, 4, 1, 5);
    const Floats surrounds23 = __builtin_shufflevector(outSL, outSR, 2, 6, 3, 7);
    const Floats rows[6] = {
        __builtin_shufflevector(fronts01, centres01, 0, 1, 4, 5),
        __builtin_shufflevector(surrounds01, fronts01, 0, 1, 6, 7),
        __builtin_shufflevector(centres01, surrounds01, 2, 3, 6, 7),
        __builtin_shufflevector(fronts23, centres23, 0, 1, 4, 5),
        __builtin_shufflevector(surrounds23, fronts23, 0, 1, 6, 7),
        __builtin_shufflevector(centres23, surrounds23, 2, 3, 6, 7),
    };
    float* f = frames + std::size_t(first) * kFrameFloats;
    if (count == kLanes)
        std::memcpy(f, rows, sizeof rows);
    else
        std::memcpy(f, rows, count * kFrameFloats * sizeof(float));
}

}  // namespace

SteeringTerms MakeSteeringTerms(float x, float y)
{
    // The half-wave split: the positive half of x lowers eL, the negative
    // half eR; the same for y with eC and eS. A steering of exactly 0 gives
    // t = -0.0 or 0.0 and a term of exactly 1.
    SteeringTerms e;
    e.eL = SteerExp(x >= 0.0f ? -0.0f - x : 0.0f);
    e.eR = SteerExp(x < 0.0f ? x : 0.0f);
    e.eC = SteerExp(y >= 0.0f ? -0.0f - y : 0.0f);
    e.eS = SteerExp(y < 0.0f ? y : 0.0f);
    return e;
}

SteeredRows MakeSteeredRows(const SteeringTerms& e)
{
    return RowsOf(e);
}

KELVANE_VECTOR_CLONES void SteeredMatrixDecode(SteeringState& steering, SurroundTailState& tail, ProcessorBlock& block)
{
    const uint32_t frames = block.Frames;
    steering.HighBand.Resize(2 * frames, false);
    steering.LowBand.Resize(2 * frames, false);
    steering.SteerHighLR.Resize(frames, false);
    steering.SteerHighCS.Resize(frames, false);
    steering.SteerLowLR.Resize(frames, false);
    steering.SteerLowCS.Resize(frames, false);

    DecodeSettings s;
    s.Gc = DecibelGain(block.Centre_Trim);
    s.Gs = DecibelGain(block.Surround_Trim_00);  // already holds the +3
    s.switchL = float(block.L);
    s.switchR = float(block.R);
    s.switchC = float(block.C);
    s.switchSL = float(block.SL);
    s.switchSR = float(block.SR);
    s.W = float(block.Centre_Width);
    s.singleSurround = block.Mode == 2;
    s.virtualCentre = block.Virtual_C != 0;

    BandSplit(steering, block);
    SteeringDetectBands(steering, block);

    // A pass at a time: the one exponential of each of the four smoothed
    // steering values per frame (the other term of its pair is exp(0) = 1),
    // then the matrix on four frames at once.
    const float* const steer[4] = {steering.SteerHighLR.data, steering.SteerHighCS.data,
                                   steering.SteerLowLR.data, steering.SteerLowCS.data};
    double arguments[kDecodeFrames];
    float exps[4][kDecodeFrames];
    float* f = block.Block->data;
    for (uint32_t first = 0; first < frames; first += kDecodeFrames) {
        const uint32_t n = frames - first < kDecodeFrames ? frames - first : kDecodeFrames;
        for (int v = 0; v < 4; ++v) {
            for (uint32_t i = 0; i < n; ++i)
                arguments[i] = HalfWaveArgument(steer[v][first + i]);
            ExpToFloat(arguments, exps[v], n);
        }
        for (uint32_t at = 0; at < n; at += kLanes)
            DecodeLanes(steering, s, exps, first + at, at, n - at < kLanes ? n - at : kLanes, f);
    }

    SurroundTail(tail, block);
}
