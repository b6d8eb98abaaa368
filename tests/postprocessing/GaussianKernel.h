#pragma once

#include <cmath>
#include <vector>

namespace Morvane::Qel::Test {

/// Weights of the taps at whole texels on one side of a Gaussian of this radius, in double precision,
/// normalised over both sides; an odd number of at least twice the radius.
inline std::vector<double> gaussianTaps(double radius)
{
    int count = 1;
    while (count < 2.0 * radius) {
        count += 2;
    }
    std::vector<double> taps;
    double sum = 0.0;
    for (int x = 0; x < count; ++x) {
        const double scaled = x / (radius + 0.0001);
        taps.push_back(std::exp(-0.5 * scaled * scaled));
        sum += x == 0 ? taps.back() : 2.0 * taps.back();
    }
    for (double& tap : taps) {
        tap /= sum;
    }
    return taps;
}

} // namespace Morvane::Qel::Test
