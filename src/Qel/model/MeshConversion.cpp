#include <Qel/model/MeshConversion.h>

#include <QHashFunctions>

#include <algorithm>
#include <array>
#include <cmath>
#include <unordered_map>

#include <assimp/mesh.h>

#include <Qel/model/AssimpTypes.h>

namespace Morvane::Qel {

namespace {

/// Returns the unit vector along `v`, however short `v` is; zero if it has no direction.
QVector3D direction(const QVector3D& v)
{
    const double length = std::hypot(double(v.x()), double(v.y()), double(v.z()));
    if (length == 0.0 || !std::isfinite(length)) {
        return {};
    }
    return {static_cast<float>(v.x() / length), static_cast<float>(v.y() / length),
            static_cast<float>(v.z() / length)};
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
        const Vertex vertex{position.x(), position.y(), position.z(), normal.x(),
                            normal.y(),   normal.z(),   texCoord.x(), texCoord.y()};
        const auto [entry, isNew] =
            m_indices.try_emplace(vertex, static_cast<unsigned int>(m_mesh.positions.size()));
        if (isNew) {
            m_mesh.positions.push_back(position);
            m_mesh.normals.push_back(normal);
            m_mesh.texCoords.push_back(texCoord);
        }
        return entry->second;
    }

private:
    using Vertex = std::array<float, 8>;
    struct Hash
    {
        size_t operator()(const Vertex& vertex) const { return qHashRange(vertex.begin(), vertex.end()); }
    };

    MeshData& m_mesh;
    std::unordered_map<Vertex, unsigned int, Hash> m_indices;
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
        mesh.normals[i] = direction(mesh.normals[i]);
        if (mesh.normals[i].isNull()) {
            mesh.normals[i] = QVector3D(0.0F, 0.0F, 1.0F);
        }
    }
}

} // namespace

MeshData convertMesh(const aiMesh& source, int texCoordSet, int& numInvalidTriangles)
{
    MeshData mesh;
    mesh.name = toQt(source.mName);
    if ((source.mPrimitiveTypes & aiPrimitiveType_TRIANGLE) == 0 || !source.HasPositions()) {
        return mesh;
    }
    const bool hasSet = texCoordSet >= 0 && source.HasTextureCoords(static_cast<unsigned int>(texCoordSet));
    const aiVector3D* texCoords = source.mTextureCoords[hasSet ? texCoordSet : 0];
    VertexJoiner vertices(mesh);
    for (unsigned int f = 0; f < source.mNumFaces; ++f) {
        const aiFace& face = source.mFaces[f];
        if (face.mNumIndices != 3) {
            continue;
        }
        if (!std::all_of(face.mIndices, face.mIndices + 3, [&source](unsigned int i) {
                return i < source.mNumVertices && isFinite(source.mVertices[i]);
            })) {
            ++numInvalidTriangles;
            continue;
        }
        const aiVector3D& a = source.mVertices[face.mIndices[0]];
        const aiVector3D& b = source.mVertices[face.mIndices[1]];
        const aiVector3D& c = source.mVertices[face.mIndices[2]];
        if (a == b || b == c || c == a) {
            continue;
        }
        for (const unsigned int* i = face.mIndices; i != face.mIndices + 3; ++i) {
            const bool hasNormal = source.HasNormals() && isFinite(source.mNormals[*i]);
            const bool hasTexCoord = texCoords != nullptr && isFinite(texCoords[*i]);
            mesh.indices.push_back(vertices.index(
                toQt(source.mVertices[*i]), hasNormal ? direction(toQt(source.mNormals[*i])) : QVector3D(),
                hasTexCoord ? QVector2D(texCoords[*i].x, texCoords[*i].y) : QVector2D()));
        }
    }
    repairNormals(mesh);
    return mesh;
}

} // namespace Morvane::Qel
