#include <Qel/graph/support/GraphErrors.h>

#include <Qel/graph/support/Parameters.h>

namespace Morvane::Qel {

GraphErrors::GraphErrors(const GraphDescription& graph, QStringList* messages)
    : GraphErrors(graph.displayName(), messages)
{
    m_assignments = graph.assignments;
    const Parameters parameters(graph);
    for (const BoundValue& bound : graph.boundValues) {
        const ResolvedValue resolved = parameters.resolve(bound.value, 0.0);
        if (resolved.holder) {
            m_parameters.insert(bound.place, *resolved.holder);
        }
    }
}

void GraphErrors::add(const QString& place, const QString& what)
{
    if (what.isEmpty()) {
        return;
    }
    const auto bound = m_parameters.constFind(place);
    const ParameterDescription* parameter = bound == m_parameters.constEnd() ? m_parameter : &*bound;
    const SourcePlace& source = parameter ? parameter->source : m_source;
    const QString name = parameter ? QLatin1StringView("parameters.") + parameter->name : place;
    QString begin = m_assignments.value(name);
    if (begin.isEmpty()) {
        begin = source.file.isEmpty() ? m_file : source.file;
        // The name of a pass of the graph's own file says enough.
        if (source.line > 0 && (parameter || !source.file.isEmpty())) {
            begin += u':' + QString::number(source.line);
        }
    }
    addLine(begin + QLatin1StringView(": ") + name +
            (parameter ? QLatin1StringView(", used in ") + place : QString()) + QLatin1StringView(": ") +
            what);
}

} // namespace Morvane::Qel
