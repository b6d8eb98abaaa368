#pragma once

#include <QString>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

class RenderGraph;
struct GraphPlan;

/// The frame to begin with for the image of `frame` to be the same as in the whole sequence: an earlier one
/// if passes remember earlier frames (GraphPlan::runUpFrames).
QEL_GRAPH_EXPORT int runUpStart(const GraphPlan& plan, int frame);

/// Begins a frame of a graph's animation: sets the clock, and seeds drand48, from which TemporalAAJitterPass
/// takes its offsets, with the frame number. An application that shows a frame while it settles calls
/// this, and then RenderGraph::renderFrame as often as GraphDescription::settle says.
QEL_GRAPH_EXPORT void beginSequenceFrame(RenderGraph& graph, int frame);

/// Renders a frame of a graph's animation: begins it and renders until the image has settled
/// (GraphDescription::settle). The image does not depend on the process or machine that renders it, if the
/// frames from runUpStart on were rendered before it. Returns false with one line in `error` as
/// RenderGraph::renderFrame does.
QEL_GRAPH_EXPORT bool renderSequenceFrame(RenderGraph& graph, int frame, QString* error);

} // namespace Morvane::Qel
