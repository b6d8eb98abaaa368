#include "PortRange.h"

#include <cmath>

namespace Morvane::Qel::Viewer {

PortRange PortRange::of(const InputDescription& input)
{
    const auto finite = [](double limit) {
        return std::isfinite(limit) ? std::optional(limit) : std::nullopt;
    };
    return {finite(input.limits.minimum), finite(input.limits.maximum), input.unit};
}

} // namespace Morvane::Qel::Viewer
