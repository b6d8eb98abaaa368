#include <Qel/model/WorldBounds.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace Morvane::Qel {

namespace {

/// Cells of the grid along each axis. The screen area of the parts of common models is a fifth to a quarter
/// smaller than that of one box; finer grids gain little more.
constexpr int gridSize = 3;

QMatrix4x4 absolute(QMatrix4x4 matrix)
{
    std::transform(matrix.constData(), matrix.constData() + 16, matrix.data(),
                   [](float value) { return std::abs(value); });
    return matrix;
}

QVector3D absolute(const QVector3D& v)
{
    return {std::abs(v.x()), std::abs(v.y()), std::abs(v.z())};
}

size_t cellOf(const QVector3D& position, const BoundingBox& box)
{
    size_t cell = 0;
    for (int axis = 0; axis < 3; ++axis) {
        const float length = box.upper()[axis] - box.lower()[axis];
        const float place = (position[axis] - box.lower()[axis]) / length * gridSize;
        // False also for positions and lengths that are no usable numbers.
        const int index = place > 0.0F ? static_cast<int>(std::min(place, gridSize - 1.0F)) : 0;
        cell = cell * gridSize + static_cast<size_t>(index);
    }
    return cell;
}

} // namespace

void WorldBounds::add(const std::vector<QVector3D>& positions, const QMatrix4x4& transform)
{
    m_meshes.push_back({&positions, transform});
    for (const QVector3D& position : positions) {
        m_box.add(transform.map(position));
    }
}

std::vector<QPair<QVector3D, QVector3D>> WorldBounds::parts() const
{
    // A few units in the last place of the largest term of the sums.
    constexpr float precision = 8.0F * std::numeric_limits<float>::epsilon();
    std::array<BoundingBox, gridSize * gridSize * gridSize> cells;
    for (const Mesh& mesh : m_meshes) {
        const QMatrix4x4 magnitudes = absolute(mesh.transform);
        for (const QVector3D& position : *mesh.positions) {
            const QVector3D p = mesh.transform.map(position);
            const QVector3D error = precision * magnitudes.map(absolute(position));
            cells[cellOf(p, m_box)].add(p - error, p + error);
        }
    }
    std::vector<QPair<QVector3D, QVector3D>> parts;
    for (const BoundingBox& cell : cells) {
        if (!cell.isEmpty()) {
            parts.push_back(cell.corners());
        }
    }
    return parts;
}

} // namespace Morvane::Qel
