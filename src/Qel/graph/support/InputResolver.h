#pragma once

#include <QHash>
#include <QJsonValue>

#include <memory>
#include <optional>
#include <vector>

#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/support/Parameters.h>

namespace Morvane::Qel {

class GraphErrors;
class PortIndex;

/// How far the ports of a planned pass are known.
struct ResolvablePorts
{
    /// False if an error hides the ports; references to them are then not checked.
    bool known = false;
    std::shared_ptr<const PortIndex> inputs = {};
    std::shared_ptr<const PortIndex> outputs = {};
    /// Inputs from the pass's description; any further ones are declared in the graph.
    int numDescribedInputs = 0;
};

/// Resolves the values of inputs and the output of a graph: constants, connections, models and frame values.
class InputResolver
{
public:
    InputResolver(GraphPlan& plan, const std::vector<ResolvablePorts>& ports, const Parameters& parameters,
                  GraphErrors& errors);

    void resolveInputs();
    void resolveOutput();

private:
    struct OutputReference
    {
        int pass;
        int output;
    };
    void resolvePass(size_t index);
    void resolveInput(const QString& place, const ResolvedValue& value, const SourcePlace& source,
                      bool isDescribed, PlannedInput* input);
    void resolveConnection(const QString& place, const QString& reference, PlannedInput* input);
    void resolveNamedValue(const QString& place, const QString& name, bool isDescribed, PlannedInput* input);
    void setFrameValue(const QString& passName, PlannedInput* input);
    std::optional<OutputReference> findOutput(const QString& place, const QString& reference);
    int findPass(const QString& name) const { return m_passes.value(name, -1); }
    int findPort(const PortIndex& ports, const QString& name, const QString& place, const QString& missing);
    QStringList passNames() const;
    QStringList modelNames() const;

    GraphPlan& m_plan;
    const std::vector<ResolvablePorts>& m_ports;
    const Parameters& m_parameters;
    GraphErrors& m_errors;
    /// The model that an unset geometry input gets; -1 if there is none.
    int m_onlyWhole;
    /// Indices by name.
    QHash<QString, int> m_passes;
    QHash<QString, int> m_models;
};

} // namespace Morvane::Qel
