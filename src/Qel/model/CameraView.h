#pragma once

#include <QMatrix4x4>
#include <QVector3D>

#include <array>
#include <optional>

namespace Morvane::Qel {

/// A camera's view volume, in camera space.
struct CameraView
{
    QMatrix4x4 toWorld;
    /// The largest factor by which toWorld scales a length.
    float scale;
    /// Distances along the view direction.
    float nearDepth;
    float farDepth;
    /// Corners with equal index lie on one edge of the volume.
    std::array<QVector3D, 4> nearCorners;
    std::array<QVector3D, 4> farCorners;
};

/// Returns nothing if a matrix is null, or the two do not describe a view volume of usable size.
std::optional<CameraView> makeCameraView(const QMatrix4x4* projection, const QMatrix4x4* camera);

struct Sphere
{
    QVector3D center;
    float radius;
};

/// Returns the world-space bounding sphere of the view volume between two depths. Its radius depends on
/// neither the position nor the direction of the camera.
Sphere sphereAround(const CameraView& view, float nearDepth, float farDepth);

} // namespace Morvane::Qel
