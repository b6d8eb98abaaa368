#include <Qel/graph/FittedCamera.h>

#include <QtMath>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

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

/// The points along one axis of the image. The eye is as near as the image's two edges allow, both of which
/// touch the points from outside.
class Span
{
public:
    explicit Span(float edgeTangent)
        : m_tangent(edgeTangent)
    {
    }

    /// Adds a point by its place along the axis and towards the eye.
    void add(float along, float nearer)
    {
        m_points.push_back({along, nearer});
        m_high = std::max(m_high, along + m_tangent * nearer);
        m_low = std::min(m_low, along - m_tangent * nearer);
    }

    /// The least distance of the eye.
    float distance() const { return (m_high - m_low) / (2.0F * m_tangent); }

    /// The place of the eye from which the points are in the middle of the image.
    float eye(float distance) const
    {
        // The points touch one edge from each end of this interval.
        float begin = m_high - m_tangent * distance;
        float end = m_low + m_tangent * distance;
        for (int i = 0; i < 12; ++i) {
            const float middle = 0.5F * (begin + end);
            Interval image;
            for (const auto& [along, nearer] : m_points) {
                image.include((along - middle) / (distance - nearer));
            }
            (image.center() > 0.0F ? begin : end) = middle;
        }
        return 0.5F * (begin + end);
    }

private:
    float m_tangent;
    std::vector<std::pair<float, float>> m_points;
    float m_low = std::numeric_limits<float>::infinity();
    float m_high = -std::numeric_limits<float>::infinity();
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
    Span horizontal(tangent * static_cast<float>(viewport.width()) / static_cast<float>(viewport.height()));
    Span vertical(tangent);
    Interval depth;
    for (const QVector3D& p : points) {
        const QVector3D offset = p - box.center;
        const float nearer = QVector3D::dotProduct(offset, towardsEye);
        horizontal.add(QVector3D::dotProduct(offset, right), nearer);
        vertical.add(QVector3D::dotProduct(offset, up), nearer);
        depth.include(nearer);
    }
    // Not close to what reaches out towards the eye, which would be much too large beside the rest.
    const float nearest = depth.high + 0.3F * box.half.length();
    const float distance = std::max({horizontal.distance(), vertical.distance(), nearest});
    camera.target = box.center + horizontal.eye(distance) * right + vertical.eye(distance) * up;
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
