#include <Qel/RenderPasses/framework/ShaderRenderPass.h>

#include <QMatrix4x4>
#include <QRect>

#include <algorithm>

#include <epoxy/gl.h>

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
                                           return QVector4D(ramp, ramp, x < 4 ? 0.2F : 0.4F, 1);
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

TEST_F(ShaderRenderPassTest, DrawsAGeometryInputAndNowhereWithoutOutputs)
{
    const auto model = makeCubeModel();
    Runner<ShaderRenderPass> pass;
    pass->addInput(viewportPort, QRect(0, 0, 8, 8));
    pass->addInput(u"Qel_QelDrawBuffers*_Shape"_s);
    pass.run();
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
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
}

} // namespace
} // namespace Morvane::Qel::Test
