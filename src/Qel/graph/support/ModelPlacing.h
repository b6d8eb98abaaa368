#pragma once

#include <Qel/graph/GraphDescription.h>
#include <Qel/model/ModelImport.h>

namespace Morvane::Qel {

/// Returns the model where a placement puts it.
ModelData placed(ModelData model, const ModelPlacement& placement);

} // namespace Morvane::Qel
