#pragma once

#include <functional>
#include <vector>

namespace Morvane::Qel {

/// Samples in rows, as an intermediate result of a metric.
struct Plane
{
    Plane(int planeWidth, int planeHeight);

    double* row(int y) { return values.data() + static_cast<size_t>(y) * static_cast<size_t>(width); }
    const double* row(int y) const
    {
        return values.data() + static_cast<size_t>(y) * static_cast<size_t>(width);
    }

    int width;
    int height;
    std::vector<double> values;
};

/// The weights of a one-dimensional filter, an odd number with the centre in the middle.
using Kernel = std::vector<double>;

/// Returns the kernel whose weight at the distance i from its centre is f(i).
Kernel makeKernel(int radius, const std::function<double(int)>& f);
/// Returns a Gaussian kernel whose weights add up to 1.
Kernel makeGaussian(int radius, double standardDeviation);

/// Filters every row; the result is narrower by the radius of the kernel at both sides.
Plane filterRows(const Plane& plane, const Kernel& kernel);
/// Filters every column; the result is lower by the radius of the kernel at both sides.
Plane filterColumns(const Plane& plane, const Kernel& kernel);

/// Calls f(begin, end) for bands of rows that cover an image of this height, in several threads.
void forBands(int height, const std::function<void(int, int)>& f);

} // namespace Morvane::Qel
