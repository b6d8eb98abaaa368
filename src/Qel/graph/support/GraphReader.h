#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QStringList>

#include <optional>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// Reads the text of a graph file and the files that it includes. Returns nothing if one of them is
/// malformed, with a line in `errors` for each error.
std::optional<GraphDescription> readGraph(const QByteArray& text, const QString& file, QStringList* errors);

/// Replaces a part of a graph that is no pass: "viewport", "camera", "lights[N]" or "models.NAME". On failure
/// the graph stays as it was; returns false with what is wrong in `error`.
bool readSection(GraphDescription* graph, const QString& section, const QJsonValue& value, QString* error);

} // namespace Morvane::Qel
