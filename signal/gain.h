// Decibels to a linear gain, made once per stage call: pow(10.0, trim x 0.05)
// with 0.05 the single-precision constant, the product and the power in double
// precision, and one rounding to float at the end.
#pragma once

#include <cmath>
#include <cstdint>

constexpr float kDecibelStep = 0.05f;  // 0.05000000074505806

inline double DecibelPower(int32_t trim)
{
    return std::pow(10.0, double(trim) * double(kDecibelStep));
}

inline float DecibelGain(int32_t trim)
{
    return float(DecibelPower(trim));
}
