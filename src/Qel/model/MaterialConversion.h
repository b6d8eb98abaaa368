#pragma once

#include <QSet>

#include <optional>
#include <vector>

#include <assimp/material.h>

#include <Qel/model/ImportedScene.h>

struct aiScene;

namespace Morvane::Qel {

/// What OBJ material libraries say and Assimp does not pass on, by names of materials.
struct MaterialLibraries
{
    /// Those with a diffuse colour. Assimp gives all others a grey that cannot be distinguished from one in
    /// the file.
    QSet<QString> withKd;
    /// Those with an illumination model of 0 or 1, which have no highlight. Assimp reports 1 also for
    /// materials without any.
    QSet<QString> withoutHighlight;
};

/// Converts the materials of an Assimp scene, and the images embedded in the file that they use, and appends
/// them to an ImportedScene. Each is converted once, on first use.
class MaterialConversion
{
public:
    /// `libraries` is given for OBJ files only. Without it, the diffuse colour counts for all materials but
    /// those with the name of Assimp's default material and a grey colour.
    MaterialConversion(const aiScene& scene, std::optional<MaterialLibraries> libraries,
                       ImportedScene& result);

    /// Returns the index in the result of the scene's material `index`; of a default material if there is
    /// none.
    int convert(unsigned int index);

private:
    void fill(const aiMaterial& source, ImportedMaterial& material);
    bool isKdInFile(const aiMaterial& source) const;
    bool hasHighlight(const aiMaterial& source) const;
    ImageReference image(const aiMaterial& material, aiTextureType type);
    int embeddedImage(const aiString& path);

    const aiScene& m_scene;
    std::optional<MaterialLibraries> m_libraries;
    ImportedScene& m_result;
    /// By index in the scene, -1 for materials that are not converted yet.
    std::vector<int> m_indices;
    /// Index in the scene of each embedded image of the result.
    std::vector<int> m_embedded;
};

} // namespace Morvane::Qel
