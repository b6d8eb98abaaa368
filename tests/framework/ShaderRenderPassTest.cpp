#include <Qel/RenderPasses/framework/ShaderRenderPass.h>

#include <QMatrix4x4>
#include <QRect>

#include <memory>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Models.h"
#include "support/Passes.h"
#include "support/Pixels.h"
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

const QString viewportPort = u"Qel_QRect_Viewport"_s;
const QString inputPort = u"Qel_QelTexture*_Input"_s;
const QString outputPort = u"Qel_QelTexture*_Output"_s;

Pixels flat(int width, int height, const QVector4D& colour)
{
    return Pixels::generate(width, height, [&](int, int) { return colour; });
}

class ShaderRenderPassTest : public GLTest
{
};

TEST_F(ShaderRenderPassTest, WithoutSourcesCopiesItsInputAndTakesItsSize)
{
    // Every value is a whole number of 255ths, so that the 8-bit target holds it.
    const Pixels picture = Pixels::generate(7, 5, [](int x, int y) {
        return QVector4D(static_cast<float>(x * 30), static_cast<float>(y * 50), 15.0F, 200.0F) / 255.0F;
    });
    const std::unique_ptr<Texture> input(makeTexture(picture, GL_RGBA32F));
    ShaderRenderPass pass;
    pass.addInput(inputPort);
    pass.addOutput(outputPort);
    EXPECT_TRUE(equal(render(pass, {textureInput(input.get())}), picture, 1e-6F));
}

TEST_F(ShaderRenderPassTest, RendersOnePixelOfTransparencyWithNothingConnected)
{
    ShaderRenderPass pass;
    pass.addInput(inputPort);
    pass.addOutput(outputPort);
    EXPECT_TRUE(equal(render(pass, {}), flat(1, 1, {0, 0, 0, 0})));
}

TEST_F(ShaderRenderPassTest, SetsUniformsOfEveryPlainTypeByTheFullNameOfThePort)
{
    ShaderRenderPass pass;
    QMatrix4x4 matrix;
    matrix(0, 3) = 0.25F;
    pass.addInput(viewportPort, QRect(3, 4, 2, 6));
    pass.addInput(u"Qel_bool_On"_s, true);
    pass.addInput(u"Qel_int_Number"_s, 51);
    pass.addInput(u"Qel_float_Value"_s, 0.2F);
    pass.addInput(u"Qel_QColor_Colour"_s, QColor(0, 102, 0, 51));
    pass.addInput(u"Qel_QMatrix4x4_Matrix"_s, matrix);
    pass.addInput(u"Qel_QVector2D_Vector"_s, QVector2D(0.0F, 0.4F));
    // A plain value on a texture port is no texture, and sets no sampler.
    pass.addInput(inputPort, 5);
    pass.addOutput(u"Qel_QelTexture*_First"_s);
    pass.addOutput(u"Qel_QelTexture*_Second"_s);
    pass.setFragmentShaderSource(uR"(#version 150
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
    runFrame(pass, {});
    EXPECT_TRUE(equal(readTexture(outputTexture(pass, 0)), flat(2, 6, {0.6F, 0.2F, 0.2F, 0.6F}), 1e-6F));
    // 0.15 lies between two 8-bit values.
    EXPECT_TRUE(
        equal(readTexture(outputTexture(pass, 1)), flat(2, 6, {0.15F, 0.4F, 0.4F, 0.2F}), 0.5F / 255.0F));
    TextureManager::Instance()->releaseTempTextureRef(outputTexture(pass, 0), 1);
    TextureManager::Instance()->releaseTempTextureRef(outputTexture(pass, 1), 1);
}

TEST_F(ShaderRenderPassTest, BlendsByItsModesAndClearsWhenItMust)
{
    using BlendMode = ShaderRenderPass::BlendMode;
    const QVector4D destination(0.2F, 0.4F, 0.6F, 0.8F);
    const QVector4D source(0.8F, 0.4F, 0.0F, 0.6F);
    const std::pair<BlendMode, QVector4D> cases[] = {
        {BlendMode::None, source},
        // The destination by the source's alpha, the source by the rest.
        {BlendMode::KeepByAlpha, destination * source.w() + source * (1.0F - source.w())},
        {BlendMode::Add, QVector4D(1.0F, 0.8F, 0.6F, 1.0F)},
    };
    for (const auto& [mode, expected] : cases) {
        ShaderRenderPass pass;
        pass.addInput(viewportPort, QRect(0, 0, 4, 4));
        pass.addOutput(outputPort);
        pass.setFragmentShaderSource(
            u"#version 150\nout vec4 o_Output;\nvoid main() { o_Output = vec4(0.8, 0.4, 0.0, 0.6); }"_s);
        pass.setBlend(mode);
        // The first frame clears although the flag is off, and with the clear colour in force.
        pass.setClear(false);
        pass.setNumOutputUsers(0, 1);
        context().applyBaseState();
        glClearColor(destination.x(), destination.y(), destination.z(), destination.w());
        pass.start(nullptr);
        // Blending into 8 bits may round each of the two products.
        EXPECT_TRUE(equal(readTexture(outputTexture(pass)), flat(4, 4, expected), 1.01F / 255.0F))
            << "mode " << static_cast<int>(mode);
        TextureManager::Instance()->releaseTempTextureRef(outputTexture(pass), 1);
    }
}

TEST_F(ShaderRenderPassTest, DrawsAGeometryInput)
{
    const auto model = makeCubeModel();
    ShaderRenderPass pass;
    pass.addInput(viewportPort, QRect(0, 0, 8, 8));
    pass.addInput(u"Qel_QelDrawBuffers*_Shape"_s, QVariant::fromValue<QObject*>(model->drawBuffers(0)));
    pass.addOutput(outputPort);
    pass.setFragmentShaderSource(
        u"#version 150\nout vec4 o_Output;\nvoid main() { o_Output = vec4(1.0); }"_s);
    // The cube spans half of clip space in each direction.
    EXPECT_TRUE(equal(render(pass, {}), Pixels::generate(8, 8, [](int x, int y) {
                          const bool inside = x >= 2 && x < 6 && y >= 2 && y < 6;
                          return inside ? QVector4D(1, 1, 1, 1) : QVector4D();
                      })));
}

TEST_F(ShaderRenderPassTest, WithoutOutputsDrawsNowhere)
{
    ShaderRenderPass pass;
    pass.addInput(viewportPort, QRect(0, 0, 4, 4));
    runFrame(pass, {});
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
}

} // namespace
} // namespace Morvane::Qel::Test
