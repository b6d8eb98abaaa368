#pragma once

#include <QSize>

namespace Morvane::Qel {
class Texture;
}

namespace Morvane::Qel::Viewer {

/// How the values of a texture become colours on the screen.
struct DisplaySettings
{
    enum class Channels : int
    {
        Rgb,
        /// Over a checkerboard.
        Rgba,
        Red,
        Green,
        Blue,
        Alpha,
    };

    Channels channels = Channels::Rgb;
    /// In stops: 1 doubles the values.
    float exposure = 0.0F;
    float gamma = 1.0F;
    /// The values that become black and white.
    float minimum = 0.0F;
    float maximum = 1.0F;
    /// Whether the range follows the values.
    bool hasAutoRange = false;
    /// Integers get a colour each; a single channel gets a scale from blue over green to red.
    bool hasFalseColors = false;
    int level = 0;
    /// The layer of an array texture or the face of a cube map.
    int layer = 0;
    /// Whether enlarged texels are interpolated.
    bool isSmooth = false;

    bool operator==(const DisplaySettings&) const = default;
};

/// What a texture holds, as far as its display is concerned.
enum class TextureKind
{
    Color,
    Depth,
    Unsigned,
    Signed,
    /// Of no kind that can be shown.
    None,
};
TextureKind kindOf(const Texture& texture);

/// Number of channels of a texture, 1 for depth.
int numChannelsOf(const Texture& texture);

/// Number of layers of an array texture, 6 for a cube map, otherwise 1.
int numLayersOf(const Texture& texture);

/// The size of a mip level.
QSize sizeOfLevel(const Texture& texture, int level);

/// Bytes of all mip levels and layers; 0 for a format that is not known.
double numBytesOf(const Texture& texture);

/// The settings in which a texture shows something on first sight: depth gets an automatic range, integers
/// get colours. The output of a graph is shown as it is.
DisplaySettings initialSettings(const Texture& texture);

} // namespace Morvane::Qel::Viewer
