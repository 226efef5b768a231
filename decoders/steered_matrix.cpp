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

#include <cmath>

#include "decoders/steering_detect.h"
#include "filters/surround_tail.h"
#include "signal/frame.h"
#include "signal/gain.h"

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

// exp(0.839 t), the product and the exponential in double, rounded once.
inline float SteerExp(float t)
{
    return float(std::exp(double(kSteerSlope) * double(t)));
}

// The six values of one band: each row applied to the band's l and r.
struct BandValues {
    float frontLeft, frontRight, centre, surround, leftSurround, rightSurround;
};

inline float RowValue(const float row[2], float l, float r)
{
    return row[0] * l + row[1] * r;
}

inline BandValues BandRows(float x, float y, float bandLeft, float bandRight)
{
    const SteeredRows rows = MakeSteeredRows(MakeSteeringTerms(x, y));
    const float l = kBandInputGain * bandLeft;
    const float r = kBandInputGain * bandRight;
    return {RowValue(rows.frontLeft, l, r),    RowValue(rows.frontRight, l, r),
            RowValue(rows.centre, l, r),       RowValue(rows.surround, l, r),
            RowValue(rows.leftSurround, l, r), RowValue(rows.rightSurround, l, r)};
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
    const float eL = e.eL, eR = e.eR, eC = e.eC, eS = e.eS;
    SteeredRows m;
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

void SteeredMatrixDecode(SteeringState& steering, SurroundTailState& tail, ProcessorBlock& block)
{
    const uint32_t frames = block.Frames;
    steering.HighBand.Resize(2 * frames, false);
    steering.LowBand.Resize(2 * frames, false);
    steering.SteerHighLR.Resize(frames, false);
    steering.SteerHighCS.Resize(frames, false);
    steering.SteerLowLR.Resize(frames, false);
    steering.SteerLowCS.Resize(frames, false);

    const float Gc = DecibelGain(block.Centre_Trim);
    const float Gs = DecibelGain(block.Surround_Trim_00);  // already holds the +3
    const float switchL = float(block.L);
    const float switchR = float(block.R);
    const float switchC = float(block.C);
    const float switchSL = float(block.SL);
    const float switchSR = float(block.SR);
    const float W = float(block.Centre_Width);
    const bool singleSurround = block.Mode == 2;
    const bool virtualCentre = block.Virtual_C != 0;

    BandSplit(steering, block);
    SteeringDetect(block, steering.HighBand.data, steering.SteerFilter[0],
                   steering.SteerFilter[1], steering.SteerHighLR.data,
                   steering.SteerHighCS.data);
    SteeringDetect(block, steering.LowBand.data, steering.SteerFilter[2],
                   steering.SteerFilter[3], steering.SteerLowLR.data,
                   steering.SteerLowCS.data);

    const float* high = steering.HighBand.data;
    const float* low = steering.LowBand.data;
    const float* highX = steering.SteerHighLR.data;
    const float* highY = steering.SteerHighCS.data;
    const float* lowX = steering.SteerLowLR.data;
    const float* lowY = steering.SteerLowCS.data;
    float* f = block.Block->data;
    for (uint32_t i = 0; i < frames; ++i, f += kFrameFloats) {
        const BandValues h = BandRows(highX[i], highY[i], high[2 * i], high[2 * i + 1]);
        const BandValues b = BandRows(lowX[i], lowY[i], low[2 * i], low[2 * i + 1]);

        const float FL = b.frontLeft + h.frontLeft;
        const float FR = b.frontRight + h.frontRight;
        const float Craw = (b.centre + h.centre) * Gc;
        float SLo, SRo;
        if (singleSurround) {
            SLo = ((b.surround + h.surround) * Gs) * kSingleSurroundGain;
            SRo = SLo;
        } else {
            SLo = (b.leftSurround + h.leftSurround) * Gs;
            SRo = (b.rightSurround + h.rightSurround) * Gs;
        }

        float Lo, Ro, Co;
        if (virtualCentre) {
            const float p = Craw * kVirtualCentreShare;
            Lo = FL + p;
            Ro = FR + p;
            Co = 0.0f;
        } else {
            // Unclamped: a width outside 0..100 is used as it stands.
            const float p = (W * kWidthStep) * Craw;
            Lo = FL + p;
            Ro = FR + p;
            Co = (((kFullWidth - W) * kWidthStep) + kCentreKeep) * Craw;
        }

        f[kSlotL] = Lo * switchL;
        f[kSlotR] = Ro * switchR;
        f[kSlotC] = Co * switchC;
        f[kSlotLFE] = 0.0f;
        f[kSlotSL] = SLo * switchSL;
        f[kSlotSR] = SRo * switchSR;
    }

    SurroundTail(tail, block);
}
