#include <Qel/model/ImportedScene.h>
#include <Qel/model/ModelFiles.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <exception>
#include <unordered_map>
#include <utility>

#include <assimp/DefaultIOSystem.h>
#include <assimp/GltfMaterial.h>
#include <assimp/Importer.hpp>
#include <assimp/config.h>
#include <assimp/importerdesc.h>
#include <assimp/material.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Opens the model file and those it refers to, these also with backslashes and in wrong case, and keeps a
/// record of material libraries.
class FileAccess : public Assimp::DefaultIOSystem
{
public:
    bool Exists(const char* file) const override
    {
        return DefaultIOSystem::Exists(file) || !companion(file).isEmpty();
    }

    Assimp::IOStream* Open(const char* file, const char* mode) override
    {
        const QString asked = QFile::decodeName(file);
        const QString path = QFileInfo(asked).isFile() ? asked : companion(file);
        if (asked.endsWith(u".mtl"_s, Qt::CaseInsensitive)) {
            (path.isEmpty() ? missingLibraries : libraries).append(path.isEmpty() ? asked : path);
        }
        return path.isEmpty() ? nullptr : DefaultIOSystem::Open(QFile::encodeName(path).constData(), mode);
    }

    QStringList libraries;
    QStringList missingLibraries;

private:
    static QString companion(const char* file)
    {
        const QString path = QFile::decodeName(file).replace(u'\\', u'/');
        return findReferencedFile(QString(), QFileInfo(path).absoluteFilePath());
    }
};

bool isFinite(const aiVector3D& v)
{
    return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

QVector3D toQt(const aiVector3D& v)
{
    return {v.x, v.y, v.z};
}

/// A vector's direction, however short it is; null for none.
QVector3D direction(const QVector3D& v)
{
    const double length = std::hypot(double(v.x()), double(v.y()), double(v.z()));
    if (length == 0.0 || !std::isfinite(length)) {
        return {};
    }
    return {static_cast<float>(v.x() / length), static_cast<float>(v.y() / length),
            static_cast<float>(v.z() / length)};
}

QString toQt(const aiString& text)
{
    return QString::fromUtf8(text.C_Str());
}

QMatrix4x4 toQt(const aiMatrix4x4& m)
{
    return {m.a1, m.a2, m.a3, m.a4, m.b1, m.b2, m.b3, m.b4, m.c1, m.c2, m.c3, m.c4, m.d1, m.d2, m.d3, m.d4};
}

bool isFinite(const QMatrix4x4& m)
{
    return std::all_of(m.constData(), m.constData() + 16, [](float value) { return std::isfinite(value); });
}

/// The materials of a library that say a diffuse colour. Assimp gives the others a grey of its own, which
/// cannot be told from one in the file.
QSet<QString> materialsWithDiffuseColour(const QStringList& libraries)
{
    QSet<QString> names;
    for (const QString& path : libraries) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            continue;
        }
        QString name;
        while (!file.atEnd()) {
            const QString line = QString::fromUtf8(file.readLine()).simplified();
            if (line.startsWith(u"newmtl "_s)) {
                name = line.mid(7);
            } else if (line.startsWith(u"Kd "_s)) {
                names.insert(name);
            }
        }
    }
    return names;
}

/// Fills a mesh with vertices, each once. Assimp has a step for this, but that one takes vertices within a
/// fixed distance for one, which ruins models in a small unit.
class VertexJoiner
{
public:
    explicit VertexJoiner(MeshData& mesh)
        : m_mesh(mesh)
    {
    }

    /// The index of the vertex in the mesh.
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

/// Takes one scene over from Assimp.
class Conversion
{
public:
    Conversion(const aiScene& scene, QString file)
        : m_scene(scene)
        , m_file(std::move(file))
    {
    }

    /// Colours of an OBJ file's materials are taken for the file's only where its libraries say them.
    void setDiffuseColours(const QSet<QString>& materials)
    {
        m_knowsDiffuseColours = true;
        m_diffuseColours = materials;
    }

    ImportedScene run()
    {
        m_meshes.assign(m_scene.mNumMeshes, -1);
        m_materials.assign(m_scene.mNumMaterials, -1);
        for (unsigned int i = 0; i < m_scene.mNumMeshes; ++i) {
            convertMesh(i);
        }
        convertNodes();
        if (m_invalidTriangles > 0) {
            m_result.warnings << u"%1: %2 triangles with coordinates that are no numbers are left out"_s.arg(
                m_file, QString::number(m_invalidTriangles));
        }
        if (m_invalidInstances > 0) {
            m_result.warnings << u"%1: %2 objects with transforms that are no numbers are left out"_s.arg(
                m_file, QString::number(m_invalidInstances));
        }
        if (m_result.instances.empty()) {
            m_result.error = u"it holds no triangles"_s;
        }
        return std::move(m_result);
    }

private:
    void convertMesh(unsigned int index)
    {
        const aiMesh& source = *m_scene.mMeshes[index];
        if ((source.mPrimitiveTypes & aiPrimitiveType_TRIANGLE) == 0 || !source.HasPositions()) {
            return;
        }

        MeshData mesh;
        mesh.name = toQt(source.mName);
        const aiVector3D* texCoords = diffuseTexCoords(source);
        VertexJoiner vertices(mesh);
        for (unsigned int f = 0; f < source.mNumFaces; ++f) {
            const aiFace& face = source.mFaces[f];
            if (face.mNumIndices != 3) {
                continue;
            }
            if (!std::all_of(face.mIndices, face.mIndices + 3, [&source](unsigned int i) {
                    return i < source.mNumVertices && isFinite(source.mVertices[i]);
                })) {
                ++m_invalidTriangles;
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
                mesh.indices.push_back(
                    vertices.index(toQt(source.mVertices[*i]),
                                   hasNormal ? direction(toQt(source.mNormals[*i])) : QVector3D(),
                                   hasTexCoord ? QVector2D(texCoords[*i].x, texCoords[*i].y) : QVector2D()));
            }
        }
        if (mesh.indices.empty()) {
            return;
        }
        repairNormals(mesh);
        mesh.material = convertMaterial(source.mMaterialIndex);
        m_meshes[index] = static_cast<int>(m_result.meshes.size());
        m_result.meshes.push_back(std::move(mesh));
    }

    /// The set of coordinates that the material's diffuse map uses, null where there is none.
    const aiVector3D* diffuseTexCoords(const aiMesh& mesh) const
    {
        int channel = 0;
        if (mesh.mMaterialIndex < m_scene.mNumMaterials) {
            const aiMaterial& material = *m_scene.mMaterials[mesh.mMaterialIndex];
            if (material.Get(AI_MATKEY_UVWSRC(aiTextureType_DIFFUSE, 0), channel) != aiReturn_SUCCESS) {
                material.Get(AI_MATKEY_UVWSRC(aiTextureType_BASE_COLOR, 0), channel);
            }
        }
        const bool isThere = channel >= 0 && mesh.HasTextureCoords(static_cast<unsigned int>(channel));
        return mesh.mTextureCoords[isThere ? channel : 0];
    }

    /// Gives vertices whose normal is no direction the mean of their triangles' normals, weighted by area.
    static void repairNormals(MeshData& mesh)
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

    int convertMaterial(unsigned int index)
    {
        if (index < m_scene.mNumMaterials && m_materials[index] >= 0) {
            return m_materials[index];
        }
        ImportedMaterial material;
        if (index < m_scene.mNumMaterials) {
            fillMaterial(*m_scene.mMaterials[index], material);
            m_materials[index] = static_cast<int>(m_result.materials.size());
        }
        m_result.materials.push_back(std::move(material));
        return static_cast<int>(m_result.materials.size()) - 1;
    }

    void fillMaterial(const aiMaterial& source, ImportedMaterial& material)
    {
        MaterialData& data = material.data;
        data.name = toQt(source.GetName());
        material.mapKd = image(source, aiTextureType_DIFFUSE);
        if (material.mapKd.text.isEmpty()) {
            material.mapKd = image(source, aiTextureType_BASE_COLOR);
        }
        material.mapKs = image(source, aiTextureType_SPECULAR);

        const auto colour = [&source](const char* key, unsigned int type, unsigned int index,
                                      QVector3D& value) {
            aiColor3D c;
            if (source.Get(key, type, index, c) != aiReturn_SUCCESS || !isFinite(aiVector3D(c.r, c.g, c.b))) {
                return false;
            }
            value = QVector3D(c.r, c.g, c.b);
            return true;
        };
        const auto number = [&source](const char* key, unsigned int type, unsigned int index, float& value) {
            float v = 0.0F;
            if (source.Get(key, type, index, v) != aiReturn_SUCCESS || !std::isfinite(v)) {
                return false;
            }
            value = v;
            return true;
        };

        const bool isDiffuseFromFile = m_knowsDiffuseColours
                                           ? m_diffuseColours.contains(data.name.simplified())
                                           : data.name != QLatin1StringView(AI_DEFAULT_MATERIAL_NAME);
        if (!isDiffuseFromFile ||
            !(colour(AI_MATKEY_COLOR_DIFFUSE, data.kd) || colour(AI_MATKEY_BASE_COLOR, data.kd))) {
            data.kd = material.mapKd.text.isEmpty() ? MaterialData().kd : QVector3D(1.0F, 1.0F, 1.0F);
        }

        const bool hasSpecular = colour(AI_MATKEY_COLOR_SPECULAR, data.ks);
        float strength = 1.0F;
        if (number(AI_MATKEY_SHININESS_STRENGTH, strength)) {
            data.ks *= std::clamp(strength, 0.0F, 1.0F);
        }
        number(AI_MATKEY_SHININESS, data.ns);
        float metallic = 0.0F;
        if (!hasSpecular && number(AI_MATKEY_METALLIC_FACTOR, metallic)) {
            float roughness = 1.0F;
            number(AI_MATKEY_ROUGHNESS_FACTOR, roughness);
            setSpecularFromRoughness(data, metallic, roughness);
        }
        // Without an exponent Assimp's OBJ reader says 0, for which a shader's pow(0, 0) is undefined.
        if (data.ns <= 0.0F) {
            data.ns = 1.0F;
        }

        number(AI_MATKEY_OPACITY, data.d);
        data.d = std::clamp(data.d, 0.0F, 1.0F);
        aiString alphaMode;
        if (source.Get(AI_MATKEY_GLTF_ALPHAMODE, alphaMode) == aiReturn_SUCCESS) {
            material.isOpaque = std::strcmp(alphaMode.C_Str(), "OPAQUE") == 0;
            if (std::strcmp(alphaMode.C_Str(), "BLEND") != 0) {
                data.d = 1.0F;
            }
        }
        int twoSided = 0;
        data.doubleSided = source.Get(AI_MATKEY_TWOSIDED, twoSided) == aiReturn_SUCCESS && twoSided != 0;
    }

    /// The specular term nearest to a microfacet one: reflectance at normal incidence of 4% for what is no
    /// metal, and the Blinn-Phong exponent for a roughness after Walter et al., "Microfacet Models for
    /// Refraction through Rough Surfaces" (2007). The term is not normalised, so rough surfaces are dimmed.
    static void setSpecularFromRoughness(MaterialData& data, float metallic, float roughness)
    {
        metallic = std::clamp(metallic, 0.0F, 1.0F);
        roughness = std::clamp(roughness, 0.0F, 1.0F);
        const QVector3D reflectance = (1.0F - metallic) * QVector3D(0.04F, 0.04F, 0.04F) + metallic * data.kd;
        data.ks = (1.0F - roughness) * reflectance;
        const float alpha = roughness * roughness;
        data.ns = std::clamp(2.0F / std::max(alpha * alpha, 1.0e-4F) - 2.0F, 1.0F, 1000.0F);
    }

    ImageReference image(const aiMaterial& material, aiTextureType type)
    {
        aiString path;
        if (material.GetTexture(type, 0, &path) != aiReturn_SUCCESS || path.length == 0) {
            return {};
        }
        return {toQt(path), embeddedImage(path)};
    }

    int embeddedImage(const aiString& path)
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

    void convertNodes()
    {
        // A stack of our own, because the depth of the hierarchy is up to the file.
        std::vector<std::pair<const aiNode*, QMatrix4x4>> stack;
        stack.emplace_back(m_scene.mRootNode, QMatrix4x4());
        while (!stack.empty()) {
            const auto [node, parent] = stack.back();
            stack.pop_back();
            // Some readers announce children that they do not make.
            if (node == nullptr) {
                continue;
            }
            const QMatrix4x4 transform = parent * toQt(node->mTransformation);
            for (unsigned int i = 0; i < node->mNumMeshes; ++i) {
                const unsigned int index = node->mMeshes[i];
                if (index >= m_meshes.size() || m_meshes[index] < 0) {
                    continue;
                }
                if (isFinite(transform)) {
                    m_result.instances.push_back({m_meshes[index], transform});
                } else {
                    ++m_invalidInstances;
                }
            }
            for (unsigned int i = node->mNumChildren; i > 0; --i) {
                stack.emplace_back(node->mChildren[i - 1], transform);
            }
        }
    }

    const aiScene& m_scene;
    QString m_file;
    bool m_knowsDiffuseColours = false;
    QSet<QString> m_diffuseColours;
    std::vector<int> m_meshes;
    std::vector<int> m_materials;
    std::vector<int> m_embedded;
    int m_invalidTriangles = 0;
    int m_invalidInstances = 0;
    ImportedScene m_result;
};

bool isObj(const Assimp::Importer& importer)
{
    const int index = importer.GetPropertyInteger("importerIndex", -1);
    const aiImporterDesc* description =
        index < 0 ? nullptr : importer.GetImporterInfo(static_cast<size_t>(index));
    return description != nullptr && std::strstr(description->mFileExtensions, "obj") != nullptr;
}

QString plainReason(const QString& reason)
{
    if (reason.startsWith(u"No suitable reader"_s)) {
        return u"its format is not known; OBJ, glTF, FBX, Collada, PLY and STL are, among others"_s;
    }
    if (reason.contains(u"bad_alloc"_s)) {
        return u"reading it takes more memory than there is; the file is damaged or too large"_s;
    }
    return reason.simplified();
}

} // namespace

ImportedScene readScene(const QString& path)
{
    Assimp::Importer importer;
    auto* files = new FileAccess;
    importer.SetIOHandler(files);
    // Motion files would otherwise come as made-up bodies around their bones.
    importer.SetPropertyBool(AI_CONFIG_IMPORT_NO_SKELETON_MESHES, true);
    constexpr unsigned int steps = aiProcess_Triangulate | aiProcess_SortByPType |
                                   aiProcess_GenSmoothNormals | aiProcess_GenUVCoords |
                                   aiProcess_TransformUVCoords;
    ImportedScene result;
    try {
        const aiScene* scene = importer.ReadFile(QFile::encodeName(path).constData(), steps);
        if (scene == nullptr) {
            result.error = plainReason(QString::fromUtf8(importer.GetErrorString()));
            return result;
        }
        Conversion conversion(*scene, path);
        if (isObj(importer)) {
            conversion.setDiffuseColours(materialsWithDiffuseColour(files->libraries));
        }
        result = conversion.run();
    } catch (const std::exception& exception) {
        result.error = plainReason(QString::fromUtf8(exception.what()));
    }
    if (files->libraries.isEmpty() && !files->missingLibraries.isEmpty()) {
        result.warnings << u"%1: material library %2 not found; its materials are grey"_s.arg(
            path, QFileInfo(files->missingLibraries.first()).fileName());
    }
    return result;
}

} // namespace Morvane::Qel
