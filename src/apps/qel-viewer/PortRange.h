#pragma once

#include <QString>

#include <optional>

namespace Morvane::Qel::Viewer {

/// What the range of an input says, such as "scene units, above 0" or "1 to 1024".
struct PortRange
{
    std::optional<double> minimum;
    std::optional<double> maximum;
    /// Empty for a number without a unit.
    QString unit;

    /// Reads the text of InputDescription::range.
    static PortRange parse(const QString& text);
};

} // namespace Morvane::Qel::Viewer
