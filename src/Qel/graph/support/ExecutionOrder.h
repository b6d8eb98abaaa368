#pragma once

#include <Qel/graph/GraphPlan.h>

namespace Morvane::Qel {

class GraphErrors;

/// Reports every cycle of connections once.
void reportCycles(const GraphPlan& plan, GraphErrors& errors);

/// Culls passes that neither the graph's output nor a pass without outputs depends on.
void cullUnusedPasses(GraphPlan& plan);

/// Fills in the execution order. The plan must have no cycles.
void orderPasses(GraphPlan& plan);

} // namespace Morvane::Qel
