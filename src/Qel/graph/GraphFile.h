#pragma once

#include <QStringList>

#include <optional>

#include <Qel/graph/Export.h>
#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

class PassRegistry;

/// Reads a graph file (docs/graph-files.md). Nothing when it cannot be read, is not JSON or has not the form
/// of a graph, with one line for each fault in `faults`: "FILE:LINE:COLUMN: what is wrong" where the place is
/// known. What the graph says is checked by planGraph.
QEL_GRAPH_EXPORT std::optional<GraphDescription> loadGraph(const QString& file, QStringList* faults);

/// Writes a graph as JSON in a fixed order. Paths that are relative are written so that they name the same
/// files from the new place; `registry` tells which inputs and options are paths. Either the whole file is
/// written or it stays as it was; false with one line in `error` on failure.
QEL_GRAPH_EXPORT bool saveGraph(const GraphDescription& graph, const QString& file,
                                const PassRegistry& registry, QString* error);

} // namespace Morvane::Qel
