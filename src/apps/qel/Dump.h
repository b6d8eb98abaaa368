#pragma once

#include <QDir>

#include <Qel/gl/Image.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/RenderGraph.h>

/// Writing files of a frame. All functions throw Failure on errors.
namespace Morvane::Qel::App {

/// Writes an image, unless GL has reported an error since the last check.
void write(const Image& image, const QString& path, const ImageFileOptions& options = {});

/// Creates a folder, with those above it, if it does not exist.
QDir makeFolder(const QString& path);

/// Writes every output of every pass of the last frame into a folder: each layer and mip level of a texture
/// as EXR, and all of them as one PNG preview; and outputs.json, with the values of other outputs, what the
/// textures are, the ranges of their previews, and lights with their shadow maps.
void dump(const RenderGraph& graph, const QString& folderPath);

} // namespace Morvane::Qel::App
