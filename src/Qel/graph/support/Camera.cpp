#include <Qel/graph/support/Camera.h>

#include <QtMath>

#include <algorithm>
#include <array>
#include <cmath>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

float aspectRatio(const QSize& viewport)
{
    return static_cast<float>(viewport.width()) / static_cast<float>(viewport.height());
}

/// How much larger than the models the image is that a fitted camera shows.
constexpr float margin = 1.05F;

/// A box with finite corners whose extent a float resolves at its place.
struct Box
{
    QVector3D center;
    QVector3D half;
};

Box usableBox(const QPair<QVector3D, QVector3D>& bounds)
{
    // Squares of larger distances overflow float.
    constexpr float largest = 1e15F;
    QVector3D center = (bounds.first + bounds.second) / 2.0F;
    QVector3D half = (bounds.second - bounds.first) / 2.0F;
    if (!(center.length() < largest) || !(half.length() < largest)) {
        center = {};
        half = {};
    }
    if (half.isNull() && center.isNull()) {
        half = {1.0F, 1.0F, 1.0F};
    }
    // Far from the origin, an extent below float's resolution would round the eye onto the target.
    const float smallest = std::max(1e-4F * center.length(), 1e-6F);
    if (half.length() < smallest) {
        half = {smallest, smallest, smallest};
    }
    return {center, half};
}

/// Half the height and width of the image at distance 1.
QPair<float, float> tangents(float fovY, const QSize& viewport)
{
    const float tangentY = std::tan(qDegreesToRadians(fovY) / 2.0F);
    return {tangentY, tangentY * aspectRatio(viewport)};
}

/// In front of what is seen, but far enough from the eye for the resolution of the depth buffer.
float fittedNearPlane(float nearest, float farPlane)
{
    return std::max(0.9F * nearest, 1e-3F * farPlane);
}

/// The upright cylinder around the target in which the models stay, however they are turned.
struct Cylinder
{
    float radius = 0.0F;
    /// Heights of its ends, relative to the target.
    std::array<float, 2> ends{};
};

Cylinder cylinderAround(const Box& box, const QVector3D& target)
{
    const QVector3D offset = box.center - target;
    return {std::hypot(std::abs(offset.x()) + box.half.x(), std::abs(offset.z()) + box.half.z()),
            {offset.y() - box.half.y(), offset.y() + box.half.y()}};
}

CameraDescription orbitCamera(const CameraDescription& camera, double turns,
                              const QPair<QVector3D, QVector3D>& bounds, const QSize& viewport)
{
    const OrbitDescription& orbit = *camera.orbit;
    const Box box = usableBox(bounds);
    CameraDescription result = camera;
    result.orbit.reset();
    result.target = orbit.target.value_or(box.center);
    result.up = {0.0F, 1.0F, 0.0F};
    const Cylinder cylinder = cylinderAround(box, result.target);
    const float elevation = qDegreesToRadians(orbit.elevation);
    const float sine = std::sin(elevation);
    const float cosine = std::cos(elevation);

    // A point of the cylinder's rim at the angle a from the camera's azimuth is r cos a cosine + h sine
    // nearer than the target, r sin a to the right and h cosine - r cos a sine above. It stays in the image
    // if the distance is at least what is nearer plus the offset divided by the tangent; the greatest such
    // distance over all a is known in closed form.
    const auto [tangentY, tangentX] = tangents(camera.fovY, viewport);
    const float toWidth = margin / tangentX;
    const float toHeight = margin / tangentY;
    const float r = cylinder.radius;
    float distance = 0.0F;
    float depth = 0.0F;
    for (const float h : cylinder.ends) {
        distance = std::max({distance, h * sine + r * std::hypot(cosine, toWidth),
                             h * (sine + cosine * toHeight) + r * std::abs(cosine - sine * toHeight),
                             h * (sine - cosine * toHeight) + r * std::abs(cosine + sine * toHeight)});
        depth = std::max(depth, std::abs(h * sine) + r * cosine);
    }
    if (orbit.distance > 0.0F) {
        distance = orbit.distance;
    }
    const double angle = qDegreesToRadians(static_cast<double>(orbit.startAngle)) + turns * 2.0 * M_PI;
    const QVector3D towardsEye(cosine * static_cast<float>(std::sin(angle)), sine,
                               cosine * static_cast<float>(std::cos(angle)));
    result.eye = result.target + distance * towardsEye;
    if (camera.farPlane <= 0.0F) {
        result.farPlane = std::max(1.1F * (distance + depth), 2.0F * camera.nearPlane);
    }
    if (camera.nearPlane <= 0.0F) {
        result.nearPlane =
            std::min(fittedNearPlane(distance - depth, result.farPlane), 0.5F * result.farPlane);
    }
    return result;
}

} // namespace

CameraDescription fitCamera(const QPair<QVector3D, QVector3D>& bounds, const QSize& viewport)
{
    const auto [center, half] = usableBox(bounds);
    CameraDescription camera;
    const QVector3D towardsEye = QVector3D(0.6F, 0.45F, 1.0F).normalized();
    const QVector3D right = QVector3D::crossProduct(camera.up, towardsEye).normalized();
    const QVector3D up = QVector3D::crossProduct(towardsEye, right);
    const auto [tangentY, tangentX] = tangents(camera.fovY, viewport);
    float distance = 0.0F;
    float depth = 0.0F;
    for (int corner = 0; corner < 8; ++corner) {
        const QVector3D offset((corner & 1) != 0 ? half.x() : -half.x(),
                               (corner & 2) != 0 ? half.y() : -half.y(),
                               (corner & 4) != 0 ? half.z() : -half.z());
        const float nearer = QVector3D::dotProduct(offset, towardsEye);
        const float x = std::abs(QVector3D::dotProduct(offset, right));
        const float y = std::abs(QVector3D::dotProduct(offset, up));
        distance = std::max(distance, nearer + margin * std::max(x / tangentX, y / tangentY));
        depth = std::max(depth, nearer);
    }
    camera.target = center;
    camera.eye = center + distance * towardsEye;
    camera.farPlane = 1.1F * (distance + depth);
    camera.nearPlane = fittedNearPlane(distance - depth, camera.farPlane);
    return camera;
}

CameraDescription cameraOfFrame(const GraphDescription& graph, int frame,
                                const QPair<QVector3D, QVector3D>& bounds)
{
    if (!graph.camera) {
        return fitCamera(bounds, graph.viewport);
    }
    if (!graph.camera->orbit) {
        return *graph.camera;
    }
    const double position = graph.animation ? static_cast<double>(frame) / graph.animation->frames : 0.0;
    return orbitCamera(*graph.camera, position * static_cast<double>(graph.camera->orbit->turns), bounds,
                       graph.viewport);
}

QString viewportError(const QSize& size, int limit)
{
    if (size.width() >= 1 && size.height() >= 1 &&
        (limit == 0 || std::max(size.width(), size.height()) <= limit)) {
        return {};
    }
    return u"%1x%2 is out of range; width and height must be 1 to %3"_s.arg(size.width())
        .arg(size.height())
        .arg(limit > 0 ? QString::number(limit) : u"the driver's limit"_s);
}

QMatrix4x4 projectionMatrix(const CameraDescription& camera, const QSize& viewport)
{
    QMatrix4x4 matrix;
    matrix.perspective(camera.fovY, aspectRatio(viewport), camera.nearPlane, camera.farPlane);
    return matrix;
}

QMatrix4x4 cameraMatrix(const CameraDescription& camera)
{
    QMatrix4x4 matrix;
    matrix.lookAt(camera.eye, camera.target, camera.up);
    return matrix;
}

} // namespace Morvane::Qel
