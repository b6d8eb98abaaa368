#pragma once

#include <QStringList>
#include <QVariant>

#include <memory>
#include <optional>
#include <vector>

#include <Qel/graph/Export.h>
#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/PassRegistry.h>

namespace Morvane::Qel {

/// A value that the graph computes itself and sets on every unconnected input of the same name and type.
enum class FrameValue : int
{
    Viewport,
    ProjectionMatrix,
    CameraMatrix,
    NearPlane,
    FarPlane,
    SceneBoundsMin,
    SceneBoundsMax,
    Lights,
    Time,
    FrameNumber,
    DeltaTime,
    NewFrame,
};

/// Returns the name of a frame value as written in graphs, such as "CameraMatrix".
QEL_GRAPH_EXPORT QString nameOf(FrameValue value);

/// Where the value of an input comes from.
enum class InputSource
{
    /// The default that the pass declares.
    Default,
    /// A constant in the graph.
    Constant,
    /// An output of another pass.
    Connection,
    /// A model of the graph.
    Model,
    /// A frame value, matched by name or requested by the graph.
    FrameValue,
};

/// An input port of a planned pass. Which members apply depends on `source`.
struct PlannedInput
{
    /// Full name.
    QString port;
    /// Whether the pass modifies the texture of this input in place (InputDescription::isModified).
    bool isModified = false;
    /// Whether the texture of this input must have a depth format (InputDescription::isDepth).
    bool isDepth = false;
    InputSource source = InputSource::Default;
    /// Constant, converted to the port's type.
    QVariant constant;
    /// Source pass of a connection, an index into GraphPlan::passes, and the index of its output.
    int pass = -1;
    int output = -1;
    /// Index into GraphDescription::models.
    int model = -1;
    /// Whether the input takes the model as a list of its batches.
    bool takesBatches = false;
    FrameValue frameValue = FrameValue::Viewport;
};

/// A pass whose settings in the graph are checked and resolved.
struct PlannedPass
{
    QString name;
    QString type;
    /// Of its type; shared by all passes of the type.
    std::shared_ptr<const PassDescription> description;
    /// Creates the pass from `options`.
    PassRegistry::Factory factory;
    PassOptions options;
    /// All input ports, in the pass's order.
    std::vector<PlannedInput> inputs;
    /// Full names of all output ports, in the pass's order.
    QStringList outputs;
    /// Why the pass is culled; empty for a pass that runs.
    QString cullReason;
};

/// A place in a graph that takes the value of a parameter, or keyed values.
struct ValueUse
{
    /// As in messages, such as "blur.Radius" or "camera.eye".
    QString place;
    /// "$name" or keyed values.
    QJsonValue value;
    SourcePlace source = {};
    /// For an input, the indices in GraphPlan::passes and PlannedPass::inputs; otherwise -1.
    int pass = -1;
    int input = -1;
    /// Whether the value changes with the frame number.
    bool isKeyed = false;
    /// Whether the value cannot change once the graph is created: options, connections, models, the viewport.
    bool isFixed = false;
};

/// A graph that passed all checks, ready to be created with RenderGraph::create.
struct QEL_GRAPH_EXPORT GraphPlan
{
    GraphDescription graph;
    /// All passes, in file order.
    std::vector<PlannedPass> passes;
    /// Execution order, as indices into `passes`: each pass comes after its sources, a pass that modifies an
    /// output in place after all others that read it, and otherwise the order of the file counts. Culled
    /// passes are not in it.
    std::vector<int> order;
    /// The number of earlier frames that must be rendered before a frame for its image to be the same as in
    /// the whole sequence; PassDescription::unlimitedHistory if these are all frames from 0.
    int runUpFrames = 0;
    /// Pass and output port that hold the graph's output image; both -1 if the graph has none.
    int outputPass = -1;
    int outputPort = -1;
    /// A message for each input of a pass that runs and needs a perspective camera. They are errors if the
    /// graph's camera is orthographic.
    QStringList perspectiveNeeds;
    /// The uses of all parameters and keyed values.
    std::vector<ValueUse> valueUses;

    /// The uses of a parameter of the graph, also through other parameters.
    std::vector<ValueUse> usesOf(const QString& parameter) const;
};

/// Checks all of a graph that can be checked without GL and resolves it. Returns nothing if there are errors;
/// `errors` then gets a line for each of the first 50, "FILE: PASS.PORT: what is wrong; did you mean "X"?",
/// and one with the number of the others. Errors that only follow from another one are not reported.
QEL_GRAPH_EXPORT std::optional<GraphPlan> planGraph(const GraphDescription& graph,
                                                    const PassRegistry& registry, QStringList* errors);

} // namespace Morvane::Qel
