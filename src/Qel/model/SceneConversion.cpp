#include <Qel/model/SceneConversion.h>

#include <utility>

#include <assimp/material.h>
#include <assimp/scene.h>

#include <Qel/model/AssimpTypes.h>
#include <Qel/model/MaterialConversion.h>
#include <Qel/model/MeshConversion.h>
#include <Qel/model/ShapeTransform.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Returns the set of texture coordinates that a mesh's diffuse map uses.
int diffuseTexCoordSet(const aiScene& scene, const aiMesh& mesh)
{
    int set = 0;
    if (mesh.mMaterialIndex < scene.mNumMaterials) {
        const aiMaterial& material = *scene.mMaterials[mesh.mMaterialIndex];
        if (material.Get(AI_MATKEY_UVWSRC(aiTextureType_DIFFUSE, 0), set) != aiReturn_SUCCESS) {
            material.Get(AI_MATKEY_UVWSRC(aiTextureType_BASE_COLOR, 0), set);
        }
    }
    return set;
}

/// Converts the meshes of a scene, each once for every shape that its instances give it.
class Meshes
{
public:
    Meshes(const aiScene& scene, const std::optional<MaterialLibraries>& libraries, ImportedScene& result)
        : m_scene(scene)
        , m_result(result)
        , m_materials(scene, libraries, result)
        , m_variants(scene.mNumMeshes)
    {
    }

    /// Returns the index in the result of the scene's mesh `source` in a shape; -1 if it has no triangles.
    int index(unsigned int source, const ShapeTransform& shape)
    {
        if (source >= m_variants.size()) {
            return -1;
        }
        for (const Variant& variant : m_variants[source]) {
            if (variant.shape.isClose(shape)) {
                return variant.index;
            }
        }
        const int index = convert(*m_scene.mMeshes[source], shape);
        m_variants[source].push_back({shape, index});
        return index;
    }

    int numInvalidTriangles() const { return m_numInvalidTriangles; }

private:
    struct Variant
    {
        ShapeTransform shape;
        int index;
    };

    int convert(const aiMesh& source, const ShapeTransform& shape)
    {
        MeshData mesh =
            convertMesh(source, shape, diffuseTexCoordSet(m_scene, source), m_numInvalidTriangles);
        if (mesh.indices.empty()) {
            return -1;
        }
        mesh.material = m_materials.convert(source.mMaterialIndex);
        m_result.meshes.push_back(std::move(mesh));
        return static_cast<int>(m_result.meshes.size()) - 1;
    }

    const aiScene& m_scene;
    ImportedScene& m_result;
    MaterialConversion m_materials;
    std::vector<std::vector<Variant>> m_variants;
    int m_numInvalidTriangles = 0;
};

/// Adds an instance for each mesh of each node. Returns the number of instances left out because their
/// transform is not finite.
int convertNodes(const aiScene& scene, Meshes& meshes, ImportedScene& result)
{
    int numInvalid = 0;
    // An explicit stack, because the file decides how deep the hierarchy is.
    std::vector<std::pair<const aiNode*, QMatrix4x4>> stack;
    stack.emplace_back(scene.mRootNode, QMatrix4x4());
    while (!stack.empty()) {
        const auto [node, parent] = stack.back();
        stack.pop_back();
        // Some of Assimp's readers count children that they never create.
        if (node == nullptr) {
            continue;
        }
        const QMatrix4x4 transform = parent * toQt(node->mTransformation);
        const SplitTransform parts = split(transform);
        for (unsigned int i = 0; i < node->mNumMeshes; ++i) {
            if (!isFinite(transform)) {
                ++numInvalid;
            } else if (const int mesh = meshes.index(node->mMeshes[i], parts.shape); mesh >= 0) {
                result.instances.push_back({mesh, parts.motion});
            }
        }
        for (unsigned int i = node->mNumChildren; i > 0; --i) {
            stack.emplace_back(node->mChildren[i - 1], transform);
        }
    }
    return numInvalid;
}

} // namespace

ImportedScene convertScene(const aiScene& scene, const QString& path,
                           const std::optional<MaterialLibraries>& libraries)
{
    ImportedScene result;
    Meshes meshes(scene, libraries, result);
    const int numInvalidInstances = convertNodes(scene, meshes, result);
    const int numInvalidTriangles = meshes.numInvalidTriangles();
    if (numInvalidTriangles > 0) {
        result.warnings << u"%1: skipped %2 triangles with invalid corners"_s.arg(
            path, QString::number(numInvalidTriangles));
    }
    if (numInvalidInstances > 0) {
        result.warnings << u"%1: skipped %2 objects with transforms that are not finite"_s.arg(
            path, QString::number(numInvalidInstances));
    }
    if (result.instances.empty()) {
        result.error = u"it contains no triangles"_s;
    }
    return result;
}

} // namespace Morvane::Qel
