#pragma once

#include <QMatrix4x4>
#include <QPair>
#include <QSize>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// A camera that sees a box whole from the front, a little from the right and from above. Boxes without
/// extent or with corners that are not numbers get a camera that is as good as any.
CameraDescription fitCamera(const QPair<QVector3D, QVector3D>& bounds, const QSize& viewport);

/// What is wrong with the size of a picture when `limit` is the driver's, 0 for an unknown one; empty when
/// nothing is.
QString viewportFault(const QSize& size, int limit);

/// Camera space to clip space.
QMatrix4x4 projectionMatrix(const CameraDescription& camera, const QSize& viewport);

/// World space to camera space.
QMatrix4x4 cameraMatrix(const CameraDescription& camera);

} // namespace Morvane::Qel
