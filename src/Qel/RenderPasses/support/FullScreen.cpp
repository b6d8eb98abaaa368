#include <Qel/RenderPasses/support/FullScreen.h>

#include <epoxy/gl.h>

#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/VertexArrayObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

const QString fullScreenVertexSource = uR"(#version 150
in vec3 va_Vertex;
in vec2 va_TexCoord;
out vec2 vo_TexCoord;

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_TexCoord = va_TexCoord;
}
)"_s;

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

bool drawBatch(DrawBuffers* batch)
{
    const AutoBinder binder(batch);
    return batch->draw();
}

} // namespace Morvane::Qel
