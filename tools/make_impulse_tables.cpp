// make_impulse_tables: synthesises the six binaural impulse tables of the
// headphone mode and writes them as 196608 bytes, six little-endian float32
// tables of 8192 samples back to back (centre-left, centre-right, front near,
// front far, surround near, surround far).
//
// The picture behind the numbers is a small listening room heard through a
// dummy head:
//
//   - Direct sound. The near ear and both centre paths hear the speaker at
//     sample 0 with a pinna echo three samples later; the far ear hears it
//     through the head's shadow, late by the interaural delay (10 samples for
//     the front, 21 for the surround) and low-passed, which is why the far
//     paths are weaker but keep the same gain at zero frequency. Before the
//     far-ear onset the measurement shows a slow ramp of the converter's DC
//     offset, quantised on a grid of 3.8e-6.
//   - Head smear. After the direct sound a slow single-sided lobe restores the
//     gain at low frequencies: negative for the near front ear (whose pinna
//     lifts the highs), positive and long for the shadowed ears.
//   - Early reflections. The room's first reflections reach every ear at the
//     same delays after that path's own onset, each filtered like the direct
//     sound of that path; a diffuse part of the path's own fills the first
//     1000 samples, and the late reverberation fades in under it.
//   - Late reverberation. From sample 1023 on, each ear hears the room's
//     diffuse field, the same for every speaker: one tail for the left ear
//     (tables 0, 2, 4) and one for the right (1, 3, 5). What is left of each
//     path's early part under the tail decays in three steps, below 1e-5, 1e-6
//     and 1e-7. The tails stop at the end of the seventh block of 1024 samples
//     (the window of the measurement); a noise floor below 2.5e-7 remains.
//
// The noise of the diffuse parts comes from a fixed pseudo-random sequence.
// The room is then fitted to a set of figures that the mode is tuned to: the
// tail's level is set block by block so that the remaining energy of each
// table crosses -20, -40 and -60 dB at given samples and the peak of every
// 1024-sample block has a given level; the early part of each table gets the
// sum (gain at zero frequency), energy and, for the front pair, the magnitude
// at a twentieth and at three tenths of the rate that it must have, by a few
// Newton steps on smooth correction shapes. Every figure is checked before the
// file is written; the program fails without writing if one misses.
//
// Usage: make_impulse_tables OUTPUT.bin
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr int kLength = 8192;          // samples per table
constexpr int kTables = 6;
constexpr int kTransformLength = 16384;  // zero-padded transform of the convolver
constexpr int kBinTwentieth = 819;     // nearest bin to a twentieth of the rate
constexpr int kBinThreeTenths = 4915;  // nearest bin to three tenths of the rate
constexpr int kGroup = 1024;           // block length of the level figures
constexpr int kEarlyEnd = 1023;        // first sample of the shared tails
constexpr int kCorrectionEnd = 1000;   // the early part's own sound ends here
constexpr double kPi = 3.14159265358979323846;

using Signal = std::vector<double>;  // working samples; float values once rounded

// ---------------------------------------------------------------------------
// The figures that the set must have.

struct TableFigures {
    float sample0;        // value of sample 0
    int peak_index;       // sample of the largest magnitude
    float peak;           // its value
    double sum;           // sum of samples, to 6 decimals
    double sum_squares;   // sum of squares
    double squares_tol;   // half a unit of its last printed digit
    int energy_sample[3];  // remaining energy -20, -40, -60 dB at these samples
};

const TableFigures kFigures[kTables] = {
    {0.4753474f, 0, 0.4753474f, 0.733115, 0.395542, 5e-7, {1710, 4754, 6841}},
    {0.4753284f, 0, 0.4753284f, 0.725701, 0.402286, 5e-7, {1847, 4762, 6716}},
    {0.7323657f, 0, 0.7323657f, 0.733861, 0.807624, 5e-7, {1335, 4256, 6616}},
    {0.0000152079f, 10, 0.2006898f, 0.726401, 0.137568, 5e-7, {2458, 5397, 6902}},
    {0.7316555f, 0, 0.7316555f, 0.733337, 0.712020, 5e-7, {1411, 4348, 6701}},
    {-0.000110258f, 22, 0.0612765f, 0.725953, 0.0737602, 5e-8, {2880, 5688, 6949}},
};

// Samples fixed by the design: the direct part of each path.
struct FixedRun {
    int first;
    std::vector<float> values;
};
const FixedRun kHeads[kTables] = {
    {0, {0.4753474f, 0.03551415f, -0.02463478f, 0.2189871f}},
    {0, {0.4753284f, 0.03549893f, -0.0246538f, 0.2189719f}},
    {0, {0.7323657f, -0.003524344f, -0.008622712f, 0.2566758f}},
    {6, {0.00002280639f, 0.00002280665f, 0.00002280745f, 0.00002660907f, 0.2006898f, 0.0891937f,
         0.01615099f, 0.09615701f}},
    {0, {0.7316555f, 0.008881222f, -0.06956293f, -0.03603815f}},
    {18, {-0.0001482574f, -0.0001482597f, -0.0001482564f, 0.06079048f, 0.0612765f, 0.04304033f,
          0.04089614f, 0.04274355f, 0.03230095f}},
};

// Level of the peak of blocks 1 to 7 against the table's peak, in dB, for
// the front pair; they set the two tails.
const double kFrontNearBlockDb[7] = {-35.4, -42.7, -48.3, -56.5, -63.1, -68.5, -134.5};
const double kFrontFarBlockDb[7] = {-18.5, -31.1, -37.6, -45.3, -54.1, -61.5, -118.1};

// Magnitude at a twentieth and at three tenths of the rate, dB.
const double kFrontNearBinDb[2] = {-1.4, -0.3};
const double kFrontFarBinDb[2] = {-8.3, -17.8};

constexpr float kEvenLastSample = -0.0000000155646f;
constexpr float kOddLastSample = -0.0000000423878f;
constexpr int kEvenLastAudible = 7157;  // last sample above 1e-6, left-ear tail
constexpr int kOddLastAudible = 7162;   // the same, right-ear tail
constexpr int kFamilySplitSample = 4443;  // last sample where the tails differ by > 0.001

// Lead-in of the far paths: the converter's offset before the onset,
// quantised on a grid of about 3.8e-6.
constexpr double kLeadInStep = 3.8e-6;

// ---------------------------------------------------------------------------
// Deterministic noise: splitmix64, and a bounded near-Gaussian made from
// twelve uniforms (no library function involved, so the sequence is the same
// everywhere).

struct Random {
    uint64_t state;

    uint64_t Next()
    {
        uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    double Uniform() { return double(Next() >> 11) * 0x1.0p-53; }
    double Symmetric() { return 2.0 * Uniform() - 1.0; }
    // Sum of twelve uniforms, cut at 2.2 standard deviations, scaled to about
    // unit variance: a diffuse field without the rare outliers.
    double Gauss()
    {
        for (;;) {
            double s = -6.0;
            for (int i = 0; i < 12; ++i) s += Uniform();
            if (std::fabs(s) < 2.2) return s / 0.916;
        }
    }
};

double Round(double x) { return double(float(x)); }
double Sign(double x) { return x < 0.0 ? -1.0 : 1.0; }
double DbToGain(double db) { return std::pow(10.0, db / 20.0); }

// ---------------------------------------------------------------------------
// Figures of one table, computed the way the figures are defined.

struct Spectrum {
    double cos_table[kTransformLength];
    Spectrum()
    {
        for (int m = 0; m < kTransformLength; ++m)
            cos_table[m] = std::cos(2.0 * kPi * double(m) / double(kTransformLength));
    }
    // X[bin] of the zero-padded transform, real and imaginary part.
    void Bin(const Signal& x, int bin, double* re, double* im) const
    {
        double r = 0.0, i = 0.0;
        for (int n = 0; n < kLength; ++n) {
            int m = int((int64_t(bin) * n) % kTransformLength);
            int q = (m + kTransformLength / 4 * 3) % kTransformLength;  // sin(a) = cos(a - pi/2)
            r += x[n] * cos_table[m];
            i -= x[n] * cos_table[q];
        }
        *re = r;
        *im = i;
    }
    double MagnitudeDb(const Signal& x, int bin) const
    {
        double re, im;
        Bin(x, bin, &re, &im);
        return 20.0 * std::log10(std::sqrt(re * re + im * im));
    }
};

double Sum(const Signal& x)
{
    double s = 0.0;
    for (double v : x) s += v;
    return s;
}

double SumSquares(const Signal& x, int from = 0)
{
    double s = 0.0;
    for (int n = from; n < kLength; ++n) s += x[n] * x[n];
    return s;
}

// First k with 10 log10(remaining / total) <= -level.
int EnergyCrossing(const Signal& x, double level_db)
{
    std::vector<double> remaining(kLength + 1, 0.0);
    for (int n = kLength - 1; n >= 0; --n) remaining[n] = remaining[n + 1] + x[n] * x[n];
    for (int k = 0; k < kLength; ++k)
        if (10.0 * std::log10(remaining[k] / remaining[0]) <= -level_db) return k;
    return -1;
}

double GroupPeak(const Signal& x, int group)
{
    double m = 0.0;
    for (int n = group * kGroup; n < (group + 1) * kGroup; ++n) m = std::max(m, std::fabs(x[n]));
    return m;
}

// ---------------------------------------------------------------------------
// The two late tails.

struct Crossing {
    int sample;     // first sample at or below the level
    int table;
    double target;  // remaining energy at that sample
};

struct Tail {
    Signal value;                 // the diffuse field of this ear, all 8192 samples
    Signal envelope;              // its rms by sample
    std::vector<bool> fixed;      // samples that the level fit leaves alone
    std::vector<double> limit;    // largest magnitude allowed (0 = none)
    std::vector<Crossing> crossings;
    int last_audible;             // last sample above 1e-6
};

// The residual of each path's early part under the shared tail: below 4e-6
// up to sample 1865, 4e-7 up to 2773 and 4e-8 (and fading) from 2775 on, so
// that two paths of one ear agree to 1e-5, 1e-6 and 1e-7 from samples 1023,
// 1867 and 2775. At 1866 and 2774 the three paths stand apart by +1.3, 0 and
// -1.3 of the coming step, which keeps every pair apart until that sample.
Signal Residual(int table, int member)
{
    static const double kPattern[3] = {1.0, 0.0, -1.0};
    Random random{0x5EED0000ull + uint64_t(table) * 7919u};
    Signal d(kLength, 0.0);
    for (int n = kEarlyEnd; n < kLength - 1; ++n) {
        double u = random.Symmetric();
        if (n < 1866)
            d[n] = 4.0e-6 * u;
        else if (n == 1866)
            d[n] = 1.3e-6 * kPattern[member];
        else if (n < 2774)
            d[n] = 4.0e-7 * u;
        else if (n == 2774)
            d[n] = 1.3e-7 * kPattern[member];
        else
            d[n] = 4.0e-8 * u * std::exp(-double(n - 2775) / 500.0);
    }
    return d;
}

void BuildTail(Tail& tail, uint64_t seed, const double* block_db, double reference_peak,
               const int* peak_positions, float last_sample)
{
    tail.value.assign(kLength, 0.0);
    tail.envelope.assign(kLength, 0.0);
    tail.fixed.assign(kLength, false);
    tail.limit.assign(kLength, 0.0);

    // Rms by segment between crossings, then a log-linear line through the
    // segment midpoints.
    std::vector<Crossing>& c = tail.crossings;
    std::sort(c.begin(), c.end(), [](const Crossing& a, const Crossing& b) { return a.sample < b.sample; });
    const int stop = tail.last_audible + 1;
    std::vector<double> mid, log_density;
    for (size_t i = 0; i < c.size(); ++i) {
        int end = i + 1 < c.size() ? c[i + 1].sample : stop;
        double next = i + 1 < c.size() ? c[i + 1].target : 0.0;
        mid.push_back(0.5 * double(c[i].sample + end));
        log_density.push_back(std::log((c[i].target - next) / double(end - c[i].sample)));
    }
    for (int n = 0; n < stop; ++n) {
        double t = double(std::max(n, kEarlyEnd));
        size_t i = 0;
        while (i + 2 < mid.size() && t > mid[i + 1]) ++i;
        double a = (t - mid[i]) / (mid[i + 1] - mid[i]);
        if (t > mid.back()) a = 1.0;
        tail.envelope[n] = std::exp(0.5 * (log_density[i] + a * (log_density[i + 1] - log_density[i])));
    }

    Random random{seed};
    for (int n = 0; n < stop; ++n) tail.value[n] = tail.envelope[n] * random.Gauss();

    // Peaks of the blocks: one sample each, the rest held below.
    for (int g = 1; g <= 7; ++g) {
        double peak = Round(reference_peak * DbToGain(block_db[g - 1]));
        int p = peak_positions[g - 1];
        tail.value[p] = Sign(tail.value[p]) * peak;
        tail.fixed[p] = true;
        for (int n = g * kGroup; n < (g + 1) * kGroup; ++n)
            if (n != p) tail.limit[n] = 0.85 * peak;
    }
    // The sample before each crossing carries enough energy to make the
    // crossing clear.
    for (const Crossing& k : c) {
        int n = k.sample - 1;
        double v = tail.value[n];
        tail.value[n] = Sign(v) * std::max(std::fabs(v), 1.2 * tail.envelope[n]);
        tail.fixed[n] = true;
    }
    // The stop: the last sample above 1e-6, then the noise floor.
    tail.value[stop - 1] = Sign(tail.value[stop - 1]) * std::max(std::fabs(tail.value[stop - 1]), 2.5e-6);
    tail.fixed[stop - 1] = true;
    double floor_peak = Round(reference_peak * DbToGain(block_db[6]));
    for (int n = stop; n < kLength; ++n) {
        tail.fixed[n] = true;
        if (n == peak_positions[6]) continue;
        double cap = n < 7 * kGroup ? 8.0e-7 : 0.85 * floor_peak;
        double u = random.Symmetric();
        tail.value[n] = Sign(u) * cap * (0.15 + 0.85 * std::fabs(u));
    }
    tail.value[kLength - 1] = last_sample;
}

// Remaining energy from `from` of a member: tail plus its residual.
double Remaining(const Tail& tail, const Signal& residual, int from)
{
    double s = 0.0;
    for (int n = from; n < kLength; ++n) {
        double v = tail.value[n] + residual[n];
        s += v * v;
    }
    return s;
}

// One pass of the level fit: from the last crossing back, scale the free
// samples of each segment so that the crossing table's remaining energy
// falls just below the level at the crossing sample.
void FitSegments(Tail& tail, const std::vector<Signal>& residual)
{
    const std::vector<Crossing>& c = tail.crossings;
    for (int i = int(c.size()) - 1; i >= 0; --i) {
        int from = c[i].sample;
        int end = i + 1 < int(c.size()) ? c[i + 1].sample : tail.last_audible + 1;
        const Signal& d = residual[c[i].table];
        double before = tail.value[from - 1] + d[from - 1];
        double target = c[i].target - 0.5 * before * before;
        double later = Remaining(tail, d, end);
        double fixed_part = 0.0, a = 0.0, b = 0.0, cc = 0.0;
        for (int n = from; n < end; ++n) {
            if (tail.fixed[n]) {
                double v = tail.value[n] + d[n];
                fixed_part += v * v;
            } else {
                a += tail.value[n] * tail.value[n];
                b += 2.0 * tail.value[n] * d[n];
                cc += d[n] * d[n];
            }
        }
        double need = target - later - fixed_part - cc;
        double s = (-b + std::sqrt(b * b + 4.0 * a * need)) / (2.0 * a);
        for (int n = from; n < end; ++n)
            if (!tail.fixed[n]) tail.value[n] *= s;
    }
}

// Holds the free samples under their limits and the two tails within 0.00095
// of each other after the split sample. Returns the number of samples moved.
int Limit(Tail& even, Tail& odd)
{
    int moved = 0;
    for (Tail* t : {&even, &odd})
        for (int n = kEarlyEnd; n < kLength; ++n)
            if (!t->fixed[n] && t->limit[n] > 0.0 && std::fabs(t->value[n]) > t->limit[n]) {
                t->value[n] = Sign(t->value[n]) * t->limit[n];
                ++moved;
            }
    for (int n = kFamilySplitSample + 1; n < kLength; ++n) {
        double gap = even.value[n] - odd.value[n];
        if (std::fabs(gap) <= 0.00095) continue;
        double excess = std::fabs(gap) - 0.00090;
        if (!even.fixed[n] && !odd.fixed[n]) {
            even.value[n] -= Sign(gap) * 0.5 * excess;
            odd.value[n] += Sign(gap) * 0.5 * excess;
        } else if (!even.fixed[n]) {
            even.value[n] -= Sign(gap) * excess;
        } else {
            odd.value[n] += Sign(gap) * excess;
        }
        ++moved;
    }
    return moved;
}

// ---------------------------------------------------------------------------
// The early part of one path.

constexpr int kReflectionCount = 14;
const int kReflectionDelay[kReflectionCount] = {37, 61, 89, 128, 173, 221, 290,
                                                347, 433, 519, 598, 701, 811, 907};
// The reflections reach every ear at about the same time, counted from the
// direct sound at the nearest ear.
constexpr int kReflectionStart = 30;
const double kReflectionSign[kReflectionCount] = {1, -1, 1, 1, -1, 1, -1, 1, 1, -1, 1, -1, 1, 1};

struct EarlyDesign {
    int onset;              // sample of the direct sound
    int kernel_first;       // the head samples used as the reflections' filter
    int kernel_length;
    double kernel_scale;    // makes the kernel's largest sample 1
    double smear_amplitude; // head smear after the direct part
    double smear_decay;     // its time constant, samples
    double reflection_gain; // gain of the first reflection
};

const EarlyDesign kDesign[kTables] = {
    {0, 0, 4, 1.0 / 0.4753474, 0.004, 7.0, 0.17},
    {0, 0, 4, 1.0 / 0.4753284, 0.004, 7.0, 0.20},
    {0, 0, 4, 1.0 / 0.7323657, -0.020, 12.0, 0.26},
    {10, 10, 4, 1.0 / 0.2006898, 0.030, 6.5, 0.08},
    {0, 0, 4, 1.0 / 0.7316555, 0.010, 10.0, 0.24},
    {21, 21, 6, 1.0 / 0.0612765, 0.030, 14.5, 0.035},
};

int HeadEnd(int table) { return kHeads[table].first + int(kHeads[table].values.size()); }

void PlaceFixed(int table, Signal& x)
{
    // Lead-in of the far paths, up to the first fixed sample.
    if (table == 3 || table == 5) {
        const double start = double(kFigures[table].sample0);
        const double direction = table == 3 ? 1.0 : -1.0;
        Random random{0x1EAD0000ull + uint64_t(table)};
        for (int n = 0; n < kHeads[table].first; ++n) {
            int level = table == 3 ? (n < 2 ? 0 : n < 5 ? 1 : 2) : std::min(10, int(double(n) * 10.0 / 18.0 + 0.3));
            x[n] = Round(start + direction * kLeadInStep * double(level) + 2.0e-9 * random.Symmetric());
        }
        x[0] = double(kFigures[table].sample0);
    }
    for (size_t i = 0; i < kHeads[table].values.size(); ++i) x[kHeads[table].first + i] = kHeads[table].values[i];
}

double Hann(int n, int first, int end)
{
    if (n < first || n >= end) return 0.0;
    double s = std::sin(kPi * double(n - first) / double(end - first));
    return s * s;
}

// Fade of the late field under the early part: 0 at onset + 24, 1 at 1023.
double FadeIn(int n, int onset)
{
    int first = onset + 24;
    if (n <= first) return 0.0;
    double s = std::sin(0.5 * kPi * double(n - first) / double(kEarlyEnd - first));
    return s * s;
}

// The path's own diffuse sound, of unit energy, in [head end + 30, 1000).
Signal OwnDiffuse(int table, int head_end)
{
    Random random{0xD1FF0000ull + uint64_t(table) * 104729u};
    Signal r(kLength, 0.0);
    double energy = 0.0;
    for (int n = head_end + 30; n < kCorrectionEnd; ++n) {
        double rise = std::min(1.0, double(n - head_end - 30) / 30.0);
        double fall = std::exp(-double(n - head_end) / 250.0);
        double taper = n < 940 ? 1.0 : 0.5 + 0.5 * std::cos(kPi * double(n - 940) / 60.0);
        r[n] = rise * fall * taper * random.Gauss();
        energy += r[n] * r[n];
    }
    for (double& v : r) v /= std::sqrt(energy);
    return r;
}

// Base early part: head smear, reflections and the fading-in late field.
void BuildEarly(int table, const Tail& tail, Signal& x)
{
    const EarlyDesign& d = kDesign[table];
    const int head_end = HeadEnd(table);
    for (int n = head_end; n < kEarlyEnd; ++n) {
        double v = d.smear_amplitude * std::exp(-double(n - head_end) / d.smear_decay);
        v += tail.value[n] * FadeIn(n, d.onset);
        x[n] = v;
    }
    for (int j = 0; j < kReflectionCount; ++j) {
        double gain = d.reflection_gain * kReflectionSign[j] * std::pow(37.0 / double(kReflectionDelay[j]), 0.8);
        for (int k = 0; k < d.kernel_length; ++k) {
            int n = kReflectionStart + kReflectionDelay[j] + k;
            if (n >= kCorrectionEnd) break;
            x[n] += gain * d.kernel_scale * double(kHeads[table].values[d.kernel_first - kHeads[table].first + k]);
        }
    }
}

// Newton fit of the early part: sum, energy and (front pair) two magnitudes.
struct Fit {
    std::vector<Signal> shapes;  // correction shapes, zero on fixed samples
    std::vector<double> target;
    int unknowns;
};

std::vector<double> Residuals(int table, const Signal& x, const Spectrum& spectrum)
{
    std::vector<double> r;
    r.push_back(Sum(x) - kFigures[table].sum);
    r.push_back(SumSquares(x) - kFigures[table].sum_squares);
    if (table == 2 || table == 3) {
        const double* db = table == 2 ? kFrontNearBinDb : kFrontFarBinDb;
        r.push_back(spectrum.MagnitudeDb(x, kBinTwentieth) - db[0]);
        r.push_back(spectrum.MagnitudeDb(x, kBinThreeTenths) - db[1]);
    }
    return r;
}

Signal Apply(const Signal& base, const std::vector<Signal>& shapes, const std::vector<double>& c)
{
    Signal x(kLength);
    for (int n = 0; n < kLength; ++n) {
        double v = base[n];
        for (size_t j = 0; j < shapes.size(); ++j) v += c[j] * shapes[j][n];
        x[n] = Round(v);
    }
    return x;
}

bool Solve(int m, std::vector<std::vector<double>> a, std::vector<double> b, std::vector<double>& out)
{
    for (int col = 0; col < m; ++col) {
        int p = col;
        for (int r = col + 1; r < m; ++r)
            if (std::fabs(a[r][col]) > std::fabs(a[p][col])) p = r;
        if (a[p][col] == 0.0) return false;
        std::swap(a[p], a[col]);
        std::swap(b[p], b[col]);
        for (int r = col + 1; r < m; ++r) {
            double f = a[r][col] / a[col][col];
            for (int k = col; k < m; ++k) a[r][k] -= f * a[col][k];
            b[r] -= f * b[col];
        }
    }
    out.assign(m, 0.0);
    for (int r = m - 1; r >= 0; --r) {
        double s = b[r];
        for (int k = r + 1; k < m; ++k) s -= a[r][k] * out[k];
        out[r] = s / a[r][r];
    }
    return true;
}

// Residuals in units of their tolerance, as one number.
double Miss(int table, const std::vector<double>& r)
{
    double s = (r[0] / 5e-7) * (r[0] / 5e-7) + (r[1] / kFigures[table].squares_tol) * (r[1] / kFigures[table].squares_tol);
    for (size_t i = 2; i < r.size(); ++i) s += (r[i] / 0.05) * (r[i] / 0.05);
    return s;
}

Signal FitEarly(int table, const Signal& base, const std::vector<Signal>& shapes, std::vector<double>& c,
                const Spectrum& spectrum)
{
    // Newton on as many directions as figures: the bump moves the sum, the
    // path's own diffuse sound the energy, and for each bin the windowed
    // sinusoid in phase with the bin's present value its magnitude.
    const int m = int(shapes.size());
    for (int iteration = 0; iteration < 60; ++iteration) {
        Signal x = Apply(base, shapes, c);
        std::vector<double> r = Residuals(table, x, spectrum);
        const int e = int(r.size());
        // Done when every figure is within a hundredth of its tolerance.
        bool done = std::fabs(r[0]) < 5e-9 && std::fabs(r[1]) < 0.01 * kFigures[table].squares_tol;
        for (int i = 2; i < e; ++i) done = done && std::fabs(r[i]) < 5e-4;
        if (done) break;
        std::vector<std::vector<double>> direction(e, std::vector<double>(m, 0.0));
        direction[0][0] = 1.0;
        direction[1][1] = 1.0;
        for (int i = 2; i < e; ++i) {
            double re, im;
            spectrum.Bin(x, i == 2 ? kBinTwentieth : kBinThreeTenths, &re, &im);
            double phase = std::atan2(im, re);
            direction[i][2 * i - 2] = std::cos(phase);
            direction[i][2 * i - 1] = std::sin(phase);
        }
        std::vector<std::vector<double>> jacobian(e, std::vector<double>(e));
        for (int j = 0; j < e; ++j) {
            std::vector<double> cj = c;
            double h = 1e-4 * std::max(1e-2, std::fabs(c[j]));
            for (int k = 0; k < m; ++k) cj[k] += h * direction[j][k];
            std::vector<double> rj = Residuals(table, Apply(base, shapes, cj), spectrum);
            for (int i = 0; i < e; ++i) jacobian[i][j] = (rj[i] - r[i]) / h;
        }
        std::vector<double> step, minus(e);
        for (int i = 0; i < e; ++i) minus[i] = -r[i];
        if (!Solve(e, jacobian, minus, step)) break;
        // Halve the step until it helps.
        const double miss = Miss(table, r);
        for (double scale = 1.0; scale > 1e-3; scale *= 0.5) {
            std::vector<double> trial = c;
            for (int j = 0; j < e; ++j)
                for (int k = 0; k < m; ++k) trial[k] += scale * step[j] * direction[j][k];
            if (Miss(table, Residuals(table, Apply(base, shapes, trial), spectrum)) < miss) {
                c = trial;
                break;
            }
        }
    }
    return Apply(base, shapes, c);
}

std::vector<Signal> CorrectionShapes(int table, const Signal& own)
{
    std::vector<Signal> shapes;
    Signal bump(kLength, 0.0);
    for (int n = 40; n < 400; ++n) bump[n] = Hann(n, 40, 400);
    shapes.push_back(bump);
    shapes.push_back(own);
    if (table == 2 || table == 3) {
        for (int bin : {kBinTwentieth, kBinThreeTenths})
            for (double phase : {0.0, 0.5 * kPi}) {
                Signal s(kLength, 0.0);
                for (int n = 40; n < kCorrectionEnd; ++n) {
                    double w = 2.0 * kPi * double((int64_t(bin) * n) % kTransformLength) / double(kTransformLength);
                    s[n] = Hann(n, 40, kCorrectionEnd) * std::cos(w + phase);
                }
                shapes.push_back(s);
            }
    }
    return shapes;
}

// ---------------------------------------------------------------------------
// The checks: every figure, computed from the float tables.

int g_failures = 0;

void Check(bool ok, const char* what, int table, double value)
{
    if (!ok) {
        std::fprintf(stderr, "MISS table %d: %s (%.10g)\n", table, what, value);
        ++g_failures;
    }
}

bool Near(double value, double target, double tol) { return std::fabs(value - target) <= tol; }

void CheckAll(const std::vector<Signal>& t, const Spectrum& spectrum)
{
    for (int i = 0; i < kTables; ++i) {
        const Signal& x = t[i];
        const TableFigures& f = kFigures[i];
        Check(float(x[0]) == f.sample0, "sample 0", i, x[0]);
        int peak = 0;
        for (int n = 1; n < kLength; ++n)
            if (std::fabs(x[n]) > std::fabs(x[peak])) peak = n;
        Check(peak == f.peak_index && float(x[peak]) == f.peak, "peak", i, peak);
        for (int n = 0; n < kLength; ++n)
            if (n != peak && std::fabs(x[n]) == std::fabs(x[peak])) Check(false, "peak not unique", i, n);
        Check(Near(Sum(x), f.sum, 5e-7), "sum", i, Sum(x));
        double ss = SumSquares(x);
        Check(Near(ss, f.sum_squares, f.squares_tol), "sum of squares", i, ss);
        static const double kDb[6] = {-4.03, -3.95, -0.93, -8.61, -1.48, -11.32};
        Check(Near(10.0 * std::log10(ss), kDb[i], 0.005), "energy dB", i, 10.0 * std::log10(ss));
        for (int l = 0; l < 3; ++l)
            Check(EnergyCrossing(x, 20.0 * (l + 1)) == f.energy_sample[l], "energy crossing", i,
                  EnergyCrossing(x, 20.0 * (l + 1)));
        double sum_db = 20.0 * std::log10(Sum(x));
        Check(sum_db >= -2.795 && sum_db < -2.685, "gain at zero frequency", i, sum_db);
        for (int n = 0; n < kLength; ++n)
            if (!(std::isfinite(x[n]) && x[n] != 0.0)) Check(false, "zero or not finite", i, n);
        int last = -1;
        for (int n = 0; n < kLength; ++n)
            if (std::fabs(x[n]) > 1e-6) last = n;
        Check(last == (i % 2 == 0 ? kEvenLastAudible : kOddLastAudible), "last audible", i, last);
        for (int n = 7 * kGroup; n < kLength; ++n)
            if (!(std::fabs(x[n]) < 2.5e-7)) Check(false, "floor", i, n);
        Check(float(x[kLength - 1]) == (i % 2 == 0 ? kEvenLastSample : kOddLastSample), "last sample", i,
              x[kLength - 1]);
        for (int g = 1; g < 8; ++g)
            Check(GroupPeak(x, g) < GroupPeak(x, g - 1), "steady decay", i, g);
        for (int n = 0; n < kLength; ++n) {
            int onset = i == 3 ? 10 : i == 5 ? 21 : 0;
            if (n < onset) {
                if (!(std::fabs(x[n]) < 0.0002)) Check(false, "lead-in not nearly silent", i, n);
            } else {
                Check(std::fabs(x[n]) >= 0.001, "onset", i, n);
                break;
            }
        }
        for (size_t k = 0; k < kHeads[i].values.size(); ++k)
            Check(float(x[kHeads[i].first + k]) == kHeads[i].values[k], "telling row", i, double(k));
    }
    // Lead-in grid.
    for (int i : {3, 5}) {
        int last = i == 3 ? 9 : 20;
        double start = t[i][0], end = t[i][last];
        int steps = int(std::lround((end - start) / (i == 3 ? kLeadInStep : -kLeadInStep)));
        double step = (end - start) / double(steps);
        Check(std::fabs(step) >= 3.75e-6 && std::fabs(step) < 3.85e-6, "lead-in step", i, step);
        Check(Near(end, i == 3 ? 0.0000266091 : -0.000148256, i == 3 ? 5e-11 : 5e-10), "lead-in end", i, end);
        long previous = 0;
        for (int n = 0; n <= last; ++n) {
            double k = (t[i][n] - start) / step;
            long level = std::lround(k);
            Check(std::fabs(t[i][n] - (start + step * double(level))) < 1e-8, "lead-in on grid", i, n);
            Check(level >= previous, "lead-in monotone", i, n);
            previous = level;
        }
    }
    // Centre pair.
    for (int n = 0; n < 32; ++n) {
        double d = t[0][n] - t[1][n];
        Check(d >= 0.0000145 && d < 0.0000195, "centre offset", 0, n);
    }
    Check(std::fabs(std::fabs(t[0][500] - t[1][500]) - 0.0068) < 0.00005, "centre pair at 500", 0,
          t[0][500] - t[1][500]);
    // Families.
    const int family[2][3] = {{0, 2, 4}, {1, 3, 5}};
    const double thresholds[3] = {1e-5, 1e-6, 1e-7};
    const int starts[3] = {1023, 1867, 2775};
    for (const auto& fam : family)
        for (int a = 0; a < 3; ++a)
            for (int b = a + 1; b < 3; ++b)
                for (int l = 0; l < 3; ++l) {
                    const Signal& x = t[fam[a]];
                    const Signal& y = t[fam[b]];
                    int last_over = -1;
                    for (int n = 0; n < kLength; ++n)
                        if (!(std::fabs(x[n] - y[n]) < thresholds[l])) last_over = n;
                    Check(last_over == starts[l] - 1, "family agreement", fam[a] * 10 + fam[b], last_over);
                }
    for (int a : {0, 2, 4})
        for (int b : {1, 3, 5}) {
            int last_over = -1;
            for (int n = 0; n < kLength; ++n)
                if (std::fabs(t[a][n] - t[b][n]) > 0.001) last_over = n;
            Check(last_over == kFamilySplitSample, "families differ", a * 10 + b, last_over);
        }
    // Block levels of the front pair.
    for (int i : {2, 3}) {
        const double* db = i == 2 ? kFrontNearBlockDb : kFrontFarBlockDb;
        for (int g = 1; g < 8; ++g) {
            double level = 20.0 * std::log10(GroupPeak(t[i], g) / GroupPeak(t[i], 0));
            Check(Near(level, db[g - 1], 0.05), "block level", i * 10 + g, level);
        }
        const double* bins = i == 2 ? kFrontNearBinDb : kFrontFarBinDb;
        Check(Near(spectrum.MagnitudeDb(t[i], kBinTwentieth), bins[0], 0.05), "magnitude at a twentieth", i,
              spectrum.MagnitudeDb(t[i], kBinTwentieth));
        Check(Near(spectrum.MagnitudeDb(t[i], kBinThreeTenths), bins[1], 0.05), "magnitude at three tenths", i,
              spectrum.MagnitudeDb(t[i], kBinThreeTenths));
    }
    // Correlations, equality, mirror, inverse.
    for (int a = 0; a < kTables; ++a)
        for (int b = a + 1; b < kTables; ++b) {
            double ab = 0.0, aa = 0.0, bb = 0.0;
            bool equal = true, mirror = true, inverse = true;
            for (int n = 0; n < kLength; ++n) {
                ab += t[a][n] * t[b][n];
                aa += t[a][n] * t[a][n];
                bb += t[b][n] * t[b][n];
                equal = equal && t[a][n] == t[b][n];
                mirror = mirror && t[a][n] == t[b][kLength - 1 - n];
                inverse = inverse && t[a][n] == -t[b][n];
            }
            double r = ab / std::sqrt(aa * bb);
            Check(r > 0.0, "positive correlation", a * 10 + b, r);
            Check(!equal && !mirror && !inverse, "distinct", a * 10 + b, 0);
        }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT.bin\n", argv[0]);
        return 2;
    }
    const Spectrum spectrum;

    // Residuals under the tails, by table; member index within the family.
    std::vector<Signal> residual(kTables);
    for (int i = 0; i < kTables; ++i) residual[i] = Residual(i, i / 2);

    // The two tails.
    Tail even, odd;
    even.last_audible = kEvenLastAudible;
    odd.last_audible = kOddLastAudible;
    for (int i = 0; i < kTables; ++i) {
        Tail& tail = i % 2 == 0 ? even : odd;
        for (int l = 0; l < 3; ++l)
            tail.crossings.push_back(
                {kFigures[i].energy_sample[l], i, kFigures[i].sum_squares * std::pow(10.0, -2.0 * (l + 1))});
    }
    const int even_peaks[7] = {1101, 2133, 3187, 4151, 5230, 6277, 7390};
    const int odd_peaks[7] = {1122, 2071, 3109, 4213, 5161, 6311, 7452};
    BuildTail(even, 0xE7E70001ull, kFrontNearBlockDb, double(kFigures[2].peak), even_peaks, kEvenLastSample);
    BuildTail(odd, 0x0DD00002ull, kFrontFarBlockDb, double(kFigures[3].peak), odd_peaks, kOddLastSample);
    // Block peaks and the last samples carry no residual.
    for (int i = 0; i < kTables; ++i) {
        const int* peaks = i % 2 == 0 ? even_peaks : odd_peaks;
        for (int g = 0; g < 7; ++g) residual[i][peaks[g]] = 0.0;
        residual[i][kLength - 1] = 0.0;
    }
    // The two tails part at the split sample.
    even.value[kFamilySplitSample] = 0.00062;
    odd.value[kFamilySplitSample] = -0.00060;
    even.fixed[kFamilySplitSample] = odd.fixed[kFamilySplitSample] = true;
    for (int pass = 0; pass < 200; ++pass) {
        int moved = Limit(even, odd);
        FitSegments(even, residual);
        FitSegments(odd, residual);
        if (moved == 0) break;
        if (pass == 199) {
            std::fprintf(stderr, "level fit did not settle\n");
            ++g_failures;
        }
    }

    std::vector<Signal> tables(kTables, Signal(kLength, 0.0));
    for (int i = 0; i < kTables; ++i) {
        const Tail& tail = i % 2 == 0 ? even : odd;
        for (int n = kEarlyEnd; n < kLength; ++n) tables[i][n] = Round(tail.value[n] + residual[i][n]);
    }

    // Early parts: 0, 2, 3, 4, 5 from their own design, 1 from 0.
    static const double kPattern[3] = {1.0, 0.0, -1.0};
    std::vector<Signal> own(kTables);
    double own_level[kTables] = {};
    for (int i : {0, 2, 3, 4, 5}) {
        const Tail& tail = i % 2 == 0 ? even : odd;
        Signal base = tables[i];
        BuildEarly(i, tail, base);
        PlaceFixed(i, base);
        // Sample 1022 is the last of the path's own: the three paths of an ear
        // stand 1.3e-5 apart there.
        base[kEarlyEnd - 1] = Round(tail.value[kEarlyEnd - 1] + 1.3e-5 * kPattern[i / 2]);
        own[i] = OwnDiffuse(i, HeadEnd(i));
        // Start the diffuse level at the energy still missing.
        double missing = kFigures[i].sum_squares - SumSquares(base);
        std::vector<Signal> shapes = CorrectionShapes(i, own[i]);
        std::vector<double> c(shapes.size(), 0.0);
        c[1] = std::sqrt(std::max(missing, 1e-6));
        tables[i] = FitEarly(i, base, shapes, c, spectrum);
        own_level[i] = c[1];
    }
    {
        // Centre to the right ear: the left-ear path less the converter's
        // offset of four or five grid steps, then the room's reflections as
        // the right ear hears them part from the left's.
        Signal base = tables[1];
        PlaceFixed(1, base);
        Random random{0xCE17E001ull};
        for (int n = 4; n < kEarlyEnd - 1; ++n) {
            double offset = kLeadInStep * (n % 2 == 0 ? 5.0 : 4.0);
            double part = n < 32 ? 0.0 : 0.003 * std::min(1.0, double(n - 32) / 468.0);
            double swap = n < 32 ? 0.0 : (odd.value[n] - even.value[n]) * FadeIn(n, 0);
            base[n] = tables[0][n] - offset - own_level[0] * own[0][n] + part * random.Gauss() + swap;
        }
        base[500] = Round(tables[0][500] - 0.0068);
        base[kEarlyEnd - 1] = Round(odd.value[kEarlyEnd - 1] + 1.3e-5 * kPattern[0]);
        Signal own_right = OwnDiffuse(1, 40);
        own_right[500] = 0.0;
        double missing = kFigures[1].sum_squares - SumSquares(base);
        std::vector<Signal> shapes = CorrectionShapes(1, own_right);
        std::vector<double> c(shapes.size(), 0.0);
        c[1] = missing > 0.0 ? std::sqrt(missing) : 0.0;
        tables[1] = FitEarly(1, base, shapes, c, spectrum);
    }

    CheckAll(tables, spectrum);
    if (g_failures > 0) {
        std::fprintf(stderr, "%d figure(s) missed; nothing written\n", g_failures);
        return 1;
    }

    std::vector<unsigned char> bytes;
    for (const Signal& t : tables)
        for (double v : t) {
            float f = float(v);
            uint32_t u;
            std::memcpy(&u, &f, 4);
            for (int k = 0; k < 4; ++k) bytes.push_back((unsigned char)(u >> (8 * k)));
        }
    std::FILE* out = std::fopen(argv[1], "wb");
    if (!out || std::fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size() || std::fclose(out) != 0) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
