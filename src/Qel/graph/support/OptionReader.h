#pragma once

#include <QJsonObject>

#include <vector>

#include <Qel/graph/PassRegistry.h>

namespace Morvane::Qel {

class GraphErrors;
struct GraphDescription;
struct PassSetting;

/// Reads and checks the options of passes.
class OptionReader
{
public:
    OptionReader(const GraphDescription& graph, GraphErrors& errors)
        : m_graph(graph)
        , m_errors(errors)
    {
    }

    /// Every option of the description, with its default where the graph does not set it. Checks the ports of
    /// a type whose ports the host declares.
    PassOptions read(const PassSetting& setting, const PassDescription& description);

private:
    void readObject(const QString& place, const std::vector<OptionDescription>& known,
                    const QJsonObject& given, const QString& unknown, QVariantMap* values);
    QVariant readOption(const QString& place, const OptionDescription& option, const QJsonValue& given);
    QVariantList readElements(const QString& place, const OptionDescription& option,
                              const QJsonArray& elements);
    QVariantMap readPerOutput(const QString& place, const OptionDescription& option, const QJsonValue& given,
                              const QStringList& outputs);
    void checkPortNames(const QString& place, const QStringList& ports);

    const GraphDescription& m_graph;
    GraphErrors& m_errors;
};

} // namespace Morvane::Qel
