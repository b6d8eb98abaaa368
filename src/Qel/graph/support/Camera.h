#pragma once

#include <QMatrix4x4>
#include <QSize>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// The error message for a viewport size, empty for a valid one. `limit` is the driver's maximum texture
/// size, 0 if it is not known yet.
QString viewportError(const QSize& size, int limit = 0);

/// Camera space to clip space.
QMatrix4x4 projectionMatrix(const CameraDescription& camera, const QSize& viewport);

/// World space to camera space.
QMatrix4x4 cameraMatrix(const CameraDescription& camera);

} // namespace Morvane::Qel
