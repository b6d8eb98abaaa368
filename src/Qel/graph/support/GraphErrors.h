#pragma once

#include <QStringList>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// Collects error messages about a graph, each "FILE: PLACE: what is wrong".
class GraphErrors
{
public:
    GraphErrors(const GraphDescription& graph, QStringList* messages)
        : m_prefix(graph.displayName())
        , m_messages(messages)
    {
    }

    /// Adds a message, unless `what` is empty.
    void add(const QString& place, const QString& what)
    {
        if (!what.isEmpty()) {
            m_messages->append(m_prefix + QLatin1StringView(": ") + place + QLatin1StringView(": ") + what);
            ++m_count;
        }
    }
    /// Number of messages added here.
    qsizetype count() const { return m_count; }

private:
    QString m_prefix;
    QStringList* m_messages;
    qsizetype m_count = 0;
};

} // namespace Morvane::Qel
