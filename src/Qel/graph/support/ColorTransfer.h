#pragma once

#include <array>

#include <Qel/graph/ImageMetrics.h>

namespace Morvane::Qel {

/// Returns the colour of a pixel of image 0 or 1 as linear light. The pair must have colours.
std::array<double, 3> linearColor(const ImagePair& pair, size_t image, int x, int y, ColorEncoding encoding);
/// Returns the colour of a pixel of image 0 or 1, sRGB-encoded. The pair must have colours.
std::array<double, 3> encodedColor(const ImagePair& pair, size_t image, int x, int y, ColorEncoding encoding);

} // namespace Morvane::Qel
