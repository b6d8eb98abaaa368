#include <Qel/RenderPasses/compositing/TextureToScreenRenderPass.h>

#include <QRect>

#include <memory>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include "support/Pixels.h"
#include <Qel/gl/Texture.h>

namespace Morvane::Qel::Test {
namespace {

/// Whole numbers of 255ths, small enough for sums of four to stay below 1, every pixel another colour.
Pixels pattern(int width, int height)
{
    return Pixels::generate(width, height, [](int x, int y) {
        return QVector4D(static_cast<float>(x * 5), static_cast<float>(y * 7), static_cast<float>(x + y),
                         60.0F) /
               255.0F;
    });
}

void clearScreen(float value)
{
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glClearColor(value, value, value, value);
    glClear(GL_COLOR_BUFFER_BIT);
}

class TextureToScreenRenderPassTest : public GLTest
{
};

TEST_F(TextureToScreenRenderPassTest, BlitsTheLowerLeftPartAndIgnoresTheOrigin)
{
    const Pixels picture = pattern(10, 8);
    const std::unique_ptr<Texture> texture(makeTexture(picture, GL_RGBA32F));
    TextureToScreenRenderPass pass;
    clearScreen(0.0F);
    runFrame(pass, {QRect(3, 2, 6, 5), textureInput(texture.get())});
    EXPECT_TRUE(equal(
        readScreen(8, 7),
        Pixels::generate(8, 7, [&](int x, int y) { return x < 6 && y < 5 ? picture.at(x, y) : QVector4D(); }),
        1e-6F));

    // Without a texture the screen is cleared.
    runFrame(pass, {QRect(0, 0, 6, 5), QVariant()});
    EXPECT_TRUE(equal(readScreen(8, 7), Pixels::generate(8, 7, [](int, int) { return QVector4D(); })));
}

TEST_F(TextureToScreenRenderPassTest, SuperSamplingAddsUpTheTexelsOfEachPixel)
{
    const Pixels picture = pattern(12, 10);
    const std::unique_ptr<Texture> texture(makeTexture(picture, GL_RGBA32F));
    TextureToScreenRenderPass pass;
    const auto sum = [&](int stepX, int stepY) {
        return Pixels::generate(12 / stepX, 10 / stepY, [&](int x, int y) {
            QVector4D total;
            for (int j = 0; j < stepY; ++j) {
                for (int i = 0; i < stepX; ++i) {
                    total += picture.at(x * stepX + i, y * stepY + j);
                }
            }
            return total / static_cast<float>(stepX) * static_cast<float>(stepY);
        });
    };
    // The sum of four, not their mean; a third by one row; and one texel a pixel for a texture of the size.
    for (const auto& [stepX, stepY] : {std::pair(2, 2), std::pair(3, 1), std::pair(1, 1), std::pair(1, 2)}) {
        clearScreen(0.5F);
        const QRect viewport(0, 0, 12 / stepX, 10 / stepY);
        runFrame(pass, {viewport, textureInput(texture.get()), true});
        // The default framebuffer holds 8 bits.
        EXPECT_TRUE(equal(readScreen(viewport.width(), viewport.height()), sum(stepX, stepY), 0.51F / 255.0F))
            << stepX << " x " << stepY;
    }
    // An unset flag stays as it was; a change takes effect.
    runFrame(pass, {QRect(0, 0, 6, 5), textureInput(texture.get()), QVariant()});
    EXPECT_TRUE(equal(readScreen(6, 5), sum(2, 2), 0.51F / 255.0F));
    runFrame(pass, {QRect(0, 0, 6, 5), textureInput(texture.get()), false});
    EXPECT_TRUE(equal(readScreen(6, 5),
                      Pixels::generate(6, 5, [&](int x, int y) { return picture.at(x, y); }), 1e-6F));
    // Without a texture: transparent black.
    clearScreen(0.5F);
    runFrame(pass, {QRect(0, 0, 6, 5), QVariant(), true});
    EXPECT_TRUE(equal(readScreen(6, 5), Pixels::generate(6, 5, [](int, int) { return QVector4D(); })));
}

TEST_F(TextureToScreenRenderPassTest, SuperSamplingReadsFromThePixelsPlaceOnTheScreen)
{
    const Pixels picture = pattern(10, 8);
    const std::unique_ptr<Texture> texture(makeTexture(picture, GL_RGBA32F));
    TextureToScreenRenderPass pass;
    clearScreen(0.0F);
    // Drawn at the origin, fetched from the pixel's position: the picture shifts with the origin.
    runFrame(pass, {QRect(2, 1, 8, 7), textureInput(texture.get()), true});
    EXPECT_TRUE(
        equal(readScreen(10, 8),
              Pixels::generate(
                  10, 8, [&](int x, int y) { return x >= 2 && y >= 1 ? picture.at(x, y) : QVector4D(); }),
              0.51F / 255.0F));
}

} // namespace
} // namespace Morvane::Qel::Test
