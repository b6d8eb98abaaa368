#pragma once

#include <QByteArray>
#include <QSize>

#include <Qel/model/ModelImport.h>

namespace Morvane::Qel {

/// An image as a material of a model file names it.
struct ImageReference
{
    /// What the file says, empty for no image.
    QString text;
    /// Index into ImportedScene::embeddedImages, -1 for a file of its own.
    int embedded = -1;
};

/// An image inside a model file: an image file's bytes, or pixels in QImage::Format_ARGB32 where it has a
/// size.
struct EmbeddedImage
{
    QByteArray bytes;
    QSize size;
};

struct ImportedMaterial
{
    MaterialData data;
    ImageReference mapKd;
    ImageReference mapKs;
    /// Whether the alpha of the diffuse map means nothing.
    bool isOpaque = false;
};

/// What a model file holds, with its images still to be found and decoded.
struct ImportedScene
{
    /// Why the file gives no model; empty on success.
    QString error;
    QStringList warnings;
    std::vector<MeshData> meshes;
    std::vector<InstanceData> instances;
    std::vector<ImportedMaterial> materials;
    std::vector<EmbeddedImage> embeddedImages;
};

/// Reads a model file in this process. Damaged files may crash it, or keep it busy for ever.
ImportedScene readScene(const QString& path);

/// The same in a forked process with limits on its time and memory, so that a damaged file ends in an error
/// whatever it does to the reader. Whatever the reader leaks goes with that process.
ImportedScene readSceneIsolated(const QString& path);

} // namespace Morvane::Qel
