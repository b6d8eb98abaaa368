#include <Qel/RenderPasses/support/ModelPrograms.h>

#include <epoxy/gl.h>

#include <Qel/gl/InstanceData.h>
#include <Qel/gl/ShaderProgram.h>

using namespace Qt::StringLiterals;

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
    program->addShader(GL_VERTEX_SHADER, planSource(u"InstanceInfo"_s), {});
    program->addShaderFromFile(GL_VERTEX_SHADER, u"QelUtilities.glslc"_s);
}

void addModelFragmentShaders(ShaderProgram* program, const QString& source)
{
    program->addShader(GL_FRAGMENT_SHADER, source, {});
    program->addShader(GL_FRAGMENT_SHADER, planSource(u"OBJMaterial"_s), {});
    program->addShaderFromFile(GL_FRAGMENT_SHADER, u"TextureManager.glslc"_s);
    program->addShaderFromFile(GL_FRAGMENT_SHADER, u"QelUtilities.glslc"_s);
}

} // namespace Morvane::Qel
