#pragma once

#include <QStringList>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

/// The end of an error message about an unknown name: "; did you mean "forward"?" with the nearest valid
/// name, a list of the valid names if none is near and they are few, otherwise nothing.
QEL_GRAPH_EXPORT QString suggestion(const QString& wrong, const QStringList& valid);

/// Index of the valid name that is nearest to a wrong one; -1 if none is near enough for a typing error.
qsizetype nearestName(const QString& wrong, const QStringList& valid);

/// "; did you mean "forward" or "film"?"
QString didYouMean(const QStringList& names);

/// The error message about an unknown name: "no pass "foward"; did you mean "forward"?".
QString unknownName(const QString& kind, const QString& wrong, const QStringList& valid);

/// Adds a pointer to a command that tells more: "...; see "qel passes"", or "...? See "qel passes"".
QEL_GRAPH_EXPORT QString withPointer(const QString& message, const QString& command);

/// The error message about a text that cannot name a pass or a model; empty if it can. References, messages
/// and file names contain these names.
QString nameError(const QString& name);

/// Names in quotation marks, separated by commas.
QString quoted(const QStringList& names);

} // namespace Morvane::Qel
