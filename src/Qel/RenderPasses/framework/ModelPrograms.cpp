#include <Qel/RenderPasses/framework/ModelPrograms.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/InstanceData.h>

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

void addModelAccessors(ShaderProgram& program, unsigned int stage)
{
    program.addShader(stage, planSource(u"InstanceInfo"_s), {});
    program.addShader(stage, planSource(u"OBJMaterial"_s), {});
    program.addShaderFromFile(stage, u"TextureManager.glslc"_s);
    program.addShaderFromFile(stage, u"QelUtilities.glslc"_s);
}

void buildModelProgram(ShaderProgram& program, const QStringList& outputs, const QString& vertexSource,
                       const QString& fragmentSource)
{
    program.setFragDataLocations(outputs);
    addModelVertexShaders(&program, vertexSource);
    addModelFragmentShaders(&program, fragmentSource);
    buildProgram(program);
}

} // namespace Morvane::Qel
