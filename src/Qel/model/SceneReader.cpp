#include <QFile>
#include <QFileInfo>

#include <cstring>
#include <exception>
#include <optional>

#include <assimp/DefaultIOSystem.h>
#include <assimp/Importer.hpp>
#include <assimp/config.h>
#include <assimp/importerdesc.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <Qel/model/ImportedScene.h>
#include <Qel/model/MaterialConversion.h>
#include <Qel/model/ModelFiles.h>
#include <Qel/model/SceneConversion.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Opens files for Assimp, records which OBJ material libraries were found, and finds referenced files
/// despite backslashes or wrong case.
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

MaterialLibraries readLibraries(const QStringList& paths)
{
    MaterialLibraries result;
    for (const QString& path : paths) {
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
                result.withKd.insert(name);
            } else if (line == u"illum 0"_s || line == u"illum 1"_s) {
                result.withoutHighlight.insert(name);
            }
        }
    }
    return result;
}

/// Whether the file was read by the reader of the format with this extension.
bool isFormat(const Assimp::Importer& importer, const char* extension)
{
    const int index = importer.GetPropertyInteger("importerIndex", -1);
    const aiImporterDesc* description =
        index < 0 ? nullptr : importer.GetImporterInfo(static_cast<size_t>(index));
    return description != nullptr && std::strstr(description->mFileExtensions, extension) != nullptr;
}

ModelSource readSource(const Assimp::Importer& importer, const aiScene& scene)
{
    // glTF prescribes both, and Assimp converts Collada files to the same.
    if (isFormat(importer, "gltf") || isFormat(importer, "dae")) {
        return {1.0F, u"y"_s};
    }
    ModelSource source;
    int axis = 0;
    int sign = 0;
    if (scene.mMetaData != nullptr && scene.mMetaData->Get("UpAxis", axis) &&
        scene.mMetaData->Get("UpAxisSign", sign) && axis >= 0 && axis < 3) {
        source.upAxis = (sign < 0 ? u"-"_s : QString()) + u"xyz"[axis];
    }
    // FBX files give their unit in centimetres.
    float centimetres = 0.0F;
    if (scene.mMetaData != nullptr && scene.mMetaData->Get("UnitScaleFactor", centimetres) &&
        centimetres > 0.0F) {
        source.metresPerUnit = centimetres / 100.0F;
    }
    return source;
}

/// Rewrites Assimp's error text as one line for the user.
QString plainReason(const QString& reason)
{
    if (reason.startsWith(u"No suitable reader"_s)) {
        return u"unknown format; OBJ, glTF, FBX, Collada, PLY, STL and others are supported"_s;
    }
    if (reason.contains(u"bad_alloc"_s)) {
        return u"not enough memory to read it; the file is damaged or too large"_s;
    }
    return reason.simplified();
}

} // namespace

ImportedScene readScene(const QString& path)
{
    Assimp::Importer importer;
    auto* files = new FileAccess;
    importer.SetIOHandler(files);
    // Assimp would otherwise invent meshes around the bones of motion-capture files.
    importer.SetPropertyBool(AI_CONFIG_IMPORT_NO_SKELETON_MESHES, true);
    // Not Assimp's step for smooth normals, which joins vertices that are only close to each other.
    constexpr unsigned int steps =
        aiProcess_Triangulate | aiProcess_SortByPType | aiProcess_GenUVCoords | aiProcess_TransformUVCoords;
    ImportedScene result;
    try {
        const aiScene* scene = importer.ReadFile(QFile::encodeName(path).constData(), steps);
        if (scene == nullptr) {
            result.error = plainReason(QString::fromUtf8(importer.GetErrorString()));
            return result;
        }
        result = convertScene(*scene, path,
                              isFormat(importer, "obj") ? std::optional(readLibraries(files->libraries))
                                                        : std::nullopt);
        result.source = readSource(importer, *scene);
    } catch (const std::exception& exception) {
        result.error = plainReason(QString::fromUtf8(exception.what()));
    }
    if (files->libraries.isEmpty() && !files->missingLibraries.isEmpty()) {
        result.warnings << u"%1: material library %2 not found; its materials are drawn in grey"_s.arg(
            path, QFileInfo(files->missingLibraries.first()).fileName());
    }
    return result;
}

} // namespace Morvane::Qel
