#pragma once

#include "MeshBuilder.h"

namespace Morvane::Qel {

/// Adds vessels of thin tinted glass, behind and inside each other, as one object with one material.
void addGlassware(MeshBuilder& mesh);

} // namespace Morvane::Qel
