#include <Qel/model/SmoothNormals.h>

#include <algorithm>

#include <assimp/mesh.h>

#include <Qel/model/AssimpTypes.h>
#include <Qel/model/DistinctVectors.h>

namespace Morvane::Qel {

std::vector<aiVector3D> smoothNormals(const aiMesh& mesh)
{
    DistinctVectors<3> positions;
    std::vector<unsigned int> places(mesh.mNumVertices);
    std::transform(mesh.mVertices, mesh.mVertices + mesh.mNumVertices, places.begin(),
                   [&](const aiVector3D& v) {
                       return positions.add({v.x, v.y, v.z});
                   });
    std::vector<aiVector3D> sums(positions.size());
    for (unsigned int f = 0; f < mesh.mNumFaces; ++f) {
        const unsigned int* corners = mesh.mFaces[f].mIndices;
        if (mesh.mFaces[f].mNumIndices != 3 ||
            std::any_of(corners, corners + 3, [&](unsigned int v) { return v >= mesh.mNumVertices; })) {
            continue;
        }
        const aiVector3D& a = mesh.mVertices[corners[0]];
        aiVector3D normal = (mesh.mVertices[corners[1]] - a) ^ (mesh.mVertices[corners[2]] - a);
        normal.NormalizeSafe();
        if (isFinite(normal)) {
            for (int i = 0; i < 3; ++i) {
                sums[places[corners[i]]] += normal;
            }
        }
    }
    std::vector<aiVector3D> normals(mesh.mNumVertices);
    std::transform(places.begin(), places.end(), normals.begin(),
                   [&](unsigned int place) { return sums[place]; });
    return normals;
}

} // namespace Morvane::Qel
