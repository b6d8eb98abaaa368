#include <QRect>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Pixels.h"
#include <Qel/RenderPasses/postprocessing/SMAARenderPass.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel::Test {
namespace {

using Pass = SMAARenderPass;

class SMAARenderPassTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        context().applyBaseState();
        pass = std::make_unique<Pass>();
        pass->setup(nullptr);
        for (int output = 0; output < pass->numOutputs(); ++output) {
            pass->setNumOutputUsers(output, 1);
        }
    }
    void TearDown() override
    {
        pass->teardown(nullptr);
        pass.reset();
        GLTest::TearDown();
    }

    Texture* output(int port) { return qobject_cast<Texture*>(pass->output(port).value<QObject*>()); }

    void start(const Pixels& picture)
    {
        Texture* input =
            TextureManager::Instance()->tempTexture(TextureFormat::RGBA8, picture.width, picture.height);
        input->setImage2D(0, GL_RGBA8, picture.width, picture.height, GL_RGBA, GL_FLOAT,
                          picture.values.data());
        pass->setInput(Pass::Viewport, QRect(0, 0, picture.width, picture.height));
        pass->setInput(Pass::Frame, QVariant::fromValue<QObject*>(input));
        pass->start(nullptr);
    }
    void releaseOutputs()
    {
        for (int port = 0; port < pass->numOutputs(); ++port) {
            TextureManager::Instance()->releaseTempTextureRef(output(port), 1);
        }
    }
    /// The result, the edges and the weights.
    std::array<Pixels, 3> run(const Pixels& picture)
    {
        start(picture);
        std::array<Pixels, 3> outputs;
        for (int port = 0; port < pass->numOutputs(); ++port) {
            outputs[static_cast<size_t>(port)] = readTexture(output(port)).roundedToBytes();
        }
        releaseOutputs();
        return outputs;
    }

    std::unique_ptr<Pass> pass;
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
    const Pixels picture =
        Pixels::generate(48, 40, [&](int x, int y) {
            QVector4D value = noise(random);
            value += x / 5 % 2 == y / 7 % 2 ? QVector4D(0, 0.4F, 0, 0) : QVector4D(0.1F, 0, 0, 0);
            return value;
        }).roundedToBytes();
    const Pixels edges = run(picture)[Pass::EdgeTexture];
    // In steps of 1 / 255, where everything is whole.
    const auto difference = [&](int x, int y, int dx, int dy) {
        const QVector4D d =
            255.0F * (picture.at(x, y) - picture.at(std::clamp(x + dx, 0, 47), std::clamp(y + dy, 0, 39)));
        return std::lround(std::max({std::abs(d.x()), std::abs(d.y()), std::abs(d.z())}));
    };
    int numHidden = 0;
    for (int y = 0; y < picture.height; ++y) {
        for (int x = 0; x < picture.width; ++x) {
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
    EXPECT_GT(numHidden, 50) << "the picture does not try the local contrast";
}

// Along a staircase whose steps are longer than they are high the method draws the line through the middles
// of the risers; what it covers of each pixel is known. Steps of 9 texels: distances to the ends run from 0
// to 8.
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
        const auto pictureOf = [&](const std::function<double(double, double)>& f) {
            return Pixels::generate(extent, extent, [&](int x, int y) {
                const auto [u, v] = turned(x, y);
                const auto level = static_cast<float>(f(u + 0.5, v + 0.5));
                return QVector4D(level, level, level, 1.0F);
            });
        };
        const Pixels stairs = pictureOf([&](double x, double y) { return y < line(x) ? 1.0 : 0.0; });
        const Pixels expected = pictureOf(coverage);
        const Pixels result = run(stairs)[Pass::AntiAliasedFrame];
        for (int y = 0; y < extent; ++y) {
            for (int x = 0; x < extent; ++x) {
                if (const int u = turned(x, y).first; u < 12 || u > 51) {
                    // The steps at the border of the picture have no riser at one end.
                    continue;
                }
                // The area table holds 8 bits at square distances and mixes between them.
                EXPECT_NEAR(result.at(x, y).x(), expected.at(x, y).x(), 0.02)
                    << orientation << ": " << x << ", " << y;
            }
        }
    }
}

// Along a diagonal without end the line may run through the corners of the pixels on either side; the method
// takes the mean of both, of which each cuts a half off the pixels of one side.
TEST_F(SMAARenderPassTest, SmoothsDiagonals)
{
    constexpr int extent = 80;
    for (const bool falls : {false, true}) {
        const auto side = [&](int x, int y) { return falls ? extent - 1 - x - y : x - y; };
        const Pixels steps = Pixels::generate(extent, extent, [&](int x, int y) {
            return side(x, y) > 0 ? QVector4D(1, 1, 1, 1) : QVector4D(0, 0, 0, 1);
        });
        const Pixels result = run(steps)[Pass::AntiAliasedFrame];
        // Out of the search's sight of the picture's border.
        for (int y = 20; y < extent - 20; ++y) {
            for (int x = 20; x < extent - 20; ++x) {
                const double expected = side(x, y) > 1    ? 1.0
                                        : side(x, y) == 1 ? 3.0 / 4.0
                                        : side(x, y) == 0 ? 1.0 / 4.0
                                                          : 0.0;
                // The table counts 30 x 30 samples, those on the line as outside.
                EXPECT_NEAR(result.at(x, y).x(), expected, 0.02) << falls << ": " << x << ", " << y;
            }
        }
    }
}

// A ramp of a few steps between two levels: both ends of its diagonal are found, and turn differently.
TEST_F(SMAARenderPassTest, TreatsRisingAndFallingRampsAlike)
{
    constexpr int extent = 40;
    const auto mirrored = [](const Pixels& pixels) {
        return Pixels::generate(extent, extent, [&](int x, int y) { return pixels.at(extent - 1 - x, y); });
    };
    // A diagonal takes the texel's other edge with it, but not that of the mirrored texel, to which a riser
    // of one texel still gives its eighth.
    constexpr float tolerance = 0.125F;
    for (int length = 3; length <= 9; ++length) {
        const Pixels rising = Pixels::generate(extent, extent, [&](int x, int y) {
            return y < 15 + std::clamp(x - 15, 0, length) ? QVector4D(1, 1, 1, 1) : QVector4D(0, 0, 0, 1);
        });
        const Pixels result = run(rising)[Pass::AntiAliasedFrame];
        EXPECT_TRUE(equal(run(mirrored(rising))[Pass::AntiAliasedFrame], mirrored(result), tolerance))
            << length;
    }
}

TEST_F(SMAARenderPassTest, KeepsCornersSharp)
{
    // A rectangle whose sides are longer than short shapes, which are rounded more. At its corner the line
    // from half a pixel beside the end to the middle of the side cuts off about a half; a quarter of that is
    // left.
    constexpr int side = 40;
    const Pixels rectangle = threshold(
        64, 64, [](double x, double y) { return x > 12 && x < 12 + side && y > 12 && y < 12 + side; });
    const auto [result, edges, weights] = run(rectangle);
    const double cut = 0.5 * (0.5 + 0.5 * (1.0 - 2.0 / side));
    for (const auto& [x, y] : {std::pair(12, 12), std::pair(12 + side - 1, 12)}) {
        // The edge below the corner: what the corner's own pixel keeps of its neighbour.
        const QVector4D weight = weights.at(x, y);
        // The crossing edge that says so is read where the search ended, up to a quarter of a texel off.
        EXPECT_NEAR(weight.x() + weight.y(), 0.25 * cut, 0.04) << x << ", " << y;
    }
    // In the middle of a side nothing is cut off.
    EXPECT_LT(weights.at(12 + side / 2, 12).x() + weights.at(12 + side / 2, 12).y(), 0.02);
}

TEST_F(SMAARenderPassTest, LeavesAreasWithoutEdgesAsTheyAre)
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

TEST_F(SMAARenderPassTest, HandsThreeTexturesToTheirUsersAndBuildsNothingOnASteadyFrame)
{
    const Pixels picture = threshold(32, 24, [](double x, double y) { return 3 * y < x + 20; });
    TextureManager* pool = TextureManager::Instance();
    ResourceScope scope(&context());
    {
        const ResourceScope::Activation inside(&context(), &scope);
        pass->setNumOutputUsers(Pass::EdgeTexture, 2);
        pass->setNumOutputUsers(Pass::BlendTexture, 0);
        start(picture);
        ASSERT_EQ(pool->loans().size(), 2U);
        EXPECT_EQ(pool->numReferences(), 3);
        pool->releaseTempTextureRef(output(Pass::AntiAliasedFrame), 1);
        pool->releaseTempTextureRef(output(Pass::EdgeTexture), 2);
        pass->setNumOutputUsers(Pass::EdgeTexture, 1);
        pass->setNumOutputUsers(Pass::BlendTexture, 1);

        const int numObjects = scope.numObjects();
        const int numTextures = pool->numTextures();
        for (int frame = 0; frame < 5; ++frame) {
            start(picture);
            releaseOutputs();
        }
        EXPECT_EQ(scope.numObjects(), numObjects);
        EXPECT_EQ(pool->numTextures(), numTextures);

        // A new size replaces everything but the framebuffer of the result, which stays.
        run(threshold(24, 32, [](double x, double y) { return y < x; }));
        EXPECT_EQ(scope.numObjects(), numObjects + 1);

        // Without a frame the outputs keep their textures, whose users drop a reference as always, until the
        // pool gives them up.
        const QVariant edges = pass->output(Pass::EdgeTexture);
        pass->setInput(Pass::Frame, QVariant());
        pass->start(nullptr);
        EXPECT_EQ(pass->output(Pass::EdgeTexture), edges);
        releaseOutputs();
        pool->releaseFreeTextures();
        pass->start(nullptr);
        EXPECT_FALSE(pass->output(Pass::EdgeTexture).isValid());
        pass.reset();
        EXPECT_EQ(scope.numObjects(), 0);
        pass = std::make_unique<Pass>();
    }
}

} // namespace
} // namespace Morvane::Qel::Test
