#include <QRect>

#include <algorithm>
#include <array>
#include <cmath>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/postprocessing/SMAARenderPass.h>

namespace Morvane::Qel::Test {
namespace {

using Pass = SMAARenderPass;

class SMAARenderPassTest : public GLTest
{
protected:
    /// Returns the result, the edges and the weights of an image.
    static std::array<Pixels, 3> run(const Pixels& image)
    {
        Runner<Pass> pass;
        pass.run({QRect(0, 0, image.width, image.height), makePooledTexture(image, TextureFormat::RGBA8)});
        return {pass.pixels(0).roundedToBytes(), pass.pixels(1).roundedToBytes(),
                pass.pixels(2).roundedToBytes()};
    }
};

/// A level that any value matches.
constexpr double unknown = -1.0;

/// The image whose pixel (x, y) is an opaque grey of this level.
Pixels grey(int width, int height, const std::function<double(int, int)>& level)
{
    return Pixels::generate(width, height, [&](int x, int y) {
        const auto value = static_cast<float>(level(x, y));
        return value < 0.0F ? anyPixel : QVector4D(value, value, value, 1.0F);
    });
}

TEST_F(SMAARenderPassTest, FindsEdgesByTheStrongestChannelAndTheLocalContrast)
{
    const Pixels noise = Pixels::noise(48, 40, 3);
    const Pixels image = Pixels::generate(48, 40, [&](int x, int y) {
                             const bool isLight = x / 5 % 2 == y / 7 % 2;
                             return noise.at(x, y) * QVector4D(0.15F, 0.15F, 0.15F, 1.0F) +
                                    (isLight ? QVector4D(0, 0.4F, 0, 0) : QVector4D(0.1F, 0, 0, 0));
                         }).roundedToBytes();
    // In whole steps of 1 / 255.
    const auto difference = [&](int x, int y, int dx, int dy) {
        const QVector4D d = 255.0F * (image.at(x, y) - image.clamped(x + dx, y + dy));
        return std::lround(std::max({std::abs(d.x()), std::abs(d.y()), std::abs(d.z())}));
    };
    const Pixels actual = run(image)[Pass::EdgeTexture];
    Pixels expected = actual;
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            const std::array strengths{difference(x, y, -1, 0), difference(x, y, 0, -1)};
            const long strongest =
                std::max({strengths[0], strengths[1], difference(x, y, 1, 0), difference(x, y, 0, 1),
                          difference(x, y, -2, 0), difference(x, y, 0, -2)});
            for (int i = 0; i < 2; ++i) {
                const long strength = strengths[static_cast<size_t>(i)];
                // In floats a tie goes either way. Blue and alpha are undefined.
                if (2 * strength != strongest) {
                    expected.at(x, y)[i] = strength >= 13 && 2 * strength > strongest ? 1.0F : 0.0F;
                }
            }
        }
    }
    EXPECT_TRUE(equal(actual, expected));
}

// Along a staircase with steps longer than high, the method draws the line through the centres of the risers,
// whose coverage of each pixel is known. With steps of 9 texels, the distances to the ends run from 0 to 8.
TEST_F(SMAARenderPassTest, TurnsStaircasesIntoLines)
{
    constexpr int extent = 64;
    // No riser stands where the line meets the centre of a pixel.
    const auto line = [](double x) { return (x + 0.5) / 9.0 + 32.0; };
    const auto coverage = [&](double x, double y) {
        double covered = 0.0;
        for (int i = 0; i < 64; ++i) {
            covered += std::clamp(line(x - 0.5 + (i + 0.5) / 64.0) - (y - 0.5), 0.0, 1.0) / 64.0;
        }
        return covered;
    };
    for (int orientation = 0; orientation < 8; ++orientation) {
        const auto turned = [&](int x, int y) {
            x = (orientation & 1) != 0 ? extent - 1 - x : x;
            y = (orientation & 2) != 0 ? extent - 1 - y : y;
            return (orientation & 4) != 0 ? std::pair(y, x) : std::pair(x, y);
        };
        const Pixels stairs = grey(extent, extent, [&](int x, int y) {
            const auto [u, v] = turned(x, y);
            return v + 0.5 < line(u + 0.5) ? 1.0 : 0.0;
        });
        const Pixels expected = grey(extent, extent, [&](int x, int y) {
            const auto [u, v] = turned(x, y);
            // Steps at the border of the image have no riser at one end.
            return u < 12 || u > 51 ? unknown : coverage(u + 0.5, v + 0.5);
        });
        // The area table holds 8 bits at squared distances and is interpolated between them.
        EXPECT_TRUE(equal(run(stairs)[Pass::AntiAliasedFrame], expected, 0.02F)) << orientation;
    }
}

// Along an endless diagonal, the line may run through the pixel corners on either side. The method takes the
// mean of both, each of which cuts a half off the pixels of one side.
TEST_F(SMAARenderPassTest, SmoothsDiagonals)
{
    constexpr int extent = 80;
    for (const bool falls : {false, true}) {
        const auto side = [&](int x, int y) { return falls ? extent - 1 - x - y : x - y; };
        const Pixels steps = grey(extent, extent, [&](int x, int y) { return side(x, y) > 0 ? 1.0 : 0.0; });
        const Pixels result = run(steps)[Pass::AntiAliasedFrame];
        const Pixels expected = grey(extent, extent, [&](int x, int y) {
            // Beyond the reach of the search from the border.
            const bool isInside = std::min(x, y) >= 20 && std::max(x, y) < extent - 20;
            return isInside ? std::clamp(0.5 * side(x, y) + 0.25, 0.0, 1.0)
                            : static_cast<double>(result.at(x, y).x());
        });
        // The table was computed from 30 x 30 samples, with those on the line outside.
        EXPECT_TRUE(equal(result, expected, 0.02F)) << falls;
    }
}

// A ramp of a few steps between two levels: both ends of its diagonal are found, and turn differently.
TEST_F(SMAARenderPassTest, TreatsRisingAndFallingRampsAlike)
{
    constexpr int extent = 40;
    const auto mirrored = [](const Pixels& image) {
        return Pixels::generate(extent, extent, [&](int x, int y) { return image.at(extent - 1 - x, y); });
    };
    for (int length = 3; length <= 9; ++length) {
        const Pixels rising = grey(
            extent, extent, [&](int x, int y) { return y < 15 + std::clamp(x - 15, 0, length) ? 1.0 : 0.0; });
        // A diagonal suppresses the texel's other edge, but not that of the mirrored texel, to which a riser
        // of one texel still contributes an eighth.
        EXPECT_TRUE(equal(run(mirrored(rising))[0], mirrored(run(rising)[0]), 0.125F)) << length;
    }
}

TEST_F(SMAARenderPassTest, KeepsCornersSharp)
{
    // At a corner, the line from half a pixel beside the end to the centre of the side cuts off about a half,
    // of which a quarter is kept. The sides are long: shorter shapes are rounded more.
    constexpr int side = 40;
    const Pixels rectangle = grey(
        64, 64, [](int x, int y) { return std::min(x, y) >= 12 && std::max(x, y) < 12 + side ? 1.0 : 0.0; });
    const Pixels weights = run(rectangle)[Pass::BlendTexture];
    const double cut = 0.5 * (0.5 + 0.5 * (1.0 - 2.0 / side));
    // In the middle of a side nothing is cut off.
    for (const auto& [x, kept] :
         {std::pair(12, 0.25 * cut), std::pair(11 + side, 0.25 * cut), std::pair(12 + side / 2, 0.0)}) {
        // The weights of the edge below. The crossing edge is sampled up to a quarter of a texel beside the
        // end.
        EXPECT_NEAR(weights.at(x, 12).x() + weights.at(x, 12).y(), kept, 0.04) << x;
    }
}

TEST_F(SMAARenderPassTest, CopiesAreasWithoutEdges)
{
    // Below the threshold of 0.05 everywhere, alpha aside; sizes that are no powers of two.
    const Pixels flat =
        Pixels::noise(53, 37, 5)
            .mapped([](const QVector4D& c) {
                return c * QVector4D(0.045F, 0.045F, 0.045F, 1.0F) + QVector4D(0.4F, 0.2F, 0.6F, 0.0F);
            })
            .roundedToBytes();
    Runner<Pass> pass;
    pass.set(Pass::Viewport, QRect(0, 0, 53, 37));
    const auto frame = makeTexture(flat, GL_RGBA8);
    pass.set(Pass::Frame, frame);
    pass.runAround([](RenderPass& smaa) {
        // As other passes leave it. The weights must not get this alpha.
        glClearColor(0.0F, 0.0F, 0.0F, 1.0F);
        smaa.start(nullptr);
    });
    EXPECT_TRUE(equal(pass.pixels(Pass::AntiAliasedFrame).roundedToBytes(), flat));
    EXPECT_TRUE(equal(pass.pixels(Pass::BlendTexture), Pixels::filled(53, 37, {})));
}

TEST_F(SMAARenderPassTest, KeepsItsObjectsAndOutputs)
{
    TextureManager* pool = TextureManager::Instance();
    const auto frame = makeTexture(Pixels::noise(32, 24, 1), GL_RGBA8);
    Runner<Pass> pass;
    pass.run({QRect(0, 0, 32, 24), frame});
    EXPECT_EQ(pool->numReferences(), 3);

    // Without a frame the outputs keep their textures, of which users release references as always, until the
    // pool deletes them.
    const Texture* edges = pass.texture(Pass::EdgeTexture);
    pass.run({QRect(0, 0, 32, 24), nullptr});
    EXPECT_EQ(pass.texture(Pass::EdgeTexture), edges);
    EXPECT_EQ(pool->numReferences(), 3);
    pass.releaseOutputs();
    pool->releaseFreeTextures();
    pass.run();
    EXPECT_FALSE(pass->output(Pass::EdgeTexture).isValid());

    // Deliberate: a new size keeps the framebuffer of the old result, which was bound third.
    pass.run({QRect(0, 0, 24, 32)});
    // The names show which is left: the driver numbers framebuffers from 1, in order of their first binding.
    EXPECT_TRUE(!glIsFramebuffer(1) && !glIsFramebuffer(2) && glIsFramebuffer(3));
}

} // namespace
} // namespace Morvane::Qel::Test
