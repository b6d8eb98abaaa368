#include <Qel/RenderPasses/compositing/GradientRenderPass.h>

#include <QColor>
#include <QRect>

#include "support/GLTest.h"
#include "support/Passes.h"
#include "support/Pixels.h"
#include <Qel/gl/Texture.h>

namespace Morvane::Qel::Test {
namespace {

class GradientRenderPassTest : public GLTest
{
};

TEST_F(GradientRenderPassTest, RunsFromTheBottomColourToTheTopColourAtPixelCentres)
{
    GradientRenderPass pass;
    const QVector4D top(64, 64, 64, 255);
    const QVector4D bottom(153, 153, 153, 255);
    // The origin of the viewport does not matter.
    const Pixels actual = render(pass, {QRect(5, 9, 6, 40)});
    EXPECT_TRUE(equal(actual,
                      Pixels::generate(6, 40,
                                       [&](int, int y) {
                                           const float t = (static_cast<float>(y) + 0.5F) / 40.0F;
                                           return (bottom * (1.0F - t) + top * t) / 255.0F;
                                       }),
                      1e-5F));
}

TEST_F(GradientRenderPassTest, FillsWithTheTopColourWithoutABottomColour)
{
    GradientRenderPass pass;
    const QVector4D colour(51.0F / 255.0F, 102.0F / 255.0F, 204.0F / 255.0F, 1.0F);
    const Pixels expected = Pixels::generate(3, 2, [&](int, int) { return colour; });
    // Opaque whatever the alpha of the colour.
    EXPECT_TRUE(equal(render(pass, {QRect(0, 0, 3, 2), QColor(51, 102, 204, 7), QVariant()}), expected));

    // Without a top colour the texture stays as it is, and the same.
    const Texture* before = outputTexture(pass);
    EXPECT_TRUE(equal(render(pass, {QRect(0, 0, 3, 2), QVariant(), QVariant()}), expected));
    EXPECT_EQ(outputTexture(pass), before);
    EXPECT_EQ(pass.errorCode(), 0U);
}

TEST_F(GradientRenderPassTest, GivesAnEmptyTextureWithoutAViewport)
{
    GradientRenderPass pass;
    runFrame(pass, {});
    ASSERT_TRUE(outputTexture(pass));
    EXPECT_EQ(outputTexture(pass)->size(), QSize(0, 0));
}

} // namespace
} // namespace Morvane::Qel::Test
