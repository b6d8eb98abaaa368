#include <QFile>
#include <QMatrix4x4>
#include <QTemporaryDir>

#include <array>
#include <cmath>
#include <numbers>
#include <tuple>
#include <vector>

#include <epoxy/gl.h>

#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/gl/VertexArrayObject.h>

#include "support/GLTest.h"
#include "support/Pixels.h"
#include "support/ScreenProgram.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

using ShaderProgramTest = GLTest;

TEST_F(ShaderProgramTest, LogsErrorsWithFileAndLine)
{
    const QTemporaryDir folder;
    QFile header(folder.filePath(u"broken.glslh"_s));
    ASSERT_TRUE(header.open(QIODevice::WriteOnly));
    header.write("#version 400\nfloat fine;\nfloat broken() { return headerMistake; }\n");
    header.close();
    GLSLMacroProcessor processor;
    processor.addIncludePath(folder.path());
    processor.addDefine(u"SOMETHING"_s, u"1"_s);
    const auto program = makeScreenProgram({});
    program->setObjectName(u"Broken"_s);
    program->addShader(GL_FRAGMENT_SHADER,
                       u"#version 150\n\n#include \"broken.glslh\"\nout vec4 o;\n"
                       "void main()\n{\n    o = vec4(ownMistake);\n}\n"_s,
                       u"own.frag"_s);
    program->setMacroProcessor(&processor);
    program->bind();
    EXPECT_FALSE(program->isValid());
    EXPECT_EQ(program->programID(), 0U);
    EXPECT_FALSE(context().fullScreenTriangle()->draw());
    program->release();
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
    EXPECT_FALSE(makeScreenProgram({u"#version 150\n#include \"none.glslh\"\n"_s})->isValid());
    expectMessage(u"fragment shader:2: cannot find include \"none.glslh\"; searched :/Media/Shaders"_s);
    EXPECT_FALSE(makeScreenProgram({u"#version 150\nfloat elsewhere();\nout vec4 o;\n"
                                    "void main() { o = vec4(elsewhere()); }\n"_s})
                     ->isValid());
    expectMessage(u"program \\(vertex shader, fragment shader\\) cannot be built:\n.*elsewhere"_s);
    EXPECT_FALSE(ShaderProgram().isValid());
    expectMessage(u"no sources were added"_s);
}

TEST_F(ShaderProgramTest, ConvertsValuesToTheDeclaredType)
{
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER, uR"(#version 150
uniform float f; uniform int i; uniform uint ui; uniform bool b; uniform sampler2D s;
uniform vec2 v2; uniform vec3 v3; uniform vec4 v4; uniform ivec2 iv2; uniform ivec4 iv4; uniform uvec3 uv3;
uniform bvec2 bv2; uniform mat2 m2; uniform mat3 m3; uniform mat4 m4; uniform mat2x3 m23;
uniform float fs[3]; uniform vec2 v2s[2]; uniform int is[2]; uniform mat4 m4s[2];
void main()
{
    gl_Position = vec4(f + i + ui + float(b) + texture(s, v2).r) + v4 + vec4(v3, 0.0) + iv2.xyxy + iv4 + vec4(uv3, 0)
        + vec4(bv2, bv2) + vec4(m2 * v2, m23 * v2) + vec4(m3 * v3, 1.0) + m4 * v4 + vec4(fs[0] + fs[1] + fs[2])
        + vec4(v2s[0], v2s[1]) + vec4(is[0] + is[1]) + m4s[0] * v4 + m4s[1] * v4;
})"_s,
                      {});
    program.addShader(GL_FRAGMENT_SHADER, u"#version 150\nout vec4 o;\nvoid main() { o = vec4(1.0); }\n"_s,
                      {});
    ASSERT_TRUE(program.isValid());
    const AutoBinder binder(&program);

    // The first components of a uniform, as GL holds them.
    using Components = std::vector<float>;
    const auto expectComponents = [&](const char* name, const Components& expected) {
        std::array<float, 16> values{};
        glGetUniformfv(program.programID(), glGetUniformLocation(program.programID(), name), values.data());
        EXPECT_EQ(Components(values.data(), values.data() + expected.size()), expected) << name;
    };
    const auto expectSet = [&](const char* name, const auto& value, const Components& expected) {
        Uniform uniform(name);
        program.setUniform(uniform, value);
        expectComponents(name, expected);
    };
    const QMatrix4x4 matrix(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
    const QColor colour(255, 0, 51, 102);
    const QVector<float> ramp{1, 2, 3, 4, 5, 6, 7};
    const std::tuple<const char*, QVariant, Components> variants[] = {
        {"f", 2.5F, {2.5F}},
        {"f", 0.25, {0.25F}},
        {"f", -3, {-3}},
        {"f", true, {1}},
        {"i", -2.75, {-2}},
        {"i", 1e20, {0}},
        {"ui", 4000000000U, {4e9F}},
        {"ui", -1, {4294967296.0F}},
        {"b", 0.5, {1}},
        {"b", 0, {0}},
        {"s", 3, {3}},
        {"v2", QVector2D(1, 2), {1, 2}},
        {"v2", QSize(640, 480), {640, 480}},
        {"v2", QPointF(0.5, 1.5), {0.5F, 1.5F}},
        {"v3", colour, {1.0F, 0.0F, 51.0F / 255.0F}},
        {"v4", colour, {1.0F, 0.0F, 51.0F / 255.0F, 102.0F / 255.0F}},
        {"v4", QColor::fromHsv(120, 255, 255), {0, 1, 0, 1}},
        {"v4", QRect(3, 4, 50, 60), {3, 4, 50, 60}},
        {"v4", QVector4D(5, 6, 7, 8), {5, 6, 7, 8}},
        {"v4", QVector2D(1, 2), {5, 6, 7, 8}}, // too few components
        {"v4", u"1"_s, {5, 6, 7, 8}},
        {"iv2", QSize(640, 480), {640, 480}},
        {"iv4", QRect(-3, 4, 50, 60), {-3, 4, 50, 60}},
        {"uv3", QVector3D(1.9F, 2, 3), {1, 2, 3}},
        {"bv2", QVector2D(0, 9), {0, 1}},
        {"m4", matrix, {1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15, 4, 8, 12, 16}},
        {"m4", 5, {1, 5, 9, 13}},
        {"m3", matrix, {1, 5, 9, 2, 6, 10, 3, 7, 11}},
        {"m3", QVariant::fromValue(matrix.toGenericMatrix<3, 3>()), {1, 5, 9, 2, 6, 10, 3, 7, 11}},
        {"m2", matrix, {1, 5, 2, 6}},
        {"m23", matrix, {0, 0, 0, 0, 0, 0}},
        {"v2", QVariant::fromValue(ramp), {1, 2}},
    };
    for (const auto& [name, value, expected] : variants) {
        expectSet(name, value, expected);
    }
    expectSet("f", true, {1});
    expectSet("f", 4, {4});
    expectSet("i", 2.9F, {2});
    expectSet("v3", colour, {1.0F, 0.0F, 51.0F / 255.0F});
    expectSet("v3", QVector4D(1, 2, 3, 4), {1, 2, 3});
    expectSet("v3", QVector3D(4, 5, 6), {4, 5, 6});
    expectSet("v3", QVector2D(8, 8), {4, 5, 6});
    expectSet("m3", QMatrix4x4(), {1, 0, 0, 0});
    Uniform integer("i");
    program.setUniform(integer, 16777217);
    int exact = 0;
    glGetUniformiv(program.programID(), program.getUniformLocation(u"i"_s), &exact);
    EXPECT_EQ(exact, 16777217);

    // Arrays take what fits.
    expectSet("fs", ramp, {1});
    expectComponents("fs[2]", {3});
    expectSet("fs", QVector<float>{9}, {9});
    expectComponents("fs[1]", {2});
    expectSet("v2s", ramp, {1, 2});
    expectComponents("v2s[1]", {3, 4});
    expectSet("is", ramp, {1});
    expectComponents("is[1]", {2});
    expectSet("m4s", ramp, {0});

    EXPECT_TRUE(program.hasUniform(u"fs"_s));
    EXPECT_FALSE(program.hasUniform(u"none"_s));
    Uniform none("none");
    program.setUniform(none, 1.0F);
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
    int current = 0;
    glGetIntegerv(GL_CURRENT_PROGRAM, &current);
    EXPECT_EQ(static_cast<unsigned int>(current), bound->programID());
    EXPECT_EQ(drawScreen(*unbound, 1, 1).at(0, 0), QVector4D(1, 2, 3, 6));
    unbound->addShader(GL_FRAGMENT_SHADER, one, {});
    expectMessage(u"failed: a program that is built takes no more sources"_s);
}

TEST_F(ShaderProgramTest, FixesAttributeAndFragmentLocations)
{
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER, uR"(#version 150
in vec3 position; in float va_Weight; in vec2 va_TexCoord; in vec3 va_Vertex; in vec3 va_Normal;
out vec2 coord;
void main() { gl_Position = vec4(position + va_Vertex * va_Weight, 1.0); coord = va_TexCoord; }
)"_s,
                      {});
    program.addShader(GL_FRAGMENT_SHADER, uR"(#version 150
in vec2 coord; out vec4 second; out vec4 first;
void main() { first = coord.xyxy; second = coord.yxyx; }
)"_s,
                      {});
    program.setFragDataLocations({u"first"_s, u"second"_s, u"third"_s});
    ASSERT_TRUE(program.isValid());
    unsigned int mask = 0;
    for (const char* name : {"position", "va_Weight", "va_TexCoord", "va_Vertex"}) {
        const int location = attributeLocation(QString::fromUtf8(name));
        EXPECT_EQ(glGetAttribLocation(program.programID(), name), location) << name;
        mask |= 1U << location;
    }
    EXPECT_EQ(program.attributeMask(), mask);
    EXPECT_EQ(glGetFragDataLocation(program.programID(), "first"), 0);
    EXPECT_EQ(glGetFragDataLocation(program.programID(), "second"), 1);
}

TEST_F(ShaderProgramTest, ShadersReadInstanceData)
{
    const QString main = uR"(#version 150
#instancedata "InstanceInfo"
#instancedata "OBJMaterial"
#include "TextureManager.glslh"
out vec4 o;
void main()
{
    int x = int(gl_FragCoord.x);
    vec4 materials[4] = vec4[](vec4(getKd(), getD()), vec4(getKs(), getNs()),
        managedTexture(getMap_Kd(), vec2(0.5)), managedTexture(getMap_Ks(), vec2(0.5)));
    o = x < 4 ? getModelMatrix()[x] : x < 8 ? getModelNormalMatrix()[x - 4] : materials[x - 8];
})"_s;
    const auto* instancePlan = InstanceDataRegistry::Instance()->getPlan(u"InstanceInfo"_s);
    const auto* materialPlan = InstanceDataRegistry::Instance()->getPlan(u"OBJMaterial"_s);
    const auto makeShadingProgram = [&] {
        auto program = makeScreenProgram({main, instancePlan->glslc(), materialPlan->glslc()});
        program->addShaderFromFile(GL_FRAGMENT_SHADER, u"TextureManager.glslc"_s);
        return program;
    };
    const auto program = makeShadingProgram();
    ASSERT_TRUE(program->isValid());

    EXPECT_TRUE(instancePlan->assertShaderProgram(program.get()));
    EXPECT_TRUE(materialPlan->assertShaderProgram(program.get()));
    const auto mismatch =
        makeScreenProgram({u"#version 150\nlayout(std140) uniform OBJMaterial { mat4 m; };\nout vec4 o;\n"
                           "void main() { o = m[0]; }\n"_s});
    EXPECT_FALSE(materialPlan->assertShaderProgram(mismatch.get()));
    ASSERT_TRUE(mismatch->isValid());
    EXPECT_FALSE(materialPlan->assertShaderProgram(mismatch.get()));
    expectMessage(u"Assertion .* failed: plan \"OBJMaterial\" needs a program that is built"_s);
    expectMessage(u"block \"OBJMaterial\" has 64 bytes at binding point 1, not 32 at 1"_s);

    // Both ranges have an offset, as in a model's buffers.
    QMatrix4x4 model;
    model.translate(1, 2, 3);
    model.scale(2, 4, 8);
    OBJMaterialBlock material{{0.1F, 0.2F, 0.3F}, 0.4F, {0.5F, 0.6F, 0.7F}, 80.0F};
    const InstanceInfoBlock instance(model);
    const auto offset = static_cast<qintptr>(InstanceDataCollection::uniformBufferAlignment());
    const auto makeCollection = [&](const InstanceDataPlan* plan, const void* block) {
        QByteArray bytes(offset + plan->blockSize(), '\x7f');
        std::copy_n(static_cast<const char*>(block), plan->blockSize(), bytes.begin() + offset);
        auto buffer = QSharedPointer<BufferObject>::create(GL_UNIFORM_BUFFER);
        buffer->uploadBytes(bytes.constData(), bytes.size(), GL_STATIC_DRAW);
        return std::make_unique<InstanceDataCollection>(plan, buffer, offset);
    };
    const auto instanceData = makeCollection(instancePlan, &instance);
    const auto materialData = makeCollection(materialPlan, &material);
    const std::unique_ptr<Texture> map(makeTexture(
        Pixels::generate(1, 1, [](int, int) { return QVector4D(0.25F, 0.5F, 0.75F, 0.125F); }), GL_RGBA32F));
    materialData->setTexture(1, map.get());

    const auto row = [](const std::array<QVector4D, 12>& values) {
        return Pixels::generate(12, 1, [&](int x, int) { return values[static_cast<size_t>(x)]; });
    };
    const QVector4D white(1, 1, 1, 1);
    // Both matrices by column, then the material.
    // clang-format off
    const Pixels identity = row({{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1},
                                  {1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1},
                                  white, {0, 0, 0, 1}, white, white}});
    // The inverse transpose of a translation after a scale holds the inverse scales, and in its last row minus the
    // translation over the scales.
    const Pixels expected = row({{{2, 0, 0, 0}, {0, 4, 0, 0}, {0, 0, 8, 0}, {1, 2, 3, 1},
                                  {0.5F, 0, 0, -0.5F}, {0, 0.25F, 0, -0.5F}, {0, 0, 0.125F, -0.375F}, {0, 0, 0, 1},
                                  {0.1F, 0.2F, 0.3F, 0.4F}, {0.5F, 0.6F, 0.7F, 80}, white,
                                  {0.25F, 0.5F, 0.75F, 0.125F}}});
    // clang-format on
    EXPECT_EQ(drawScreen(*program, 1, 1).at(0, 0), QVector4D(1, 0, 0, 0));
    instanceData->bind(nullptr);
    materialData->bind(nullptr);
    EXPECT_TRUE(equal(drawScreen(*program, 12, 1), expected));
    // Building another program does not change what is bound.
    EXPECT_TRUE(equal(drawScreen(*makeShadingProgram(), 12, 1), expected));
    instanceData->unbind(nullptr);
    materialData->unbind(nullptr);
    EXPECT_TRUE(equal(drawScreen(*program, 12, 1), identity));

    EXPECT_EQ(InstanceDataRegistry::Instance()->getPlan(u"Nonsense"_s), nullptr);
    expectMessage(u"there is no instance-data plan \"Nonsense\""_s);
}

TEST_F(ShaderProgramTest, ADefaultBlockDoesNotReplaceABoundOne)
{
    const auto* plan = InstanceDataRegistry::Instance()->getPlan(u"VeskInstance"_s);
    const VeskInstanceBlock block{{2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1}};
    const auto buffer = QSharedPointer<BufferObject>::create(GL_UNIFORM_BUFFER);
    buffer->uploadBytes(&block, sizeof(block), GL_STATIC_DRAW);
    // Bound before the context builds its first program.
    InstanceDataCollection collection(plan, buffer, 0);
    collection.bind(nullptr);
    const auto program = makeScreenProgram({u"#version 150\n#instancedata \"VeskInstance\"\nout vec4 o;\n"
                                            "void main() { o = getModelMatrix() * vec4(1, 2, 3, 4); }\n"_s,
                                            plan->glslc()});
    EXPECT_EQ(drawScreen(*program, 1, 1).at(0, 0), QVector4D(2, 4, 6, 4));
    collection.unbind(nullptr);
    EXPECT_EQ(drawScreen(*program, 1, 1).at(0, 0), QVector4D(1, 2, 3, 4));
    EXPECT_TRUE(plan->assertShaderProgram(program.get()));
}

TEST_F(ShaderProgramTest, UtilitiesMapDirectionsAndEncodeGamma)
{
    const auto program = makeScreenProgram({uR"(#version 150
#include "QelUtilities.glslh"
out vec4 o;
void main()
{
    vec3 directions[8] = vec3[](vec3(0, 0, -1), vec3(2, 0, 0), vec3(-1, 0, 0), vec3(1, 0, 1),
        vec3(0, 1, 0), vec3(0, -1, 0), vec3(1, sqrt(2.0), -1), vec3(0.001, 1, 0));
    int x = int(gl_FragCoord.x);
    o = x < 8 ? vec4(directionToLatLong_Vesk(directions[x]), 0, 1) : gammaCorrect(vec4(0.2, -1, 3, 0.3), 2.2);
})"_s});
    program->addShaderFromFile(GL_FRAGMENT_SHADER, u"QelUtilities.glslc"_s);
    const float nearlyUp = static_cast<float>(1.0 - 0.001 / std::numbers::pi);
    const std::array<QVector2D, 8> coordinates{{{0.5F, 0.5F},
                                                {0.75F, 0.5F},
                                                {0.25F, 0.5F},
                                                {0.875F, 0.5F},
                                                {0.5F, 1},
                                                {0.5F, 0},
                                                {0.625F, 0.75F},
                                                {0.75F, nearlyUp}}};
    const QVector4D encoded(std::pow(0.2F, 1 / 2.2F), 0, std::pow(3.0F, 1 / 2.2F), 0.3F);
    const auto expected = Pixels::generate(9, 1, [&](int x, int) {
        return x < 8 ? QVector4D(coordinates[static_cast<size_t>(x)], 0, 1) : encoded;
    });
    // The software rasteriser approximates the arc tangent by a polynomial.
    EXPECT_TRUE(equal(drawScreen(*program, 9, 1), expected, 1e-5F));
}

} // namespace

} // namespace Morvane::Qel::Test
