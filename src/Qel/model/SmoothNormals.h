#pragma once

#include <vector>

#include <assimp/types.h>

struct aiMesh;

namespace Morvane::Qel {

/// Makes normals for the vertices of a mesh: the sum of the unit normals of all triangles that have a corner
/// at the same position. Zero where there is none.
std::vector<aiVector3D> smoothNormals(const aiMesh& mesh);

} // namespace Morvane::Qel
