#pragma once

#include <QStringList>

#include <Qel/graph/GraphPlan.h>

namespace Morvane::Qel {

/// Returns a message for each input that needs a perspective projection (InputDescription::perspectiveReason)
/// and whose value depends on the camera's. The passes must be ordered.
QStringList findPerspectiveNeeds(const GraphPlan& plan, const PassRegistry& registry);

} // namespace Morvane::Qel
