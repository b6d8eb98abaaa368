#pragma once

#include <Qel/graph/GraphPlan.h>

namespace Morvane::Qel {

class GraphErrors;

/// Culls passes that neither the graph's output nor a pass without outputs depends on.
void cullUnusedPasses(GraphPlan& plan);

/// Reports every output that more than one pass modifies in place or, if there is none, the cycles of
/// connections, each once. A
/// pass that modifies a texture in place depends on all other passes that read it. Only passes that are not
/// culled modify textures.
void reportCycles(const GraphPlan& plan, GraphErrors& errors);

/// Fills in the execution order. The plan must have no cycles.
void orderPasses(GraphPlan& plan);

} // namespace Morvane::Qel
