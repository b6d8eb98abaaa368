#pragma once

#include "MeshBuilder.h"

namespace Morvane::Qel {

/// Vessels of thin tinted glass that stand in front of and in each other, as one object of one material.
void addGlassware(MeshBuilder& mesh);

} // namespace Morvane::Qel
