#pragma once

#include <QRect>
#include <QString>

#include <optional>
#include <vector>

#include <Qel/core/PassDescription.h>
#include <Qel/gl/Image.h>
#include <Qel/graph/Export.h>

namespace Morvane::Qel {

class Texture;

/// Reads a mip level of a texture, 0 being the largest: one image for a 2D texture, one per layer of an array
/// texture, six for a cube map in GL's face order, none for a texture without storage. Unsigned integer
/// formats keep their values; signed ones become floats, exact up to 2^24. Depth formats give one channel
/// "Z". Null is reported and gives no image. The context must be current.
QEL_GRAPH_EXPORT std::vector<Image> readTexture(Texture* texture, int level = 0);

/// Reads a rectangle of a texture, such as a single texel, without the rest where the driver can: one image
/// with the channels that readTexture gives. `rectangle` is in texels of the mip level with the origin at the
/// lower left, as in GL, and is cut to the level. `layer` is the layer of an array texture or the face of a
/// cube map. Returns an image without pixels if there is nothing to read. The context must be current.
QEL_GRAPH_EXPORT Image readTexels(Texture* texture, const QRect& rectangle, int level = 0, int layer = 0);

/// Reads the lower left corner of the default framebuffer as RGBA with 8 bits per channel. The context must
/// be current.
QEL_GRAPH_EXPORT Image readDefaultFramebuffer(int width, int height);

/// What becomes of the alpha of an image in a PNG file.
enum class PngAlpha
{
    /// It is left out: the alpha of frames is often data, with which viewers show a broken image.
    Opaque,
    /// It is written as it is.
    Keep,
    /// Colours that are premultiplied by it (or, if ImageFileOptions does not say, may be) are divided by it,
    /// because alpha in PNG files is straight. Where it is 0, the colour becomes 0.
    Straight
};

struct ImageFileOptions
{
    PngAlpha pngAlpha = PngAlpha::Opaque;
    /// What the values and the alpha of the image stand for. EXR files get it as the text attributes
    /// "qelEncoding" and "qelAlpha", see docs/graph-files.md; not if Unspecified.
    Encoding encoding = Encoding::Unspecified;
    AlphaMeaning alpha = AlphaMeaning::Unspecified;
};

/// Writes a PNG or EXR file, depending on the file name extension. An existing file is replaced only once the
/// new one is complete.
///
/// PNG has 8 bits per channel: values are clamped to 0..1 and rounded, NaN becomes 0, and alpha is left out
/// by default. An image with one channel becomes grey; integer images cannot be written. EXR stores all
/// channels as they are, as 32-bit floats or, for integer images, 32-bit unsigned integers.
///
/// Returns false on failure, with one line in `error` that names the file, the cause and a remedy.
QEL_GRAPH_EXPORT bool writeImage(const Image& image, const QString& path, QString* error,
                                 const ImageFileOptions& options = {});

/// Checks ahead whether writeImage can write a file: its extension is known and its folder is writable.
/// Returns false with one line in `error` if not.
QEL_GRAPH_EXPORT bool checkImagePath(const QString& path, QString* error);

/// Reads an EXR or Radiance HDR file (see readFloatImage), or any file that QImage reads. Other files are
/// divided by 255, or by 65535 with 16 bits per channel; grey ones have one channel "R", and alpha stays
/// straight. Returns nothing on failure, with one line in `error` that names the file, the cause and a
/// remedy.
QEL_GRAPH_EXPORT std::optional<Image> readImage(const QString& path, QString* error);

} // namespace Morvane::Qel
