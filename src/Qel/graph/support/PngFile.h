#pragma once

#include <optional>

#include <Qel/gl/Image.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/OutputFile.h>

namespace Morvane::Qel {

/// Writes a PNG file as described at writeImage.
bool writePng(const Image& image, OutputFile& file, const ImageFileOptions& options, QString* error);

/// Reads any file that QImage reads, as described at readImage.
std::optional<Image> readQImage(const QString& path, QString* error);

} // namespace Morvane::Qel
