#pragma once

#include <Qel/graph/ImageMetrics.h>

namespace Morvane::Qel {

/// Returns the map of FLIP for two images whose colours are from 0 to 1; see flip.
Image flipMap(const ImagePair& pair, ColorEncoding encoding, double pixelsPerDegree);

} // namespace Morvane::Qel
