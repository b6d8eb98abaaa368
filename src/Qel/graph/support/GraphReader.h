#pragma once

#include <QByteArray>
#include <QStringList>

#include <optional>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// Reads the JSON text of a graph file. Returns nothing if it is malformed, with a line in `errors` for each
/// error.
std::optional<GraphDescription> readGraph(const QByteArray& text, const QString& file, QStringList* errors);

} // namespace Morvane::Qel
