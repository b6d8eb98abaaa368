#include <Qel/model/MeshConversion.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include <assimp/mesh.h>

#include <Qel/model/AssimpTypes.h>
#include <Qel/model/DistinctVectors.h>
#include <Qel/model/ShapeTransform.h>
#include <Qel/model/SmoothNormals.h>

namespace Morvane::Qel {

namespace {

using Vector = ShapeTransform::Vector;

/// Converts to single precision; what does not fit becomes infinite.
aiVector3D toFloat(const Vector& v)
{
    return {static_cast<float>(v.x), static_cast<float>(v.y), static_cast<float>(v.z)};
}

/// Returns the unit vector along `v`, however short `v` is; zero if it has no direction.
QVector3D direction(const Vector& v)
{
    const double length = std::hypot(v.x, v.y, v.z);
    return length == 0.0 || !std::isfinite(length) ? QVector3D() : toQt(toFloat(v / length));
}

/// Adds vertices to a mesh, each distinct vertex once. Assimp's own step for this also joins vertices that
/// are only close to each other, within a fixed distance that ruins models with small units.
class VertexJoiner
{
public:
    explicit VertexJoiner(MeshData& mesh)
        : m_mesh(mesh)
    {
    }

    /// Returns the index of the vertex in the mesh.
    unsigned int index(const QVector3D& position, const QVector3D& normal, const QVector2D& texCoord)
    {
        const unsigned int index = m_vertices.add({position.x(), position.y(), position.z(), normal.x(),
                                                   normal.y(), normal.z(), texCoord.x(), texCoord.y()});
        if (index == m_mesh.positions.size()) {
            m_mesh.positions.push_back(position);
            m_mesh.normals.push_back(normal);
            m_mesh.texCoords.push_back(texCoord);
        }
        return index;
    }

private:
    MeshData& m_mesh;
    DistinctVectors<8> m_vertices;
};

/// Replaces zero normals by the area-weighted mean of the adjacent triangles' normals.
void repairNormals(MeshData& mesh)
{
    std::vector<bool> isBroken(mesh.normals.size());
    std::transform(mesh.normals.begin(), mesh.normals.end(), isBroken.begin(),
                   [](const QVector3D& normal) { return normal.isNull(); });
    if (std::find(isBroken.begin(), isBroken.end(), true) == isBroken.end()) {
        return;
    }
    for (size_t i = 0; i < mesh.indices.size(); i += 3) {
        const QVector3D& a = mesh.positions[mesh.indices[i]];
        const QVector3D normal = QVector3D::crossProduct(mesh.positions[mesh.indices[i + 1]] - a,
                                                         mesh.positions[mesh.indices[i + 2]] - a);
        for (size_t corner = i; corner < i + 3; ++corner) {
            if (isBroken[mesh.indices[corner]]) {
                mesh.normals[mesh.indices[corner]] += normal;
            }
        }
    }
    for (size_t i = 0; i < mesh.normals.size(); ++i) {
        if (!isBroken[i]) {
            continue;
        }
        const QVector3D& sum = mesh.normals[i];
        mesh.normals[i] = direction({double(sum.x()), double(sum.y()), double(sum.z())});
        if (mesh.normals[i].isNull()) {
            mesh.normals[i] = QVector3D(0.0F, 0.0F, 1.0F);
        }
    }
}

} // namespace

MeshData convertMesh(const aiMesh& source, const ShapeTransform& shape, int texCoordSet,
                     int& numInvalidTriangles)
{
    MeshData mesh;
    mesh.name = toQt(source.mName);
    if ((source.mPrimitiveTypes & aiPrimitiveType_TRIANGLE) == 0 || !source.HasPositions()) {
        return mesh;
    }
    const bool hasSet = texCoordSet >= 0 && source.HasTextureCoords(static_cast<unsigned int>(texCoordSet));
    const aiVector3D* texCoords = source.mTextureCoords[hasSet ? texCoordSet : 0];
    const std::vector<aiVector3D> smooth =
        source.HasNormals() ? std::vector<aiVector3D>() : smoothNormals(source);
    const aiVector3D* normals = source.HasNormals() ? source.mNormals : smooth.data();
    VertexJoiner vertices(mesh);
    for (unsigned int f = 0; f < source.mNumFaces; ++f) {
        const aiFace& face = source.mFaces[f];
        if (face.mNumIndices != 3) {
            continue;
        }
        std::array<unsigned int, 3> corners{face.mIndices[0], face.mIndices[1], face.mIndices[2]};
        if (shape.isMirrored()) {
            std::swap(corners[1], corners[2]);
        }
        std::array<aiVector3D, 3> positions;
        bool isValid = true;
        for (size_t i = 0; i < 3 && isValid; ++i) {
            if (corners[i] < source.mNumVertices) {
                positions[i] = toFloat(shape.position(source.mVertices[corners[i]]));
            }
            isValid = corners[i] < source.mNumVertices && isFinite(positions[i]);
        }
        if (!isValid) {
            ++numInvalidTriangles;
            continue;
        }
        if (positions[0] == positions[1] || positions[1] == positions[2] || positions[2] == positions[0]) {
            continue;
        }
        for (size_t i = 0; i < 3; ++i) {
            const unsigned int corner = corners[i];
            const bool hasNormal = isFinite(normals[corner]);
            const bool hasTexCoord = texCoords != nullptr && isFinite(texCoords[corner]);
            mesh.indices.push_back(vertices.index(
                toQt(positions[i]), hasNormal ? direction(shape.normal(normals[corner])) : QVector3D(),
                hasTexCoord ? QVector2D(texCoords[corner].x, texCoords[corner].y) : QVector2D()));
        }
    }
    repairNormals(mesh);
    return mesh;
}

} // namespace Morvane::Qel
