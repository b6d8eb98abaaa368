#pragma once

#include <QSaveFile>

#include <optional>

#include <Qel/gl/Image.h>

namespace Morvane::Qel {

/// Writes a PNG file as described at writeImage.
bool writePng(const Image& image, QSaveFile& file, QString* error);

/// Reads any file that QImage reads, as described at readImage.
std::optional<Image> readQImage(const QString& path, QString* error);

} // namespace Morvane::Qel
