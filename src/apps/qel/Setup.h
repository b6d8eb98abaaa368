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

/// Creates a graph of the built-in passes on the current context. Models are read in child processes, so that
/// a damaged file gives an error.
std::unique_ptr<RenderGraph> makeGraph(const GraphDescription& description, RenderGraph::Options options);
void renderFrame(RenderGraph& graph);
/// Fails when GL has reported an error: what was drawn or read back is not to be trusted then.
void checkReports();
/// Gives framebuffer 0, where passes draw to the screen, the size of the picture.
void resizeScreen(HeadlessContext& context, const QSize& size);

GraphDescription loadGraphFile(const QString& path);
/// Checks what can be known about a graph of the built-in passes before there is a context.
GraphPlan checkGraph(const GraphDescription& graph);

} // namespace Morvane::Qel::App
