#pragma once

#include <QJsonValue>
#include <QString>

#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/PassRegistry.h>

namespace Morvane::Qel {

/// The JSON text of a graph file, in a fixed order. Relative paths are rewritten to start from the folder of
/// `file`; `registry` says which inputs and options are paths.
QString graphText(const GraphDescription& graph, const QString& file, const PassRegistry& registry);

/// A part of a graph that is no pass, as readSection reads it: "viewport", "camera", "lights[N]",
/// "models.NAME".
QJsonValue sectionJson(const GraphDescription& graph, const QString& section);

} // namespace Morvane::Qel
