#include <Qel/graph/support/Camera.h>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

float aspectRatio(const QSize& viewport)
{
    return static_cast<float>(viewport.width()) / static_cast<float>(viewport.height());
}

} // namespace

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
    if (camera.height) {
        const float halfHeight = *camera.height / 2.0F;
        const float halfWidth = halfHeight * aspectRatio(viewport);
        matrix.ortho(-halfWidth, halfWidth, -halfHeight, halfHeight, camera.nearPlane, camera.farPlane);
    } else {
        matrix.perspective(camera.fovY, aspectRatio(viewport), camera.nearPlane, camera.farPlane);
    }
    return matrix;
}

QMatrix4x4 cameraMatrix(const CameraDescription& camera)
{
    QMatrix4x4 matrix;
    matrix.lookAt(camera.eye, camera.target, camera.up);
    return matrix;
}

} // namespace Morvane::Qel
