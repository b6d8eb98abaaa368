#include <Qel/model/SceneConversion.h>

#include <utility>

#include <assimp/material.h>
#include <assimp/scene.h>

#include <Qel/model/AssimpTypes.h>
#include <Qel/model/MaterialConversion.h>
#include <Qel/model/MeshConversion.h>

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

/// Adds an instance for each mesh of each node. `meshes` maps the scene's meshes to the result's, -1 for
/// none. Returns the number of instances left out because their transform is not finite.
int convertNodes(const aiScene& scene, const std::vector<int>& meshes, ImportedScene& result)
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
        for (unsigned int i = 0; i < node->mNumMeshes; ++i) {
            const unsigned int index = node->mMeshes[i];
            if (index >= meshes.size() || meshes[index] < 0) {
                continue;
            }
            if (isFinite(transform)) {
                result.instances.push_back({meshes[index], transform});
            } else {
                ++numInvalid;
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
                           const std::optional<QSet<QString>>& materialsWithKd)
{
    ImportedScene result;
    MaterialConversion materials(scene, materialsWithKd, result);
    std::vector<int> meshes(scene.mNumMeshes, -1);
    int numInvalidTriangles = 0;
    for (unsigned int i = 0; i < scene.mNumMeshes; ++i) {
        const aiMesh& source = *scene.mMeshes[i];
        MeshData mesh = convertMesh(source, diffuseTexCoordSet(scene, source), numInvalidTriangles);
        if (mesh.indices.empty()) {
            continue;
        }
        mesh.material = materials.convert(source.mMaterialIndex);
        meshes[i] = static_cast<int>(result.meshes.size());
        result.meshes.push_back(std::move(mesh));
    }
    const int numInvalidInstances = convertNodes(scene, meshes, result);
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
