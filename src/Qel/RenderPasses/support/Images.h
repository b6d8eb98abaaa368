#pragma once

#include <QColor>
#include <QImage>
#include <QString>

namespace Morvane::Qel {

/// Reads an image file of any format that Qt supports as 32-bit ARGB with straight alpha, top row first and
/// without padding, ready to be uploaded as GL_BGRA and GL_UNSIGNED_BYTE.
///
/// Returns a null image if there is no such file, if it cannot be decoded, or if its width or height exceeds
/// `limit`; `problem` then says why, as a phrase to put after the path.
QImage loadImage(const QString& path, int limit, QString* problem);

/// Makes an image of one texel, in the format that loadImage returns.
QImage makeTexel(const QColor& color);

} // namespace Morvane::Qel
