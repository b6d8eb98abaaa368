#pragma once

#include <memory>

#include <Qel/model/GPUModel.h>

namespace Morvane::Qel::Test {

/// The square from -0.5 to 0.5 in the plane z = 0, facing +z, with texture coordinates from 0 to 1.
MeshData makeSquare();

/// The cube from -0.5 to 0.5 with texture coordinates from 0 to 1 on each face. Triangles 2 f and 2 f + 1 are
/// face f of -x, +x, -y, +y, -z, +z.
MeshData makeCube();

/// The sphere of radius 1 around the origin, smooth, with texture coordinates by longitude and latitude.
MeshData makeSphere(int columns = 24, int rows = 16);

/// Adds a mesh with a material and an instance of its own; returns the index of the instance, which is also
/// the batch of the GPUModel.
int addObject(ModelData& data, MeshData mesh, const MaterialData& material = {},
              const QMatrix4x4& transform = {});
/// Makes a model of one object.
ModelData makeModelData(const MeshData& mesh, const MaterialData& material = {},
                        const QMatrix4x4& transform = {});

/// A model of one opaque, white cube.
std::unique_ptr<GPUModel> makeCubeModel();

/// The colour that the forward and deferred passes give a material without maps, for a normal in eye space.
QVector3D blinnPhong(const MaterialData& material, const QVector3D& normal);

} // namespace Morvane::Qel::Test
