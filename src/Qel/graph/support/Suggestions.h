#pragma once

#include <QStringList>

namespace Morvane::Qel {

/// The end of a message about a name that does not exist: "; did you mean "forward"?" with the nearest of the
/// valid names, a list of them when none is near and they are few, else nothing.
QString suggestion(const QString& wrong, const QStringList& valid);

/// Names in quotes, separated by commas.
QString quoted(const QStringList& names);

} // namespace Morvane::Qel
