#pragma once

#include <QHash>
#include <QJsonValue>
#include <QString>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// Whether a value of a graph is "$name".
bool isParameterUse(const QJsonValue& value);

/// A value of a graph with the parameter in its place.
struct ResolvedValue
{
    QJsonValue value;
    /// The parameter that the graph names, and the one that holds the value: another one if the value of the
    /// first is "$other". Null for a value that stands in its own place.
    const ParameterDescription* parameter = nullptr;
    const ParameterDescription* holder = nullptr;
    /// The keyed values, of which `value` is one; undefined if the value has no keys.
    QJsonValue keyed = QJsonValue::Undefined;
    /// Why the value cannot be found; empty if it is.
    QString error = {};

    /// The file from whose folder a relative path in the value starts, where `own` is that of its place.
    QString file(const SourcePlace& own) const { return holder ? holder->source.file : own.file; }
};

/// Finds the parameters of a graph by name. The graph must outlive it and keep its parameters.
class Parameters
{
public:
    explicit Parameters(const GraphDescription& graph);

    /// Index of the parameter with this name, -1 if there is none.
    int find(const QString& name) const { return m_indices.value(name, -1); }
    /// The value that a constant, "$name" or keyed values stand for in a frame.
    ResolvedValue resolve(const QJsonValue& value, double frame) const;
    /// Whether a value is or leads to the parameter of this name.
    bool leadsTo(const QJsonValue& value, const QString& name) const;
    /// The error message about a name that no parameter has.
    QString unknownError(const QString& name) const;

private:
    const std::vector<ParameterDescription>& m_parameters;
    /// Of parameters with the same name, the first counts.
    QHash<QString, int> m_indices;
};

} // namespace Morvane::Qel
