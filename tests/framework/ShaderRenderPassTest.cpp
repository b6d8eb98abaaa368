#include <Qel/RenderPasses/framework/ShaderRenderPass.h>

#include <QMatrix4x4>
#include <QRect>

#include <algorithm>

#include <epoxy/gl.h>

#include <Qel/gl/FramebufferObject.h>

#include "support/GLTest.h"
#include "support/Models.h"
#include "support/Passes.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

const QString viewportPort = u"Qel_QRect_Viewport"_s;
const QString inputPort = u"Qel_QelTexture*_Input"_s;
const QString outputPort = u"Qel_QelTexture*_Output"_s;

using ShaderRenderPassTest = GLTest;

TEST_F(ShaderRenderPassTest, WithoutSourcesCopiesItsInputAtItsSize)
{
    const Pixels image = Pixels::noise(7, 5, 1);
    const auto input = makeTexture(image, GL_RGBA32F);
    Runner<ShaderRenderPass> pass;
    pass->addInput(inputPort);
    pass->addOutput(outputPort);
    EXPECT_TRUE(equal(pass.render(), Pixels::filled(1, 1, {}))) << "nothing connected";
    for (const int users : {2, 0, 1}) {
        pass.setNumUsers(users);
        EXPECT_TRUE(equal(pass.render({input}), image, 1e-6F));
    }
    // A pooled input is returned.
    pass.run({makePooledTexture(image, TextureFormat::RGBA8)});
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 1) << "that of the output's user";
}

TEST_F(ShaderRenderPassTest, SamplesLinearlyClampedToTheEdge)
{
    const auto input = makeTexture({2, 1, {{0, 0, 0, 0}, {1, 1, 1, 1}}}, GL_RGBA32F);
    input->setWrap(GL_REPEAT);
    const auto integers = makeIntegerTexture(2, 1, GL_R32UI, {51, 102});
    Runner<ShaderRenderPass> pass;
    pass->addInput(viewportPort, QRect(0, 0, 8, 1));
    pass->addInput(inputPort, Input(input).value());
    pass->addInput(u"Qel_QelTexture*_Integers"_s, Input(integers).value());
    pass->addOutput(outputPort);
    pass->setFragmentShaderSource(uR"(#version 150
uniform sampler2D u_Input;
uniform usampler2D u_Integers;
in vec2 vo_TexCoord;
out vec4 o_Output;
void main()
{
    o_Output = vec4(texture(u_Input, vo_TexCoord).r, 0.0, float(texture(u_Integers, vo_TexCoord).r) / 255.0, 1.0);
})"_s);
    EXPECT_TRUE(equal(pass.render(),
                      Pixels::generate(8, 1,
                                       [](int x, int) {
                                           // Pixel centres are a quarter of a texel apart.
                                           const float ramp =
                                               std::clamp((static_cast<float>(x) - 1.5F) / 4.0F, 0.0F, 1.0F);
                                           return QVector4D(ramp, 0, x < 4 ? 0.2F : 0.4F, 1);
                                       }),
                      0.51F / 255.0F));
}

TEST_F(ShaderRenderPassTest, SetsUniformsOfPlainTypesByTheFullNameOfThePort)
{
    Runner<ShaderRenderPass> pass;
    QMatrix4x4 matrix;
    matrix(0, 3) = 0.25F;
    pass->addInput(viewportPort, QRect(3, 4, 2, 6));
    pass->addInput(u"Qel_bool_On"_s, true);
    pass->addInput(u"Qel_int_Number"_s, 51);
    pass->addInput(u"Qel_float_Value"_s, 0.2F);
    pass->addInput(u"Qel_QColor_Colour"_s, QColor(0, 102, 0, 51));
    pass->addInput(u"Qel_QMatrix4x4_Matrix"_s, matrix);
    pass->addInput(u"Qel_QVector2D_Vector"_s, QVector2D(0.0F, 0.4F));
    // A plain value on a texture port is not a texture and sets no sampler.
    pass->addInput(inputPort, 5);
    pass->addOutput(u"Qel_QelTexture*_First"_s);
    pass->addOutput(u"Qel_QelTexture*_Second"_s);
    pass->setFragmentShaderSource(uR"(#version 150
uniform vec4 Qel_QRect_Viewport;
uniform bool Qel_bool_On;
uniform int Qel_int_Number;
uniform float Qel_float_Value;
uniform vec4 Qel_QColor_Colour;
uniform mat4 Qel_QMatrix4x4_Matrix;
uniform vec2 Qel_QVector2D_Vector;
uniform sampler2D u_Input;
out vec4 o_Second;
out vec4 o_First;
void main()
{
    o_First = vec4(Qel_bool_On ? 0.6 : 0.0, float(Qel_int_Number) / 255.0, Qel_float_Value, Qel_QRect_Viewport.w / 10.0);
    o_Second = vec4((Qel_QMatrix4x4_Matrix * vec4(0.0, 0.0, 0.0, 0.6)).x, Qel_QColor_Colour.y, Qel_QVector2D_Vector.y,
                    Qel_QColor_Colour.a) + texture(u_Input, vec2(0.5));
})"_s);
    EXPECT_TRUE(equal(pass.render(), Pixels::filled(2, 6, {0.6F, 0.2F, 0.2F, 0.6F}), 1e-6F));
    // 0.15 lies between two 8-bit values.
    EXPECT_TRUE(equal(pass.pixels(1), Pixels::filled(2, 6, {0.15F, 0.4F, 0.4F, 0.2F}), 0.5F / 255.0F));
}

TEST_F(ShaderRenderPassTest, BlendsByItsModesAndClearsOnANewSize)
{
    using BlendMode = ShaderRenderPass::BlendMode;
    const QVector4D destination(0.2F, 0.4F, 0.6F, 0.8F);
    const QVector4D source(0.8F, 0.4F, 0.0F, 0.6F);
    const std::pair<BlendMode, QVector4D> cases[] = {
        {BlendMode::None, source},
        {BlendMode::KeepByAlpha, destination * source.w() + source * (1.0F - source.w())},
        {BlendMode::Add, QVector4D(1.0F, 0.8F, 0.6F, 1.0F)},
    };
    for (const auto& [mode, expected] : cases) {
        Runner<ShaderRenderPass> pass;
        pass->addInput(viewportPort, QRect(0, 0, 4, 4));
        pass->addOutput(outputPort);
        pass->setFragmentShaderSource(
            u"#version 150\nout vec4 o_Output;\nvoid main() { o_Output = vec4(0.8, 0.4, 0.0, 0.6); }"_s);
        pass->setBlend(mode);
        // The first frame clears anyway, with the clear colour in force.
        pass->setClear(false);
        pass.runAround([&](RenderPass& p) {
            glClearColor(destination.x(), destination.y(), destination.z(), destination.w());
            p.start(nullptr);
        });
        // Blending into 8 bits may round each of the two products.
        EXPECT_TRUE(equal(pass.pixels(), Pixels::filled(4, 4, expected), 1.01F / 255.0F))
            << "mode " << static_cast<int>(mode);
        EXPECT_FALSE(context().isEnabled(GL_BLEND));
    }
}

TEST_F(ShaderRenderPassTest, DrawsAGeometryInput)
{
    const auto model = makeCubeModel();
    Runner<ShaderRenderPass> pass;
    pass->addInput(viewportPort, QRect(0, 0, 8, 8));
    pass->addInput(u"Qel_QelDrawBuffers*_Shape"_s);
    pass->addOutput(outputPort);
    pass->setFragmentShaderSource(
        u"#version 150\nout vec4 o_Output;\nvoid main() { o_Output = vec4(1.0); }"_s);
    // The cube spans half of clip space in each direction.
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 8, 8), model->drawBuffers(0)}),
                      Pixels::generate(8, 8, [](int x, int y) {
                          return x >= 2 && x < 6 && y >= 2 && y < 6 ? QVector4D(1, 1, 1, 1) : QVector4D();
                      })));
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 8, 8), nullptr}), Pixels::filled(8, 8, {1, 1, 1, 1})))
        << "the screen instead";
    Runner<ShaderRenderPass> withoutOutputs;
    withoutOutputs->addInput(viewportPort, QRect(0, 0, 4, 4));
    withoutOutputs.run();
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 1) << "that of the other pass";
}

TEST_F(ShaderRenderPassTest, RunsGeometryAndTessellationStages)
{
    const QString extended = u"#version 150\n#extension GL_ARB_tessellation_shader : require\n"_s;
    const QString control = extended + uR"(layout(vertices = 3) out;
void main()
{
    gl_out[gl_InvocationID].gl_Position = gl_in[gl_InvocationID].gl_Position;
    gl_TessLevelInner[0] = gl_TessLevelOuter[0] = gl_TessLevelOuter[1] = gl_TessLevelOuter[2] = 4.0;
})"_s;
    const QString evaluation = extended + uR"(layout(triangles, equal_spacing) in;
void main()
{
    mat3x4 corners = mat3x4(gl_in[0].gl_Position, gl_in[1].gl_Position, gl_in[2].gl_Position);
    gl_Position = corners * gl_TessCoord * vec4(1.5, 1.0, 1.0, 1.0);
})"_s;
    const QString geometry = uR"(#version 150
layout(triangles) in;
layout(triangle_strip, max_vertices = 3) out;
void main() { for (int i = 0; i < 3; ++i) { gl_Position = %1; EmitVertex(); } })"_s;
    const GPUModel square(makeModelData(makeSquare()));
    const auto expect = [&](bool tessellates, const QString& position, const QRect& covered, float value) {
        Runner<ShaderRenderPass> pass;
        pass->addInput(viewportPort, QRect(0, 0, 8, 8));
        pass->addInput(u"Qel_QelDrawBuffers*_Shape"_s, Input(square.drawBuffers(0)).value());
        pass->addOutput(outputPort);
        pass->setTessellationControlShaderSource(tessellates ? control : QString());
        pass->setTessellationEvaluationShaderSource(tessellates ? evaluation : QString());
        pass->setGeometryShaderSource(position.isEmpty() ? QString() : geometry.arg(position));
        pass->setFragmentShaderSource(
            u"#version 150\nout vec4 o_Output;\nvoid main() { o_Output = vec4(1.0 / 255.0); }"_s);
        pass->setBlend(ShaderRenderPass::BlendMode::Add);
        EXPECT_TRUE(equal(pass.render(),
                          Pixels::generate(8, 8,
                                           [&](int x, int y) {
                                               return QVector4D(1, 1, 1, 1) *
                                                      (covered.contains(x, y) ? value / 255.0F : 0.0F);
                                           }),
                          1e-6F))
            << tessellates << qPrintable(position);
    };
    const QString shifted = u"gl_in[i].gl_Position + vec4(0.25, 0.0, 0.0, 0.0)"_s;
    const QString wholeScreen = u"vec4(i == 1 ? 3.0 : -1.0, i == 2 ? 3.0 : -1.0, 0.0, 1.0)"_s;
    expect(false, shifted, {3, 2, 4, 4}, 1);
    expect(true, {}, {1, 2, 6, 4}, 1);
    // Level 4 divides each of the two triangles into 24.
    expect(false, wholeScreen, {0, 0, 8, 8}, 2);
    expect(true, wholeScreen, {0, 0, 8, 8}, 48);
    square.drawBuffers(0)->setPrimitiveType(GL_TRIANGLE_STRIP);
    expect(true, {}, {}, 0);
    expectMessage(u"strips, loops and fans cannot be tessellated"_s);
}

/// Draws with a uniform of its own.
class TintedPass : public ShaderRenderPass
{
public:
    void setUniforms() override { program()->setUniform(u"u_Tint"_s, QVector4D(1.0F, 0.5F, 1.0F, 1.0F)); }
};

TEST_F(ShaderRenderPassTest, DrawsAModelWithItsDataAndADepthBuffer)
{
    ModelData data;
    QMatrix4x4 transform;
    transform.translate(0.25F, 0.0F, -0.5F);
    addObject(data, makeSquare(), {{}, {0.0F, 0.4F, 0.6F}}, transform);
    // Farther, and drawn later.
    transform.translate(-0.5F, 0.0F, 1.0F);
    addObject(data, makeSquare(), {{}, {0.2F, 0.8F, 1.0F}}, transform);
    const GPUModel model(data);
    Runner<TintedPass> pass;
    pass->addInput(viewportPort, QRect(0, 0, 8, 8));
    pass->addInput(u"Qel_QelGPUModel*_Scene"_s);
    pass->addOutput(outputPort);
    pass->setVertexShaderSource(u"#version 150\n#instancedata \"InstanceInfo\"\nin vec3 va_Vertex;\n"
                                "void main() { gl_Position = getModelMatrix() * vec4(va_Vertex, 1.0); }"_s);
    pass->setFragmentShaderSource(
        u"#version 150\n#instancedata \"OBJMaterial\"\nuniform vec4 u_Tint;\n"
        "out vec4 o_Output;\nvoid main() { o_Output = u_Tint * vec4(getKd(), 1.0); }"_s);
    const Pixels expected = Pixels::generate(8, 8, [](int x, int y) {
        const bool isInside = y >= 2 && y < 6 && x >= 1 && x < 7;
        return !isInside ? QVector4D() : x >= 3 ? QVector4D(0, 0.2F, 0.6F, 1) : QVector4D(0.2F, 0.4F, 1, 1);
    });
    for (int frame = 0; frame < 2; ++frame) {
        EXPECT_TRUE(equal(pass.render({QRect(0, 0, 8, 8), &model}), expected, 1e-6F));
    }
    EXPECT_FALSE(context().isEnabled(GL_DEPTH_TEST));
    EXPECT_TRUE(pass->notices().empty());
}

TEST_F(ShaderRenderPassTest, TheQuadHasTheCornersOfTheViewport)
{
    Runner<ShaderRenderPass> pass;
    pass->addInput(viewportPort, QRect(0, 0, 4, 4));
    pass->addOutput(outputPort);
    pass->setFullScreenQuad(true);
    pass->setVertexShaderSource(
        u"#version 150\nin vec3 va_Vertex;\nout float v;\nvoid main()\n"
        "{ gl_Position = vec4(va_Vertex, 1.0); v = float(length(va_Vertex.xy) < 1.5); }"_s);
    pass->setFragmentShaderSource(
        u"#version 150\nin float v;\nout vec4 o_Output;\nvoid main() { o_Output = vec4(v); }"_s);
    EXPECT_TRUE(equal(pass.render(), Pixels::filled(4, 4, {1, 1, 1, 1})));
}

TEST_F(ShaderRenderPassTest, HasOutputsUpToTheLimitOfTheDriver)
{
    const int limit = FramebufferObject::maxColorAttachments();
    Runner<ShaderRenderPass> pass;
    pass->addInput(u"Qel_QelTexture*_Src_A"_s);
    QString declarations = u"#version 150\nuniform sampler2D u_Src_A;\n"_s;
    QString body;
    for (int i = 0; i <= limit; ++i) {
        pass->addOutput(u"Qel_QelTexture*_Out_%1"_s.arg(i));
        if (i < limit) {
            declarations += u"out vec4 o_Out_%1;\n"_s.arg(i);
            body += u"o_Out_%1 = %1.0 * texture(u_Src_A, vec2(0.5)); "_s.arg(i);
        }
    }
    pass->setFragmentShaderSource(declarations + u"void main() { "_s + body + u'}');
    pass.run({makeTexture(Pixels::filled(2, 2, QVector4D(1, 1, 1, 1) / 10.0F), GL_RGBA32F)});
    expectMessage(
        u"%1 texture outputs .* draws into %2 at once; Qel_QelTexture\\*_Out_%2 and"_s.arg(limit + 1).arg(
            limit));
    for (int i = 0; i < limit; ++i) {
        const Pixels expected = Pixels::filled(2, 2, QVector4D(1, 1, 1, 1) * (static_cast<float>(i) / 10.0F));
        EXPECT_TRUE(equal(pass.pixels(i), expected, 0.51F / 255.0F)) << i;
    }
    EXPECT_EQ(pass.texture(limit), nullptr);
}

TEST_F(ShaderRenderPassTest, NoticesMistakesThatGLAccepts)
{
    Runner<ShaderRenderPass> pass;
    for (const char* type : {"QelTexture*_Ids", "QelTexture*_Frame", "float_Amount", "QVector2D_Offset",
                             "QColor_Unused", "QColor_Fine"}) {
        pass->addInput(u"Qel_"_s + QLatin1StringView(type));
    }
    pass->addOutput(u"Qel_QelTexture*_First"_s);
    pass->addOutput(u"Qel_QelTexture*_Second"_s);
    pass->setOutputFormat(u"Qel_QelTexture*_First"_s, TextureFormat::R32UI);
    pass->setFragmentShaderSource(uR"(uniform usampler2D u_Ids; uniform sampler2D u_Fraem;
uniform int Qel_float_Amount; uniform vec3 Qel_QVector2D_Offset, Qel_QColor_Unused, Qel_QColor_Fine;
in vec2 vo_TexCord; out vec4 o_First, o_Secnod;
void main()
{
    o_First = texture(u_Fraem, vo_TexCord) * float(Qel_float_Amount);
    o_Secnod = vec4(texture(u_Ids, vec2(0.5))) + vec4(Qel_QVector2D_Offset, Qel_QColor_Fine.x);
})"_s);
    pass.run();
    QString notices;
    for (const ShaderRenderPass::Notice& notice : pass->notices()) {
        notices += notice.port + u": "_s + notice.text + u'\n';
    }
    EXPECT_EQ(
        notices.toStdString(),
        R"(: no viewport and no texture gives a size, so the outputs are 1 x 1; add the input Qel_QRect_Viewport
: the fragment shader has no #version; "#version 150" is added
Qel_QelTexture*_Ids: u_Ids is declared as usampler2D, but the texture needs sampler2D
Qel_QelTexture*_Frame: no stage has the sampler u_Frame; no port sets u_Fraem
Qel_float_Amount: the uniform Qel_float_Amount is declared as int, which does not suit the value; declare it as float
Qel_QVector2D_Offset: the uniform Qel_QVector2D_Offset is declared as vec3, which does not suit the value; declare it as vec2
Qel_QColor_Unused: the uniform Qel_QColor_Unused does not affect the result, so the driver removed it; no port sets u_Fraem
Qel_QelTexture*_First: o_First is declared as vec4, but the format r32ui needs uvec4
Qel_QelTexture*_Second: the fragment stage writes no o_Second
: the fragment output o_Secnod belongs to no port; the outputs are o_First, o_Second
: the fragment stage reads vo_TexCord, which the vertex stage does not write; it has vo_TexCoord
)");
}

} // namespace
} // namespace Morvane::Qel::Test
