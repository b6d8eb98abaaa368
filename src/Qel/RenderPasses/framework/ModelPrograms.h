#pragma once

#include <QString>
#include <QStringList>

#include <Qel/RenderPasses/Export.h>

/// Shader programs that draw a GPUModel with its per-instance and material data.
namespace Morvane::Qel {

class ShaderProgram;

/// Adds a vertex stage that reads per-instance data: `source`, which must contain the line
/// `#instancedata "InstanceInfo"`, the definitions of the accessors that this line declares, and
/// QelUtilities.glslc.
QEL_RENDERPASSES_EXPORT void addModelVertexShaders(ShaderProgram* program, const QString& source);

/// Adds a fragment stage that reads material data: `source`, which must contain the line
/// `#instancedata "OBJMaterial"`, the definitions of the accessors that this line declares,
/// TextureManager.glslc and QelUtilities.glslc.
QEL_RENDERPASSES_EXPORT void addModelFragmentShaders(ShaderProgram* program, const QString& source);

/// Adds to a stage the definitions of the accessors of "InstanceInfo" and "OBJMaterial", TextureManager.glslc
/// and QelUtilities.glslc.
QEL_RENDERPASSES_EXPORT void addModelAccessors(ShaderProgram& program, unsigned int stage);

/// Builds a program from both stages and binds fragment output i of `outputs` to draw buffer i. The program
/// logs its build errors; drawing with it then has no effect.
QEL_RENDERPASSES_EXPORT void buildModelProgram(ShaderProgram& program, const QStringList& outputs,
                                               const QString& vertexSource, const QString& fragmentSource);

} // namespace Morvane::Qel
