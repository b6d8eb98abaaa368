#pragma once

namespace Morvane::Qel {

class GraphErrors;
struct GraphDescription;

/// Checks a graph's viewport, camera, models and lights.
void checkScene(const GraphDescription& graph, GraphErrors& errors);

} // namespace Morvane::Qel
