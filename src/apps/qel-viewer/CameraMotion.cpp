#include "CameraMotion.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QQuaternion>
#include <QtMath>

#include <algorithm>
#include <cmath>

#include <Qel/graph/ValueJson.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

struct Axes
{
    explicit Axes(const CameraDescription& camera)
        : forward((camera.target - camera.eye).normalized())
        , right(QVector3D::crossProduct(forward, camera.up).normalized())
        , up(QVector3D::crossProduct(right, forward))
        , distance((camera.target - camera.eye).length())
    {
    }
    QVector3D forward;
    QVector3D right;
    QVector3D up;
    float distance;
};

/// Turns a direction by angles in degrees, around the up vector and towards it, short of the poles.
QVector3D turned(const QVector3D& direction, const QVector3D& up, float around, float upwards)
{
    constexpr float nearestToPole = 1.0F;
    const QVector3D pole = up.normalized();
    const QVector3D unit = direction.normalized();
    const float elevation =
        qRadiansToDegrees(std::asin(std::clamp(QVector3D::dotProduct(unit, pole), -1.0F, 1.0F)));
    const float limited = std::clamp(elevation + upwards, nearestToPole - 90.0F, 90.0F - nearestToPole);
    const QVector3D side = QVector3D::crossProduct(unit, pole);
    const QQuaternion rotation = QQuaternion::fromAxisAndAngle(pole, around) *
                                 QQuaternion::fromAxisAndAngle(side.normalized(), limited - elevation);
    return rotation.rotatedVector(direction);
}

} // namespace

CameraDescription orbit(const CameraDescription& camera, const QPointF& drag)
{
    CameraDescription moved = camera;
    moved.eye =
        camera.target + turned(camera.eye - camera.target, camera.up, static_cast<float>(-180.0 * drag.x()),
                               static_cast<float>(180.0 * drag.y()));
    return moved;
}

CameraDescription pan(const CameraDescription& camera, const QPointF& drag)
{
    const Axes axes(camera);
    const float height =
        camera.height.value_or(2.0F * axes.distance * std::tan(qDegreesToRadians(camera.fovY) / 2.0F));
    const QVector3D step =
        height * (static_cast<float>(-drag.x()) * axes.right + static_cast<float>(drag.y()) * axes.up);
    CameraDescription moved = camera;
    moved.eye += step;
    moved.target += step;
    return moved;
}

CameraDescription dolly(const CameraDescription& camera, float factor)
{
    CameraDescription moved = camera;
    if (camera.height) {
        // The distance does not change the size of what an orthographic camera sees.
        moved.height = std::clamp(*camera.height * factor, 1e-6F, 1e6F);
        return moved;
    }
    moved.eye = camera.target + factor * (camera.eye - camera.target);
    // No nearer than floats can tell the eye from the target.
    const float nearest = 1e-5F * std::max(camera.target.length(), 1e-3F);
    return (moved.eye - moved.target).length() > nearest ? moved : camera;
}

CameraDescription fly(const CameraDescription& camera, const QVector3D& step)
{
    const Axes axes(camera);
    const QVector3D way =
        axes.distance * (step.x() * axes.right + step.y() * axes.up + step.z() * axes.forward);
    CameraDescription moved = camera;
    moved.eye += way;
    moved.target += way;
    return moved;
}

CameraDescription look(const CameraDescription& camera, const QPointF& drag)
{
    CameraDescription moved = camera;
    moved.target =
        camera.eye + turned(camera.target - camera.eye, camera.up, static_cast<float>(-90.0 * drag.x()),
                            static_cast<float>(-90.0 * drag.y()));
    return moved;
}

CameraDescription alongAxis(const CameraDescription& camera, const QVector3D& direction)
{
    CameraDescription moved = camera;
    moved.up =
        std::abs(direction.y()) > 0.5F ? QVector3D(0.0F, 0.0F, -direction.y()) : QVector3D(0.0F, 1.0F, 0.0F);
    moved.eye = camera.target - Axes(camera).distance * direction;
    return moved;
}

CameraDescription withPlanesFor(const CameraDescription& camera, const CameraDescription& fitted)
{
    const float fittedDistance = (fitted.eye - fitted.target).length();
    const float radius = std::max(fitted.farPlane - fittedDistance, 1e-6F);
    const float distance = (camera.eye - fitted.target).length();
    CameraDescription wide = camera;
    wide.farPlane = std::max(camera.farPlane, 1.1F * (distance + radius));
    const float nearest = std::max(0.9F * (distance - 1.5F * radius), 1e-4F * wide.farPlane);
    wide.nearPlane = std::min(camera.nearPlane, nearest);
    return wide;
}

QByteArray cameraToJson(const CameraDescription& camera)
{
    QJsonObject object{{u"eye"_s, jsonFromValue(camera.eye)},
                       {u"target"_s, jsonFromValue(camera.target)},
                       {u"up"_s, jsonFromValue(camera.up)},
                       {u"near"_s, jsonFromValue(camera.nearPlane)},
                       {u"far"_s, jsonFromValue(camera.farPlane)}};
    object[camera.height ? u"height"_s : u"fovY"_s] = jsonFromValue(camera.height.value_or(camera.fovY));
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

std::optional<CameraDescription> cameraFromJson(const QByteArray& text, QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = QCoreApplication::translate("Camera", "The clipboard holds no camera: %1").arg(what);
        return std::nullopt;
    };
    // A line of a graph file: "camera": {...},
    QByteArray json = text.trimmed();
    if (json.endsWith(',')) {
        json.chop(1);
    }
    if (json.startsWith('"')) {
        json = '{' + json + '}';
    }
    QJsonParseError parseError{};
    QJsonObject object = QJsonDocument::fromJson(json, &parseError).object();
    if (object.isEmpty()) {
        return fail(parseError.errorString());
    }
    if (object.contains(u"camera"_s)) {
        object = object[u"camera"_s].toObject();
    }
    CameraDescription camera;
    QString wrong;
    const auto readVector = [&](const QString& key, QVector3D* vector) {
        const QJsonArray array = object[key].toArray();
        if (object.contains(key) && array.size() != 3) {
            wrong = key;
        } else if (array.size() == 3) {
            *vector = {static_cast<float>(array[0].toDouble()), static_cast<float>(array[1].toDouble()),
                       static_cast<float>(array[2].toDouble())};
        }
    };
    const auto readNumber = [&](const QString& key, float* number) {
        *number = static_cast<float>(object[key].toDouble(static_cast<double>(*number)));
    };
    readVector(u"eye"_s, &camera.eye);
    readVector(u"target"_s, &camera.target);
    readVector(u"up"_s, &camera.up);
    readNumber(u"fovY"_s, &camera.fovY);
    readNumber(u"near"_s, &camera.nearPlane);
    readNumber(u"far"_s, &camera.farPlane);
    if (object.contains(u"height"_s)) {
        camera.height = static_cast<float>(object[u"height"_s].toDouble());
    }
    if (!object.contains(u"eye"_s)) {
        return fail(QCoreApplication::translate("Camera", "there is no \"eye\""));
    }
    if (!wrong.isEmpty()) {
        return fail(QCoreApplication::translate("Camera", "\"%1\" must be three numbers").arg(wrong));
    }
    if (const QString what = cameraError(camera); !what.isEmpty()) {
        return fail(what);
    }
    return camera;
}

QString cameraError(const CameraDescription& camera)
{
    const auto text = [](const char* what) { return QCoreApplication::translate("Camera", what); };
    const QVector3D direction = camera.target - camera.eye;
    if (!(direction.length() > 0.0F)) {
        return text("eye and target must differ");
    }
    if (!(QVector3D::crossProduct(direction.normalized(), camera.up.normalized()).length() > 1e-4F)) {
        return text("the up vector must not be parallel to the view direction");
    }
    if (!(camera.fovY > 0.0F && camera.fovY < 180.0F)) {
        return text("the field of view must be above 0 and below 180 degrees");
    }
    if (camera.height && !(*camera.height > 0.0F)) {
        return text("the height of an orthographic view must be above 0");
    }
    return camera.nearPlane > 0.0F && camera.nearPlane < camera.farPlane
               ? QString()
               : text("the planes must be 0 < near < far");
}

} // namespace Morvane::Qel::Viewer
