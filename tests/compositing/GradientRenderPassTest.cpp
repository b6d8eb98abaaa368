#include <QColor>
#include <QRect>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/compositing/GradientRenderPass.h>

namespace Morvane::Qel::Test {
namespace {

using GradientRenderPassTest = GLTest;

TEST_F(GradientRenderPassTest, InterpolatesBetweenTheColoursAtPixelCentres)
{
    Runner<GradientRenderPass> pass;
    const auto gradient = [](const QVector4D& bottom, const QVector4D& top) {
        return Pixels::generate(6, 40, [=](int, int y) {
            const float t = (static_cast<float>(y) + 0.5F) / 40.0F;
            return (bottom * (1.0F - t) + top * t) / 255.0F;
        });
    };
    // The default colours; the origin of the viewport is ignored.
    EXPECT_TRUE(
        equal(pass.render({QRect(5, 9, 6, 40)}), gradient({153, 153, 153, 255}, {64, 64, 64, 255}), 1e-5F));
    EXPECT_TRUE(equal(pass.render({QRect(5, 9, 6, 40), QColor(10, 20, 30, 40), QColor(250, 200, 150, 100)}),
                      gradient({250, 200, 150, 100}, {10, 20, 30, 40}), 1e-5F));
}

TEST_F(GradientRenderPassTest, FillsWithTheTopColourWithoutABottomColour)
{
    Runner<GradientRenderPass> pass;
    const Pixels expected = Pixels::filled(3, 2, QVector4D(51, 102, 204, 255) / 255.0F);
    // Opaque, whatever the alpha of the colour.
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 3, 2), QColor(51, 102, 204, 7), {}}), expected));

    // Without a top colour the texture keeps its contents.
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 3, 2), {}, {}}), expected));
    // Without a viewport it is empty.
    pass.run({{}, {}, {}});
    ASSERT_TRUE(pass.texture());
    EXPECT_EQ(pass.texture()->size(), QSize(0, 0));
}

} // namespace
} // namespace Morvane::Qel::Test
