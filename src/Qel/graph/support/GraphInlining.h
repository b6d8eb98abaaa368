#pragma once

#include <QHash>
#include <QString>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

class GraphErrors;

/// The type of a pass that stands for the graph of another file, its only output, and outputs by the names of
/// such passes: the reference "@pass.Port" to which "@name.Frame" leads.
inline const QString graphPassType = QStringLiteral("graph");
inline const QString graphPassOutput = QStringLiteral("Frame");
using GraphPassOutputs = QHash<QString, QString>;

/// What is wrong with a pass that stands for a graph; empty if nothing is.
struct InliningError
{
    /// The input that is wrong; empty for the file.
    QString input;
    QString what;
};

/// Puts the passes, models and parameters of a graph into another one, in place of a pass "name", as
/// "name-pass", "name-model" and "name-parameter". The inputs of the pass become the values of the
/// parameters.
InliningError inlineGraph(GraphDescription inner, const PassSetting& pass, GraphDescription* outer,
                          GraphPassOutputs* outputs);

/// Replaces the references to such passes throughout a graph.
void renameOutputs(GraphDescription* graph, const GraphPassOutputs& outputs, GraphErrors& errors);

} // namespace Morvane::Qel
