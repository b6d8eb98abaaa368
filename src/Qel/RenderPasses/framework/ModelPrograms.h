#pragma once

#include <QString>
#include <QStringList>

#include <Qel/RenderPasses/Export.h>

/// Programs that draw a GPUModel with its instances and materials, for passes of the library and of users.
namespace Morvane::Qel {

class ShaderProgram;

/// Adds a vertex stage that reads the model's instances: the source, which contains the line
/// `#instancedata "InstanceInfo"`, the functions that line declares, and QelUtilities.glslc.
QEL_RENDERPASSES_EXPORT void addModelVertexShaders(ShaderProgram* program, const QString& source);

/// Adds a fragment stage that reads the model's materials: the source, which contains the line
/// `#instancedata "OBJMaterial"`, the functions that line declares, TextureManager.glslc and
/// QelUtilities.glslc.
QEL_RENDERPASSES_EXPORT void addModelFragmentShaders(ShaderProgram* program, const QString& source);

/// Builds a program from both stages. Fragment output i of the list goes to colour attachment i. Errors are
/// logged by the program, which then draws nothing.
QEL_RENDERPASSES_EXPORT void buildModelProgram(ShaderProgram& program, const QStringList& outputs,
                                               const QString& vertexSource, const QString& fragmentSource);

} // namespace Morvane::Qel
