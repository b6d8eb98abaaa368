#pragma once

#include <QPair>
#include <QRect>
#include <QVector3D>

#include <vector>

class QMatrix4x4;

namespace Morvane::Qel {

/// Returns a rectangle of pixels, x and y from the lower left, that holds everything whose vertices lie in
/// these boxes (lower and upper corner, in world space; see GPUModel::partBounds). It is the whole image of
/// `size` pixels if a box reaches behind the eye or is not finite, and empty if all boxes lie beyond the same
/// side of the image.
QRect coveredPixels(const std::vector<QPair<QVector3D, QVector3D>>& boxes, const QMatrix4x4& projection,
                    const QMatrix4x4& camera, const QSize& size);

} // namespace Morvane::Qel
