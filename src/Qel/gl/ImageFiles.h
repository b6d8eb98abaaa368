#pragma once

#include <QString>

#include <optional>

#include <Qel/gl/Image.h>

namespace Morvane::Qel {

/// Returns whether a file begins like an OpenEXR or a Radiance HDR file, whatever its name.
QEL_GL_EXPORT bool isFloatImageFile(const QString& path);

/// Reads an OpenEXR or a Radiance HDR file, whichever it begins like.
///
/// EXR channels keep their values and names, with R, G, B and A first; a file with only integer channels
/// gives an integer image. HDR files give R, G and B as radiance: the file's EXPOSURE factors are divided
/// out.
///
/// Returns nothing if the file cannot be read, is wider or higher than `maxSide` pixels or does not fit into
/// memory; `problem` then says why, as a phrase to put after the path.
QEL_GL_EXPORT std::optional<Image> readFloatImage(const QString& path, int maxSide, QString* problem);

} // namespace Morvane::Qel
