#pragma once

#include <QString>
#include <QStringList>

#include <optional>
#include <variant>
#include <vector>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

class Texture;

/// A picture in memory: rows from top to bottom as in files (GL keeps the bottom row first), channels
/// interleaved.
struct QEL_GRAPH_EXPORT Image
{
    int width = 0;
    int height = 0;
    /// "R", "G", "B", "A" or those of them that there are, "Z" for depth.
    QStringList channels;
    /// Floats, or the values of an integer texture.
    std::variant<std::vector<float>, std::vector<quint32>> samples;

    bool isInteger() const { return samples.index() == 1; }
    int numChannels() const { return static_cast<int>(channels.size()); }
    /// A sample of either kind; every float and every integer fits a double.
    double sample(int x, int y, int channel) const;
    /// The picture's size and channels, "640x360 RGBA".
    QString summary() const;
};

/// Level 0 of a texture: one picture for a 2D texture, one for each layer of an array texture, six for a cube
/// map in GL's order of faces, none for a texture without an image. Unsigned integer formats keep their
/// values; signed ones become floats, exact up to 2^24. Depth formats give one channel "Z". The context must
/// be current.
QEL_GRAPH_EXPORT std::vector<Image> readTexture(Texture* texture);

/// The lower left corner of the default framebuffer, RGBA in 8 bits a channel. The context must be current.
QEL_GRAPH_EXPORT Image readDefaultFramebuffer(int width, int height);

/// Writes a PNG or EXR file by the ending of its name. The file appears whole or not at all: an older one of
/// the same name stays until the new one is complete.
///
/// PNG holds 8 bits a channel: values are clamped to 0..1 and rounded, NaN becomes 0, alpha is kept straight
/// as it is; one channel gives a grey picture; integer pictures have no such form. EXR holds 32-bit float
/// channels, or 32-bit unsigned ones for integer pictures, exactly.
///
/// Returns false on failure, with one line in `error` that names the file, the cause and what would help.
QEL_GRAPH_EXPORT bool writeImage(const Image& image, const QString& path, QString* error);

/// Whether writeImage could write a file of this name as far as can be told before there is a picture: the
/// ending is known, and the folder takes new files.
QEL_GRAPH_EXPORT bool checkImagePath(const QString& path, QString* error);

/// Reads an EXR file, or any file that QImage reads. EXR channels come as they are, R, G, B and A first;
/// files with integer channels only stay integers. Of the rest, grey pictures have one channel "R", values
/// are divided by 255 (by 65535 for files with 16 bits a channel), and alpha is not multiplied in. Returns
/// nothing on failure, with one line in `error` that names the file, the cause and what would help.
QEL_GRAPH_EXPORT std::optional<Image> readImage(const QString& path, QString* error);

} // namespace Morvane::Qel
