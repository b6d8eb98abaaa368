#pragma once

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QSet>
#include <QStringList>
#include <QVariant>

#include <optional>

#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/support/JsonKeys.h>
#include <Qel/graph/support/Parameters.h>

namespace Morvane::Qel {

struct GraphDocument;

/// Reads values of one JSON file that belong to a graph, and collects the errors in them with their places.
class ValueReader
{
public:
    /// `own` is the path of the file, empty for the graph's own.
    ValueReader(const GraphDocument& document, const QString& own, GraphDescription* graph);

    /// Adds a line to `messages` for each error. Returns false if there were any.
    bool report(QStringList* messages);

protected:
    static QString memberPath(const QString& path, const QString& key);

    void error(const QString& path, const QString& what);

    /// The value as an object that may have only the known keys, or any keys if none are given.
    QJsonObject object(const QJsonValue& value, const QString& path, const QStringList& known);

    /// The value, in frame 0, of a member outside the passes. Notes it if it is a parameter or has keys.
    QJsonValue bound(const QJsonValue& value, const QString& path);

    /// Forgets what an included file has bound.
    void unbind(const QString& section);

    SourcePlace source(const QString& path) const { return {m_own, m_keys.line(path)}; }

    QJsonArray array(const QJsonValue& value, const QString& path);

    QVariant constant(const QJsonValue& value, const QString& type, const QString& path);

    /// What a message about a value adds if it is that of a parameter.
    QString parameterNote(const QString& path) const;

    /// A string member, empty if it is missing.
    QString string(const QJsonObject& parent, const QString& path, const QString& key);

    QString requiredString(const QJsonObject& parent, const QString& path, const QString& key);

    /// Reads a member with its type, if it is there.
    template<class Value>
    void read(const QJsonObject& members, const QString& path, const QString& key, const char* type,
              Value* result)
    {
        if (members.contains(key)) {
            *result = constant(members[key], QLatin1StringView(type), memberPath(path, key)).value<Value>();
        }
    }

    QString m_file;
    QString m_own;
    JsonKeys m_keys;
    GraphDescription& m_graph;
    size_t m_numIncludedLights;
    /// Those of the graph, once they are read.
    std::optional<Parameters> m_parameters;
    struct BoundTo
    {
        QString parameter;
        /// The file in which the value is written.
        QString file;
    };
    /// What the places outside the passes follow that follow something.
    QHash<QString, BoundTo> m_bound;
    /// Those of which the value cannot be found.
    QSet<QString> m_unresolved;
    /// The errors that are kept; their places in the text are looked up together.
    QStringList m_paths;
    QStringList m_causes;
    qsizetype m_numUnkept = 0;
};

} // namespace Morvane::Qel
