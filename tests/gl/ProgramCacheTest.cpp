#include <algorithm>
#include <set>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Pixels.h"
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

std::unique_ptr<ShaderProgram> makeProgram(const QString& expression)
{
    auto program = std::make_unique<ShaderProgram>();
    program->addShader(GL_VERTEX_SHADER,
                       u"#version 150\nin vec3 va_Vertex;\n"
                       "void main() { gl_Position = vec4(va_Vertex, 1.0); }\n"_s,
                       {});
    program->addShader(GL_FRAGMENT_SHADER,
                       u"#version 150\n"
                       "uniform vec2 start = vec2(3.0, 4.0);\n"
                       "uniform float list[3];\n"
                       "uniform bool flag;\n"
                       "uniform mat2 matrix = mat2(1.0, 2.0, 3.0, 5.0);\n"
                       "uniform uint number = 7u;\n"
                       "out vec4 o;\nvoid main() { o = %1; }\n"_s.arg(expression),
                       {});
    program->bind();
    program->release();
    return program;
}

const QString sumOfAll = u"vec4(start, list[0] + list[1] + list[2] + (flag ? 100.0 : 0.0), "
                         "matrix[0].x + matrix[1].y + float(number))"_s;

QVector4D draw(ShaderProgram& program, OpenGLDeviceContext& context)
{
    const std::unique_ptr<Texture> target(
        makeTexture(Pixels::generate(1, 1, [](int, int) { return QVector4D(); }), GL_RGBA32F));
    FramebufferObject framebuffer;
    framebuffer.attach(target.get(), GL_COLOR_ATTACHMENT0, 0);
    const AutoBinder framebufferBinder(&framebuffer);
    framebuffer.setDrawBuffers();
    const AutoBinder programBinder(&program);
    const auto batch = context.fullScreenTriangle();
    const AutoBinder batchBinder(batch);
    EXPECT_TRUE(batch->draw());
    return readTexture(target.get()).at(0, 0);
}

using ProgramCacheTest = GLTest;

TEST_F(ProgramCacheTest, AProgramOfTheSameSourcesIsTakenUpAgainAsIfNew)
{
    auto program = makeProgram(sumOfAll);
    const unsigned int name = program->programID();
    EXPECT_EQ(draw(*program, context()), QVector4D(3, 4, 0, 13));
    program->setUniform(u"start"_s, QVector2D(1, 1));
    program->setUniform(u"list"_s, QVector<float>{10, 20, 30});
    program->setUniform(u"flag"_s, true);
    program->setUniform(u"matrix"_s, QVector<float>{1, 1, 1, 1});
    program->setUniform(u"number"_s, 1);
    EXPECT_EQ(draw(*program, context()), QVector4D(1, 1, 160, 3));

    // While it lives it is its own.
    const auto second = makeProgram(sumOfAll);
    EXPECT_NE(second->programID(), name);
    program.reset();
    const auto other = makeProgram(u"vec4(2.0)"_s);
    EXPECT_NE(other->programID(), name);
    program = makeProgram(sumOfAll);
    EXPECT_EQ(program->programID(), name);
    EXPECT_EQ(program->attributeMask(), second->attributeMask());
    EXPECT_EQ(draw(*program, context()), QVector4D(3, 4, 0, 13));
    EXPECT_EQ(draw(*other, context()), QVector4D(2, 2, 2, 2));
}

TEST_F(ProgramCacheTest, KeepsALimitedNumber)
{
    std::set<unsigned int> names;
    for (int i = 0; i < 80; ++i) {
        names.insert(makeProgram(u"vec4(%1.0)"_s.arg(i))->programID());
    }
    const auto numAlive = std::count_if(names.begin(), names.end(),
                                        [](unsigned int name) { return glIsProgram(name) == GL_TRUE; });
    EXPECT_LE(numAlive, 64);
    // The latest are those that stay.
    const auto latest = makeProgram(u"vec4(79.0)"_s);
    EXPECT_TRUE(names.contains(latest->programID()));
    EXPECT_EQ(draw(*latest, context()), QVector4D(79, 79, 79, 79));
}

} // namespace
} // namespace Morvane::Qel::Test
