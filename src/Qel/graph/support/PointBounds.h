#pragma once

#include <QVector3D>

#include <algorithm>
#include <limits>
#include <vector>

namespace Morvane::Qel {

/// The smallest interval around values; empty at first.
struct Interval
{
    float low = std::numeric_limits<float>::infinity();
    float high = -std::numeric_limits<float>::infinity();

    void include(float value)
    {
        low = std::min(low, value);
        high = std::max(high, value);
    }
    float length() const { return high - low; }
    float center() const { return 0.5F * (low + high); }
};

/// An axis-aligned box by its centre and half its sides.
struct Box
{
    QVector3D center;
    QVector3D half;
};

/// The smallest box around points, of which there is at least one.
Box boxAround(const std::vector<QVector3D>& points);

/// The points without those whose squared distances overflow float.
std::vector<QVector3D> usablePoints(const std::vector<QVector3D>& points);

} // namespace Morvane::Qel
