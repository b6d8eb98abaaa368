#pragma once

#include <QSize>
#include <QVector3D>

#include <vector>

#include <Qel/graph/Export.h>
#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// The direction from which a fitted camera looks: from the front, slightly from the right and from above.
inline constexpr QVector3D fittedViewpoint{0.6F, 0.45F, 1.0F};

/// The part of the image's width or height that points span to which a camera is fitted.
inline constexpr float fittedPart = 0.94F;

/// Returns a perspective camera that shows all points, such as outlineOf(model), as large as a margin of 3 %
/// of the image on each side allows. It looks from `viewpoint` towards the points, which must not be parallel
/// to the y axis. Its clipping planes are close around the points. Without finite points, it shows the box
/// from -1 to 1.
QEL_GRAPH_EXPORT CameraDescription fitCamera(const std::vector<QVector3D>& points, const QSize& viewport,
                                             const QVector3D& viewpoint = fittedViewpoint);

/// Moves the clipping planes of a perspective camera close around points in front of it.
QEL_GRAPH_EXPORT void fitPlanes(CameraDescription& camera, const std::vector<QVector3D>& points);

} // namespace Morvane::Qel
