#include "support/ModelPrograms.h"

#include <epoxy/gl.h>

#include <Qel/gl/InstanceData.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

namespace {

QString planSource(const QString& plan)
{
    return InstanceDataRegistry::Instance()->getPlan(plan)->glslc();
}

} // namespace

void addModelVertexShaders(ShaderProgram* program, const QString& source)
{
    program->addShader(GL_VERTEX_SHADER, source, {});
    program->addShader(GL_VERTEX_SHADER, planSource(QStringLiteral("InstanceInfo")), {});
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("QelUtilities.glslc"));
}

void addModelFragmentShaders(ShaderProgram* program, const QString& source)
{
    program->addShader(GL_FRAGMENT_SHADER, source, {});
    program->addShader(GL_FRAGMENT_SHADER, planSource(QStringLiteral("OBJMaterial")), {});
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("TextureManager.glslc"));
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("QelUtilities.glslc"));
}

} // namespace Morvane::Qel
