#include <Qel/graph/support/OrbitCamera.h>

#include <QtMath>

#include <algorithm>
#include <cmath>

#include <Qel/graph/FittedCamera.h>
#include <Qel/graph/support/PointBounds.h>

namespace Morvane::Qel {

namespace {

/// The upright cylinder around the target in which the models stay, however they are turned.
struct Cylinder
{
    float radius = 0.0F;
    /// Heights of its ends, relative to the target.
    Interval ends;
};

Cylinder cylinderAround(const std::vector<QVector3D>& points, const QVector3D& target)
{
    Cylinder cylinder;
    for (const QVector3D& point : points) {
        const QVector3D offset = point - target;
        cylinder.radius = std::max(cylinder.radius, std::hypot(offset.x(), offset.z()));
        cylinder.ends.include(offset.y());
    }
    return cylinder;
}

/// The smallest distance from the target at which a perspective camera shows all of the cylinder.
float fittedDistance(const Cylinder& cylinder, float elevation, float fovY, const QSize& viewport)
{
    // A point of the cylinder's rim at the angle a from the camera's azimuth is r cos a cosine + h sine
    // nearer than the target, r sin a to the right and h cosine - r cos a sine above. It stays in the image
    // if the distance is at least what is nearer plus the offset divided by the tangent; the greatest such
    // distance over all a is known in closed form.
    const float sine = std::sin(elevation);
    const float cosine = std::cos(elevation);
    const float toHeight = 1.0F / (fittedPart * std::tan(qDegreesToRadians(fovY) / 2.0F));
    const float toWidth =
        toHeight * static_cast<float>(viewport.height()) / static_cast<float>(viewport.width());
    const float r = cylinder.radius;
    float distance = 0.0F;
    for (const float h : {cylinder.ends.low, cylinder.ends.high}) {
        distance = std::max({distance, h * sine + r * std::hypot(cosine, toWidth),
                             h * (sine + cosine * toHeight) + r * std::abs(cosine - sine * toHeight),
                             h * (sine - cosine * toHeight) + r * std::abs(cosine + sine * toHeight)});
    }
    return distance;
}

CameraDescription orbitCamera(const CameraDescription& camera, double turns, const QSize& viewport,
                              std::vector<QVector3D> points)
{
    const OrbitDescription& orbit = *camera.orbit;
    if (points.empty()) {
        points = {QVector3D(-1.0F, -1.0F, -1.0F), QVector3D(1.0F, 1.0F, 1.0F)};
    }
    CameraDescription result = camera;
    result.orbit.reset();
    result.target = orbit.target.value_or(boxAround(points).center);
    result.up = {0.0F, 1.0F, 0.0F};
    const Cylinder cylinder = cylinderAround(points, result.target);
    const float elevation = qDegreesToRadians(orbit.elevation);
    const float sine = std::sin(elevation);
    const float cosine = std::cos(elevation);
    /// Of the nearest and the farthest point, as seen from the target.
    const float depth = std::max(std::abs(cylinder.ends.low * sine), std::abs(cylinder.ends.high * sine)) +
                        cylinder.radius * cosine;
    const float smallest = std::max(1e-4F * result.target.length(), 1e-6F);
    float distance = orbit.distance;
    if (distance <= 0.0F) {
        // The distance does not change an orthographic view.
        distance = camera.height ? 1.1F * depth : fittedDistance(cylinder, elevation, camera.fovY, viewport);
        distance = std::max(distance, smallest);
    }
    const double angle = qDegreesToRadians(static_cast<double>(orbit.startAngle)) + turns * 2.0 * M_PI;
    const QVector3D towardsEye(cosine * static_cast<float>(std::sin(angle)), sine,
                               cosine * static_cast<float>(std::cos(angle)));
    result.eye = result.target + distance * towardsEye;
    if (camera.farPlane <= 0.0F) {
        result.farPlane = std::max(1.1F * (distance + depth), 2.0F * camera.nearPlane);
    }
    if (camera.nearPlane <= 0.0F) {
        // In front of what is seen, but far enough from the eye for the resolution of the depth buffer.
        result.nearPlane =
            std::clamp(0.9F * (distance - depth), 1e-3F * result.farPlane, 0.5F * result.farPlane);
    }
    return result;
}

} // namespace

CameraDescription cameraOfFrame(const GraphDescription& graph, int frame,
                                const std::vector<QVector3D>& points)
{
    if (!graph.camera) {
        return fitCamera(points, graph.viewport);
    }
    if (!graph.camera->orbit) {
        return *graph.camera;
    }
    const double position = graph.animation ? static_cast<double>(frame) / graph.animation->frames : 0.0;
    return orbitCamera(*graph.camera, position * static_cast<double>(graph.camera->orbit->turns),
                       graph.viewport, usablePoints(points));
}

} // namespace Morvane::Qel
