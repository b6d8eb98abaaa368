#pragma once

#include <QJsonObject>

#include <vector>

#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/PassRegistry.h>
#include <Qel/graph/support/Parameters.h>

namespace Morvane::Qel {

class GraphErrors;

/// Reads and checks the options of passes.
class OptionReader
{
public:
    /// `uses` gets the options that are parameters.
    OptionReader(const GraphDescription& graph, const Parameters& parameters, std::vector<ValueUse>* uses,
                 GraphErrors& errors)
        : m_graph(graph)
        , m_parameters(parameters)
        , m_uses(*uses)
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
    QVariant readValue(const QString& place, const OptionDescription& option, const ResolvedValue& given);
    QVariantList readElements(const QString& place, const OptionDescription& option,
                              const QJsonArray& elements);
    QVariantMap readPerOutput(const QString& place, const OptionDescription& option, const QJsonValue& given,
                              const QStringList& outputs);
    void checkPortNames(const QString& place, const QStringList& ports);

    const GraphDescription& m_graph;
    const Parameters& m_parameters;
    std::vector<ValueUse>& m_uses;
    /// Where the options are written.
    SourcePlace m_source;
    GraphErrors& m_errors;
};

} // namespace Morvane::Qel
