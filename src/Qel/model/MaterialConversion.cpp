#include <Qel/model/MaterialConversion.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include <assimp/GltfMaterial.h>
#include <assimp/scene.h>

#include <Qel/model/AssimpTypes.h>

namespace Morvane::Qel {

namespace {

bool read(const aiMaterial& source, const char* key, unsigned int type, unsigned int index, QVector3D& value)
{
    aiColor3D c;
    if (source.Get(key, type, index, c) != aiReturn_SUCCESS || !isFinite(aiVector3D(c.r, c.g, c.b))) {
        return false;
    }
    value = QVector3D(c.r, c.g, c.b);
    return true;
}

bool read(const aiMaterial& source, const char* key, unsigned int type, unsigned int index, float& value)
{
    float v = 0.0F;
    if (source.Get(key, type, index, v) != aiReturn_SUCCESS || !std::isfinite(v)) {
        return false;
    }
    value = v;
    return true;
}

/// Approximates a microfacet specular term. The reflectance at normal incidence is 4 % for dielectrics, and
/// the Blinn-Phong exponent follows from the roughness after Walter et al., "Microfacet Models for Refraction
/// through Rough Surfaces" (2007). Blinn-Phong is not normalised here, so rough surfaces are dimmed instead.
void setSpecularFromRoughness(MaterialData& data, float metallic, float roughness)
{
    metallic = std::clamp(metallic, 0.0F, 1.0F);
    roughness = std::clamp(roughness, 0.0F, 1.0F);
    const QVector3D reflectance = (1.0F - metallic) * QVector3D(0.04F, 0.04F, 0.04F) + metallic * data.kd;
    data.ks = (1.0F - roughness) * reflectance;
    const float alpha = roughness * roughness;
    data.ns = std::clamp(2.0F / std::max(alpha * alpha, 1.0e-4F) - 2.0F, 1.0F, 1000.0F);
}

void fillSpecular(const aiMaterial& source, MaterialData& data)
{
    const bool hasSpecular = read(source, AI_MATKEY_COLOR_SPECULAR, data.ks);
    float strength = 1.0F;
    if (read(source, AI_MATKEY_SHININESS_STRENGTH, strength)) {
        data.ks *= std::clamp(strength, 0.0F, 1.0F);
    }
    data.ns = 0.0F;
    read(source, AI_MATKEY_SHININESS, data.ns);
    float metallic = 0.0F;
    if (!hasSpecular && read(source, AI_MATKEY_METALLIC_FACTOR, metallic)) {
        float roughness = 1.0F;
        read(source, AI_MATKEY_ROUGHNESS_FACTOR, roughness);
        setSpecularFromRoughness(data, metallic, roughness);
    }
}

void fillOpacity(const aiMaterial& source, ImportedMaterial& material)
{
    MaterialData& data = material.data;
    read(source, AI_MATKEY_OPACITY, data.d);
    data.d = std::clamp(data.d, 0.0F, 1.0F);
    aiString alphaMode;
    if (source.Get(AI_MATKEY_GLTF_ALPHAMODE, alphaMode) == aiReturn_SUCCESS) {
        material.isOpaque = std::strcmp(alphaMode.C_Str(), "OPAQUE") == 0;
        if (std::strcmp(alphaMode.C_Str(), "BLEND") != 0) {
            data.d = 1.0F;
        }
    }
}

} // namespace

MaterialConversion::MaterialConversion(const aiScene& scene, std::optional<MaterialLibraries> libraries,
                                       ImportedScene& result)
    : m_scene(scene)
    , m_libraries(std::move(libraries))
    , m_result(result)
    , m_indices(scene.mNumMaterials, -1)
{
}

int MaterialConversion::convert(unsigned int index)
{
    if (index < m_scene.mNumMaterials && m_indices[index] >= 0) {
        return m_indices[index];
    }
    ImportedMaterial material;
    if (index < m_scene.mNumMaterials) {
        fill(*m_scene.mMaterials[index], material);
        m_indices[index] = static_cast<int>(m_result.materials.size());
    }
    m_result.materials.push_back(std::move(material));
    return static_cast<int>(m_result.materials.size()) - 1;
}

void MaterialConversion::fill(const aiMaterial& source, ImportedMaterial& material)
{
    MaterialData& data = material.data;
    data.name = toQt(source.GetName());
    material.mapKd = image(source, aiTextureType_DIFFUSE);
    if (material.mapKd.text.isEmpty()) {
        material.mapKd = image(source, aiTextureType_BASE_COLOR);
    }
    material.mapKs = image(source, aiTextureType_SPECULAR);

    if (!isKdInFile(source) ||
        !(read(source, AI_MATKEY_COLOR_DIFFUSE, data.kd) || read(source, AI_MATKEY_BASE_COLOR, data.kd))) {
        data.kd = material.mapKd.text.isEmpty() ? MaterialData().kd : QVector3D(1.0F, 1.0F, 1.0F);
    }
    fillSpecular(source, data);
    // An exponent of 0 would make the highlight cover all that the light reaches, and more: GLSL leaves
    // pow(0, 0) undefined.
    if (data.ns <= 0.0F || !hasHighlight(source)) {
        data.ks = {};
        data.ns = 1.0F;
    }
    fillOpacity(source, material);
    int twoSided = 0;
    data.doubleSided = source.Get(AI_MATKEY_TWOSIDED, twoSided) == aiReturn_SUCCESS && twoSided != 0;
}

bool MaterialConversion::isKdInFile(const aiMaterial& source) const
{
    const QString name = toQt(source.GetName());
    if (m_libraries) {
        return m_libraries->withKd.contains(name.simplified());
    }
    // Some readers give the default material's name to materials of the file too; only a colour that is not
    // grey tells them apart.
    QVector3D kd;
    return name != QLatin1StringView(AI_DEFAULT_MATERIAL_NAME) ||
           (read(source, AI_MATKEY_COLOR_DIFFUSE, kd) && (kd.x() != kd.y() || kd.y() != kd.z()));
}

/// Whether the material's shading model has a specular term.
bool MaterialConversion::hasHighlight(const aiMaterial& source) const
{
    if (m_libraries) {
        return !m_libraries->withoutHighlight.contains(toQt(source.GetName()).simplified());
    }
    int model = aiShadingMode_Phong;
    source.Get(AI_MATKEY_SHADING_MODEL, model);
    return model != aiShadingMode_Flat && model != aiShadingMode_Gouraud && model != aiShadingMode_NoShading;
}

ImageReference MaterialConversion::image(const aiMaterial& material, aiTextureType type)
{
    aiString path;
    if (material.GetTexture(type, 0, &path) != aiReturn_SUCCESS || path.length == 0) {
        return {};
    }
    return {toQt(path), embeddedImage(path)};
}

int MaterialConversion::embeddedImage(const aiString& path)
{
    const auto [texture, index] = m_scene.GetEmbeddedTextureAndIndex(path.C_Str());
    if (texture == nullptr || texture->pcData == nullptr) {
        return -1;
    }
    const auto known = std::find(m_embedded.begin(), m_embedded.end(), index);
    if (known != m_embedded.end()) {
        return static_cast<int>(known - m_embedded.begin());
    }
    const bool isFile = texture->mHeight == 0;
    const qsizetype size = isFile ? texture->mWidth : qsizetype(4) * texture->mWidth * texture->mHeight;
    EmbeddedImage embedded;
    embedded.bytes = QByteArray(reinterpret_cast<const char*>(texture->pcData), size);
    if (!isFile) {
        embedded.size = QSize(static_cast<int>(texture->mWidth), static_cast<int>(texture->mHeight));
    }
    m_embedded.push_back(index);
    m_result.embeddedImages.push_back(std::move(embedded));
    return static_cast<int>(m_embedded.size()) - 1;
}

} // namespace Morvane::Qel
