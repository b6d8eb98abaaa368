#pragma once

#include <QString>

namespace Morvane::Qel {

class ShaderProgram;

/// Adds a vertex stage that reads the model's instances: the source, which names the plan "InstanceInfo", the
/// plan's accessors and QelUtilities.glslc.
void addModelVertexShaders(ShaderProgram* program, const QString& source);

/// Adds a fragment stage that reads the model's materials: the source, which names the plan "OBJMaterial",
/// the plan's accessors, TextureManager.glslc and QelUtilities.glslc.
void addModelFragmentShaders(ShaderProgram* program, const QString& source);

} // namespace Morvane::Qel
