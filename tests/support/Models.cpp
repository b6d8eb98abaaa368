#include "support/Models.h"

#include <algorithm>
#include <cmath>
#include <numbers>

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

MeshData makeSphere(int columns, int rows)
{
    constexpr float pi = std::numbers::pi_v<float>;
    MeshData sphere;
    for (int row = 0; row <= rows; ++row) {
        for (int column = 0; column <= columns; ++column) {
            const float u = static_cast<float>(column) / static_cast<float>(columns);
            const float v = static_cast<float>(row) / static_cast<float>(rows);
            const float longitude = 2.0F * pi * u;
            sphere.positions.emplace_back(std::sin(pi * v) * std::sin(longitude), -std::cos(pi * v),
                                          std::sin(pi * v) * std::cos(longitude));
            sphere.texCoords.emplace_back(u, v);
            if (row < rows && column < columns) {
                const int first = row * (columns + 1) + column;
                for (const int offset : {0, 1, columns + 1, columns + 1, 1, columns + 2}) {
                    sphere.indices.push_back(static_cast<unsigned int>(first + offset));
                }
            }
        }
    }
    sphere.normals = sphere.positions;
    return sphere;
}

int addObject(ModelData& data, MeshData mesh, const MaterialData& material, const QMatrix4x4& transform)
{
    mesh.material = static_cast<int>(data.materials.size());
    data.materials.push_back(material);
    data.instances.push_back({static_cast<int>(data.meshes.size()), transform});
    data.meshes.push_back(std::move(mesh));
    return static_cast<int>(data.instances.size()) - 1;
}

ModelData makeModelData(const MeshData& mesh, const MaterialData& material, const QMatrix4x4& transform)
{
    ModelData data;
    addObject(data, mesh, material, transform);
    return data;
}

std::unique_ptr<GPUModel> makeCubeModel()
{
    MaterialData white;
    white.kd = {1.0F, 1.0F, 1.0F};
    return std::make_unique<GPUModel>(makeModelData(makeCube(), white));
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
