#pragma once

#include <optional>

#include <Qel/model/ImportedScene.h>

struct aiScene;

namespace Morvane::Qel {

struct MaterialLibraries;

/// Converts what Assimp read from the file `path`, which warnings name. `libraries` is given for OBJ files
/// only.
ImportedScene convertScene(const aiScene& scene, const QString& path,
                           const std::optional<MaterialLibraries>& libraries);

} // namespace Morvane::Qel
