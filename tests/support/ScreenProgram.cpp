#include "support/ScreenProgram.h"

#include <epoxy/gl.h>

#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

std::unique_ptr<ShaderProgram> makeScreenProgram(const QStringList& fragmentSources)
{
    auto program = std::make_unique<ShaderProgram>();
    program->addShader(GL_VERTEX_SHADER,
                       u"#version 150\nin vec3 va_Vertex;\n"
                       "void main() { gl_Position = vec4(va_Vertex, 1.0); }\n"_s,
                       {});
    for (const QString& source : fragmentSources) {
        program->addShader(GL_FRAGMENT_SHADER, source, {});
    }
    return program;
}

Pixels drawScreen(ShaderProgram& program, int width, int height)
{
    const std::unique_ptr<Texture> target(
        makeTexture(Pixels::generate(width, height, [](int, int) { return QVector4D(); }), GL_RGBA32F));
    FramebufferObject framebuffer;
    framebuffer.attach(target.get(), GL_COLOR_ATTACHMENT0, 0);
    const AutoBinder framebufferBinder(&framebuffer);
    framebuffer.setDrawBuffers();
    const AutoBinder programBinder(&program);
    const auto batch = OpenGLDeviceContext::current()->fullScreenTriangle();
    const AutoBinder batchBinder(batch);
    EXPECT_TRUE(batch->draw());
    return readTexture(target.get());
}

} // namespace Morvane::Qel::Test
