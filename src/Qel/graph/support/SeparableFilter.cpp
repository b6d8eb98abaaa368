#include <Qel/graph/support/SeparableFilter.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <future>
#include <numeric>
#include <thread>

namespace Morvane::Qel {

namespace {

/// High enough that the rows which neighbouring bands both read cost little.
constexpr int bandHeight = 64;

/// Adds a row, scaled by a weight, to another.
void addRow(double* result, const double* row, double weight, int width)
{
    for (int x = 0; x < width; ++x) {
        result[x] += weight * row[x];
    }
}

} // namespace

Plane::Plane(int planeWidth, int planeHeight)
    : width(planeWidth)
    , height(planeHeight)
    , values(static_cast<size_t>(planeWidth) * static_cast<size_t>(planeHeight))
{
}

Kernel makeKernel(int radius, const std::function<double(int)>& f)
{
    Kernel kernel;
    for (int i = -radius; i <= radius; ++i) {
        kernel.push_back(f(i));
    }
    return kernel;
}

Kernel makeGaussian(int radius, double standardDeviation)
{
    Kernel kernel = makeKernel(
        radius, [&](int i) { return std::exp(-i * i / (2.0 * standardDeviation * standardDeviation)); });
    const double sum = std::accumulate(kernel.begin(), kernel.end(), 0.0);
    for (double& weight : kernel) {
        weight /= sum;
    }
    return kernel;
}

Plane filterRows(const Plane& plane, const Kernel& kernel)
{
    Plane result(plane.width - static_cast<int>(kernel.size()) + 1, plane.height);
    for (int y = 0; y < result.height; ++y) {
        for (size_t i = 0; i < kernel.size(); ++i) {
            addRow(result.row(y), plane.row(y) + i, kernel[i], result.width);
        }
    }
    return result;
}

Plane filterColumns(const Plane& plane, const Kernel& kernel)
{
    Plane result(plane.width, plane.height - static_cast<int>(kernel.size()) + 1);
    for (int y = 0; y < result.height; ++y) {
        for (size_t i = 0; i < kernel.size(); ++i) {
            addRow(result.row(y), plane.row(y + static_cast<int>(i)), kernel[i], result.width);
        }
    }
    return result;
}

void forBands(int height, const std::function<void(int, int)>& f)
{
    std::atomic<int> next = 0;
    const auto work = [&] {
        for (int begin = next.fetch_add(bandHeight); begin < height; begin = next.fetch_add(bandHeight)) {
            f(begin, std::min(begin + bandHeight, height));
        }
    };
    // If the system refuses a thread, its share runs in this one.
    std::vector<std::future<void>> workers;
    for (unsigned int i = 0; i < std::max(std::thread::hardware_concurrency(), 1U); ++i) {
        workers.push_back(std::async(work));
    }
    for (std::future<void>& worker : workers) {
        worker.get();
    }
}

} // namespace Morvane::Qel
