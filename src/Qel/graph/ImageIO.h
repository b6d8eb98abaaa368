#pragma once

#include <QString>

#include <optional>
#include <vector>

#include <Qel/graph/Image.h>

namespace Morvane::Qel {

class Texture;

/// Reads level 0 of a texture: one image for a 2D texture, one per layer of an array texture, six for a cube
/// map in GL's face order, none for a texture without storage. Unsigned integer formats keep their values;
/// signed ones become floats, exact up to 2^24. Depth formats give one channel "Z". Null is reported and
/// gives no image. The context must be current.
QEL_GRAPH_EXPORT std::vector<Image> readTexture(Texture* texture);

/// Reads the lower left corner of the default framebuffer as RGBA with 8 bits per channel. The context must
/// be current.
QEL_GRAPH_EXPORT Image readDefaultFramebuffer(int width, int height);

/// Writes a PNG or EXR file, depending on the file name extension. An existing file is replaced only once the
/// new one is complete.
///
/// PNG has 8 bits per channel: values are clamped to 0..1 and rounded, NaN becomes 0, and alpha stays
/// straight. An image with one channel becomes grey; integer images cannot be written. EXR stores 32-bit
/// float channels, or 32-bit unsigned ones for integer images, without loss.
///
/// Returns false on failure, with one line in `error` that names the file, the cause and a remedy.
QEL_GRAPH_EXPORT bool writeImage(const Image& image, const QString& path, QString* error);

/// Checks ahead whether writeImage can write a file: its extension is known and its folder is writable.
/// Returns false with one line in `error` if not.
QEL_GRAPH_EXPORT bool checkImagePath(const QString& path, QString* error);

/// Reads an EXR file, or any file that QImage reads. EXR channels keep their values and names, with R, G, B
/// and A first; a file with only integer channels gives an integer image. Other files are divided by 255, or
/// by 65535 with 16 bits per channel; grey ones have one channel "R", and alpha stays straight. Returns
/// nothing on failure, with one line in `error` that names the file, the cause and a remedy.
QEL_GRAPH_EXPORT std::optional<Image> readImage(const QString& path, QString* error);

} // namespace Morvane::Qel
