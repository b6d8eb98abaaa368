#include <Qel/graph/support/PointBounds.h>

#include <cmath>
#include <iterator>

namespace Morvane::Qel {

Box boxAround(const std::vector<QVector3D>& points)
{
    Box box;
    for (int axis = 0; axis < 3; ++axis) {
        Interval side;
        for (const QVector3D& p : points) {
            side.include(p[axis]);
        }
        box.center[axis] = side.center();
        box.half[axis] = 0.5F * side.length();
    }
    return box;
}

std::vector<QVector3D> usablePoints(const std::vector<QVector3D>& points)
{
    constexpr float largest = 1e15F;
    std::vector<QVector3D> usable;
    std::copy_if(points.begin(), points.end(), std::back_inserter(usable), [](const QVector3D& p) {
        return std::abs(p.x()) < largest && std::abs(p.y()) < largest && std::abs(p.z()) < largest;
    });
    return usable;
}

} // namespace Morvane::Qel
