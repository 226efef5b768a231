// The transform of a float sequence at one frequency, summed directly in
// double precision: the independent yardstick for the responses of the
// filter chains.
#pragma once

#include <cmath>
#include <cstddef>
#include <vector>

constexpr double kPi = 3.14159265358979323846;

// Real and imaginary part of sum of h[n] exp(-2 pi i f n / rate).
inline void DirectDft(const std::vector<float>& h, double f, double rate, double& re, double& im)
{
    re = 0.0;
    im = 0.0;
    for (std::size_t n = 0; n < h.size(); ++n) {
        const double phase = -2.0 * kPi * f * double(n) / rate;
        re += double(h[n]) * std::cos(phase);
        im += double(h[n]) * std::sin(phase);
    }
}
