#include <QFile>
#include <QMatrix4x4>
#include <QTemporaryDir>

#include <cmath>
#include <cstddef>
#include <numbers>

#include <epoxy/gl.h>

#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/gl/VertexArrayObject.h>

#include "support/GLTest.h"
#include "support/Pixels.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

const QString passThroughVertex = u"#version 150\n"
                                  "in vec3 va_Vertex;\n"
                                  "void main() { gl_Position = vec4(va_Vertex, 1.0); }\n"_s;

const QString instancePointFragment = u"#version 150\n#instancedata \"VeskInstance\"\nout vec4 o;\n"
                                      "void main() { o = getModelMatrix() * vec4(1, 2, 3, 4); }\n"_s;

class ShaderProgramTest : public GLTest
{
protected:
    /// A program of the pass-through vertex stage and a fragment stage whose sources follow each other.
    static std::unique_ptr<ShaderProgram> makeProgram(const QStringList& fragmentSources)
    {
        auto program = std::make_unique<ShaderProgram>();
        program->addShader(GL_VERTEX_SHADER, passThroughVertex, {});
        for (const QString& source : fragmentSources) {
            program->addShader(GL_FRAGMENT_SHADER, source, {});
        }
        return program;
    }
    /// What the program writes into a picture of 32-bit floats.
    Pixels draw(ShaderProgram& program, int width, int height)
    {
        const std::unique_ptr<Texture> target(
            makeTexture(Pixels::generate(width, height, [](int, int) { return QVector4D(); }), GL_RGBA32F));
        FramebufferObject framebuffer;
        framebuffer.attach(target.get(), GL_COLOR_ATTACHMENT0, 0);
        const AutoBinder framebufferBinder(&framebuffer);
        framebuffer.setDrawBuffers();
        const AutoBinder programBinder(&program);
        const auto batch = context().fullScreenTriangle();
        const AutoBinder batchBinder(batch);
        EXPECT_TRUE(batch->draw());
        return readTexture(target.get());
    }
    /// The first components of a uniform as GL holds them.
    static std::vector<float> read(ShaderProgram& program, const char* name, size_t numComponents)
    {
        std::array<float, 16> values{};
        glGetUniformfv(program.programID(), glGetUniformLocation(program.programID(), name), values.data());
        return {values.begin(), values.begin() + static_cast<ptrdiff_t>(numComponents)};
    }
};

TEST_F(ShaderProgramTest, ReportsErrorsWhereTheyAre)
{
    const QTemporaryDir folder;
    QFile header(folder.filePath(u"broken.glslh"_s));
    ASSERT_TRUE(header.open(QIODevice::WriteOnly));
    header.write("#version 400\nfloat fine;\nfloat broken() { return headerMistake; }\n");
    header.close();
    GLSLMacroProcessor processor;
    processor.addIncludePath(folder.path());
    processor.addDefine(u"SOMETHING"_s, u"1"_s);

    for (const char* version : {"150", "400"}) {
        if (context().version() < 40 && QByteArray(version) == "400") {
            continue;
        }
        ShaderProgram program;
        program.setObjectName(u"Broken %1"_s.arg(QString::fromUtf8(version)));
        program.addShader(GL_VERTEX_SHADER, passThroughVertex, {});
        program.addShader(GL_FRAGMENT_SHADER,
                          u"#version %1\n\n#include \"broken.glslh\"\nout vec4 o;\n"
                          "void main()\n{\n    o = vec4(ownMistake);\n}\n"_s.arg(QString::fromUtf8(version)),
                          u"own.frag"_s);
        program.setMacroProcessor(&processor);
        program.bind();
        EXPECT_FALSE(program.isValid());
        EXPECT_EQ(program.programID(), 0U);
        EXPECT_FALSE(context().fullScreenTriangle()->draw());
        program.release();
        // One message for the whole build, each line at its file and with what stands around it there.
        ASSERT_EQ(messages().failures.size(), 1);
        expectMessage(u"program \"Broken %1\" cannot be built:\n"
                      "(?s).*broken\\.glslh:3:\\d+: error: `headerMistake' undeclared\n"
                      ".*    2 \\| float fine;\n"
                      ">    3 \\| float broken\\(\\) \\{ return headerMistake; \\}\n"
                      ".*own\\.frag:7:\\d+: error: `ownMistake' undeclared\n"
                      ".*    6 \\| \\{\n"
                      ">    7 \\|     o = vec4\\(ownMistake\\);\n"
                      "     8 \\| \\}"_s.arg(QString::fromUtf8(version)));
        EXPECT_TRUE(program.log().contains(u"own.frag:7:"_s));
    }

    const auto missingFile = makeProgram({});
    missingFile->addShaderFromFile(GL_FRAGMENT_SHADER, u"NoSuchFile.glslc"_s);
    EXPECT_FALSE(missingFile->isValid());
    expectMessage(u"NoSuchFile.glslc: cannot read this fragment shader"_s);
    const auto missingInclude = makeProgram({u"#version 150\n#include \"none.glslh\"\n"_s});
    EXPECT_FALSE(missingInclude->isValid());
    expectMessage(u"fragment shader:2: cannot find include \"none.glslh\"; searched :/Media/Shaders"_s);
    const auto unresolved = makeProgram(
        {u"#version 150\nfloat elsewhere();\nout vec4 o;\nvoid main() { o = vec4(elsewhere()); }\n"_s});
    EXPECT_FALSE(unresolved->isValid());
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
    const AutoBinder binder(&program);
    ASSERT_TRUE(program.isValid());

    const QMatrix4x4 matrix(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
    const QColor colour(255, 0, 51, 102);
    const QVector<float> ramp{1, 2, 3, 4, 5, 6, 7};
    const struct
    {
        const char* name;
        QVariant value;
        std::vector<float> expected;
    } cases[] = {
        {"f", 2.5F, {2.5F}},
        {"f", 0.25, {0.25F}},
        {"f", -3, {-3}},
        {"f", true, {1}},
        {"i", 7, {7}},
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
        {"v3", QVector3D(1, 2, 3), {1, 2, 3}},
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
        {"m3", QVariant::fromValue(matrix.normalMatrix().transposed()), {}},
        {"m2", matrix, {1, 5, 2, 6}},
        {"m23", matrix, {0, 0, 0, 0, 0, 0}},
        {"v2", QVariant::fromValue(ramp), {1, 2}},
    };
    for (const auto& [name, value, expected] : cases) {
        Uniform uniform(name);
        program.setUniform(uniform, value);
        EXPECT_EQ(read(program, name, expected.size()), expected) << name;
    }
    EXPECT_EQ(read(program, "ui", 1)[0], 4294967296.0F);
    Uniform integer("i");
    program.setUniform(integer, 16777217);
    int exact = 0;
    glGetUniformiv(program.programID(), program.getUniformLocation(u"i"_s), &exact);
    EXPECT_EQ(exact, 16777217);

    // Arrays take what fits.
    for (const char* name : {"fs", "v2s", "is", "m4s"}) {
        Uniform uniform(name);
        program.setUniform(uniform, ramp);
    }
    EXPECT_EQ(read(program, "fs[2]", 1), std::vector<float>{3});
    EXPECT_EQ(read(program, "v2s[1]", 2), (std::vector<float>{3, 4}));
    EXPECT_EQ(read(program, "is[1]", 1), std::vector<float>{2});
    EXPECT_EQ(read(program, "m4s", 1), std::vector<float>{0});
    Uniform floats("fs");
    program.setUniform(floats, QVector<float>{9});
    EXPECT_EQ(read(program, "fs[0]", 1), std::vector<float>{9});
    EXPECT_EQ(read(program, "fs[1]", 1), std::vector<float>{2});

    // The typed overloads agree.
    Uniform f("f");
    program.setUniform(f, true);
    EXPECT_EQ(read(program, "f", 1), std::vector<float>{1});
    program.setUniform(f, 4);
    EXPECT_EQ(read(program, "f", 1), std::vector<float>{4});
    program.setUniform(integer, 2.9F);
    EXPECT_EQ(read(program, "i", 1), std::vector<float>{2});
    Uniform v3("v3");
    program.setUniform(v3, colour);
    EXPECT_EQ(read(program, "v3", 3), (std::vector<float>{1.0F, 0.0F, 51.0F / 255.0F}));
    program.setUniform(v3, QVector4D(1, 2, 3, 4));
    EXPECT_EQ(read(program, "v3", 3), (std::vector<float>{1, 2, 3}));
    program.setUniform(v3, QVector2D(8, 8));
    EXPECT_EQ(read(program, "v3", 3), (std::vector<float>{1, 2, 3}));
    Uniform m3("m3");
    program.setUniform(m3, QMatrix4x4());
    EXPECT_EQ(read(program, "m3", 4), (std::vector<float>{1, 0, 0, 0}));

    EXPECT_TRUE(program.hasUniform(u"fs"_s));
    EXPECT_FALSE(program.hasUniform(u"none"_s));
    Uniform none("none");
    program.setUniform(none, 1.0F);
}

TEST_F(ShaderProgramTest, UniformsFollowTheProgramAndBindIt)
{
    const QString one = u"#version 150\nuniform float u_Value;\nout vec4 o;\n"
                        "void main() { o = vec4(u_Value); }\n"_s;
    const QString other = u"#version 150\nuniform vec2 u_First, u_Value;\nout vec4 o;\n"
                          "void main() { o = vec4(u_First, u_Value); }\n"_s;
    Uniform value("u_Value");
    for (const QString& source : {one, other, one}) {
        const auto program = makeProgram({source});
        {
            const AutoBinder binder(program.get());
            program->setUniform(value, QVector2D(4, 5));
        }
        EXPECT_EQ(draw(*program, 1, 1).at(0, 0),
                  source == one ? QVector4D(4, 4, 4, 4) : QVector4D(0, 0, 4, 5));
    }
    // By name, a program that is not current is bound for the call, and built before.
    const auto bound = makeProgram({one});
    const auto unbound = makeProgram({other});
    const AutoBinder binder(bound.get());
    unbound->setUniform(u"u_First"_s, QVector2D(1, 2));
    unbound->setUniform(u"u_Value"_s, QVector<float>{3, 6});
    int current = 0;
    glGetIntegerv(GL_CURRENT_PROGRAM, &current);
    EXPECT_EQ(static_cast<unsigned int>(current), bound->programID());
    EXPECT_EQ(draw(*unbound, 1, 1).at(0, 0), QVector4D(1, 2, 3, 6));
    // Sources come too late for a built program.
    unbound->addShader(GL_FRAGMENT_SHADER, one, {});
    expectMessage(u"Assertion '!m_built' failed"_s);
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

TEST_F(ShaderProgramTest, InstanceDataReachesTheShader)
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
        auto program = makeProgram({main, instancePlan->glslc(), materialPlan->glslc()});
        program->addShaderFromFile(GL_FRAGMENT_SHADER, u"TextureManager.glslc"_s);
        return program;
    };
    const auto program = makeShadingProgram();
    ASSERT_TRUE(program->isValid());

    // GL's layout of the blocks is the host's.
    const struct
    {
        const char* name;
        size_t offset;
    } members[] = {
        {"InstanceInfo.modelMatrix", offsetof(InstanceInfoBlock, modelMatrix)},
        {"InstanceInfo.modelNormalMatrix", offsetof(InstanceInfoBlock, modelNormalMatrix)},
        {"OBJMaterial.kd", offsetof(OBJMaterialBlock, kd)},
        {"OBJMaterial.d", offsetof(OBJMaterialBlock, d)},
        {"OBJMaterial.ks", offsetof(OBJMaterialBlock, ks)},
        {"OBJMaterial.ns", offsetof(OBJMaterialBlock, ns)},
    };
    for (const auto& [name, offset] : members) {
        unsigned int index = 0;
        int actual = -1;
        glGetUniformIndices(program->programID(), 1, &name, &index);
        glGetActiveUniformsiv(program->programID(), 1, &index, GL_UNIFORM_OFFSET, &actual);
        EXPECT_EQ(actual, static_cast<int>(offset)) << name;
    }
    EXPECT_TRUE(instancePlan->assertShaderProgram(program.get()));
    EXPECT_TRUE(materialPlan->assertShaderProgram(program.get()));
    const auto mismatch =
        makeProgram({u"#version 150\nlayout(std140) uniform OBJMaterial { mat4 m; };\nout vec4 o;\n"
                     "void main() { o = m[0]; }\n"_s});
    EXPECT_FALSE(materialPlan->assertShaderProgram(mismatch.get()));
    ASSERT_TRUE(mismatch->isValid());
    EXPECT_FALSE(materialPlan->assertShaderProgram(mismatch.get()));
    expectMessage(u"Assertion .* failed: plan \"OBJMaterial\" needs a program that is built"_s);
    expectMessage(u"block \"OBJMaterial\" has 64 bytes at binding point 1, not 32 at 1"_s);

    // Both collections lie behind another range, as in a model's buffers.
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

    const Pixels identity = Pixels::generate(12, 1, [](int x, int) {
        QVector4D column;
        column[x % 4] = 1.0F;
        const QVector4D white(1, 1, 1, 1);
        return x < 8 ? column : x == 9 ? QVector4D(0, 0, 0, 1) : white;
    });
    // The transposed inverse of a translation after a scale: the inverse scales in the columns, and in the
    // last row minus the translation over the scales.
    const QVector4D bound[] = {
        {2, 0, 0, 0},
        {0, 4, 0, 0},
        {0, 0, 8, 0},
        {1, 2, 3, 1},
        {0.5F, 0, 0, -0.5F},
        {0, 0.25F, 0, -0.5F},
        {0, 0, 0.125F, -0.375F},
        {0, 0, 0, 1},
        {0.1F, 0.2F, 0.3F, 0.4F},
        {0.5F, 0.6F, 0.7F, 80},
        {1, 1, 1, 1},
        {0.25F, 0.5F, 0.75F, 0.125F},
    };
    instanceData->bind(nullptr);
    materialData->bind(nullptr);
    const auto expected = Pixels::generate(12, 1, [&](int x, int) { return bound[x]; });
    EXPECT_TRUE(equal(draw(*program, 12, 1), expected));
    // A program that is built meanwhile takes nothing away.
    EXPECT_TRUE(equal(draw(*makeShadingProgram(), 12, 1), expected));
    instanceData->unbind(nullptr);
    materialData->unbind(nullptr);
    EXPECT_TRUE(equal(draw(*program, 12, 1), identity));

    EXPECT_EQ(InstanceDataRegistry::Instance()->getPlan(u"Nonsense"_s), nullptr);
    expectMessage(u"there is no instance-data plan \"Nonsense\""_s);
}

TEST_F(ShaderProgramTest, InstancesStandAtTheOriginByDefault)
{
    const auto* plan = InstanceDataRegistry::Instance()->getPlan(u"VeskInstance"_s);
    const VeskInstanceBlock block{{2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1}};
    const auto buffer = QSharedPointer<BufferObject>::create(GL_UNIFORM_BUFFER);
    buffer->uploadBytes(&block, sizeof(block), GL_STATIC_DRAW);
    // Bound before the context sees its first program.
    InstanceDataCollection collection(plan, buffer, 0);
    collection.bind(nullptr);
    const auto program = makeProgram({instancePointFragment, plan->glslc()});
    EXPECT_EQ(draw(*program, 1, 1).at(0, 0), QVector4D(2, 4, 6, 4));
    collection.unbind(nullptr);
    EXPECT_EQ(draw(*program, 1, 1).at(0, 0), QVector4D(1, 2, 3, 4));
    EXPECT_TRUE(plan->assertShaderProgram(program.get()));
}

TEST_F(ShaderProgramTest, ProgramsFindIdentityWithoutCollections)
{
    const auto* plan = InstanceDataRegistry::Instance()->getPlan(u"VeskInstance"_s);
    const auto program = makeProgram({instancePointFragment, plan->glslc()});
    EXPECT_EQ(draw(*program, 1, 1).at(0, 0), QVector4D(1, 2, 3, 4));
}

TEST_F(ShaderProgramTest, UtilitiesMapDirectionsAndEncodeGamma)
{
    constexpr int width = 64;
    constexpr int height = 32;
    constexpr double pi = std::numbers::pi;
    // The coordinates that pixel (x, y) must get, and the direction that lies there; rows from pole to pole.
    const auto coordinates = [](int x, int y) {
        return std::pair((x + 0.5) / width, static_cast<double>(y) / (height - 1));
    };
    const std::unique_ptr<Texture> directions(makeTexture(
        Pixels::generate(width, height,
                         [&](int x, int y) {
                             const auto [u, v] = coordinates(x, y);
                             const double azimuth = (u - 0.5) * 2.0 * pi;
                             const double elevation = (v - 0.5) * pi;
                             return QVector4D(static_cast<float>(std::sin(azimuth) * std::cos(elevation)),
                                              static_cast<float>(std::sin(elevation)),
                                              static_cast<float>(-std::cos(azimuth) * std::cos(elevation)),
                                              0.0F);
                         }),
        GL_RGBA32F));
    const auto latLong = makeProgram({uR"(#version 150
#include "QelUtilities.glslh"
uniform sampler2D u_Directions;
out vec4 o;
void main()
{
    vec3 direction = texelFetch(u_Directions, ivec2(gl_FragCoord.xy), 0).xyz;
    o = vec4(directionToLatLong_Vesk(direction), 0.0, 1.0);
})"_s});
    latLong->addShaderFromFile(GL_FRAGMENT_SHADER, u"QelUtilities.glslc"_s);
    directions->bind();
    latLong->setUniform(u"u_Directions"_s, directions->unit());
    Pixels drawn = draw(*latLong, width, height);
    directions->release();
    // At the poles every u is right.
    for (int x = 0; x < width; ++x) {
        for (const int y : {0, height - 1}) {
            drawn.at(x, y).setX(static_cast<float>(coordinates(x, y).first));
        }
    }
    // The software rasteriser's arc tangent is a polynomial.
    EXPECT_TRUE(equal(drawn,
                      Pixels::generate(width, height,
                                       [&](int x, int y) {
                                           const auto [u, v] = coordinates(x, y);
                                           return QVector4D(static_cast<float>(u), static_cast<float>(v), 0,
                                                            1);
                                       }),
                      1e-5F));

    const auto gamma = makeProgram({uR"(#version 150
#include "QelUtilities.glslh"
out vec4 o;
void main() { o = gammaCorrect(vec4(0.2, -1.0, 3.0, 0.3), 2.2); }
)"_s});
    gamma->addShaderFromFile(GL_FRAGMENT_SHADER, u"QelUtilities.glslc"_s);
    const auto encoded = [](double x) { return static_cast<float>(std::pow(x, 1.0 / 2.2)); };
    EXPECT_TRUE(equal(
        draw(*gamma, 1, 1),
        Pixels::generate(1, 1, [&](int, int) { return QVector4D(encoded(0.2), 0, encoded(3.0), 0.3F); }),
        1e-5F));
}

} // namespace

} // namespace Morvane::Qel::Test
