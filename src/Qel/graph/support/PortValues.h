#pragma once

#include <QString>
#include <QVariant>

#include <optional>

namespace Morvane::Qel {

/// Checks a value that a host sets on a port of this type (see typeOf). Numbers are converted to the port's
/// type if that is exact, apart from float's rounding; an invalid value means "not set". Returns nothing if
/// the value does not fit, with what is wrong in `error`.
std::optional<QVariant> portValue(const QString& type, const QVariant& value, QString* error);

} // namespace Morvane::Qel
