#pragma once

#include <QColor>
#include <QImage>
#include <QString>

namespace Morvane::Qel {

/// Reads an image file, top row first and without padding, ready to be uploaded as texelFormat() says: files
/// of all formats that Qt supports as 32-bit ARGB with straight alpha; OpenEXR and Radiance HDR files as
/// QImage::Format_RGBA16FPx4, or Format_RGBA32FPx4 if half floats cannot hold all their values exactly, with
/// the file's values.
///
/// Channels other than R, G, B and A are ignored. Without R, G and B, an only channel besides A (such as Y or
/// Z) gives all three; missing ones of them are 0, a missing A is 1.
///
/// Returns a null image if there is no such file, if it cannot be decoded, if its width or height exceeds
/// `limit`, or if it does not fit into the machine's memory; `problem` then says why, as a phrase to put
/// after the path.
QImage loadImage(const QString& path, int limit, QString* problem);

/// Makes an image of one texel, in 32-bit ARGB.
QImage makeTexel(const QColor& color);

/// GL's names for the pixels of an image.
struct TexelFormat
{
    unsigned int internalFormat;
    unsigned int format;
    unsigned int type;
};
/// Returns the format of an image that loadImage or makeTexel returned.
TexelFormat texelFormat(const QImage& image);

} // namespace Morvane::Qel
