#pragma once

#include <QString>

#include <optional>

#include <Qel/core/PassDescription.h>

namespace Morvane::Qel::Viewer {

/// The ends of a control for an input.
struct PortRange
{
    std::optional<double> minimum;
    std::optional<double> maximum;
    /// Empty for a number without a unit.
    QString unit;

    static PortRange of(const InputDescription& input);
};

} // namespace Morvane::Qel::Viewer
