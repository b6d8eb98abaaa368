#pragma once

#include <QSet>

#include <optional>

#include <Qel/model/ImportedScene.h>

struct aiScene;

namespace Morvane::Qel {

/// Converts what Assimp read from the file `path`, which warnings name. `materialsWithKd` names the materials
/// whose diffuse colour counts; without it, the diffuse colour counts for all but Assimp's default material.
ImportedScene convertScene(const aiScene& scene, const QString& path,
                           const std::optional<QSet<QString>>& materialsWithKd);

} // namespace Morvane::Qel
