#include <Qel/graph/support/Camera.h>

#include <QtMath>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

float aspectRatio(const QSize& viewport)
{
    return static_cast<float>(viewport.width()) / static_cast<float>(viewport.height());
}

} // namespace

CameraDescription fitCamera(const QPair<QVector3D, QVector3D>& bounds, const QSize& viewport)
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

    CameraDescription camera;
    const QVector3D towardsEye = QVector3D(0.6F, 0.45F, 1.0F).normalized();
    const QVector3D right = QVector3D::crossProduct(camera.up, towardsEye).normalized();
    const QVector3D up = QVector3D::crossProduct(towardsEye, right);
    constexpr float margin = 1.05F;
    const float tangentY = std::tan(qDegreesToRadians(camera.fovY) / 2.0F);
    const float tangentX = tangentY * aspectRatio(viewport);
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
    // In front of the box, but far enough from the eye for the resolution of the depth buffer.
    camera.nearPlane = std::max(0.9F * (distance - depth), 1e-3F * camera.farPlane);
    return camera;
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
