// Decibels to gain as the stages must make it: the 0.05 of a step as a
// float, product and power in double, one rounding to float.
#pragma once

#include <cmath>
#include <cstdint>

constexpr float kDecibelStep = 0.05f;  // 0.05000000074505806

// The gain of a trim in steps of 0.05 dB x 20.
inline float Gain(int32_t trim)
{
    return float(std::pow(10.0, double(trim) * double(kDecibelStep)));
}
