// Blur and glow against convolutions on the CPU.

#include <array>
#include <cmath>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/postprocessing/BlurAndCombineRenderPass.h>
#include <Qel/RenderPasses/postprocessing/GaussianBlurRenderPass.h>

namespace Morvane::Qel::Test {
namespace {

/// Targets are half floats, with steps of 0.0005 below 1, and the software rasteriser filters with weights of
/// 8 bits.
constexpr float tolerance = 0.003F;

/// One direction of a blur by the Gaussian of a radius, at a resolution of its own, with each pair of taps
/// folded into one between its texels. Texels with an alpha of 0 may be copied.
Pixels convolve(const Pixels& image, const QSize& size, double radius, bool isHorizontal,
                bool copiesTransparent = true)
{
    const auto gaussian = [&](int x) { return std::exp(-0.5 * std::pow(x / (radius + 0.0001), 2.0)); };
    return Pixels::generate(size.width(), size.height(), [&](int x, int y) {
        const auto at = [&](double offset) {
            // Of the pixel's centre from whole numbers: exact wherever it is that of a texel.
            const double u = ((2 * x + 1) * image.width - size.width()) / (2.0 * size.width());
            const double v = ((2 * y + 1) * image.height - size.height()) / (2.0 * size.height());
            return isHorizontal ? image.linear(u + offset * image.width / size.width(), v)
                                : image.linear(u, v + offset * image.height / size.height());
        };
        const QVector4D centre = at(0.0);
        if (copiesTransparent && centre.w() <= 0.0F) {
            return centre;
        }
        QVector4D sum = centre;
        double total = 1.0;
        for (int tap = 1; tap < 2.0 * radius; tap += 2) {
            const double weight = gaussian(tap) + gaussian(tap + 1);
            const double offset = tap + gaussian(tap + 1) / weight;
            sum += (at(offset) + at(-offset)) * static_cast<float>(weight);
            total += 2.0 * weight;
        }
        return sum / static_cast<float>(total);
    });
}

/// Noise with alphas from 0.5 on, and transparent holes.
Pixels makeImage(int width, int height, bool hasHoles)
{
    const Pixels noise = Pixels::noise(width, height, 7);
    return Pixels::generate(width, height, [&](int x, int y) {
        const QVector4D& c = noise.at(x, y);
        const bool isHole = hasHoles && (x / 5 + y / 4) % 3 == 0;
        return isHole ? QVector4D() : QVector4D(c.toVector3D(), 0.5F + 0.5F * c.w());
    });
}

using BlurTest = GLTest;

TEST_F(BlurTest, ConvolvesWithTheGaussianAtEveryRadiusAndResolution)
{
    Runner<GaussianBlurRenderPass> pass;
    struct Case
    {
        QSize size;
        float radius;
        float divider;
        bool hasHoles = false;
    };
    // Texel centres have exact texture coordinates only at powers of two. 39 / 2 is truncated.
    for (const Case& c :
         {Case{{37, 23}, 1.3F, 0.0F}, Case{{37, 23}, 9.0F, 0.0F}, Case{{37, 23}, 1.3F, 0.0F},
          Case{{32, 16}, 4.0F, 1.0F, true}, Case{{39, 25}, 3.0F, 2.0F}, Case{{39, 25}, 3.0F, 3.0F},
          Case{{39, 25}, 3.0F, 0.5F}, Case{{400, 300}, 4.0F, 1.0F, true}, Case{{641, 357}, 2.0F, 1.0F, true},
          Case{{641, 357}, 2.0F, 2.0F, true}, Case{{641, 357}, 2.0F, 3.0F, true},
          Case{{66, 37}, 2.0F, 0.4F, true}}) {
        const Pixels image = makeImage(c.size.width(), c.size.height(), c.hasHoles);
        const auto input = makeTexture(image, GL_RGBA32F);
        const float divider = c.divider == 0.0F ? 1.0F : c.divider;
        const QSize size(static_cast<int>(static_cast<float>(c.size.width()) / divider),
                         static_cast<int>(static_cast<float>(c.size.height()) / divider));
        const auto radius = static_cast<double>(c.radius);
        EXPECT_TRUE(equal(pass.render({QRect(QPoint(3, 4), c.size), input, c.radius, c.divider}),
                          convolve(convolve(image, size, radius, true), size, radius, false), tolerance))
            << c.radius << ", " << c.divider;
    }
}

TEST_F(BlurTest, BlursTransparentBlackWithoutAnInput)
{
    Runner<GaussianBlurRenderPass> pass;
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 5, 3), nullptr, 2.0F}), Pixels::filled(5, 3, {})));
    // Deliberate: the clear colour stays opaque red.
    std::array<float, 4> clearColour{};
    glGetFloatv(GL_COLOR_CLEAR_VALUE, clearColour.data());
    EXPECT_EQ(clearColour, (std::array{1.0F, 0.0F, 0.0F, 1.0F}));
    EXPECT_EQ(pass.render({{}}).width, 1);
}

TEST_F(BlurTest, GlowKeepsTexelsFromTheThresholdOn)
{
    // Green of 0.5, 1, 1.5 and 2; the kernel of these small radii has one tap.
    const auto input = makeTexture(4, 1, GL_RGBA32F, [](int x, int) {
        return QVector4D(0, 0.5F + 0.5F * static_cast<float>(x), 0, 0.25F);
    });
    Runner<BlurAndCombineRenderPass> pass;
    const auto expect = [&](float radius, float threshold, float first) {
        EXPECT_TRUE(equal(pass.render({QRect(0, 0, 4, 1), nullptr, radius, threshold, 1.0F, input}),
                          Pixels::generate(4, 1, [&](int x, int) {
                              const float green = 0.5F + 0.5F * static_cast<float>(x);
                              return green < first ? QVector4D() : QVector4D(0, green, 0, 0.25F);
                          })));
    };
    const float luma = 0.7154F;
    expect(0.25F, luma, 1.0F);
    // Deliberate: the threshold takes effect with the next change of the radius.
    expect(0.25F, std::nextafter(luma, 1.0F), 1.0F);
    expect(0.3F, std::nextafter(luma, 1.0F), 1.5F);
    expect(0.3F, -1.0F, 0.5F);
}

TEST_F(BlurTest, GlowAddsTheBlurredFrame)
{
    const QSize size(32, 16);
    const Pixels normal = makeImage(32, 16, false);
    const Pixels bright = makeImage(32, 16, true);
    const auto normalTexture = makeTexture(normal, GL_RGBA32F);
    const auto brightTexture = makeTexture(bright, GL_RGBA32F);
    Runner<BlurAndCombineRenderPass> pass;
    for (const auto& [radius, threshold] : {std::pair(5.0F, 0.0F), std::pair(3.0F, 0.45F)}) {
        const Pixels selected = bright.mapped([threshold = threshold](const QVector4D& c) {
            return QVector4D::dotProduct(c, {0.2125F, 0.7154F, 0.0721F, 0.0F}) >= threshold ? c : QVector4D();
        });
        const Pixels rows = convolve(selected, size, static_cast<double>(radius), true);
        const Pixels glow = convolve(rows, size, static_cast<double>(radius), false, false);
        EXPECT_TRUE(equal(
            pass.render({QRect(3, 4, 32, 16), normalTexture, radius, threshold, 0.75F, brightTexture}),
            Pixels::generate(32, 16, [&](int x, int y) { return normal.at(x, y) + 0.75F * glow.at(x, y); }),
            tolerance));
    }
    // The normal frame alone.
    const Pixels white = Pixels::filled(4, 4, {1, 1, 1, 1});
    const auto whiteTexture = makeTexture(white, GL_RGBA32F);
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 4, 4), whiteTexture, 2.0F, 0.5F, 0.5F, nullptr}), white));
}

TEST_F(BlurTest, TheLargestRadiusIsUsedForThoseAboveIt)
{
    const Pixels image = Pixels::filled(4, 4, {0.25F, 0.5F, 0.75F, 1.0F});
    Runner<GaussianBlurRenderPass> pass;
    for (int frame = 0; frame < 2; ++frame) {
        // The weights are normalised; each of the two half-float results may be off by a step.
        EXPECT_TRUE(equal(pass.render({QRect(0, 0, 4, 4), makeTexture(image, GL_RGBA32F), 1e5F, 1.0F}), image,
                          2e-3F));
        if (frame == 0) {
            expectMessage(
                "a blur radius of 100000 exceeds this driver's uniforms, which hold radii up to \\d+; ");
        }
    }
}

TEST_F(BlurTest, GlowOfSparseLightsIsExactAtAnySize)
{
    // Most of the frame is transparent after the threshold.
    for (const QSize size : {QSize(400, 300), QSize(641, 357), QSize(1280, 720)}) {
        const Pixels lights = Pixels::generate(size.width(), size.height(), [](int x, int y) {
            return x % 7 == 0 && y % 5 == 0 ? QVector4D(4, 3, 2, 1) : QVector4D(0.25F, 0.25F, 0.25F, 1);
        });
        const Pixels selected = lights.mapped([](const QVector4D& c) { return c.x() > 1 ? c : QVector4D(); });
        const Pixels rows = convolve(selected, size, 3.0, true);
        const auto texture = makeTexture(lights, GL_RGBA16F);
        Runner<BlurAndCombineRenderPass> pass;
        EXPECT_TRUE(equal(pass.render({QRect(QPoint(0, 0), size), nullptr, 3.0F, 0.5F, 1.0F, texture}),
                          convolve(rows, size, 3.0, false, false), tolerance))
            << size.width();
    }
}

TEST_F(BlurTest, PublishesTheInputWithoutABlur)
{
    TextureManager* pool = TextureManager::Instance();
    const QRect viewport(0, 0, 4, 4);
    Texture* normal = pool->tempTexture(TextureFormat::RGBA8, 4, 4);
    Runner<GaussianBlurRenderPass> blur;
    blur.setNumUsers(3);
    blur.run({viewport, normal, 1.0F});
    EXPECT_EQ(blur.texture(), normal);
    EXPECT_EQ(pool->numReferences(), 3);
    blur.run({viewport, nullptr, 0.5F});
    EXPECT_EQ(blur.texture(), nullptr);

    Runner<BlurAndCombineRenderPass> glow;
    glow.setNumUsers(2);
    for (const auto& [radius, amount] : {std::pair(0.0F, 1.0F), std::pair(4.0F, 0.0F)}) {
        normal = pool->tempTexture(TextureFormat::RGBA8, 4, 4);
        Texture* bright = pool->tempTexture(TextureFormat::RGBA8, 4, 4);
        glow.run({viewport, normal, radius, 0.5F, amount, bright});
        EXPECT_EQ(glow.texture(), normal);
        EXPECT_EQ(pool->numReferences(), 2);
    }
}

} // namespace
} // namespace Morvane::Qel::Test
