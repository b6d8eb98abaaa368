#pragma once

#include <QJsonValue>
#include <QString>
#include <QVariant>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

/// Returns a port's value as written in graph files: numbers, strings, "#rrggbb" or "#rrggbbaa" colours,
/// arrays for vectors, rectangles (x, y, width, height) and matrices (16 numbers, row-major). Null for an
/// invalid value or a null pointer; the type name, such as "Morvane::Qel::GPUModel*", if there is no such
/// form.
QEL_GRAPH_EXPORT QJsonValue jsonFromValue(const QVariant& value);

/// Returns a port's value as JSON text; see jsonFromValue.
QEL_GRAPH_EXPORT QString textFromValue(const QVariant& value);

} // namespace Morvane::Qel
