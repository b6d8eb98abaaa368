#pragma once

#include <QMatrix4x4>
#include <QPair>
#include <QSize>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// A camera that shows a whole bounding box from the front, slightly from the right and from above. An empty
/// box, or one with corners that are not finite, gives an arbitrary valid camera.
CameraDescription fitCamera(const QPair<QVector3D, QVector3D>& bounds, const QSize& viewport);

/// The camera of a frame: the graph's, at its place in its orbit if it has one, or one fitted to the box
/// around the models.
CameraDescription cameraOfFrame(const GraphDescription& graph, int frame,
                                const QPair<QVector3D, QVector3D>& bounds);

/// The error message for a viewport size, empty for a valid one. `limit` is the driver's maximum texture
/// size, 0 if it is not known yet.
QString viewportError(const QSize& size, int limit = 0);

/// Camera space to clip space.
QMatrix4x4 projectionMatrix(const CameraDescription& camera, const QSize& viewport);

/// World space to camera space.
QMatrix4x4 cameraMatrix(const CameraDescription& camera);

} // namespace Morvane::Qel
