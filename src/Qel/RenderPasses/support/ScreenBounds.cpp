#include <Qel/RenderPasses/support/ScreenBounds.h>

#include <QMatrix4x4>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace Morvane::Qel {

namespace {

struct Interval
{
    double lower = std::numeric_limits<double>::infinity();
    double upper = -std::numeric_limits<double>::infinity();

    void add(double value)
    {
        lower = std::min(lower, value);
        upper = std::max(upper, value);
    }
};

/// From world space to clip space in double precision, so that it adds no rounding of its own.
class ClipTransform
{
public:
    ClipTransform(const QMatrix4x4& projection, const QMatrix4x4& camera)
    {
        for (int row = 0; row < 4; ++row) {
            for (int column = 0; column < 4; ++column) {
                double& sum = m_matrix[static_cast<size_t>(row)][static_cast<size_t>(column)];
                for (int i = 0; i < 4; ++i) {
                    sum += static_cast<double>(projection(row, i)) * static_cast<double>(camera(i, column));
                }
            }
        }
    }

    /// Returns coordinate 0 to 3 of a point in clip space.
    double map(size_t coordinate, const std::array<double, 3>& point) const
    {
        const std::array<double, 4>& row = m_matrix[coordinate];
        return row[0] * point[0] + row[1] * point[1] + row[2] * point[2] + row[3];
    }

private:
    std::array<std::array<double, 4>, 4> m_matrix{};
};

std::array<double, 3> corner(const QPair<QVector3D, QVector3D>& box, unsigned int index)
{
    const auto value = [&](int axis) {
        return static_cast<double>((index >> axis & 1) != 0 ? box.second[axis] : box.first[axis]);
    };
    return {value(0), value(1), value(2)};
}

/// Returns the first pixel and the one after the last.
QPair<int, int> pixels(const Interval& place, int length)
{
    const auto pixel = [&](double at) { return std::clamp((0.5 * at + 0.5) * length, -1.0, length + 1.0); };
    // A pixel more on each side for the rounding of the viewport transform and of the rasteriser.
    return {std::clamp(static_cast<int>(std::floor(pixel(place.lower))) - 1, 0, length),
            std::clamp(static_cast<int>(std::ceil(pixel(place.upper))) + 1, 0, length)};
}

} // namespace

QRect coveredPixels(const std::vector<QPair<QVector3D, QVector3D>>& boxes, const QMatrix4x4& projection,
                    const QMatrix4x4& camera, const QSize& size)
{
    const ClipTransform transform(projection, camera);
    Interval horizontal;
    Interval vertical;
    for (const auto& box : boxes) {
        for (unsigned int i = 0; i < 8; ++i) {
            const std::array<double, 3> point = corner(box, i);
            const double w = transform.map(3, point);
            const double x = transform.map(0, point) / w;
            const double y = transform.map(1, point) / w;
            if (!(w > 0.0) || !std::isfinite(x) || !std::isfinite(y)) {
                return {QPoint(0, 0), size};
            }
            horizontal.add(x);
            vertical.add(y);
        }
    }
    const auto [left, right] = pixels(horizontal, size.width());
    const auto [bottom, top] = pixels(vertical, size.height());
    return {left, bottom, std::max(right - left, 0), std::max(top - bottom, 0)};
}

} // namespace Morvane::Qel
