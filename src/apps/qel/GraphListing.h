#pragma once

#include <vector>

#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/RenderGraph.h>

/// What `qel graph` prints about a graph. `outputs` are those of a rendered frame; without them, sizes and
/// formats are left out.
namespace Morvane::Qel::App {

/// Prints the passes in execution order, each with the sources of its inputs and with its outputs.
void printGraph(const GraphPlan& plan, const std::vector<RenderGraph::Output>& outputs);

/// Prints the same as JSON, with the warnings.
void printGraphJson(const GraphPlan& plan, const std::vector<RenderGraph::Output>& outputs,
                    const QStringList& warnings);

} // namespace Morvane::Qel::App
