#pragma once

#include <memory>

#include <Qel/gl/HeadlessContext.h>
#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/GraphPlan.h>

#include "Arguments.h"

/// What several commands start with. Everything throws Failure.
namespace Morvane::Qel::App {

void addDeviceOption(Arguments& options);
/// The device that --device asks for.
HeadlessContext::Device device(const Arguments& options);
/// A context on that device, made current.
std::unique_ptr<HeadlessContext> makeContext(HeadlessContext::Device device);

/// Gives framebuffer 0, where passes draw to the screen, the size of the picture.
void resizeScreen(HeadlessContext& context, const QSize& size);

GraphDescription loadGraphFile(const QString& path);
/// Checks what can be known about a graph of the built-in passes before there is a context.
GraphPlan checkGraph(const GraphDescription& graph);

} // namespace Morvane::Qel::App
