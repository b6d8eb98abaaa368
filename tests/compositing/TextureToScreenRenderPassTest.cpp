#include <QRect>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/compositing/TextureToScreenRenderPass.h>

namespace Morvane::Qel::Test {
namespace {

/// The default framebuffer holds 8 bits.
constexpr float halfStep = 0.51F / 255.0F;

class TextureToScreenRenderPassTest : public GLTest
{
protected:
    static void clearScreen(float level)
    {
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glClearColor(level, level, level, level);
        glClear(GL_COLOR_BUFFER_BIT);
    }
    /// The image from (left, bottom) on, on a black screen.
    Pixels part(int width, int height, int left = 0, int bottom = 0) const
    {
        return Pixels::generate(width, height, [&](int x, int y) {
            return x >= left && y >= bottom ? image.at(x, y) : QVector4D();
        });
    }

    /// Multiples of 1 / 255, different at every pixel, of which sums of four stay below 1.
    const Pixels image = Pixels::generate(12, 10, [](int x, int y) {
        return QVector4D(static_cast<float>(x * 5), static_cast<float>(y * 7), static_cast<float>(x + y),
                         60.0F) /
               255.0F;
    });
};

TEST_F(TextureToScreenRenderPassTest, BlitsTheLowerLeftPartAndIgnoresTheOrigin)
{
    const auto texture = makeTexture(image, GL_RGBA32F);
    Runner<TextureToScreenRenderPass> pass;
    clearScreen(0.0F);
    pass.run({QRect(3, 2, 6, 5), texture});
    EXPECT_TRUE(equal(readScreen(6, 5), part(6, 5), halfStep));
    EXPECT_EQ(readScreen(8, 7).at(6, 5), QVector4D());
    // Without a texture the screen is cleared.
    pass.run({QRect(0, 0, 6, 5), nullptr});
    EXPECT_TRUE(equal(readScreen(8, 7), Pixels::filled(8, 7, {})));
}

TEST_F(TextureToScreenRenderPassTest, SuperSamplingSumsTheTexelsOfEachPixel)
{
    const auto texture = makeTexture(image, GL_RGBA32F);
    Runner<TextureToScreenRenderPass> pass;
    // A square step gives the sum, not the mean. The sum is divided by the step in x and multiplied by that
    // in y.
    const auto sum = [&](int stepX, int stepY) {
        return Pixels::generate(12 / stepX, 10 / stepY, [&](int x, int y) {
            QVector4D total;
            for (int i = 0; i < stepX * stepY; ++i) {
                total += image.at(x * stepX + i % stepX, y * stepY + i / stepX);
            }
            return total / static_cast<float>(stepX) * static_cast<float>(stepY);
        });
    };
    for (const auto& [stepX, stepY] : {std::pair(3, 1), std::pair(1, 1), std::pair(1, 2), std::pair(2, 2)}) {
        clearScreen(0.5F);
        pass.run({QRect(0, 0, 12 / stepX, 10 / stepY), texture, true});
        EXPECT_TRUE(equal(readScreen(12 / stepX, 10 / stepY), sum(stepX, stepY), halfStep))
            << stepX << " x " << stepY;
    }
    pass.run({QRect(0, 0, 6, 5), texture, {}});
    EXPECT_TRUE(equal(readScreen(6, 5), sum(2, 2), halfStep)) << "an unset flag keeps its value";
    pass.run({QRect(0, 0, 6, 5), nullptr, true});
    EXPECT_TRUE(equal(readScreen(6, 5), Pixels::filled(6, 5, {}))) << "no texture";

    // Draws at the origin, but fetches from the pixel's position on the screen.
    clearScreen(0.0F);
    pass.run({QRect(2, 1, 12, 10), texture, true});
    EXPECT_TRUE(equal(readScreen(12, 10), part(12, 10, 2, 1), halfStep));
}

} // namespace
} // namespace Morvane::Qel::Test
