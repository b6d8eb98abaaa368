#pragma once

#include "MeshBuilder.h"

namespace Morvane::Qel {

/// Adds the furnishings of the hall: railings, the curtain in the cross arch, plants, spheres on plinths.
void addFurnishings(MeshBuilder& mesh);

} // namespace Morvane::Qel
