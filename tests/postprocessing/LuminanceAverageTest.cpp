#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/postprocessing/LuminanceAverageRenderPass.h>

namespace Morvane::Qel::Test {
namespace {

using Pass = LuminanceAverageRenderPass;

using LuminanceAverageTest = GLTest;

// Widths that are no multiple of 8, portrait and panorama formats, viewports that leave the reduced target no
// texels, and viewports of another size than the frame's. The largest sum has more texels than a shader of
// the software rasteriser may iterate over.
TEST_F(LuminanceAverageTest, IsTheMeanWhateverTheShape)
{
    Runner<Pass> pass;
    for (const auto& [size, viewport] :
         {std::pair(QSize(203, 117), QSize(203, 117)), std::pair(QSize(45, 401), QSize(45, 401)),
          std::pair(QSize(701, 33), QSize(701, 33)), std::pair(QSize(600, 520), QSize(5, 5)),
          std::pair(QSize(600, 520), QSize(0, 0)), std::pair(QSize(100, 80), QSize(250, 250)),
          std::pair(QSize(1, 1), QSize(640, 480)), std::pair(QSize(1920, 1080), QSize(1920, 1080))}) {
        const Pixels image = Pixels::noise(size.width(), size.height(), 3);
        const auto frame = makeTexture(image, GL_RGBA32F);
        const Pixels actual = pass.render({QRect(QPoint(0, 0), viewport), frame});
        // The shader sums in single precision.
        EXPECT_TRUE(equal(actual, Pixels::filled(1, 1, image.mean()), 2e-6F))
            << size.width() << "x" << size.height();
        EXPECT_NEAR(pass->output(Pass::AverageLuminance).toFloat(),
                    QVector4D::dotProduct(image.mean(), {0.2126F, 0.7152F, 0.0722F, 0.0F}), 2e-6F);
    }
}

TEST_F(LuminanceAverageTest, CountsEveryTexelOnce)
{
    Runner<Pass> pass;
    for (const auto& [x, y] : {std::pair(0, 0), std::pair(52, 130), std::pair(8, 21), std::pair(26, 65)}) {
        Pixels image = Pixels::filled(53, 131, {});
        image.at(x, y) = {53.0F * 131.0F, 0, 0, 0};
        const Pixels actual = pass.render({QRect(0, 0, 53, 131), makeTexture(image, GL_RGBA32F)});
        EXPECT_TRUE(equal(actual, Pixels::filled(1, 1, {1, 0, 0, 0}), 1e-6F)) << x << ", " << y;
    }
}

TEST_F(LuminanceAverageTest, KeepsItsTargetAndReleasesTheFrame)
{
    Runner<Pass> pass;
    pass.run({QRect(0, 0, 32, 32),
              makePooledTexture(Pixels::filled(32, 32, {1, 1, 1, 1}), TextureFormat::RGBA16F)});
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
    const Texture* before = pass.texture();
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 80, 20), nullptr}), Pixels::filled(1, 1, {})));
    EXPECT_EQ(pass->output(Pass::AverageLuminance).toFloat(), 0.0F);
    EXPECT_EQ(pass.texture(), before);
}

} // namespace
} // namespace Morvane::Qel::Test
