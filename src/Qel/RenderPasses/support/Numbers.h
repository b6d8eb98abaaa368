#pragma once

#include <algorithm>
#include <cmath>

namespace Morvane::Qel {

/// A number without its fraction. Sizes that no texture has stay what the pool refuses, within what an int
/// holds; what is not a number becomes 0.
inline int truncated(float value)
{
    constexpr float bound = 1 << 30;
    return std::isnan(value) ? 0 : static_cast<int>(std::clamp(value, -bound, bound));
}

} // namespace Morvane::Qel
