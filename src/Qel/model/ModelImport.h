#pragma once

#include <QImage>
#include <QMatrix4x4>
#include <QString>
#include <QVector2D>
#include <QVector3D>

#include <QStringList>

#include <optional>
#include <vector>

#include <Qel/model/Export.h>

namespace Morvane::Qel {

/// Bits of a batch's 64-bit draw flags. A draw selects the batches whose flags, masked, equal a value.
namespace DrawFlag {
/// Not to be drawn by passes that honour the flag.
inline constexpr unsigned long long Hidden = 1ULL << 63;
inline constexpr unsigned long long CastsNoShadow = 1ULL << 62;
/// Drawn without culling where a pass culls.
inline constexpr unsigned long long DoubleSided = 1ULL << 60;
/// The material's dissolve is below 1.
inline constexpr unsigned long long Transparent = 1ULL << 0;
/// The material's diffuse map has texels that are not opaque.
inline constexpr unsigned long long CutOut = 1ULL << 1;
} // namespace DrawFlag

/// A triangle mesh. Normals and texture coordinates are as many as positions.
struct MeshData
{
    QString name;
    std::vector<QVector3D> positions;
    std::vector<QVector3D> normals;
    /// v runs upwards; images are stored bottom row first to match.
    std::vector<QVector2D> texCoords;
    std::vector<unsigned int> indices;
    int material = 0;
};

/// A material in the terms of OBJ's material library.
struct MaterialData
{
    QString name;
    QVector3D kd{0.8F, 0.8F, 0.8F};
    QVector3D ks{0.0F, 0.0F, 0.0F};
    float ns = 1.0F;
    float d = 1.0F;
    bool doubleSided = false;
    /// Index into ModelData::images, -1 for none.
    int mapKd = -1;
    int mapKs = -1;
};

/// A mesh placed in the scene.
struct InstanceData
{
    int mesh = 0;
    QMatrix4x4 transform;
};

/// A model in memory.
struct ModelData
{
    std::vector<MeshData> meshes;
    std::vector<MaterialData> materials;
    std::vector<InstanceData> instances;
    std::vector<QImage> images;
    /// One line for each thing that was missing and replaced, such as a texture file.
    QStringList warnings;
};

/// Reads a model file of any kind that Assimp reads: triangulates, joins equal vertices, generates smooth
/// normals where there are none and keeps the transforms of nodes. A missing or broken image is replaced by
/// opaque white and reported in the warnings by name. Returns nothing on failure, with one line in `error`
/// that names the file and the cause.
QEL_MODEL_EXPORT std::optional<ModelData> importModel(const QString& path, QString* error);

} // namespace Morvane::Qel
