#pragma once

#include <Qel/model/ModelImport.h>

struct aiMesh;

namespace Morvane::Qel {

class ShapeTransform;

/// Converts a mesh's triangles, changed by `shape`, with equal vertices joined and every normal of unit
/// length. `texCoordSet` is the set of texture coordinates to take; a set that the mesh lacks is replaced by
/// set 0. Leaves out degenerate triangles, and adds those with invalid corners to `numInvalidTriangles`. The
/// material is left for the caller to set.
MeshData convertMesh(const aiMesh& source, const ShapeTransform& shape, int texCoordSet,
                     int& numInvalidTriangles);

} // namespace Morvane::Qel
