#pragma once

#include <QDir>

#include <Qel/gl/Image.h>
#include <Qel/graph/RenderGraph.h>

/// Writing files of a frame. All functions throw Failure on errors.
namespace Morvane::Qel::App {

/// Writes an image, unless GL has reported an error since the last check.
void write(const Image& image, const QString& path);

/// Creates a folder, with those above it, if it does not exist.
QDir makeFolder(const QString& path);

/// Writes every output of every pass of the last frame into a folder: textures as EXR, other values into
/// outputs.json.
void dump(const RenderGraph& graph, const QString& folderPath);

} // namespace Morvane::Qel::App
