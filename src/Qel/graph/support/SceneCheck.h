#pragma once

#include <vector>

namespace Morvane::Qel {

class GraphErrors;
struct GraphDescription;
struct LightDescription;

/// Checks a graph's viewport, camera, animation, models and lights.
void checkScene(const GraphDescription& graph, GraphErrors& errors);

void checkLights(const std::vector<LightDescription>& lights, GraphErrors& errors);

} // namespace Morvane::Qel
