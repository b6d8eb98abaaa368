#pragma once

#include <QStringList>
#include <QVariant>

#include <optional>
#include <vector>

#include <Qel/graph/Export.h>
#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/PassRegistry.h>

namespace Morvane::Qel {

/// Where the value of an input comes from.
enum class InputSource
{
    /// Nobody sets it; the pass sees the default that it declared.
    Default,
    /// A constant of the graph.
    Constant,
    /// An output of another pass.
    Connection,
    /// A model of the graph.
    Model,
    /// A frame value, by its own name or because the graph asks for it.
    FrameValue,
};

/// An input port of a planned pass.
struct PlannedInput
{
    /// The full name.
    QString port;
    InputSource source = InputSource::Default;
    /// The value of a constant, of the port's type.
    QVariant constant;
    /// A connection's pass, as an index into GraphPlan::passes, and its output.
    int pass = -1;
    int output = -1;
    /// Index into GraphDescription::models.
    int model = -1;
    /// Name of the frame value.
    QString frameValue;
};

/// A pass with everything that its graph says about it resolved.
struct PlannedPass
{
    QString name;
    QString type;
    PassOptions options;
    /// One for each input port and the full names of the outputs, both in the pass's order.
    std::vector<PlannedInput> inputs;
    QStringList outputs;
    /// Why the pass does not run; empty for one that runs.
    QString leftOut;
};

/// What a checked graph comes to.
struct GraphPlan
{
    /// In the order of the file.
    std::vector<PlannedPass> passes;
    /// Indices of the passes that run, each after all it reads from, otherwise in the order of the file.
    std::vector<int> order;
    /// The output that is the graph's picture; both -1 for a graph without one.
    int outputPass = -1;
    int outputPort = -1;
};

/// Checks everything that can be known about a graph without GL and resolves it. Nothing when there is a
/// fault, with one line for each in `faults`, root causes only:
/// "FILE: PASS.PORT: what is wrong; did you mean "X"?".
/// `maxTextureSize` is the driver's limit on the viewport, 0 when it is not known.
QEL_GRAPH_EXPORT std::optional<GraphPlan> planGraph(const GraphDescription& graph,
                                                    const PassRegistry& registry, int maxTextureSize,
                                                    QStringList* faults);

} // namespace Morvane::Qel
