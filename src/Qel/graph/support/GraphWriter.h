#pragma once

#include <QString>

#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/PassRegistry.h>

namespace Morvane::Qel {

/// The JSON text of a graph file, in a fixed order. Relative paths are rewritten to start from the folder of
/// `file`; `registry` says which inputs and options are paths.
QString graphText(const GraphDescription& graph, const QString& file, const PassRegistry& registry);

} // namespace Morvane::Qel
