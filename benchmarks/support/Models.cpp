#include "support/Models.h"

namespace Morvane::Qel::Bench {

ModelData makeSurface(unsigned int columns, unsigned int rows,
                      const std::function<SurfacePoint(float u, float v)>& point)
{
    ModelData data;
    MeshData& mesh = data.meshes.emplace_back();
    for (unsigned int column = 0; column <= columns; ++column) {
        for (unsigned int row = 0; row <= rows; ++row) {
            const SurfacePoint corner = point(static_cast<float>(column) / static_cast<float>(columns),
                                              static_cast<float>(row) / static_cast<float>(rows));
            mesh.positions.push_back(corner.position);
            mesh.normals.push_back(corner.normal);
            mesh.texCoords.push_back(corner.texCoord);
            if (column < columns && row < rows) {
                const unsigned int first = column * (rows + 1) + row;
                for (const unsigned int offset : {0U, 1U, rows + 1, rows + 1, 1U, rows + 2}) {
                    mesh.indices.push_back(first + offset);
                }
            }
        }
    }
    data.materials.emplace_back();
    data.instances.emplace_back();
    return data;
}

} // namespace Morvane::Qel::Bench
