#pragma once

#include <memory>

#include <Qel/model/GPUModel.h>

namespace Morvane::Qel::Test {

/// The cube from -0.5 to 0.5, four vertices a face, with a texture coordinate of 0 to 1 on every face.
MeshData makeCube();

/// A model of one opaque, white cube.
std::unique_ptr<GPUModel> makeCubeModel();

} // namespace Morvane::Qel::Test
