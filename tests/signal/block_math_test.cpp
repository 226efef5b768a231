// The block logarithm and exponential: the float of every element is the
// float that the C library's function gives, also for the arguments that
// the lanes leave to the library.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "signal/block_math.h"

namespace {

std::vector<float> Logs(const std::vector<double>& x)
{
    std::vector<float> out(x.size());
    LogToFloat(x.data(), out.data(), uint32_t(x.size()));
    return out;
}

std::vector<float> Exps(const std::vector<double>& x)
{
    std::vector<float> out(x.size());
    ExpToFloat(x.data(), out.data(), uint32_t(x.size()));
    return out;
}

uint32_t Bits(float value)
{
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// Equal bit for bit, NaN with NaN.
void ExpectSameFloats(const std::vector<float>& got, const std::vector<double>& x, double (*library)(double))
{
    ASSERT_EQ(got.size(), x.size());
    for (size_t i = 0; i < x.size(); ++i) {
        const float expected = float(library(x[i]));
        if (std::isnan(expected))
            EXPECT_TRUE(std::isnan(got[i])) << "x = " << x[i];
        else
            EXPECT_EQ(Bits(got[i]), Bits(expected)) << "x = " << x[i];
    }
}

double Log(double x) { return std::log(x); }
double Exp(double x) { return std::exp(x); }

}  // namespace

TEST(BlockMath, LogOfOneIsPositiveZeroAndOfTheDetectorsBoundsAsTheLibrarys)
{
    const std::vector<double> x = {1.0, 10.0, 0.1, double(1.0f / 0.1f), 2.0, 0.5, 1.0 + DBL_EPSILON, 1.0 - DBL_EPSILON / 2};
    const std::vector<float> got = Logs(x);
    EXPECT_EQ(Bits(got[0]), 0u);
    ExpectSameFloats(got, x, Log);
}

TEST(BlockMath, LogArgumentsOutsideTheLanesRangeGoToTheLibrary)
{
    const double inf = std::numeric_limits<double>::infinity();
    const std::vector<double> x = {0.0, -0.0, -1.0, inf, std::nan(""), DBL_MIN / 4, DBL_MAX, 1e-300, 1e300};
    ExpectSameFloats(Logs(x), x, Log);
}

TEST(BlockMath, ExpOfZeroOfEitherSignIsExactlyOne)
{
    const std::vector<float> got = Exps({0.0, -0.0});
    EXPECT_EQ(got[0], 1.0f);
    EXPECT_EQ(got[1], 1.0f);
}

TEST(BlockMath, ExpArgumentsOutsideTheLanesRangeGoToTheLibrary)
{
    const double inf = std::numeric_limits<double>::infinity();
    const std::vector<double> x = {-87.5, -100.0, -745.0, 88.5, 100.0, -inf, inf, std::nan(""), -87.0, 88.0};
    ExpectSameFloats(Exps(x), x, Exp);
}

TEST(BlockMath, EveryLengthAndEveryTailOfAGroup)
{
    // Lengths around the group of lanes and the pass of 256, on arguments
    // of the detector's and the decoder's ranges.
    for (uint32_t n : {0u, 1u, 3u, 7u, 8u, 9u, 255u, 256u, 257u, 1000u}) {
        std::vector<double> q(n), z(n);
        for (uint32_t i = 0; i < n; ++i) {
            q[i] = 0.1 + 9.9 * double(i) / double(n + 1);
            z[i] = -2.2 * double(i) / double(n + 1);
        }
        ExpectSameFloats(Logs(q), q, Log);
        ExpectSameFloats(Exps(z), z, Exp);
    }
}

TEST(BlockMath, NearFloatBoundaryMarksTheMidpointsBetweenFloatsOnly)
{
    const double one = 1.0;
    const double midpoint = 1.0 + double(FLT_EPSILON) / 2.0;  // between 1 and the next float
    EXPECT_FALSE(NearFloatBoundary(one));
    EXPECT_FALSE(NearFloatBoundary(double(1.5f)));
    EXPECT_TRUE(NearFloatBoundary(midpoint));
    EXPECT_TRUE(NearFloatBoundary(std::nextafter(midpoint, 2.0)));
    EXPECT_TRUE(NearFloatBoundary(-midpoint));
    EXPECT_FALSE(NearFloatBoundary(midpoint + double(FLT_EPSILON) / 4.0));
}
