#pragma once

#include <QMatrix4x4>
#include <QPair>
#include <QVector3D>

#include <vector>

#include <Qel/model/BoundingBox.h>

namespace Morvane::Qel {

/// The space that meshes take in the world.
class WorldBounds
{
public:
    /// Adds the positions of a mesh, which must outlive this object.
    void add(const std::vector<QVector3D>& positions, const QMatrix4x4& transform);
    const BoundingBox& box() const { return m_box; }
    /// Returns boxes that together hold all positions: those of the occupied cells of a grid over box(), each
    /// no larger than needed. They have room for the rounding errors with which programs transform positions.
    std::vector<QPair<QVector3D, QVector3D>> parts() const;

private:
    struct Mesh
    {
        const std::vector<QVector3D>* positions;
        QMatrix4x4 transform;
    };
    std::vector<Mesh> m_meshes;
    BoundingBox m_box;
};

} // namespace Morvane::Qel
