#pragma once

#include <QString>
#include <QStringList>

#include <variant>
#include <vector>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// An image in memory: rows from top to bottom, as in files (GL has the bottom row first), channels
/// interleaved.
struct QEL_GL_EXPORT Image
{
    int width = 0;
    int height = 0;
    /// Channel names: of a texture "R", "G", "B", "A" or the first few of them, or "Z" for depth; of a file
    /// any, with R, G, B and A first.
    QStringList channels;
    /// Floats, or integers for an integer texture.
    std::variant<std::vector<float>, std::vector<quint32>> samples;

    bool isInteger() const { return samples.index() == 1; }
    int numChannels() const { return static_cast<int>(channels.size()); }
    size_t numSamples() const;
    /// A sample of either type; a double holds every float and every integer exactly.
    double sample(int x, int y, int channel) const;
    /// Size and channels, such as "640x360 RGBA".
    QString summary() const;
};

} // namespace Morvane::Qel
