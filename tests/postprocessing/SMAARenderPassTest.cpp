#include <QRect>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/postprocessing/SMAARenderPass.h>
#include <Qel/gl/ResourceScope.h>

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

/// White where the function holds at the pixel's centre, else black.
Pixels threshold(int width, int height, const std::function<bool(double, double)>& isWhite)
{
    return Pixels::generate(width, height, [&](int x, int y) {
        return isWhite(x + 0.5, y + 0.5) ? QVector4D(1, 1, 1, 1) : QVector4D(0, 0, 0, 1);
    });
}

QVector4D noise(std::mt19937& random)
{
    const auto level = [&](unsigned int levels) { return static_cast<float>(random() % levels) / 255.0F; };
    return {level(40), level(40), level(40), level(256)};
}

TEST_F(SMAARenderPassTest, FindsEdgesByTheStrongestChannelAndTheLocalContrast)
{
    std::mt19937 random(3);
    const Pixels image = Pixels::generate(48, 40, [&](int x, int y) {
                             QVector4D value = noise(random);
                             value +=
                                 x / 5 % 2 == y / 7 % 2 ? QVector4D(0, 0.4F, 0, 0) : QVector4D(0.1F, 0, 0, 0);
                             return value;
                         }).roundedToBytes();
    const Pixels edges = run(image)[Pass::EdgeTexture];
    // In whole steps of 1 / 255.
    const auto difference = [&](int x, int y, int dx, int dy) {
        const QVector4D d = 255.0F * (image.at(x, y) - image.clamped(x + dx, y + dy));
        return std::lround(std::max({std::abs(d.x()), std::abs(d.y()), std::abs(d.z())}));
    };
    int numHidden = 0;
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            const long left = difference(x, y, -1, 0);
            const long below = difference(x, y, 0, -1);
            const long strongest = std::max({left, below, difference(x, y, 1, 0), difference(x, y, 0, 1),
                                             difference(x, y, -2, 0), difference(x, y, 0, -2)});
            const auto expectEdge = [&](float found, long strength) {
                // In floats a tie goes either way.
                if (2 * strength != strongest) {
                    const bool isEdge = strength >= 13 && 2 * strength > strongest;
                    EXPECT_EQ(found, isEdge ? 1.0F : 0.0F) << x << ", " << y;
                    numHidden += strength >= 13 && !isEdge ? 1 : 0;
                }
            };
            // Blue and alpha are undefined.
            expectEdge(edges.at(x, y).x(), left);
            expectEdge(edges.at(x, y).y(), below);
        }
    }
    EXPECT_GT(numHidden, 50) << "the image does not test the local contrast";
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
        constexpr int numSlices = 64;
        for (int i = 0; i < numSlices; ++i) {
            const double height = line(x - 0.5 + (i + 0.5) / numSlices);
            covered += std::clamp(height - (y - 0.5), 0.0, 1.0) / numSlices;
        }
        return covered;
    };
    for (int orientation = 0; orientation < 8; ++orientation) {
        const auto turned = [&](int x, int y) {
            if ((orientation & 1) != 0) {
                x = extent - 1 - x;
            }
            if ((orientation & 2) != 0) {
                y = extent - 1 - y;
            }
            return (orientation & 4) != 0 ? std::pair(y, x) : std::pair(x, y);
        };
        const auto imageOf = [&](const std::function<double(double, double)>& f) {
            return Pixels::generate(extent, extent, [&](int x, int y) {
                const auto [u, v] = turned(x, y);
                const auto level = static_cast<float>(f(u + 0.5, v + 0.5));
                return QVector4D(level, level, level, 1.0F);
            });
        };
        const Pixels stairs = imageOf([&](double x, double y) { return y < line(x) ? 1.0 : 0.0; });
        const Pixels expected = imageOf(coverage);
        const Pixels result = run(stairs)[Pass::AntiAliasedFrame];
        for (int y = 0; y < extent; ++y) {
            for (int x = 0; x < extent; ++x) {
                if (const int u = turned(x, y).first; u < 12 || u > 51) {
                    // Steps at the border of the image have no riser at one end.
                    continue;
                }
                // The area table holds 8 bits at squared distances and is interpolated between them.
                EXPECT_NEAR(result.at(x, y).x(), expected.at(x, y).x(), 0.02)
                    << orientation << ": " << x << ", " << y;
            }
        }
    }
}

// Along an endless diagonal, the line may run through the pixel corners on either side. The method takes the
// mean of both, each of which cuts a half off the pixels of one side.
TEST_F(SMAARenderPassTest, SmoothsDiagonals)
{
    constexpr int extent = 80;
    for (const bool falls : {false, true}) {
        const auto side = [&](int x, int y) { return falls ? extent - 1 - x - y : x - y; };
        const Pixels steps = Pixels::generate(extent, extent, [&](int x, int y) {
            return side(x, y) > 0 ? QVector4D(1, 1, 1, 1) : QVector4D(0, 0, 0, 1);
        });
        const Pixels result = run(steps)[Pass::AntiAliasedFrame];
        // Beyond the reach of the search from the border.
        for (int y = 20; y < extent - 20; ++y) {
            for (int x = 20; x < extent - 20; ++x) {
                const double expected = side(x, y) > 1    ? 1.0
                                        : side(x, y) == 1 ? 3.0 / 4.0
                                        : side(x, y) == 0 ? 1.0 / 4.0
                                                          : 0.0;
                // The table was computed from 30 x 30 samples, with those on the line outside.
                EXPECT_NEAR(result.at(x, y).x(), expected, 0.02) << falls << ": " << x << ", " << y;
            }
        }
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
        const Pixels rising = threshold(extent, extent, [&](double x, double y) {
            return y < 15.5 + std::clamp(x - 15.5, 0.0, 1.0 * length);
        });
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
    const Pixels rectangle = threshold(
        64, 64, [](double x, double y) { return x > 12 && x < 12 + side && y > 12 && y < 12 + side; });
    const auto [result, edges, weights] = run(rectangle);
    const double cut = 0.5 * (0.5 + 0.5 * (1.0 - 2.0 / side));
    for (const auto& [x, y] : {std::pair(12, 12), std::pair(12 + side - 1, 12)}) {
        // The weights of the edge below the corner.
        const QVector4D weight = weights.at(x, y);
        // The crossing edge is sampled up to a quarter of a texel beside the end.
        EXPECT_NEAR(weight.x() + weight.y(), 0.25 * cut, 0.04) << x << ", " << y;
    }
    // In the middle of a side nothing is cut off.
    EXPECT_LT(weights.at(12 + side / 2, 12).x() + weights.at(12 + side / 2, 12).y(), 0.02);
}

TEST_F(SMAARenderPassTest, CopiesAreasWithoutEdges)
{
    std::mt19937 random(5);
    // Below the threshold of 0.05 everywhere, alpha aside; sizes that are no powers of two.
    const Pixels flat = Pixels::generate(53, 37, [&](int, int) {
                            QVector4D value = noise(random) * QVector4D(0.3F, 0.3F, 0.3F, 1.0F) +
                                              QVector4D(0.4F, 0.2F, 0.6F, 0.0F);
                            return value;
                        }).roundedToBytes();
    const auto [result, edges, weights] = run(flat);
    EXPECT_TRUE(equal(result, flat));
    for (size_t i = 0; i < edges.values.size(); ++i) {
        ASSERT_EQ(edges.values[i].toVector2D(), QVector2D());
        ASSERT_EQ(weights.values[i], QVector4D());
    }
}

TEST_F(SMAARenderPassTest, KeepsItsObjectsAndOutputs)
{
    const Pixels image = threshold(32, 24, [](double x, double y) { return 3 * y < x + 20; });
    TextureManager* pool = TextureManager::Instance();
    ResourceScope scope(&context());
    {
        const ResourceScope::Activation activation(&context(), &scope);
        const auto frame = makeTexture(image, GL_RGBA8);
        Runner<Pass> pass;
        const auto expectOutputs = [&] {
            pass.run({QRect(0, 0, 32, 24), frame});
            EXPECT_EQ(pool->numReferences(), 3);
        };
        expectOutputs();
        const int numObjects = scope.numObjects();
        const int numTextures = pool->numTextures();
        expectOutputs();
        EXPECT_EQ(scope.numObjects(), numObjects);
        EXPECT_EQ(pool->numTextures(), numTextures);
        EXPECT_EQ(frame->parameter(GL_TEXTURE_MIN_FILTER), GL_NEAREST);

        // Without a frame the outputs keep their textures, of which users release references as always, until
        // the pool deletes them.
        const Texture* edges = pass.texture(Pass::EdgeTexture);
        pass.run({QRect(0, 0, 32, 24), nullptr});
        EXPECT_EQ(pass.texture(Pass::EdgeTexture), edges);
        EXPECT_EQ(pool->numReferences(), 3);
        pass.releaseOutputs();
        pool->releaseFreeTextures();
        pass.run();
        EXPECT_FALSE(pass->output(Pass::EdgeTexture).isValid());

        // Deliberate: a new size keeps the framebuffer of the old result.
        const int before = scope.numObjects();
        pass.run({QRect(0, 0, 24, 32), nullptr});
        EXPECT_EQ(scope.numObjects(), before + 1);
    }
    EXPECT_EQ(scope.numObjects(), 0);
}

} // namespace
} // namespace Morvane::Qel::Test
