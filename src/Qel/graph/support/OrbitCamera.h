#pragma once

#include <QVector3D>

#include <vector>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// The camera of a frame: the graph's, at its place in its orbit if it has one, or one fitted to `points`,
/// the outline of the models.
CameraDescription cameraOfFrame(const GraphDescription& graph, int frame,
                                const std::vector<QVector3D>& points);

} // namespace Morvane::Qel
