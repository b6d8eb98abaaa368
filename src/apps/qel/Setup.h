#pragma once

#include <memory>

#include <Qel/gl/HeadlessContext.h>
#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/RenderGraph.h>

#include "Arguments.h"

/// Steps shared by several commands. All of them throw Failure on errors.
namespace Morvane::Qel::App {

void addDeviceOption(Arguments& options);
/// Returns the device chosen by --device.
HeadlessContext::Device device(const Arguments& options);
/// Creates a context on a device and makes it current.
std::unique_ptr<HeadlessContext> makeContext(HeadlessContext::Device device);

/// Creates a planned graph on the current context. Models are read in child processes, so that a damaged file
/// gives an error.
std::unique_ptr<RenderGraph> makeGraph(const GraphPlan& plan, RenderGraph::Options options);
void renderFrame(RenderGraph& graph);
/// Fails if a frame was not rendered, with `error` and what GL or a shader reported.
void finishFrame(bool isRendered, const QString& error);
/// Fails if GL has reported an error, because rendered or read-back pixels may then be wrong.
void checkReports();
/// Resizes framebuffer 0, to which passes draw as the screen.
void resizeScreen(HeadlessContext& context, const QSize& size);

/// Reads a graph file, or standard input for "-".
GraphDescription loadGraphFile(const QString& path);
/// Plans a graph of built-in passes, which finds all errors that need no context.
GraphPlan planOf(const GraphDescription& graph);

} // namespace Morvane::Qel::App
