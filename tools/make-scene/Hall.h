#pragma once

#include "MeshBuilder.h"

namespace Morvane::Qel {

/// Dimensions of the hall in metres, which the furnishings have to fit. The nave runs along z between two
/// arcades, behind each of which lies an aisle; the floor is y = 0. Walls, floor and roof are solid, so that
/// light enters through the windows, the portal and the skylight only, whichever faces are culled.
namespace HallSize {
constexpr float HalfLength = 8.0F;
constexpr int Bays = 6;
constexpr float BayLength = 2.0F * HalfLength / Bays;
constexpr float ColumnX = 2.6F;
/// The z of the cross arch's middle plane: the second column line from the portal.
constexpr float CrossArchZ = -BayLength;
} // namespace HallSize

/// The z of a column line: 0 and Bays are the end walls.
constexpr float columnLineZ(int line)
{
    return static_cast<float>(line) * HallSize::BayLength - HallSize::HalfLength;
}

/// Adds the building: floor, walls, arcades, vaults, roof and their mouldings.
void addHall(MeshBuilder& mesh);

} // namespace Morvane::Qel
