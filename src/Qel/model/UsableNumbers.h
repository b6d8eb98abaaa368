#pragma once

#include <QVector3D>

#include <cmath>

namespace Morvane::Qel {

/// Whether a number is finite and small enough that squares of lengths do not overflow.
inline bool isUsable(float value)
{
    constexpr float limit = 1e18F;
    return std::abs(value) <= limit;
}

inline bool isUsable(const QVector3D& v)
{
    return isUsable(v.x()) && isUsable(v.y()) && isUsable(v.z());
}

} // namespace Morvane::Qel
