#include "support/Models.h"

#include <algorithm>
#include <cmath>

namespace Morvane::Qel::Test {

MeshData makeSquare()
{
    MeshData square;
    square.positions = {{-0.5F, -0.5F, 0}, {0.5F, -0.5F, 0}, {0.5F, 0.5F, 0}, {-0.5F, 0.5F, 0}};
    square.normals.assign(4, {0, 0, 1});
    square.texCoords = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    square.indices = {0, 1, 2, 0, 2, 3};
    return square;
}

MeshData makeCube()
{
    MeshData cube;
    for (int axis = 0; axis < 3; ++axis) {
        for (const float side : {-0.5F, 0.5F}) {
            QVector3D normal;
            normal[axis] = 2.0F * side;
            QVector3D right;
            right[(axis + 1) % 3] = 0.5F;
            const QVector3D up = QVector3D::crossProduct(normal, right);
            const auto first = static_cast<unsigned int>(cube.positions.size());
            for (const QVector2D& corner :
                 {QVector2D(-1, -1), QVector2D(1, -1), QVector2D(-1, 1), QVector2D(1, 1)}) {
                cube.positions.push_back(0.5F * normal + corner.x() * right + corner.y() * up);
                cube.normals.push_back(normal);
                cube.texCoords.push_back((corner + QVector2D(1, 1)) / 2.0F);
            }
            for (const unsigned int offset : {0U, 1U, 2U, 2U, 1U, 3U}) {
                cube.indices.push_back(first + offset);
            }
        }
    }
    return cube;
}

std::unique_ptr<GPUModel> makeCubeModel()
{
    ModelData data;
    data.meshes = {makeCube()};
    data.materials.emplace_back();
    data.materials[0].kd = {1.0F, 1.0F, 1.0F};
    data.instances.emplace_back();
    return std::make_unique<GPUModel>(data);
}

QVector3D blinnPhong(const MaterialData& material, const QVector3D& normal)
{
    const QVector3D light = QVector3D(1, 1, 1).normalized();
    const QVector3D half = (light + QVector3D(0, 0, 1)).normalized();
    const float diffuse = std::max(0.0F, QVector3D::dotProduct(normal, light));
    const float specular = std::max(0.0F, QVector3D::dotProduct(normal, half));
    return diffuse * material.kd + std::pow(specular, material.ns) * material.ks;
}

} // namespace Morvane::Qel::Test
