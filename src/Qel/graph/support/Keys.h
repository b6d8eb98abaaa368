#pragma once

#include <QJsonValue>
#include <QString>

#include <optional>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

/// Keyed values in a graph file: {"keys": [[FRAME, VALUE], ...], "ease": "linear"}. Before the first key its
/// value holds, and after the last key that one's. Between two keys, "linear" (the default) and "smooth"
/// interpolate numbers, arrays of up to four numbers and colours such as "#ff8000"; "step" holds the earlier
/// key's value, of whatever kind.

/// Whether a value is written as keys, valid or not.
bool isKeyed(const QJsonValue& value);

/// What is wrong with keyed values, and where: a path below them, such as "keys[1]".
struct KeysError
{
    QString path;
    QString what;
};
QEL_GRAPH_EXPORT std::optional<KeysError> keysError(const QJsonValue& keyed);

/// Whether valid keyed values change between two keys.
bool isInterpolated(const QJsonValue& keyed);

/// The value of valid keyed values in a frame.
QEL_GRAPH_EXPORT QJsonValue valueAt(const QJsonValue& keyed, double frame);

} // namespace Morvane::Qel
