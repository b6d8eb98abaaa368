#pragma once

#include <QJsonValue>
#include <QSet>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

#include <Qel/core/PassDescription.h>
#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel::Viewer {

/// Whether an input's value is a connection, a model, a frame value, a parameter or keyed rather than a
/// constant.
bool isReference(const QJsonValue& value);

/// Whether a value is "$name", and whether it is keyed.
bool isParameterUse(const QJsonValue& value);
bool isKeyed(const QJsonValue& value);

/// The parameter of this name; null if there is none.
const ParameterDescription* findParameter(const GraphDescription& graph, const QString& name);

/// A value that follows a parameter: an input or an option of a pass.
struct ParameterUse
{
    /// "pass.Port".
    QString place;
    /// Of an input; the type of the port is in its name.
    std::optional<InputDescription> input;
    /// Of an option.
    std::optional<OptionDescription> option;
};
/// The inputs and options that follow a parameter, directly or through other parameters.
std::vector<ParameterUse> usesOf(const GraphDescription& graph, const QString& parameter);

/// The pass of this name; null if there is none.
const PassSetting* findPass(const GraphDescription& graph, const QString& name);
PassSetting* findPass(GraphDescription& graph, const QString& name);

/// The setting of an input, whose port is named in full or in short; null if it is not set.
const InputSetting* findInput(const PassSetting& pass, const QString& port);

/// Input and output ports of a pass, those that its options declare too.
struct PassPorts
{
    std::vector<InputDescription> inputs;
    std::vector<OutputDescription> outputs;
};
PassPorts portsOf(const PassSetting& pass);

/// The name by which a graph refers to a port of a pass: the short one, unless several ports have it.
QString shortestName(const QString& port, const QStringList& ports);

/// \name Changes
/// @{
void setInput(PassSetting& pass, const QString& port, const QJsonValue& value);
/// Takes an input's setting away, so that the default of the pass or a frame value holds.
void resetInput(PassSetting& pass, const QString& port);
/// Adds a pass with a name that no other has; returns the name.
QString addPass(GraphDescription& graph, const QString& type);
/// Removes a pass; what read from it gets its first fitting input instead, or nothing.
void removePass(GraphDescription& graph, const QString& name);
/// Moves a pass by a number of places in the file, which decides where the connections do not.
void movePass(GraphDescription& graph, const QString& name, int places);
/// Connects an output, given by full names of the ports, with an input.
void connectPorts(GraphDescription& graph, const QString& fromPass, const QString& output,
                  const QString& toPass, const QString& input);
/// @}

/// An output of a pass, with the full name of its port.
struct OutputPort
{
    QString pass;
    QString port;
};
/// The outputs that an input can be connected with, without a mistake such as a cycle, in the order of the
/// file.
std::vector<OutputPort> sourcesFor(const GraphDescription& graph, const QString& pass, const QString& input);

/// Where the texture of an output comes from if its pass is left out: the connection of the first input with
/// the type of the output, such as "@blur.Frame"; empty if there is none.
QString throughReference(const GraphDescription& graph, const PassSetting& pass, const QString& outputPort);

/// Whether every output of a pass that something reads can come from one of its inputs.
bool canLeaveOut(const GraphDescription& graph, const QString& name);

/// The passes that run shaders of the user and can all be left out together.
QSet<QString> shaderPasses(const GraphDescription& graph);

/// The graph with some passes left out, whose inputs go through.
GraphDescription withoutPasses(const GraphDescription& graph, const QSet<QString>& passes);

} // namespace Morvane::Qel::Viewer
