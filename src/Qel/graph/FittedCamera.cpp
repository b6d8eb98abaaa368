#include <Qel/graph/FittedCamera.h>

#include <QtMath>

#include <algorithm>
#include <cmath>
#include <limits>

#include <Qel/graph/support/PointBounds.h>

namespace Morvane::Qel {

namespace {

void appendCorners(std::vector<QVector3D>& points, const QVector3D& center, float half)
{
    for (unsigned int corner = 0; corner < 8; ++corner) {
        points.push_back(center + QVector3D((corner & 1U) != 0 ? half : -half,
                                            (corner & 2U) != 0 ? half : -half,
                                            (corner & 4U) != 0 ? half : -half));
    }
}

/// Places the eye on one axis of the image: the lines of sight to the image's two edges touch the points from
/// outside.
struct Wedge
{
    explicit Wedge(float edgeTangent)
        : tangent(edgeTangent)
    {
    }
    /// Takes a point by its place along the axis and towards the eye.
    void include(float along, float nearer)
    {
        high = std::max(high, along + tangent * nearer);
        low = std::min(low, along - tangent * nearer);
    }
    float eye() const { return 0.5F * (low + high); }
    float distance() const { return (high - low) / (2.0F * tangent); }

    float tangent;
    float low = std::numeric_limits<float>::infinity();
    float high = -std::numeric_limits<float>::infinity();
};

} // namespace

CameraDescription fitCamera(const std::vector<QVector3D>& allPoints, const QSize& viewport,
                            const QVector3D& viewpoint)
{
    std::vector<QVector3D> points = usablePoints(allPoints);
    if (points.empty()) {
        appendCorners(points, {}, 1.0F);
    }
    Box box = boxAround(points);
    // Far from the origin, an extent below float's resolution would round the eye onto the target.
    const float smallest = std::max(1e-4F * box.center.length(), 1e-6F);
    if (box.half.length() < smallest) {
        appendCorners(points, box.center, smallest);
        box = boxAround(points);
    }

    CameraDescription camera;
    const QVector3D towardsEye = viewpoint.normalized();
    const QVector3D right = QVector3D::crossProduct(camera.up, towardsEye).normalized();
    const QVector3D up = QVector3D::crossProduct(towardsEye, right);
    const float tangent = fittedPart * std::tan(qDegreesToRadians(camera.fovY) / 2.0F);
    Wedge horizontal(tangent * static_cast<float>(viewport.width()) / static_cast<float>(viewport.height()));
    Wedge vertical(tangent);
    Interval depth;
    for (const QVector3D& p : points) {
        const QVector3D offset = p - box.center;
        const float nearer = QVector3D::dotProduct(offset, towardsEye);
        horizontal.include(QVector3D::dotProduct(offset, right), nearer);
        vertical.include(QVector3D::dotProduct(offset, up), nearer);
        depth.include(nearer);
    }
    // Not on a point that the model reaches out towards the eye.
    const float nearest = depth.high + 0.1F * box.half.length();
    const float distance = std::max({horizontal.distance(), vertical.distance(), nearest});
    camera.target = box.center + horizontal.eye() * right + vertical.eye() * up;
    camera.eye = camera.target + distance * towardsEye;
    fitPlanes(camera, points);
    return camera;
}

void fitPlanes(CameraDescription& camera, const std::vector<QVector3D>& points)
{
    const std::vector<QVector3D> usable = usablePoints(points);
    if (usable.empty()) {
        return;
    }
    const QVector3D forward = (camera.target - camera.eye).normalized();
    Interval depth;
    for (const QVector3D& p : usable) {
        depth.include(QVector3D::dotProduct(p - camera.eye, forward));
    }
    const float margin = 0.04F * boxAround(usable).half.length();
    camera.farPlane = depth.high + margin;
    // Far enough from the eye for the resolution of the depth buffer.
    camera.nearPlane = std::max(depth.low - margin, 1e-3F * camera.farPlane);
}

} // namespace Morvane::Qel
