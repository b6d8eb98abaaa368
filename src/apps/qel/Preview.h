#pragma once

#include <vector>

#include <Qel/gl/Image.h>

namespace Morvane::Qel::App {

/// A texture as an image for viewers.
struct Preview
{
    /// RGB, 0 to 1. Layers stand side by side, eight in a row, with their mip levels below them; what is left
    /// over is black.
    Image image;
    /// The values that became 0 and 1; both 0 with false colours.
    double low = 0.0;
    double high = 0.0;
    bool hasFalseColors = false;
};

/// Makes a preview of a texture's mip levels, each a list of layers, all with the same channels.
///
/// Colours from 0 to 1 stay; other values are mapped linearly from the range of all values of R, G and B, or
/// of the only channel, to 0 to 1. Values beyond a million, either way, do not count and are clamped. NaN
/// becomes magenta. Alpha is left out. `hasIntegers`, for textures of integers, gives each value a colour of
/// its own, and black to 0.
Preview previewOf(const std::vector<std::vector<Image>>& levels, bool hasIntegers);

} // namespace Morvane::Qel::App
