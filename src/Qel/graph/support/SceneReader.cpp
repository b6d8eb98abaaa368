#include <Qel/graph/support/SceneReader.h>

#include <QDir>

#include <algorithm>

#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/GraphDocument.h>
#include <Qel/graph/support/LightKeys.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

void SceneReader::readViewport(const QJsonValue& value)
{
    const QString path = u"viewport"_s;
    m_graph.viewport = constant(bound(value, path), u"QSize"_s, path).toSize();
}

CameraDescription SceneReader::readCamera(const QJsonValue& value)
{
    const QString path = u"camera"_s;
    const QJsonObject members =
        object(value, path, {"eye", "target", "up", "orbit", "fovY", "height", "near", "far"});
    CameraDescription camera;
    const bool hasOrbit = members.contains(u"orbit");
    if (hasOrbit) {
        camera.orbit = readOrbit(members[u"orbit"]);
        camera.nearPlane = 0.0F;
        camera.farPlane = 0.0F;
    } else if (!members.contains(u"eye")) {
        error(path, u"\"eye\" is missing"_s);
    }
    for (const QString& key : {u"eye"_s, u"target"_s, u"up"_s}) {
        if (hasOrbit && members.contains(key)) {
            error(memberPath(path, key),
                  u"cannot be combined with \"orbit\", which sets it; remove one of them"_s);
        }
    }
    read(members, path, u"eye"_s, "QVector3D", &camera.eye);
    read(members, path, u"target"_s, "QVector3D", &camera.target);
    read(members, path, u"up"_s, "QVector3D", &camera.up);
    read(members, path, u"fovY"_s, "float", &camera.fovY);
    read(members, path, u"near"_s, "float", &camera.nearPlane);
    read(members, path, u"far"_s, "float", &camera.farPlane);
    if (members.contains(u"height")) {
        read(members, path, u"height"_s, "float", &camera.height.emplace());
        if (members.contains(u"fovY")) {
            error(memberPath(path, u"height"_s), u"excludes \"fovY\"; a height makes the camera "
                                                 "orthographic"_s);
        }
    }
    return camera;
}

OrbitDescription SceneReader::readOrbit(const QJsonValue& value)
{
    const QString path = u"camera.orbit"_s;
    const QJsonObject members =
        object(value, path, {"target", "turns", "startAngle", "elevation", "distance"});
    OrbitDescription orbit;
    if (members.contains(u"target")) {
        read(members, path, u"target"_s, "QVector3D", &orbit.target.emplace());
    }
    read(members, path, u"turns"_s, "float", &orbit.turns);
    read(members, path, u"startAngle"_s, "float", &orbit.startAngle);
    read(members, path, u"elevation"_s, "float", &orbit.elevation);
    read(members, path, u"distance"_s, "float", &orbit.distance);
    return orbit;
}

AnimationDescription SceneReader::readAnimation(const QJsonValue& value)
{
    const QString path = u"animation"_s;
    const QJsonObject members = object(value, path, {"frames", "fps"});
    AnimationDescription animation;
    if (!members.contains(u"frames")) {
        error(path, u"\"frames\" is missing"_s);
    }
    read(members, path, u"frames"_s, "int", &animation.frames);
    read(members, path, u"fps"_s, "float", &animation.fps);
    return animation;
}

void SceneReader::readModels(const QJsonValue& value, std::vector<ModelDescription>* models)
{
    const QString path = u"models"_s;
    const QJsonObject members = object(value, path, {});
    QStringList names = m_keys.keys(path);
    names.removeDuplicates();
    for (const QString& name : names) {
        // Of an object that is there twice, the last one counts.
        if (members.contains(name)) {
            readModel(name, members[name], models);
        }
    }
}

void SceneReader::readModel(const QString& name, const QJsonValue& value,
                            std::vector<ModelDescription>* models)
{
    const QString path = memberPath(u"models"_s, name);
    ModelDescription& model = models->emplace_back(ModelDescription{name, {}});
    // Of a repeated "models", only the last is in the document.
    if (value.isUndefined()) {
        return;
    }
    if (!value.isObject()) {
        model.file = modelPath(value, path);
        return;
    }
    const QJsonObject members =
        object(value, path, {"file", "merge", "upAxis", "scale", "fit", "rotate", "translate"});
    if (members.contains(u"file") == members.contains(u"merge")) {
        error(path, u"must have either \"file\" or \"merge\""_s);
    }
    if (members.contains(u"file")) {
        model.file = modelPath(members[u"file"], memberPath(path, u"file"_s));
    }
    const QString mergePath = memberPath(path, u"merge"_s);
    const QJsonArray parts = array(members[u"merge"], mergePath);
    for (qsizetype i = 0; i < parts.size(); ++i) {
        model.merge.append(constant(parts[i], u"QString"_s, u"%1[%2]"_s.arg(mergePath).arg(i)).toString());
    }
    if (members[u"merge"].isArray() && parts.isEmpty()) {
        error(mergePath, u"must name at least one model"_s);
    }
    readPlacement(members, path, &model.placement);
}

void SceneReader::readPlacement(const QJsonObject& members, const QString& path, ModelPlacement* placement)
{
    read(members, path, u"upAxis"_s, "QString", &placement->upAxis);
    if (members[u"scale"].isDouble()) {
        float factor = 1.0F;
        read(members, path, u"scale"_s, "float", &factor);
        placement->scale = {factor, factor, factor};
    } else if (members.contains(u"scale") && !members[u"scale"].isArray()) {
        error(memberPath(path, u"scale"_s),
              u"must be a number or three numbers [x, y, z], not %1"_s.arg(shownValue(members[u"scale"])));
    } else {
        read(members, path, u"scale"_s, "QVector3D", &placement->scale);
    }
    if (members.contains(u"fit")) {
        read(members, path, u"fit"_s, "float", &placement->fit);
        if (members[u"fit"].isDouble() && placement->fit <= 0.0F) {
            error(memberPath(path, u"fit"_s), u"must be above 0"_s);
        }
    }
    read(members, path, u"rotate"_s, "QVector3D", &placement->rotate);
    read(members, path, u"translate"_s, "QVector3D", &placement->translate);
}

QString SceneReader::modelPath(const QJsonValue& value, const QString& place)
{
    if (!value.isString()) {
        error(place, u"must be a file name or an object {...}, not %1%2"_s.arg(shownValue(value),
                                                                               parameterNote(place)));
    }
    const QString path = value.toString();
    const QString file = m_bound.value(place, {{}, m_own}).file;
    return file.isEmpty() || path.isEmpty() || !QDir::isRelativePath(path)
               ? path
               : QDir(m_graph.resolvePath(u"."_s)).relativeFilePath(m_graph.resolvePath(path, file));
}

void SceneReader::readLights(const QJsonValue& value, std::vector<LightDescription>* lights)
{
    const QJsonArray elements = array(value, u"lights"_s);
    for (qsizetype i = 0; i < elements.size(); ++i) {
        const QString path = u"lights[%1]"_s.arg(i);
        const QStringList known = lightKeys(elements[i][u"type"].toString());
        const QJsonObject members = object(elements[i], path, known);
        LightDescription light;
        light.type = requiredString(members, path, u"type"_s);
        read(members, path, u"position"_s, "QVector3D", &light.position);
        read(members, path, u"direction"_s, "QVector3D", &light.direction);
        read(members, path, u"color"_s, "QVector3D", &light.color);
        read(members, path, u"intensity"_s, "float", &light.intensity);
        read(members, path, u"angle"_s, "float", &light.angle);
        read(members, path, u"range"_s, "float", &light.range);
        read(members, path, u"cascades"_s, "int", &light.cascades);
        lights->push_back(light);
    }
}

bool SceneReader::readPart(const QString& section, const QJsonValue& value, QString* what)
{
    if (section == QLatin1StringView("viewport")) {
        readViewport(value);
    } else if (section == QLatin1StringView("camera")) {
        m_graph.camera = readCamera(value);
    } else if (section.startsWith(QLatin1StringView("lights["))) {
        const auto index = section.sliced(7).chopped(1).toULongLong();
        std::vector<LightDescription> lights;
        readLights(QJsonArray{value}, &lights);
        m_graph.lights[index] = lights.front();
    } else {
        std::vector<ModelDescription> models;
        readModel(section.sliced(7), value, &models);
        const auto same = [&](const ModelDescription& model) { return model.name == models.front().name; };
        *std::find_if(m_graph.models.begin(), m_graph.models.end(), same) = models.front();
    }
    *what = m_causes.value(0);
    return m_causes.isEmpty();
}

bool readSection(GraphDescription* graph, const QString& section, const QJsonValue& value, QString* error)
{
    const GraphDocument document{{}, "{}", {}};
    GraphDescription read;
    read.viewport = graph->viewport;
    read.camera = graph->camera;
    read.lights = graph->lights;
    read.models = graph->models;
    if (!SceneReader(document, {}, &read).readPart(section, value, error)) {
        return false;
    }
    graph->viewport = read.viewport;
    graph->camera = read.camera;
    graph->lights = std::move(read.lights);
    graph->models = std::move(read.models);
    return true;
}

} // namespace Morvane::Qel
