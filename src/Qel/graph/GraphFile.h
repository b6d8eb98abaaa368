#pragma once

#include <QIODevice>
#include <QStringList>

#include <optional>

#include <Qel/graph/Export.h>
#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

class PassRegistry;

/// Reads a graph file (docs/graph-files.md). Returns nothing if it cannot be read or is malformed, with a
/// line in `errors` for each of the first 50 errors, "FILE:LINE:COLUMN: what is wrong", and one with the
/// number of the others. Whether the graph makes sense is checked by planGraph.
QEL_GRAPH_EXPORT std::optional<GraphDescription> loadGraph(const QString& file, QStringList* errors);

/// Reads a graph from an open device until its end. `name`, such as "<stdin>", stands for the file in
/// messages; relative paths in the graph start from the current folder.
QEL_GRAPH_EXPORT std::optional<GraphDescription> loadGraph(QIODevice& device, const QString& name,
                                                           QStringList* errors);

/// Writes a graph as JSON in a fixed order. Relative paths are rewritten so that they name the same files
/// from the new location; `registry` says which inputs and options are paths. On failure, an existing file
/// stays as it was; returns false with one line in `error`.
QEL_GRAPH_EXPORT bool saveGraph(const GraphDescription& graph, const QString& file,
                                const PassRegistry& registry, QString* error);

/// What updateGraph has done.
enum class GraphUpdate
{
    Written,
    /// Nothing, because the graph differs in more than values, or because the file's text is not at hand;
    /// saveGraph can write it.
    NeedsRewrite,
    /// Nothing, because of the error.
    Failed
};

/// Writes a graph as the text of the file that it was read from (GraphDescription::file), in which only the
/// values are replaced that differ: inputs, options, parameters, the camera, lights, models and other
/// sections. Layout, comments and includes stay. `file` is that file or another one in its folder. On
/// failure, an existing file stays as it was, and `error` has one line.
QEL_GRAPH_EXPORT GraphUpdate updateGraph(const GraphDescription& graph, const QString& file, QString* error);

/// What saveGraph does not keep of a graph file.
struct GraphFileExtras
{
    /// The graph files that it includes or runs as a pass, as absolute paths, by way of others too.
    QStringList includes;
    bool hasComments = false;
};
/// Of a file that cannot be read, or is malformed, as far as it can be told.
QEL_GRAPH_EXPORT GraphFileExtras graphFileExtras(const QString& file);

} // namespace Morvane::Qel
