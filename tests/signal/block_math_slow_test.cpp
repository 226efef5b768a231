// The block logarithm and exponential against the C library over 10^8
// arguments from the ranges that occur: the detector's quotients
// (|l| + g|r|) / (|r| + g|l|) of random sample pairs, and the decoder's
// exponents 0.839 t for smoothed steering t between -2.4 and 0. Every float
// must be the library's, bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "signal/block_math.h"

namespace {

constexpr uint32_t kPass = 1 << 20;
constexpr uint64_t kArguments = 50000000;  // each function, 10^8 together

// A fixed stream of 32-bit words.
struct Words {
    uint64_t state = 0x9E3779B97F4A7C15ull;
    uint32_t Next()
    {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return uint32_t(state >> 32);
    }
    // A float of random magnitude: a uniform mantissa and an exponent over
    // twenty binades below 1.
    float Magnitude()
    {
        const uint32_t word = Next();
        const float mantissa = float(word & 0xFFFFFF) / 16777216.0f;
        return std::ldexp(mantissa, -int((word >> 24) % 20));
    }
};

uint64_t CountDifferences(const std::vector<double>& x, const std::vector<float>& got, double (*library)(double))
{
    uint64_t differences = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        const float expected = float(library(x[i]));
        differences += std::memcmp(&expected, &got[i], sizeof expected) != 0;
    }
    return differences;
}

}  // namespace

TEST(BlockMathSlow, FiftyMillionDetectorQuotientsGiveTheLibrarysLogarithms)
{
    Words words;
    std::vector<double> x(kPass);
    std::vector<float> got(kPass);
    uint64_t differences = 0;
    const double g = double(0.1f);
    for (uint64_t done = 0; done < kArguments; done += kPass) {
        for (double& q : x) {
            const double a = double(words.Magnitude());
            const double b = double(words.Magnitude());
            q = (a + g * b) / (b + g * a);
        }
        LogToFloat(x.data(), got.data(), kPass);
        differences += CountDifferences(x, got, [](double v) { return std::log(v); });
    }
    EXPECT_EQ(differences, 0u);
}

TEST(BlockMathSlow, FiftyMillionSteeringExponentsGiveTheLibrarysExponentials)
{
    Words words;
    std::vector<double> x(kPass);
    std::vector<float> got(kPass);
    uint64_t differences = 0;
    for (uint64_t done = 0; done < kArguments; done += kPass) {
        for (double& z : x) {
            const float t = -2.4f * (float(words.Next() & 0xFFFFFF) / 16777216.0f);
            z = double(0.839f) * double(t);
        }
        ExpToFloat(x.data(), got.data(), kPass);
        differences += CountDifferences(x, got, [](double v) { return std::exp(v); });
    }
    EXPECT_EQ(differences, 0u);
}
