#pragma once

#include <QByteArray>
#include <QPointF>
#include <QVector3D>

#include <optional>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel::Viewer {

/// \name Motions
/// Distances on the screen are in heights of the picture, so that speed does not depend on its size.
/// @{

/// Turns the eye around the target: half a turn for each height. The up vector stays.
CameraDescription orbit(const CameraDescription& camera, const QPointF& drag);
/// Moves eye and target sideways, so that the target follows the mouse.
CameraDescription pan(const CameraDescription& camera, const QPointF& drag);
/// Moves the eye towards the target: the distance is multiplied by a factor.
CameraDescription dolly(const CameraDescription& camera, float factor);
/// Moves eye and target; x goes right, y up and z forward, in distances from eye to target.
CameraDescription fly(const CameraDescription& camera, const QVector3D& step);
/// Turns the view direction and keeps the eye.
CameraDescription look(const CameraDescription& camera, const QPointF& drag);
/// Looks at the target of a camera along an axis, such as (0, 0, -1), from the same distance.
CameraDescription alongAxis(const CameraDescription& camera, const QVector3D& direction);
/// @}

/// Widens the clipping planes so that they contain what the fitted camera shows.
CameraDescription withPlanesFor(const CameraDescription& camera, const CameraDescription& fitted);

/// The camera as the value of "camera" in a graph file.
QByteArray cameraToJson(const CameraDescription& camera);
/// Reads what cameraToJson writes, also with the key "camera" around or before it. Returns nothing, with one
/// line in `error`, for anything else.
std::optional<CameraDescription> cameraFromJson(const QByteArray& text, QString* error);

/// What is wrong with a camera; empty for a valid one.
QString cameraError(const CameraDescription& camera);

} // namespace Morvane::Qel::Viewer
