#include <array>
#include <set>
#include <tuple>

#include <epoxy/gl.h>

#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/VertexArrayObject.h>

#include "support/Folder.h"
#include "support/GLState.h"
#include "support/GLTest.h"
#include "support/ScreenProgram.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

using ShaderProgramTest = GLTest;

TEST_F(ShaderProgramTest, LogsErrorsWithFileAndLine)
{
    const Folder folder;
    folder.write(u"broken.glslh"_s,
                 u"#version 400\nfloat fine;\nfloat broken() { return headerMistake; }\n"_s);
    GLSLMacroProcessor processor;
    processor.addIncludePath(folder.path({}));
    processor.addDefine(u"SOMETHING"_s, u"1"_s);
    const auto program = makeScreenProgram({});
    program->setObjectName(u"Broken"_s);
    program->addShader(GL_FRAGMENT_SHADER,
                       u"#version 150\n\n#include \"broken.glslh\"\nout vec4 o;\n"
                       "void main()\n{\n    o = vec4(ownMistake);\n}\n"_s,
                       u"own.frag"_s);
    program->setMacroProcessor(&processor);
    program->bind();
    EXPECT_EQ(program->programID(), 0U);
    program->release();
    EXPECT_FALSE(program->isValid());
    // One message for the whole build, with an excerpt for each error.
    ASSERT_EQ(messages().failures.size(), 1);
    expectMessage(u"program \"Broken\" cannot be built:\n"
                  "(?s).*broken\\.glslh:3:\\d+: error: `headerMistake' undeclared\n"
                  ".*    2 \\| float fine;\n"
                  ">    3 \\| float broken\\(\\) \\{ return headerMistake; \\}\n"
                  ".*own\\.frag:7:\\d+: error: `ownMistake' undeclared\n"
                  ".*    6 \\| \\{\n"
                  ">    7 \\|     o = vec4\\(ownMistake\\);\n"
                  "     8 \\| \\}"_s);
    EXPECT_TRUE(program->log().contains(u"own.frag:7:"_s));

    const auto missingFile = makeScreenProgram({});
    missingFile->addShaderFromFile(GL_FRAGMENT_SHADER, u"NoSuchFile.glslc"_s);
    EXPECT_FALSE(missingFile->isValid());
    expectMessage(u"NoSuchFile.glslc: cannot read this fragment shader"_s);
    EXPECT_FALSE(makeScreenProgram({u"#include \"none.glslh\"\n"_s})->isValid());
    expectMessage(u"fragment shader:1: cannot find include \"none.glslh\""_s);
    const QString unresolved = u"#version 150\nfloat f();\nout vec4 o;\nvoid main() { o = vec4(f()); }\n"_s;
    EXPECT_FALSE(makeScreenProgram({unresolved})->isValid());
    expectMessage(u"program \\(vertex shader, fragment shader\\) cannot be built:\n.*reference"_s);
    EXPECT_FALSE(ShaderProgram().isValid());
    expectMessage(u"no sources were added"_s);
}

TEST_F(ShaderProgramTest, ConvertsValuesToTheDeclaredType)
{
    const auto program = makeScreenProgram({uR"(#version 150
uniform float f; uniform int i; uniform uint ui; uniform bool b; uniform sampler2D s;
uniform vec2 v2; uniform vec3 v3; uniform vec4 v4; uniform ivec4 iv4; uniform uvec3 uv3; uniform bvec2 bv2;
uniform mat2 m2; uniform mat3 m3; uniform mat4 m4; uniform mat2x3 m23;
uniform float fs[3]; uniform vec2 v2s[2];
out vec4 o;
void main()
{
    o = vec4(f + i + ui + float(b) + texture(s, v2).r) + v4 + vec4(v3, 0.0) + iv4 + vec4(uv3, 0) + vec4(bv2, bv2)
        + vec4(m2 * v2, m23 * v2) + vec4(m3 * v3, 1.0) + m4 * v4 + vec4(fs[0] + fs[1] + fs[2])
        + vec4(v2s[0], v2s[1]);
})"_s});
    const AutoBinder binder(program.get());

    // The first components of a uniform, as GL holds them.
    using Components = std::vector<float>;
    const auto expectComponents = [&](const char* name, const Components& expected) {
        Components values(16);
        const unsigned int id = program->programID();
        glGetUniformfv(id, glGetUniformLocation(id, name), values.data());
        values.resize(expected.size());
        EXPECT_EQ(values, expected) << name;
    };
    const auto expectSet = [&](const char* name, const auto& value, const Components& expected) {
        Uniform uniform(name);
        program->setUniform(uniform, value);
        expectComponents(name, expected);
    };
    const QMatrix4x4 matrix(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
    const QColor colour(255, 0, 51, 102);
    const QVector<float> ramp{1, 2, 3, 4, 5, 6, 7};
    // What has too few components or no such type leaves the value as it was.
    // clang-format off
    const std::tuple<const char*, QVariant, Components> variants[] = {
        {"f", 0.25, {0.25F}}, {"f", true, {1}}, {"i", -2.75, {-2}}, {"i", 1e20, {0}},
        {"ui", 4000000000U, {4e9F}}, {"ui", -1, {4294967296.0F}}, {"b", 0.5, {1}}, {"s", 3, {3}},
        {"v2", QSize(640, 480), {640, 480}}, {"v2", QPointF(0.5, 1.5), {0.5F, 1.5F}},
        {"v4", colour, {1, 0, 0.2F, 0.4F}}, {"v4", QColor::fromHsv(120, 255, 255), {0, 1, 0, 1}},
        {"v4", QVector4D(5, 6, 7, 8), {5, 6, 7, 8}}, {"v4", QVector2D(1, 2), {5, 6, 7, 8}},
        {"v4", u"1"_s, {5, 6, 7, 8}}, {"v2", QVariant::fromValue(ramp), {1, 2}},
        {"iv4", QRect(-3, 4, 50, 60), {-3, 4, 50, 60}}, {"uv3", QVector3D(1.9F, 2, 3), {1, 2, 3}},
        {"bv2", QVector2D(0, 9), {0, 1}}, {"m2", matrix, {1, 5, 2, 6}}, {"m23", matrix, {0, 0, 0, 0, 0, 0}},
        {"m4", matrix, {1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15, 4, 8, 12, 16}}, {"m4", 5, {1, 5, 9, 13}},
        {"m3", matrix, {1, 5, 9, 2, 6, 10, 3, 7, 11}},
        {"m3", QVariant::fromValue(matrix.transposed().toGenericMatrix<3, 3>()), {1, 2, 3, 5, 6, 7, 9}}};
    // clang-format on
    for (const auto& [name, value, expected] : variants) {
        expectSet(name, value, expected);
    }
    expectSet("f", 4, {4});
    expectSet("f", true, {1});
    expectSet("i", 2.9F, {2});
    expectSet("v2", QVector2D(8, 9), {8, 9});
    expectSet("v3", colour, {1.0F, 0.0F, 51.0F / 255.0F});
    expectSet("v3", QVector4D(1, 2, 3, 4), {1, 2, 3});
    expectSet("v3", QVector3D(4, 5, 6), {4, 5, 6});
    expectSet("m3", QMatrix4x4(), {1, 0, 0, 0});
    Uniform integer("i");
    program->setUniform(integer, 16777217);
    int exact = 0;
    glGetUniformiv(program->programID(), program->getUniformLocation(u"i"_s), &exact);
    EXPECT_EQ(exact, 16777217);

    // Arrays take what fits.
    expectSet("fs", ramp, {1});
    expectComponents("fs[2]", {3});
    expectSet("fs", QVector<float>{9}, {9});
    expectComponents("fs[1]", {2});
    expectSet("v2s", ramp, {1, 2});
    expectComponents("v2s[1]", {3, 4});

    EXPECT_TRUE(program->hasUniform(u"fs"_s));
    EXPECT_FALSE(program->hasUniform(u"none"_s));
    Uniform none("none");
    program->setUniform(none, 1.0F);
}

TEST_F(ShaderProgramTest, UniformHandlesFollowThePrograms)
{
    const QString one = u"#version 150\nuniform float u_Value;\nout vec4 o;\n"
                        "void main() { o = vec4(u_Value); }\n"_s;
    const QString other = u"#version 150\nuniform vec2 u_First, u_Value;\nout vec4 o;\n"
                          "void main() { o = vec4(u_First, u_Value); }\n"_s;
    Uniform value("u_Value");
    for (const QString& source : {one, other, one}) {
        const auto program = makeScreenProgram({source});
        {
            const AutoBinder binder(program.get());
            program->setUniform(value, QVector2D(4, 5));
        }
        EXPECT_EQ(drawScreen(*program, 1, 1).at(0, 0),
                  source == one ? QVector4D(4, 4, 4, 4) : QVector4D(0, 0, 4, 5));
    }
    // Setting by name builds a program and binds it for the call.
    const auto bound = makeScreenProgram({one});
    const auto unbound = makeScreenProgram({other});
    const AutoBinder binder(bound.get());
    unbound->setUniform(u"u_First"_s, QVector2D(1, 2));
    unbound->setUniform(u"u_Value"_s, QVector<float>{3, 6});
    EXPECT_EQ(stateInGL(GL_CURRENT_PROGRAM), bound->programID());
    EXPECT_EQ(drawScreen(*unbound, 1, 1).at(0, 0), QVector4D(1, 2, 3, 6));
    unbound->addShader(GL_FRAGMENT_SHADER, one, {});
    expectMessage(u"failed: a program that is built takes no more sources"_s);
}

TEST_F(ShaderProgramTest, ReadsEveryAttributeAtItsLocationInTheLinkedProgram)
{
    const auto array = context().fullScreenTriangle()->VAO();
    const auto makeBuffer = [](const auto& values) {
        auto buffer = QSharedPointer<BufferObject>::create(GL_ARRAY_BUFFER);
        buffer->uploadBytes(values.data(), sizeof(values), GL_STATIC_DRAW);
        return buffer;
    };
    // The same at every vertex.
    std::array<std::array<float, 16>, 3> matrices{};
    matrices.fill({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
    array->upload(u"my_Matrix"_s, makeBuffer(matrices), 16, GL_FLOAT);
    array->upload(u"my_Number"_s, makeBuffer(std::array{-3, -3, -3}), 1, GL_INT);
    const auto makeProgram = [](const QString& attributes, const QString& value) {
        auto program = std::make_unique<ShaderProgram>();
        program->addShader(
            GL_VERTEX_SHADER,
            u"#version 150\n#extension GL_ARB_explicit_attrib_location : enable\n%1\n"
            "flat out vec4 v;\nvoid main() { gl_Position = vec4(va_Vertex, 1.0); v = %2; }\n"_s.arg(
                attributes, value),
            {});
        program->addShader(GL_FRAGMENT_SHADER,
                           u"#version 150\nflat in vec4 v;\nout vec4 second; out vec4 first;\n"
                           "void main() { first = v; second = vec4(2.0); }\n"_s,
                           {});
        program->setFragDataLocations({u"first"_s, u"second"_s, u"third"_s});
        return program;
    };
    const auto own = makeProgram(u"in vec3 va_Vertex;"_s, u"vec4(7.0)"_s);
    const auto moved =
        makeProgram(u"layout(location = 2) in vec3 va_Vertex; layout(location = 0) in int my_Number;"
                    "layout(location = 3) in mat4 my_Matrix;"_s,
                    u"my_Matrix[1] + vec4(my_Number)"_s);
    const auto columns = makeProgram(u"in vec3 va_Vertex; in mat4 my_Matrix; in float my_Number;"_s,
                                     u"my_Matrix[3] - my_Number"_s);
    // Each program finds the batch as another one left it.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(drawScreen(*own, 1, 1).at(0, 0), QVector4D(7, 7, 7, 7));
        EXPECT_EQ(drawScreen(*moved, 1, 1).at(0, 0), QVector4D(2, 3, 4, 5));
        EXPECT_EQ(drawScreen(*columns, 1, 1).at(0, 0), QVector4D(16, 17, 18, 19));
    }
    array->upload(u"my_Number"_s, makeBuffer(std::array{10, 10, 10}), 1, GL_INT);
    EXPECT_EQ(drawScreen(*moved, 1, 1).at(0, 0), QVector4D(15, 16, 17, 18));
    EXPECT_EQ(glGetFragDataLocation(moved->programID(), "second"), 1);
    // More names than any program could have at once.
    for (int i = 0; i < 40; ++i) {
        const QString name = u"my_Attribute%1"_s.arg(i);
        array->upload(name, array->bo(u"my_Number"_s), 1, GL_INT);
        const auto program =
            makeProgram(u"in vec3 va_Vertex; in int %1;"_s.arg(name), u"vec4(%1)"_s.arg(name));
        EXPECT_EQ(drawScreen(*program, 1, 1).at(0, 0), QVector4D(10, 10, 10, 10)) << i;
    }
}

TEST_F(ShaderProgramTest, InstanceDataReplacesTheDefaultsWhileItIsBound)
{
    const auto* registry = InstanceDataRegistry::Instance();
    const auto* instancePlan = registry->getPlan(u"VeskInstance"_s);
    const auto* materialPlan = registry->getPlan(u"OBJMaterial"_s);
    const auto makeShadingProgram = [&](const char* result) {
        return makeScreenProgram(
            {u"#version 150\n#instancedata \"VeskInstance\"\n"
             "#instancedata \"OBJMaterial\"\nout vec4 o;\nvoid main() { o = %1; }\n"_s.arg(
                 QLatin1StringView(result)),
             instancePlan->glslc(), materialPlan->glslc()});
    };
    const VeskInstanceBlock block{{2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1}};
    const auto buffer = QSharedPointer<BufferObject>::create(GL_UNIFORM_BUFFER);
    buffer->uploadBytes(&block, sizeof(block), GL_STATIC_DRAW);
    InstanceDataCollection collection(instancePlan, buffer, 0);
    // Bound before the context builds its first program.
    collection.bind(nullptr);
    const auto program = makeShadingProgram("getModelMatrix() * vec4(1, 2, 3, 4)");
    const auto material = makeShadingProgram("vec4(getKd().r, getKs().r, getNs(), getD())");
    EXPECT_EQ(drawScreen(*program, 1, 1).at(0, 0), QVector4D(2, 4, 6, 4));
    EXPECT_EQ(drawScreen(*material, 1, 1).at(0, 0), QVector4D(1, 0, 1, 1));
    collection.unbind(nullptr);
    EXPECT_EQ(drawScreen(*program, 1, 1).at(0, 0), QVector4D(1, 2, 3, 4));

    EXPECT_TRUE(instancePlan->assertShaderProgram(program.get()));
    EXPECT_TRUE(materialPlan->assertShaderProgram(material.get()));
    const auto mismatch =
        makeScreenProgram({u"#version 150\nlayout(std140) uniform OBJMaterial { mat4 m; };\nout vec4 o;\n"
                           "void main() { o = m[0]; }\n"_s});
    EXPECT_FALSE(materialPlan->assertShaderProgram(mismatch.get()));
    expectMessage(u"Assertion .* failed: plan \"OBJMaterial\" needs a program that is built"_s);
    ASSERT_TRUE(mismatch->isValid());
    EXPECT_FALSE(materialPlan->assertShaderProgram(mismatch.get()));
    expectMessage(u"block \"OBJMaterial\" has 64 bytes at binding point 1, not 32 at 1"_s);
    EXPECT_EQ(registry->getPlan(u"Nonsense"_s), nullptr);
    expectMessage(u"there is no instance-data plan \"Nonsense\""_s);

    // The inverse transpose of a translation after a scale, column by column.
    QMatrix4x4 model;
    model.translate(1, 2, 3);
    model.scale(2, 4, 8);
    const std::array<float, 16> inverseTranspose{0.5F, 0, 0,      -0.5F,   0, 0.25F, 0, -0.5F,
                                                 0,    0, 0.125F, -0.375F, 0, 0,     0, 1};
    EXPECT_EQ(InstanceInfoBlock(model).modelNormalMatrix, inverseTranspose);
}

using ProgramCacheTest = GLTest;

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

TEST_F(ProgramCacheTest, ReusesAProgramOfTheSameSourcesWithInitialUniforms)
{
    const QString sum = u"vec4(start, list[0] + list[1] + list[2] + (flag ? 100.0 : 0.0), "
                        "matrix[0].x + matrix[1].y + float(number))"_s;
    auto program = buildProgram(sum);
    const unsigned int name = program->programID();
    program->setUniform(u"start"_s, QVector2D(1, 1));
    program->setUniform(u"list"_s, QVector<float>{10, 20, 30});
    program->setUniform(u"flag"_s, true);
    program->setUniform(u"matrix"_s, QVector<float>{1, 1, 1, 1});
    program->setUniform(u"number"_s, 1);
    EXPECT_EQ(drawScreen(*program, 1, 1).at(0, 0), QVector4D(1, 1, 160, 3));

    // Not shared while it is in use.
    const auto second = buildProgram(sum);
    EXPECT_NE(second->programID(), name);
    program.reset();
    EXPECT_NE(buildProgram(u"vec4(2.0)"_s)->programID(), name);
    program = buildProgram(sum);
    EXPECT_EQ(program->programID(), name);
    EXPECT_EQ(program->attributeMask(), second->attributeMask());
    EXPECT_EQ(drawScreen(*program, 1, 1).at(0, 0), QVector4D(3, 4, 0, 13));
}

TEST_F(ProgramCacheTest, KeepsTheLatestPrograms)
{
    // A set, since the names of deleted programs are given out again.
    std::set<unsigned int> names;
    unsigned int latest = 0;
    for (int i = 0; i < 80; ++i) {
        latest = buildProgram(u"vec4(%1.0)"_s.arg(i))->programID();
        names.insert(latest);
    }
    EXPECT_TRUE(glIsProgram(latest));
    EXPECT_LE(std::erase_if(names, [](unsigned int name) { return glIsProgram(name); }), 64U);
}

} // namespace

} // namespace Morvane::Qel::Test
