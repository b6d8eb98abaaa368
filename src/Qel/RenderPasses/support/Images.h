#pragma once

#include <QColor>
#include <QImage>
#include <QString>

namespace Morvane::Qel {

/// Reads an image file of any format that Qt reads into straight, 32-bit ARGB rows without padding, top row
/// first, ready for an upload as GL_BGRA and GL_UNSIGNED_BYTE.
///
/// Null when the path names no file, the file holds no image or the image is larger than `limit` in one
/// direction; `problem` then says why, as a phrase that follows the path.
QImage loadImage(const QString& path, int limit, QString* problem);

/// An image of one texel, in the same format.
QImage makeTexel(const QColor& color);

} // namespace Morvane::Qel
