#include <algorithm>
#include <vector>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/ScreenProgram.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

std::unique_ptr<ShaderProgram> buildProgram(const QString& expression)
{
    auto program = makeScreenProgram({uR"(#version 150
uniform vec2 start = vec2(3.0, 4.0);
uniform float list[3];
uniform bool flag;
uniform mat2 matrix = mat2(1.0, 2.0, 3.0, 5.0);
uniform uint number = 7u;
out vec4 o;
void main() { o = %1; })"_s.arg(expression)});
    EXPECT_TRUE(program->isValid());
    return program;
}

QVector4D draw(ShaderProgram& program)
{
    return drawScreen(program, 1, 1).at(0, 0);
}

using ProgramCacheTest = GLTest;

TEST_F(ProgramCacheTest, ReusesAProgramOfTheSameSourcesWithInitialUniforms)
{
    const QString sum = u"vec4(start, list[0] + list[1] + list[2] + (flag ? 100.0 : 0.0), "
                        "matrix[0].x + matrix[1].y + float(number))"_s;
    auto program = buildProgram(sum);
    const unsigned int name = program->programID();
    EXPECT_EQ(draw(*program), QVector4D(3, 4, 0, 13));
    program->setUniform(u"start"_s, QVector2D(1, 1));
    program->setUniform(u"list"_s, QVector<float>{10, 20, 30});
    program->setUniform(u"flag"_s, true);
    program->setUniform(u"matrix"_s, QVector<float>{1, 1, 1, 1});
    program->setUniform(u"number"_s, 1);
    EXPECT_EQ(draw(*program), QVector4D(1, 1, 160, 3));

    // Not shared while it is in use.
    const auto second = buildProgram(sum);
    EXPECT_NE(second->programID(), name);
    program.reset();
    const auto other = buildProgram(u"vec4(2.0)"_s);
    EXPECT_NE(other->programID(), name);
    program = buildProgram(sum);
    EXPECT_EQ(program->programID(), name);
    EXPECT_EQ(program->attributeMask(), second->attributeMask());
    EXPECT_EQ(draw(*program), QVector4D(3, 4, 0, 13));
    EXPECT_EQ(draw(*other), QVector4D(2, 2, 2, 2));
}

TEST_F(ProgramCacheTest, KeepsTheLatestPrograms)
{
    std::vector<unsigned int> names;
    for (int i = 0; i < 80; ++i) {
        names.push_back(buildProgram(u"vec4(%1.0)"_s.arg(i))->programID());
    }
    EXPECT_TRUE(glIsProgram(names.back()));
    // Names of deleted programs are given out again.
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    EXPECT_LE(std::count_if(names.begin(), names.end(), [](unsigned int name) { return glIsProgram(name); }),
              64);
    const auto latest = buildProgram(u"vec4(79.0)"_s);
    EXPECT_EQ(draw(*latest), QVector4D(79, 79, 79, 79));
}

} // namespace
} // namespace Morvane::Qel::Test
