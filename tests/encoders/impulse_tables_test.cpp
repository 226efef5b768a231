// The six binaural impulse tables as the library holds them: every figure of
// their shape, computed here from the compiled-in data in double precision and
// compared with the designed value at the precision it is given to (half a
// unit of the last digit; sample indices exactly; the values of single samples
// as the float nearest to the decimal).
#include "encoders/impulse_tables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kLength = int(kImpulseTableLength);
constexpr int kTransformLength = 16384;
constexpr int kGroup = 1024;
constexpr double kPi = 3.14159265358979323846;

using Table = std::vector<double>;

const std::array<Table, kImpulseTableCount>& Tables()
{
    static const std::array<Table, kImpulseTableCount> tables = [] {
        std::array<Table, kImpulseTableCount> t;
        std::vector<float> raw(kLength);
        for (int i = 0; i < kImpulseTableCount; ++i) {
            CopyImpulseTable(i, raw.data());
            t[i].assign(raw.begin(), raw.end());
        }
        return t;
    }();
    return tables;
}

const Table& T(int index) { return Tables()[index]; }

double Sum(const Table& x)
{
    double s = 0.0;
    for (double v : x) s += v;
    return s;
}

double SumSquares(const Table& x)
{
    double s = 0.0;
    for (double v : x) s += v * v;
    return s;
}

// First k with 10 log10(sum of x[n]^2 for n >= k / total) <= -level.
int RemainingEnergyCrossing(const Table& x, double level_db)
{
    std::vector<double> remaining(kLength + 1, 0.0);
    for (int n = kLength - 1; n >= 0; --n) remaining[n] = remaining[n + 1] + x[n] * x[n];
    for (int k = 0; k < kLength; ++k)
        if (10.0 * std::log10(remaining[k] / remaining[0]) <= -level_db) return k;
    return -1;
}

double BlockPeak(const Table& x, int block)
{
    double m = 0.0;
    for (int n = block * kGroup; n < (block + 1) * kGroup; ++n) m = std::max(m, std::fabs(x[n]));
    return m;
}

// Magnitude in dB of the 16384-point transform of the zero-padded table at
// one bin, by a direct sum.
double MagnitudeDb(const Table& x, int bin)
{
    double re = 0.0, im = 0.0;
    for (int n = 0; n < kLength; ++n) {
        const double angle = 2.0 * kPi * double((int64_t(bin) * n) % kTransformLength) / kTransformLength;
        re += x[n] * std::cos(angle);
        im -= x[n] * std::sin(angle);
    }
    return 20.0 * std::log10(std::hypot(re, im));
}

// Last sample from which on two tables differ by less than `limit`, minus
// one: the last sample where they differ by `limit` or more.
int LastDifferenceAtLeast(const Table& a, const Table& b, double limit)
{
    int last = -1;
    for (int n = 0; n < kLength; ++n)
        if (!(std::fabs(a[n] - b[n]) < limit)) last = n;
    return last;
}

// ---------------------------------------------------------------------------
// The figures of each table.

struct Figures {
    const char* name;
    float sample0;
    int peak_index;
    float peak;
    double sum;
    double sum_squares;
    double squares_tolerance;  // half a unit of the last printed digit
    double squares_db;
    int energy_sample[3];      // -20, -40, -60 dB
    int onset;                 // first |x| >= 0.001
    int last_audible;          // last |x| > 1e-6
    float last_sample;
};

const Figures kFigures[kImpulseTableCount] = {
    {"CentreLeft", 0.4753474f, 0, 0.4753474f, 0.733115, 0.395542, 5e-7, -4.03, {1710, 4754, 6841}, 0, 7157,
     -0.0000000155646f},
    {"CentreRight", 0.4753284f, 0, 0.4753284f, 0.725701, 0.402286, 5e-7, -3.95, {1847, 4762, 6716}, 0, 7162,
     -0.0000000423878f},
    {"FrontNear", 0.7323657f, 0, 0.7323657f, 0.733861, 0.807624, 5e-7, -0.93, {1335, 4256, 6616}, 0, 7157,
     -0.0000000155646f},
    {"FrontFar", 0.0000152079f, 10, 0.2006898f, 0.726401, 0.137568, 5e-7, -8.61, {2458, 5397, 6902}, 10, 7162,
     -0.0000000423878f},
    {"SurroundNear", 0.7316555f, 0, 0.7316555f, 0.733337, 0.712020, 5e-7, -1.48, {1411, 4348, 6701}, 0, 7157,
     -0.0000000155646f},
    {"SurroundFar", -0.000110258f, 22, 0.0612765f, 0.725953, 0.0737602, 5e-8, -11.32, {2880, 5688, 6949}, 21,
     7162, -0.0000000423878f},
};

class TableShape : public ::testing::TestWithParam<int> {
protected:
    const Table& x() const { return T(GetParam()); }
    const Figures& f() const { return kFigures[GetParam()]; }
};

TEST_P(TableShape, SampleZeroIsStated)
{
    EXPECT_EQ(float(x()[0]), f().sample0);
}

TEST_P(TableShape, LargestMagnitudeStandsAtStatedSampleWithStatedValue)
{
    int peak = 0;
    for (int n = 1; n < kLength; ++n)
        if (std::fabs(x()[n]) > std::fabs(x()[peak])) peak = n;
    EXPECT_EQ(peak, f().peak_index);
    EXPECT_EQ(float(x()[peak]), f().peak);
    for (int n = 0; n < kLength; ++n) {
        if (n != peak) {
            EXPECT_LT(std::fabs(x()[n]), std::fabs(x()[peak])) << "sample " << n;
        }
    }
}

TEST_P(TableShape, SumOfSamplesIsStated)
{
    EXPECT_NEAR(Sum(x()), f().sum, 5e-7);
}

TEST_P(TableShape, SumOfSquaresIsStated)
{
    EXPECT_NEAR(SumSquares(x()), f().sum_squares, f().squares_tolerance);
}

TEST_P(TableShape, SumOfSquaresInDecibelsIsStated)
{
    EXPECT_NEAR(10.0 * std::log10(SumSquares(x())), f().squares_db, 0.005);
}

TEST_P(TableShape, RemainingEnergyFallsTo20DbAtStatedSample)
{
    EXPECT_EQ(RemainingEnergyCrossing(x(), 20.0), f().energy_sample[0]);
}

TEST_P(TableShape, RemainingEnergyFallsTo40DbAtStatedSample)
{
    EXPECT_EQ(RemainingEnergyCrossing(x(), 40.0), f().energy_sample[1]);
}

TEST_P(TableShape, RemainingEnergyFallsTo60DbAtStatedSample)
{
    EXPECT_EQ(RemainingEnergyCrossing(x(), 60.0), f().energy_sample[2]);
}

TEST_P(TableShape, GainAtZeroFrequencyIsAboutMinus2Point7Db)
{
    // -2.69 to -2.79 dB at two decimals.
    const double db = 20.0 * std::log10(Sum(x()));
    EXPECT_GE(db, -2.795);
    EXPECT_LT(db, -2.685);
}

TEST_P(TableShape, OnsetIsAtStatedSampleAfterNearlySilentLeadIn)
{
    int onset = -1;
    for (int n = 0; n < kLength && onset < 0; ++n)
        if (std::fabs(x()[n]) >= 0.001) onset = n;
    EXPECT_EQ(onset, f().onset);
    for (int n = 0; n < f().onset; ++n) {
        EXPECT_LT(std::fabs(x()[n]), 0.0002) << "sample " << n;
        EXPECT_NE(x()[n], 0.0) << "sample " << n;
    }
}

TEST_P(TableShape, LastSampleAboveOneMillionthEndsTheSeventhBlock)
{
    int last = -1;
    for (int n = 0; n < kLength; ++n)
        if (std::fabs(x()[n]) > 0.000001) last = n;
    EXPECT_EQ(last, f().last_audible);
}

TEST_P(TableShape, SamplesFrom7168AreBelowQuarterMillionth)
{
    for (int n = 7168; n < kLength; ++n) EXPECT_LT(std::fabs(x()[n]), 0.00000025) << "sample " << n;
}

TEST_P(TableShape, LastSampleIsStatedForItsFamily)
{
    EXPECT_EQ(float(x()[kLength - 1]), f().last_sample);
}

TEST_P(TableShape, HoldsNoZeroInfinityOrNaN)
{
    for (int n = 0; n < kLength; ++n) {
        EXPECT_TRUE(std::isfinite(x()[n])) << "sample " << n;
        EXPECT_NE(x()[n], 0.0) << "sample " << n;
    }
}

TEST_P(TableShape, DecaysSteadilyBlockByBlock)
{
    for (int block = 1; block < kLength / kGroup; ++block)
        EXPECT_LT(BlockPeak(x(), block), BlockPeak(x(), block - 1)) << "block " << block;
}

INSTANTIATE_TEST_SUITE_P(Tables, TableShape, ::testing::Range(0, kImpulseTableCount),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(kFigures[info.param].name);
                         });

// ---------------------------------------------------------------------------
// The telling rows, sample by sample.

void ExpectRow(int table, int first, std::initializer_list<float> values)
{
    int n = first;
    for (float v : values) {
        EXPECT_EQ(float(T(table)[n]), v) << "table " << table << " sample " << n;
        ++n;
    }
}

TEST(ImpulseTables, CentreLeft_Samples0To3AreStated)
{
    ExpectRow(ImpulseCentreLeft, 0, {0.4753474f, 0.03551415f, -0.02463478f, 0.2189871f});
}

TEST(ImpulseTables, CentreRight_Samples0To3AreStated)
{
    ExpectRow(ImpulseCentreRight, 0, {0.4753284f, 0.03549893f, -0.0246538f, 0.2189719f});
}

TEST(ImpulseTables, FrontNear_Samples0To3AreStated)
{
    ExpectRow(ImpulseFrontNear, 0, {0.7323657f, -0.003524344f, -0.008622712f, 0.2566758f});
}

TEST(ImpulseTables, FrontFar_Samples6To13AreStated)
{
    ExpectRow(ImpulseFrontFar, 6,
              {0.00002280639f, 0.00002280665f, 0.00002280745f, 0.00002660907f, 0.2006898f, 0.0891937f,
               0.01615099f, 0.09615701f});
}

TEST(ImpulseTables, SurroundNear_Samples0To3AreStated)
{
    ExpectRow(ImpulseSurroundNear, 0, {0.7316555f, 0.008881222f, -0.06956293f, -0.03603815f});
}

TEST(ImpulseTables, SurroundFar_Samples18To26AreStated)
{
    ExpectRow(ImpulseSurroundFar, 18,
              {-0.0001482574f, -0.0001482597f, -0.0001482564f, 0.06079048f, 0.0612765f, 0.04304033f,
               0.04089614f, 0.04274355f, 0.03230095f});
}

// ---------------------------------------------------------------------------
// Direct part and lead-in.

TEST(ImpulseTables, FrontFar_OnsetIsSample10)
{
    const Table& x = T(ImpulseFrontFar);
    for (int n = 0; n < 10; ++n) EXPECT_LT(std::fabs(x[n]), 0.0002) << "sample " << n;
    EXPECT_GE(std::fabs(x[10]), 0.001);
}

TEST(ImpulseTables, SurroundFar_OnsetIsSample21WithLargestValueAt22)
{
    const Table& x = T(ImpulseSurroundFar);
    for (int n = 0; n < 21; ++n) EXPECT_LT(std::fabs(x[n]), 0.0002) << "sample " << n;
    EXPECT_GE(std::fabs(x[21]), 0.001);
    EXPECT_EQ(float(x[22]), 0.0612765f);
}

TEST(ImpulseTables, FarTables_AreMuchWeakerThanNear)
{
    EXPECT_EQ(float(T(ImpulseFrontFar)[10]), 0.2006898f);
    EXPECT_EQ(float(T(ImpulseFrontNear)[0]), 0.7323657f);
    EXPECT_EQ(float(T(ImpulseSurroundFar)[22]), 0.0612765f);
    EXPECT_EQ(float(T(ImpulseSurroundNear)[0]), 0.7316555f);
}

// The lead-in lies on a grid: every sample within 1e-8 of start + k * step
// for an integer k that never goes back, the step rounding to 0.0000038.
void ExpectLeadInRamp(const Table& x, int last, double start, double end, double end_tolerance)
{
    EXPECT_EQ(float(x[0]), float(start));
    EXPECT_NEAR(x[last], end, end_tolerance);
    const double span = x[last] - x[0];
    const long steps = std::lround(std::fabs(span) / 0.0000038);
    ASSERT_GT(steps, 0);
    const double step = span / double(steps);
    EXPECT_GE(std::fabs(step), 0.00000375);
    EXPECT_LT(std::fabs(step), 0.00000385);
    long previous = 0;
    for (int n = 0; n <= last; ++n) {
        const long level = std::lround((x[n] - x[0]) / step);
        EXPECT_NEAR(x[n], x[0] + step * double(level), 1e-8) << "sample " << n;
        EXPECT_GE(level, previous) << "sample " << n;
        EXPECT_LE(level, steps) << "sample " << n;
        previous = level;
    }
}

TEST(ImpulseTables, FrontFar_LeadInRampsUpOnGridOfAbout3Point8Millionths)
{
    ExpectLeadInRamp(T(ImpulseFrontFar), 9, 0.0000152079, 0.0000266091, 5e-11);
}

TEST(ImpulseTables, SurroundFar_LeadInRampsDownOnGridOfAbout3Point8Millionths)
{
    ExpectLeadInRamp(T(ImpulseSurroundFar), 20, -0.000110258, -0.000148256, 5e-10);
}

// ---------------------------------------------------------------------------
// Centre pair. "The first samples" are read as samples 0 to 31.

TEST(ImpulseTables, CentrePair_FirstSamplesDifferByNearConstantOffset)
{
    for (int n = 0; n < 32; ++n) {
        const double d = T(ImpulseCentreLeft)[n] - T(ImpulseCentreRight)[n];
        EXPECT_LT(std::fabs(d), 0.00002) << "sample " << n;
        EXPECT_GE(d, 0.0000145) << "sample " << n;
        EXPECT_LT(d, 0.0000195) << "sample " << n;
    }
}

TEST(ImpulseTables, CentrePair_DifferByAbout0Point0068AtSample500)
{
    const double d = std::fabs(T(ImpulseCentreLeft)[500] - T(ImpulseCentreRight)[500]);
    EXPECT_GE(d, 0.00675);
    EXPECT_LT(d, 0.00685);
}

// ---------------------------------------------------------------------------
// The two families and their tails.

const int kEvenFamily[3] = {ImpulseCentreLeft, ImpulseFrontNear, ImpulseSurroundNear};
const int kOddFamily[3] = {ImpulseCentreRight, ImpulseFrontFar, ImpulseSurroundFar};

void ExpectFamilyAgreesFrom(double limit, int first)
{
    for (const int* family : {kEvenFamily, kOddFamily})
        for (int a = 0; a < 3; ++a)
            for (int b = a + 1; b < 3; ++b)
                EXPECT_EQ(LastDifferenceAtLeast(T(family[a]), T(family[b]), limit), first - 1)
                    << "tables " << family[a] << " and " << family[b];
}

TEST(ImpulseTables, Families_DifferByLessThan1e5FromSample1023On)
{
    ExpectFamilyAgreesFrom(0.00001, 1023);
}

TEST(ImpulseTables, Families_DifferByLessThan1e6FromSample1867On)
{
    ExpectFamilyAgreesFrom(0.000001, 1867);
}

TEST(ImpulseTables, Families_DifferByLessThan1e7FromSample2775On)
{
    ExpectFamilyAgreesFrom(0.0000001, 2775);
}

TEST(ImpulseTables, Families_LastSamplesAgreeToSixDigits)
{
    for (int t : kEvenFamily) EXPECT_EQ(float(T(t)[kLength - 1]), -0.0000000155646f) << "table " << t;
    for (int t : kOddFamily) EXPECT_EQ(float(T(t)[kLength - 1]), -0.0000000423878f) << "table " << t;
}

TEST(ImpulseTables, Families_TailsDifferByMoreThan0Point001AsLateAsSample4443)
{
    for (int a : kEvenFamily)
        for (int b : kOddFamily) {
            int last = -1;
            for (int n = 0; n < kLength; ++n)
                if (std::fabs(T(a)[n] - T(b)[n]) > 0.001) last = n;
            EXPECT_EQ(last, 4443) << "tables " << a << " and " << b;
        }
}

// ---------------------------------------------------------------------------
// Level by time, sums and spectra of the front pair.

void ExpectBlockLevels(const Table& x, const std::array<double, 7>& db)
{
    const double peak = BlockPeak(x, 0);
    for (int block = 1; block <= 7; ++block)
        EXPECT_NEAR(20.0 * std::log10(BlockPeak(x, block) / peak), db[block - 1], 0.05) << "block " << block;
}

TEST(ImpulseTables, FrontNear_BlockPeaksFallAsStated)
{
    ExpectBlockLevels(T(ImpulseFrontNear), {-35.4, -42.7, -48.3, -56.5, -63.1, -68.5, -134.5});
}

TEST(ImpulseTables, FrontFar_BlockPeaksFallAsStated)
{
    ExpectBlockLevels(T(ImpulseFrontFar), {-18.5, -31.1, -37.6, -45.3, -54.1, -61.5, -118.1});
}

TEST(ImpulseTables, Sums_SameForNearAndFarWithinStatedRange)
{
    for (int t = 0; t < kImpulseTableCount; ++t) {
        EXPECT_GE(Sum(T(t)), 0.72565) << "table " << t;
        EXPECT_LT(Sum(T(t)), 0.73395) << "table " << t;
    }
    for (int t : kEvenFamily) EXPECT_GE(Sum(T(t)), 0.73305) << "table " << t;
    for (int t : kOddFamily) EXPECT_LT(Sum(T(t)), 0.72645) << "table " << t;
}

TEST(ImpulseTables, Energy_DiffersByUpTo10Point4Db)
{
    double lowest = 1e9, highest = -1e9;
    for (int t = 0; t < kImpulseTableCount; ++t) {
        const double db = 10.0 * std::log10(SumSquares(T(t)));
        lowest = std::min(lowest, db);
        highest = std::max(highest, db);
    }
    EXPECT_NEAR(highest - lowest, 10.4, 0.05);
}

TEST(ImpulseTables, FrontNear_MagnitudeAtTwentiethOfRateIsMinus1Point4Db)
{
    EXPECT_NEAR(MagnitudeDb(T(ImpulseFrontNear), 819), -1.4, 0.05);
}

TEST(ImpulseTables, FrontFar_MagnitudeAtTwentiethOfRateIsMinus8Point3Db)
{
    EXPECT_NEAR(MagnitudeDb(T(ImpulseFrontFar), 819), -8.3, 0.05);
}

TEST(ImpulseTables, FrontNear_MagnitudeAtThreeTenthsOfRateIsMinus0Point3Db)
{
    EXPECT_NEAR(MagnitudeDb(T(ImpulseFrontNear), 4915), -0.3, 0.05);
}

TEST(ImpulseTables, FrontFar_MagnitudeAtThreeTenthsOfRateIsMinus17Point8Db)
{
    EXPECT_NEAR(MagnitudeDb(T(ImpulseFrontFar), 4915), -17.8, 0.05);
}

// ---------------------------------------------------------------------------
// The set as a whole.

TEST(ImpulseTables, AllPairs_CorrelatePositively)
{
    for (int a = 0; a < kImpulseTableCount; ++a)
        for (int b = a + 1; b < kImpulseTableCount; ++b) {
            double ab = 0.0;
            for (int n = 0; n < kLength; ++n) ab += T(a)[n] * T(b)[n];
            EXPECT_GT(ab / std::sqrt(SumSquares(T(a)) * SumSquares(T(b))), 0.0) << "tables " << a << " and " << b;
        }
}

TEST(ImpulseTables, AllPairs_NeitherEqualNorMirroredNorInverted)
{
    for (int a = 0; a < kImpulseTableCount; ++a)
        for (int b = 0; b < kImpulseTableCount; ++b) {
            bool equal = true, mirror = true, inverse = true;
            for (int n = 0; n < kLength; ++n) {
                equal = equal && T(a)[n] == T(b)[n];
                mirror = mirror && T(a)[n] == T(b)[kLength - 1 - n];
                inverse = inverse && T(a)[n] == -T(b)[n];
            }
            if (a != b) {
                EXPECT_FALSE(equal) << "tables " << a << " and " << b;
            }
            EXPECT_FALSE(mirror) << "tables " << a << " and " << b;
            EXPECT_FALSE(inverse) << "tables " << a << " and " << b;
        }
}

TEST(ImpulseTables, FrontNear_HoldsLargestSingleSampleGainOfAllTables)
{
    for (int t = 0; t < kImpulseTableCount; ++t)
        for (int n = 0; n < kLength; ++n) EXPECT_LE(std::fabs(T(t)[n]), 0.7323657f) << "table " << t;
    EXPECT_EQ(float(T(ImpulseFrontNear)[0]), 0.7323657f);
}

TEST(ImpulseTables, CopyImpulseTable_GivesTheBytesInOrder)
{
    // Table 3 sample 10 stands at byte (3 * 8192 + 10) * 4, little-endian.
    const std::size_t at = (3 * std::size_t(kLength) + 10) * 4;
    uint32_t bits = uint32_t(ImpulseTableData[at]) | uint32_t(ImpulseTableData[at + 1]) << 8 |
                    uint32_t(ImpulseTableData[at + 2]) << 16 | uint32_t(ImpulseTableData[at + 3]) << 24;
    float value;
    std::memcpy(&value, &bits, 4);
    EXPECT_EQ(value, 0.2006898f);
    EXPECT_EQ(float(T(ImpulseFrontFar)[10]), value);
}

}  // namespace
