#pragma once

#include <memory>

#include <Qel/gl/HeadlessContext.h>
#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/RenderGraph.h>

#include "Arguments.h"

/// What several commands start with. Everything throws Failure.
namespace Morvane::Qel::App {

void addDeviceOption(Arguments& options);
/// The device that --device asks for.
HeadlessContext::Device device(const Arguments& options);
/// A context on that device, made current.
std::unique_ptr<HeadlessContext> makeContext(HeadlessContext::Device device);

/// Creates a planned graph on the current context. Models are read in child processes, so that a damaged file
/// gives an error.
std::unique_ptr<RenderGraph> makeGraph(const GraphPlan& plan, RenderGraph::Options options);
void renderFrame(RenderGraph& graph);
/// Fails when GL has reported an error: what was drawn or read back is not to be trusted then.
void checkReports();
/// Gives framebuffer 0, where passes draw to the screen, the size of the picture.
void resizeScreen(HeadlessContext& context, const QSize& size);

GraphDescription loadGraphFile(const QString& path);
/// Plans a graph of the built-in passes, which needs no context.
GraphPlan planOf(const GraphDescription& graph);

} // namespace Morvane::Qel::App
