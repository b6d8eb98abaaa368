#pragma once

#include <QPair>
#include <QVector3D>

#include <algorithm>
#include <limits>

namespace Morvane::Qel {

/// An axis-aligned box around all points that were added to it.
class BoundingBox
{
public:
    void add(const QVector3D& lower, const QVector3D& upper)
    {
        for (int axis = 0; axis < 3; ++axis) {
            m_lower[axis] = std::min(m_lower[axis], lower[axis]);
            m_upper[axis] = std::max(m_upper[axis], upper[axis]);
        }
    }
    void add(const QVector3D& point) { add(point, point); }
    void add(const BoundingBox& box) { add(box.m_lower, box.m_upper); }

    bool isEmpty() const { return !(m_lower.x() <= m_upper.x()); }
    QVector3D lower() const { return m_lower; }
    QVector3D upper() const { return m_upper; }
    /// Returns the lower and the upper corner; both zero if nothing was added.
    QPair<QVector3D, QVector3D> corners() const
    {
        return isEmpty() ? QPair<QVector3D, QVector3D>() : qMakePair(m_lower, m_upper);
    }

private:
    static constexpr float infinity = std::numeric_limits<float>::infinity();
    QVector3D m_lower{infinity, infinity, infinity};
    QVector3D m_upper{-infinity, -infinity, -infinity};
};

} // namespace Morvane::Qel
