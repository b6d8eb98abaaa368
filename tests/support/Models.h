#pragma once

#include <memory>

#include <Qel/model/GPUModel.h>

namespace Morvane::Qel::Test {

/// A square of 1 x 1 around the origin in the plane z = 0, facing +z.
MeshData makeSquare();

/// The cube from -0.5 to 0.5, four vertices a face, with a texture coordinate of 0 to 1 on every face.
MeshData makeCube();

/// A model of one opaque, white cube.
std::unique_ptr<GPUModel> makeCubeModel();

/// The colour of a material without maps in the light of the passes that shade models, by its normal in eye
/// space.
QVector3D blinnPhong(const MaterialData& material, const QVector3D& normal);

} // namespace Morvane::Qel::Test
