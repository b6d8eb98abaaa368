#pragma once

#include <QSet>

#include <optional>
#include <vector>

#include <assimp/material.h>

#include <Qel/model/ImportedScene.h>

struct aiScene;

namespace Morvane::Qel {

/// Converts the materials of an Assimp scene, and the images embedded in the file that they use, and appends
/// them to an ImportedScene. Each is converted once, on first use.
class MaterialConversion
{
public:
    /// `withKd` names the materials whose diffuse colour counts; without it, the diffuse colour
    /// counts for all but Assimp's default material.
    MaterialConversion(const aiScene& scene, std::optional<QSet<QString>> withKd, ImportedScene& result);

    /// Returns the index in the result of the scene's material `index`; of a default material if there is
    /// none.
    int convert(unsigned int index);

private:
    void fill(const aiMaterial& source, ImportedMaterial& material);
    ImageReference image(const aiMaterial& material, aiTextureType type);
    int embeddedImage(const aiString& path);

    const aiScene& m_scene;
    std::optional<QSet<QString>> m_withKd;
    ImportedScene& m_result;
    /// By index in the scene, -1 for materials that are not converted yet.
    std::vector<int> m_indices;
    /// Index in the scene of each embedded image of the result.
    std::vector<int> m_embedded;
};

} // namespace Morvane::Qel
