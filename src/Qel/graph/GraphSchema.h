#pragma once

#include <QJsonObject>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

class PassRegistry;

/// The JSON Schema (draft 2020-12) of graph files with the passes of a registry, with which editors complete
/// and check them. It allows all that loadGraph reads, without comments; connections are only checked by
/// planGraph.
QEL_GRAPH_EXPORT QJsonObject graphSchema(const PassRegistry& registry);

} // namespace Morvane::Qel
