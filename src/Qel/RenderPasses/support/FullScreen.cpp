#include <Qel/RenderPasses/support/FullScreen.h>

#include <epoxy/gl.h>

#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/VertexArrayObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

void addFullScreenShaders(ShaderProgram* program, const QString& fragmentSource)
{
    program->setFragDataLocations({u"out_FragColor"_s});
    program->addShader(GL_VERTEX_SHADER, fullScreenVertexSource, {});
    program->addShader(GL_FRAGMENT_SHADER, fragmentSource, {});
}

void buildProgram(ShaderProgram* program)
{
    program->bind();
    program->release();
}

void enableArrays(const QSharedPointer<DrawBuffers>& batch, const ShaderProgram* program)
{
    const AutoBinder binder(batch->VAO().data());
    batch->VAO()->enableShaderProgramArrays(program);
}

} // namespace Morvane::Qel
