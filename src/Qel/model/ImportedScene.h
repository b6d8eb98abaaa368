#pragma once

#include <QByteArray>
#include <QSize>

#include <chrono>

#include <Qel/model/ModelImport.h>

namespace Morvane::Qel {

/// A material's reference to an image.
struct ImageReference
{
    /// The path as written in the model file; empty for no image.
    QString text;
    /// Index into ImportedScene::embeddedImages; -1 for a separate file.
    int embedded = -1;
};

/// An image embedded in a model file.
struct EmbeddedImage
{
    /// The bytes of an image file if `size` is empty, otherwise pixels in QImage::Format_ARGB32.
    QByteArray bytes;
    QSize size;
};

struct ImportedMaterial
{
    MaterialData data;
    ImageReference mapKd;
    ImageReference mapKs;
    /// Whether the alpha of the diffuse map is to be ignored.
    bool isOpaque = false;
};

/// The contents of a model file, with images not yet found or decoded.
struct ImportedScene
{
    /// Why there is no model; empty on success.
    QString error;
    QStringList warnings;
    ModelSource source;
    std::vector<MeshData> meshes;
    std::vector<InstanceData> instances;
    std::vector<ImportedMaterial> materials;
    std::vector<EmbeddedImage> embeddedImages;
};

/// Reads a model file in this process. A damaged file may crash the process or never return.
ImportedScene readScene(const QString& path);

/// Calls readScene in a forked child process with limited memory. A child that crashes, or has not delivered
/// the whole scene before the deadline, becomes an error. See ImportOptions.
ImportedScene readSceneIsolated(const QString& path, std::chrono::milliseconds deadline);

} // namespace Morvane::Qel
