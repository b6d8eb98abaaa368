#pragma once

#include "Textures.h"

namespace Morvane::Qel {

/// A clear day outdoors: sky with a few clouds, sun, haze on the horizon, grassland below.
///
/// Six cube-map faces, posx.png to negz.png, whose first row is the face's t = 0 as OpenGL
/// defines it, and latlong.png of the same sky: its top row looks straight up (+y), its bottom row
/// straight down, its middle column along -z, and columns further right turn towards +x.
std::vector<NamedImage> skyImages();

} // namespace Morvane::Qel
