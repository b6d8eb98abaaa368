#include <Qel/graph/support/SceneCheck.h>

#include <QSet>

#include <algorithm>
#include <cmath>
#include <functional>
#include <set>

#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/support/Camera.h>
#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/FrameValues.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/ModelMerges.h>
#include <Qel/graph/support/Names.h>
#include <Qel/model/ShadowMapManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

bool isFinite(const QVector3D& v)
{
    return std::isfinite(v.x()) && std::isfinite(v.y()) && std::isfinite(v.z());
}

using Check = std::function<void(bool good, const char* member, const char* what)>;

void checkPlace(const CameraDescription& camera, const Check& check)
{
    check(isFinite(camera.eye) && isFinite(camera.target) && camera.eye != camera.target, "eye",
          "must differ from the target");
    const QVector3D forward = (camera.target - camera.eye).normalized();
    check(camera.eye == camera.target ||
              QVector3D::crossProduct(forward, camera.up.normalized()).lengthSquared() > 1e-10F,
          "up", "must not be zero or parallel to the view direction");
}

void checkOrbit(const OrbitDescription& orbit, const Check& check)
{
    check(!orbit.target || isFinite(*orbit.target), "orbit.target", "must be finite");
    check(std::isfinite(orbit.turns), "orbit.turns", "must be finite");
    check(std::isfinite(orbit.startAngle), "orbit.startAngle", "must be finite");
    check(std::abs(orbit.elevation) < 90.0F, "orbit.elevation", "must be above -90 and below 90 degrees");
    check(std::isfinite(orbit.distance) && orbit.distance >= 0.0F, "orbit.distance",
          "must be above 0, or 0 to fit it to the models");
}

void checkCamera(const CameraDescription& camera, GraphErrors& errors)
{
    const Check check = [&](bool good, const char* member, const char* what) {
        if (!good) {
            errors.add(QLatin1StringView("camera.") + QLatin1StringView(member), QLatin1StringView(what));
        }
    };
    if (camera.orbit) {
        checkOrbit(*camera.orbit, check);
    } else {
        checkPlace(camera, check);
    }
    if (camera.height) {
        check(*camera.height > 0.0F && std::isfinite(*camera.height), "height", "must be above 0");
    } else {
        check(camera.fovY > 0.0F && camera.fovY < 180.0F, "fovY", "must be above 0 and below 180 degrees");
    }
    const bool fitsNear = camera.orbit && camera.nearPlane == 0.0F;
    const bool fitsFar = camera.orbit && camera.farPlane == 0.0F;
    check(fitsNear || camera.nearPlane > 0.0F, "near", "must be above 0");
    check(fitsFar || (camera.farPlane > camera.nearPlane && std::isfinite(camera.farPlane)), "far",
          "must be above \"near\"");
}

void checkClock(const GraphDescription& graph, GraphErrors& errors)
{
    if (const auto& animation = graph.animation) {
        if (animation->frames < 1 || animation->frames > 1'000'000) {
            errors.add(u"animation.frames"_s, u"must be 1 to 1000000"_s);
        }
        if (!(animation->fps > 0.0F && animation->fps <= 1000.0F)) {
            errors.add(u"animation.fps"_s, u"must be above 0 and at most 1000 frames per second"_s);
        }
    }
    if (graph.settle < 1 || graph.settle > 10'000) {
        errors.add(u"settle"_s, u"must be 1 to 10000"_s);
    }
}

void checkPlacement(const ModelPlacement& placement, const QString& place, GraphErrors& errors)
{
    const auto check = [&](bool good, const char* member, const char* what) {
        if (!good) {
            errors.add(place + u'.' + QLatin1StringView(member), QLatin1StringView(what));
        }
    };
    const QVector3D& scale = placement.scale;
    check(QStringList({u"x"_s, u"y"_s, u"z"_s}).contains(placement.upAxis), "upAxis",
          "must be \"x\", \"y\" or \"z\"");
    check(isFinite(scale) && scale.x() != 0.0F && scale.y() != 0.0F && scale.z() != 0.0F, "scale",
          "must not be 0");
    check(std::isfinite(placement.fit) && placement.fit >= 0.0F, "fit", "must be above 0");
    check(isFinite(placement.rotate), "rotate", "must be finite");
    check(isFinite(placement.translate), "translate", "must be finite");
}

void checkMerges(const GraphDescription& graph, GraphErrors& errors)
{
    const std::vector<ModelDescription>& models = graph.models;
    QStringList names;
    for (const ModelDescription& model : models) {
        names.append(model.name);
    }
    const QSet<QString> known(names.begin(), names.end());
    for (const ModelDescription& model : models) {
        const QString place = u"models.%1.merge"_s.arg(model.name);
        if (!model.merge.isEmpty() && !model.file.isEmpty()) {
            errors.add(place, u"a merged model cannot have a \"file\""_s);
        }
        std::set<QString> parts;
        for (const QString& part : model.merge) {
            if (!known.contains(part)) {
                errors.add(place, [&] { return unknownName(u"model"_s, part, names); });
            } else if (!parts.insert(part).second) {
                errors.add(place, u"\"%1\" is named twice; a second model with the same file can stand "
                                  "elsewhere"_s.arg(part));
            }
        }
    }
    QStringList cycle;
    for (const size_t index : ModelMerges(models).cycle()) {
        cycle.append(models[index].name);
    }
    if (!cycle.isEmpty()) {
        errors.add(u"models.%1.merge"_s.arg(cycle.first()),
                   u"a model cannot be a part of itself: %1"_s.arg(cycle.join(u" needs "_s)));
    }
}

void checkModels(const GraphDescription& graph, GraphErrors& errors)
{
    std::set<QString> names;
    for (const ModelDescription& model : graph.models) {
        const QString place = QLatin1StringView("models.") + model.name;
        if (const QString error = nameError(model.name); !error.isEmpty()) {
            errors.add(place, error);
        } else if (findFrameValue(model.name)) {
            errors.add(place, u"\"@%1\" is a frame value; use another name"_s.arg(model.name));
        } else if (!names.insert(model.name).second) {
            errors.add(place, u"more than one model has this name"_s);
        }
        if (const QString error = model.merge.isEmpty() ? fileError(graph, model.file) : QString();
            !error.isEmpty()) {
            errors.addLine(u"%1: %2"_s.arg(graph.placeOf(model), error));
        }
        checkPlacement(model.placement, place, errors);
    }
    checkMerges(graph, errors);
}

void checkLight(const LightDescription& light, const QString& place, GraphErrors& errors)
{
    const auto check = [&](bool good, const char* member, const QString& what) {
        if (!good) {
            errors.add(place + u'.' + QLatin1StringView(member), what);
        }
    };
    static const QStringList types{u"directional"_s, u"spot"_s, u"point"_s};
    const qsizetype type = types.indexOf(light.type);
    const bool isDirectional = type == 0;
    const bool isSpot = type == 1;
    const bool hasPosition = type > 0;
    check(type >= 0, "type", unknownName(u"light type"_s, light.type, types));
    check(!hasPosition || isFinite(light.position), "position", u"must be finite"_s);
    check(!(isDirectional || isSpot) || (isFinite(light.direction) && !light.direction.isNull()), "direction",
          u"must not be zero"_s);
    const QVector3D& color = light.color;
    check(isFinite(color) && std::min({color.x(), color.y(), color.z()}) >= 0.0F, "color",
          u"must be 0 or more"_s);
    check(std::isfinite(light.intensity) && light.intensity >= 0.0F, "intensity", u"must be 0 or more"_s);
    check(!isSpot || (light.angle > 0.0F && light.angle <= 170.0F), "angle",
          u"must be above 0 and at most 170 degrees"_s);
    check(!hasPosition || (std::isfinite(light.range) && light.range >= 0.0F), "range",
          u"must be 0 or more"_s);
    constexpr int maxCascades = ShadowMapManager::maxCascades;
    check(!isDirectional || (light.cascades >= 1 && light.cascades <= maxCascades), "cascades",
          u"must be 1 to %1"_s.arg(maxCascades));
}

} // namespace

void checkScene(const GraphDescription& graph, GraphErrors& errors)
{
    errors.add(u"viewport"_s, viewportError(graph.viewport));
    if (graph.camera) {
        checkCamera(*graph.camera, errors);
    }
    checkClock(graph, errors);
    checkModels(graph, errors);
    checkLights(graph.lights, errors);
}

void checkLights(const std::vector<LightDescription>& lights, GraphErrors& errors)
{
    for (size_t i = 0; i < lights.size(); ++i) {
        checkLight(lights[i], u"lights[%1]"_s.arg(i), errors);
    }
}

} // namespace Morvane::Qel
