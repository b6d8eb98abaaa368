#include <Qel/graph/support/ValueUses.h>

#include <QJsonArray>

#include <cmath>
#include <set>

#include <Qel/graph/support/BoundValues.h>
#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/Keys.h>
#include <Qel/graph/support/Parameters.h>
#include <Qel/graph/support/Ports.h>
#include <Qel/graph/support/SceneCheck.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

const QString colorType = u"QColor"_s;
const QStringList continuousTypes{u"float"_s,     u"double"_s, u"QVector2D"_s, u"QVector3D"_s,
                                  u"QVector4D"_s, colorType,   u"QVariant"_s};

bool isInScene(const QString& place)
{
    return place.startsWith(QLatin1StringView("camera")) || place.startsWith(QLatin1StringView("lights"));
}

/// A value between two keys as a port takes it.
QJsonValue rounded(const QJsonValue& value, const QString& type)
{
    if (type != colorType || !value.isArray()) {
        return value;
    }
    QJsonArray channels;
    for (const QJsonValue channel : value.toArray()) {
        channels.append(std::round(channel.toDouble()));
    }
    return channels;
}

void checkKeyedInput(const GraphPlan& plan, const ValueUse& use, const ResolvedValue& value,
                     GraphErrors& errors)
{
    const PlannedInput& input =
        plan.passes[static_cast<size_t>(use.pass)].inputs[static_cast<size_t>(use.input)];
    if (input.source != InputSource::Constant) {
        return; // Its value in the first frame was reported.
    }
    const QString& port = input.port;
    const QString type = typeOf(port);
    if (isInterpolated(value.keyed) && !continuousTypes.contains(type)) {
        errors.add(
            use.place,
            u"is of type %1, which has no values between two keys; write \"ease\": \"step\""_s.arg(type));
        return;
    }
    const QJsonArray keys = value.keyed[u"keys"].toArray();
    for (qsizetype i = 0; i < keys.size(); ++i) {
        QString error;
        const QJsonValue content = keys[i][1];
        if (content.toString().startsWith(u'@')) {
            error = u"keys hold constants, not references"_s;
        } else if (portConstant(plan.graph, port, content, &error, value.file(use.source))) {
            continue;
        }
        errors.add(use.place, u"keys[%1]: %2"_s.arg(i).arg(error));
        return;
    }
}

/// The parts of a graph that checkScene looks at and that can change between frames.
GraphDescription sceneOf(const GraphDescription& graph)
{
    GraphDescription scene;
    scene.file = graph.file;
    scene.viewport = graph.viewport;
    scene.camera = graph.camera;
    scene.lights = graph.lights;
    scene.parameters = graph.parameters;
    scene.boundValues = graph.boundValues;
    scene.assignments = graph.assignments;
    return scene;
}

/// Reports the first key's frame in which the camera or a light is invalid.
void checkKeyedScene(const GraphDescription& graph, const Parameters& parameters, GraphErrors& errors)
{
    std::set<double> frames;
    for (const BoundValue& bound : graph.boundValues) {
        const QJsonValue keyed = parameters.resolve(bound.value, 0.0).keyed;
        for (const QJsonValue key : keyed[u"keys"].toArray()) {
            frames.insert(key[0].toDouble());
        }
    }
    // The first frame is checked like a scene without keys.
    frames.erase(0.0);
    GraphDescription scene = sceneOf(graph);
    for (const double frame : frames) {
        QString error;
        QStringList lines;
        GraphErrors found(scene, &lines);
        const auto isKeyed = [&](const BoundValue& bound) {
            return isInScene(bound.place) && !parameters.resolve(bound.value, 0.0).keyed.isUndefined();
        };
        if (!updateBoundValues(&scene, isKeyed, frame, &error)) {
            errors.addLine(u"%1: %2, in frame %3"_s.arg(graph.displayName(), error).arg(frame));
            return;
        }
        checkScene(scene, found);
        if (!lines.isEmpty()) {
            errors.addLine(u"%1, in frame %2"_s.arg(lines.first()).arg(frame));
            return;
        }
    }
}

} // namespace

void checkValueUses(GraphPlan& plan, const Parameters& parameters, GraphErrors& errors)
{
    for (const BoundValue& bound : plan.graph.boundValues) {
        const ResolvedValue value = parameters.resolve(bound.value, 0.0);
        errors.add(bound.place, value.error);
        plan.valueUses.push_back({bound.place, bound.value, bound.source, -1, -1, !value.keyed.isUndefined(),
                                  !isInScene(bound.place)});
    }
    for (const ValueUse& use : plan.valueUses) {
        if (!use.isKeyed) {
            continue;
        }
        const ResolvedValue value = parameters.resolve(use.value, 0.0);
        const GraphErrors::InPlace scope(errors, use.source, value.holder);
        if (use.isFixed) {
            errors.add(use.place,
                       u"is fixed once the graph is created and cannot follow keys; give it one value"_s);
        } else if (use.pass >= 0) {
            checkKeyedInput(plan, use, value, errors);
        }
    }
    if (errors.count() == 0) {
        checkKeyedScene(plan.graph, parameters, errors);
    }
}

std::optional<ValueChanges> updateValues(GraphPlan& plan,
                                         const std::function<bool(const QJsonValue&)>& isWanted, double frame,
                                         QString* error)
{
    ValueChanges changes;
    const Parameters parameters(plan.graph);
    GraphDescription scene = sceneOf(plan.graph);
    for (const ValueUse& use : plan.valueUses) {
        if (use.isFixed || !isWanted(use.value)) {
            continue;
        }
        changes.scene = changes.scene || use.pass < 0;
        if (use.pass < 0) {
            continue;
        }
        const QString& port =
            plan.passes[static_cast<size_t>(use.pass)].inputs[static_cast<size_t>(use.input)].port;
        const ResolvedValue value = parameters.resolve(use.value, frame);
        const std::optional<QVariant> constant =
            portConstant(plan.graph, port, rounded(value.value, typeOf(port)), error, value.file(use.source));
        if (!constant) {
            *error = u"%1: %2: %3"_s.arg(plan.graph.displayName(), use.place, *error);
            return {};
        }
        changes.inputs.push_back({use.pass, use.input, *constant});
    }
    if (changes.scene) {
        const auto isChanging = [&](const BoundValue& bound) {
            return isInScene(bound.place) && isWanted(bound.value);
        };
        QStringList lines;
        if (!updateBoundValues(&scene, isChanging, frame, error)) {
            lines.append(u"%1: %2"_s.arg(plan.graph.displayName(), *error));
        } else {
            GraphErrors errors(scene, &lines);
            checkScene(scene, errors);
        }
        if (!lines.isEmpty()) {
            *error = lines.first();
            return {};
        }
        plan.graph.camera = scene.camera;
        plan.graph.lights = scene.lights;
    }
    for (const ValueChanges::Input& change : changes.inputs) {
        plan.passes[static_cast<size_t>(change.pass)].inputs[static_cast<size_t>(change.input)].constant =
            change.value;
    }
    return changes;
}

} // namespace Morvane::Qel
