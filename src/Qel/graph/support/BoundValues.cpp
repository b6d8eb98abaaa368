#include <Qel/graph/support/BoundValues.h>

#include <QJsonObject>
#include <QStringList>

#include <algorithm>

#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/GraphReader.h>
#include <Qel/graph/support/GraphWriter.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/Parameters.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// A section of a graph file and the member of it that a place names.
struct Place
{
    QString section;
    QStringList members;
};

Place placeFrom(const QString& place)
{
    const QStringList parts = place.split(u'.');
    const qsizetype numOfSection = parts[0] == QLatin1StringView("models") ? 2 : 1;
    return {parts.first(std::min(numOfSection, parts.size())).join(u'.'),
            parts.sliced(std::min(numOfSection, parts.size()))};
}

QString missingSection(const GraphDescription& graph, const QString& section)
{
    if (section == QLatin1StringView("camera")) {
        return graph.camera ? QString() : u"the graph has no camera; set camera.eye first"_s;
    }
    if (section.startsWith(QLatin1StringView("lights["))) {
        bool isNumber = false;
        const qulonglong index = section.sliced(7).chopped(1).toULongLong(&isNumber);
        return isNumber && index < graph.lights.size()
                   ? QString()
                   : u"the graph has %1 lights, counted from 0"_s.arg(graph.lights.size());
    }
    return {};
}

} // namespace

bool setMember(GraphDescription* graph, const QString& place, const QJsonValue& value, QString* error)
{
    const auto [section, members] = placeFrom(place);
    // A camera begins with its position.
    const bool isFirst = place == QLatin1StringView("camera.eye") && !graph->camera;
    *error = isFirst ? QString() : missingSection(*graph, section);
    if (!error->isEmpty()) {
        return false;
    }
    const QJsonValue before = isFirst ? QJsonObject() : sectionJson(*graph, section);
    return readSection(graph, section, withMember(before, members, value), error);
}

bool updateBoundValues(GraphDescription* graph, const std::function<bool(const BoundValue&)>& isWanted,
                       double frame, QString* error)
{
    const Parameters parameters(*graph);
    const auto camera = graph->camera;
    const auto lights = graph->lights;
    const auto models = graph->models;
    const QSize viewport = graph->viewport;
    for (const BoundValue& bound : graph->boundValues) {
        if (!isWanted(bound)) {
            continue;
        }
        const ResolvedValue resolved = parameters.resolve(bound.value, frame);
        QJsonValue value = resolved.value;
        const QString file = resolved.file(bound.source);
        const bool isModelFile =
            bound.place.startsWith(QLatin1StringView("models.")) &&
            (bound.place.count(u'.') == 1 || bound.place.endsWith(QLatin1StringView(".file")));
        if (isModelFile && !file.isEmpty() && value.isString()) {
            value = graph->resolvePath(value.toString(), file);
        }
        *error = resolved.error;
        if (!error->isEmpty() || !setMember(graph, bound.place, value, error)) {
            *error = bound.place + u": "_s + *error;
            graph->camera = camera;
            graph->lights = lights;
            graph->models = models;
            graph->viewport = viewport;
            return false;
        }
    }
    return true;
}

} // namespace Morvane::Qel
