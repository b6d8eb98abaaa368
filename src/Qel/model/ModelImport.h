#pragma once

#include <QImage>
#include <QMatrix4x4>
#include <QString>
#include <QStringList>
#include <QVector2D>
#include <QVector3D>

#include <chrono>
#include <optional>
#include <vector>

#include <Qel/model/Export.h>

namespace Morvane::Qel {

/// Bits of a batch's 64-bit draw flags. A draw selects the batches whose masked flags equal a value.
namespace DrawFlag {
/// Not drawn by passes that honour the flag.
inline constexpr unsigned long long Hidden = 1ULL << 63;
/// Not drawn into shadow maps.
inline constexpr unsigned long long CastsNoShadow = 1ULL << 62;
/// Drawn without face culling.
inline constexpr unsigned long long DoubleSided = 1ULL << 60;
/// The material's dissolve is below 1.
inline constexpr unsigned long long Transparent = 1ULL << 0;
/// The material's diffuse map has texels with alpha below 1.
inline constexpr unsigned long long CutOut = 1ULL << 1;
} // namespace DrawFlag

/// A triangle mesh with one normal and one texture coordinate per position.
struct MeshData
{
    QString name;
    std::vector<QVector3D> positions;
    /// Unit vectors.
    std::vector<QVector3D> normals;
    /// v points up: images are stored bottom row first to match.
    std::vector<QVector2D> texCoords;
    /// Three per triangle.
    std::vector<unsigned int> indices;
    /// Index into ModelData::materials.
    int material = 0;

    bool operator==(const MeshData&) const = default;
};

/// A material with the parameters of an OBJ material library.
struct MaterialData
{
    QString name;
    /// Diffuse colour, linear RGB.
    QVector3D kd{0.8F, 0.8F, 0.8F};
    /// Specular colour, linear RGB.
    QVector3D ks{0.0F, 0.0F, 0.0F};
    /// Specular exponent, above 0.
    float ns = 1.0F;
    /// Dissolve: 0 is invisible, 1 opaque.
    float d = 1.0F;
    bool doubleSided = false;
    /// Diffuse map: index into ModelData::images, -1 for none.
    int mapKd = -1;
    /// Specular map: index into ModelData::images, -1 for none.
    int mapKs = -1;

    bool operator==(const MaterialData&) const = default;
};

/// A mesh placed in the scene.
struct InstanceData
{
    /// Index into ModelData::meshes.
    int mesh = 0;
    /// Mesh space to world space. importModel gives rotations and translations only: passes do not normalise
    /// normals, so a scale here would make their shading too dark or too bright.
    QMatrix4x4 transform;

    bool operator==(const InstanceData&) const = default;
};

/// Where an image of a model comes from.
struct ImageSource
{
    /// The path as written in the model file.
    QString reference;
    /// The file that was found; empty if there is none, or if the model file embeds the image.
    QString file = {};
    bool isEmbedded = false;
    /// Why white replaces the image, such as "not found"; empty if it was read.
    QString problem = {};

    bool operator==(const ImageSource&) const = default;
};

/// The coordinate system of an imported model, as far as its file tells.
struct ModelSource
{
    /// Metres per unit; 0 if the file does not tell.
    float metresPerUnit = 0.0F;
    /// The axis that points up: "x", "y" or "z", or "-x" and so on; empty if the file does not tell.
    QString upAxis = {};

    bool operator==(const ModelSource&) const = default;
};

/// A model in main memory, as importModel reads and GPUModel uploads it.
struct ModelData
{
    std::vector<MeshData> meshes;
    std::vector<MaterialData> materials;
    std::vector<InstanceData> instances;
    /// In QImage::Format_RGBA8888, bottom row first.
    std::vector<QImage> images;
    /// Of each image; empty for a model that is made in code.
    std::vector<ImageSource> imageSources = {};
    /// One line for each thing that was replaced, such as a missing texture, or skipped.
    QStringList warnings;
    /// For information: the model is neither scaled nor turned by it.
    ModelSource source = {};

    bool operator==(const ModelData&) const = default;
};

/// How importModel reads the file.
struct ImportOptions
{
    /// Reads the file in a forked child process. A damaged file can crash Assimp, hang it or make it use
    /// up all memory; with isolation each of these is an ordinary import error. The child may use
    /// half of the machine's memory, its output is discarded, and memory that Assimp leaks is freed when it
    /// exits. The cost is a fork and a copy of the scene through a pipe.
    ///
    /// Off by default, because only the application knows whether it may fork. The child has only the calling
    /// thread, so a lock that another thread held during the fork stays locked, and the child then blocks
    /// until the deadline. Forking a process with much mapped memory, as GL drivers cause, is slow. An
    /// application that waits for any child process or ignores SIGCHLD must expect this one. The child itself
    /// makes no GL call.
    ///
    /// Images are always decoded in the calling process.
    bool isolated = false;
    /// Wall-clock time that an isolated read may take, from 0 to 24 h, extended by 5 s for each whole MiB of
    /// the file. Then the child is killed and the import fails. Ignored without isolation.
    std::chrono::milliseconds deadline = std::chrono::seconds(10);
};

/// Reads a model file of any format that Assimp supports. Polygons are triangulated, equal vertices joined
/// and missing normals replaced by smooth ones. Node transforms become instances; their scale, shear and
/// mirroring are applied to the vertices, so that a mesh becomes several if its instances differ in these.
/// Materials have no specular colour if the file gives no exponent above 0 or a shading model without
/// highlights. An OBJ material's diffuse colour counts only if its MTL file sets Kd. A missing or broken
/// image is replaced by opaque white and named in the warnings. Returns nothing on failure, with one line in
/// `error`, which may be null, that names the file and the cause. Without ImportOptions::isolated a damaged
/// file may crash the process or never return.
QEL_MODEL_EXPORT std::optional<ModelData> importModel(const QString& path, QString* error,
                                                      const ImportOptions& options = {});

} // namespace Morvane::Qel
