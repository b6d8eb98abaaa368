#pragma once

#include <optional>

#include <Qel/gl/Image.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/OutputFile.h>

namespace Morvane::Qel {

/// Writes an EXR file as described at writeImage.
bool writeExr(const Image& image, OutputFile& file, const ImageFileOptions& options, QString* error);

/// Reads an EXR or HDR file as described at readImage.
std::optional<Image> readExr(const QString& path, QString* error);

} // namespace Morvane::Qel
