#pragma once

#include <QByteArray>
#include <QStringList>

#include <optional>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// Reads the text of a graph file and the files that it includes. Returns nothing if one of them is
/// malformed, with a line in `errors` for each error.
std::optional<GraphDescription> readGraph(const QByteArray& text, const QString& file, QStringList* errors);

} // namespace Morvane::Qel
