#pragma once

#include <algorithm>
#include <cmath>

namespace Morvane::Qel {

/// Truncates a number to an int. NaN becomes 0. Numbers beyond 2^30 are clamped, so that a size that no
/// texture can have is still refused by the pool.
inline int truncated(float value)
{
    constexpr float bound = 1 << 30;
    return std::isnan(value) ? 0 : static_cast<int>(std::clamp(value, -bound, bound));
}

} // namespace Morvane::Qel
