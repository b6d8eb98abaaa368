// Blur and glow against convolutions on the CPU, in double precision.

#include <array>
#include <random>

#include <epoxy/gl.h>

#include "postprocessing/GaussianKernel.h"
#include "support/GLTest.h"
#include "support/Pixels.h"
#include <Qel/RenderPasses/postprocessing/BlurAndCombineRenderPass.h>
#include <Qel/RenderPasses/postprocessing/GaussianBlurRenderPass.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel::Test {
namespace {

/// Targets are half floats, whose step below 1 is 0.0005, and the software rasteriser filters with weights of
/// 8 bits.
constexpr float blurTolerance = 0.003F;

struct Tap
{
    double offset;
    double weight;
};

/// The taps on one side at whole texels.
std::vector<Tap> wholeTaps(double radius)
{
    std::vector<Tap> taps;
    for (const double weight : gaussianTaps(radius)) {
        taps.push_back({static_cast<double>(taps.size()), weight});
    }
    return taps;
}

/// The same with each pair joined into one tap between its texels.
std::vector<Tap> foldedTaps(double radius)
{
    const std::vector<Tap> whole = wholeTaps(radius);
    std::vector<Tap> taps{whole[0]};
    for (size_t i = 1; i < whole.size(); i += 2) {
        const double weight = whole[i].weight + whole[i + 1].weight;
        taps.push_back({whole[i].offset + whole[i + 1].weight / weight, weight});
    }
    return taps;
}

QVector4D sample(const Pixels& picture, double u, double v)
{
    const double x = u * picture.width - 0.5;
    const double y = v * picture.height - 0.5;
    const auto texel = [&](double i, double j) {
        return picture.at(std::clamp(static_cast<int>(i), 0, picture.width - 1),
                          std::clamp(static_cast<int>(j), 0, picture.height - 1));
    };
    const auto fx = static_cast<float>(x - std::floor(x));
    const auto fy = static_cast<float>(y - std::floor(y));
    const auto row = [&](double j) {
        return texel(std::floor(x), j) * (1.0F - fx) + texel(std::floor(x) + 1.0, j) * fx;
    };
    return row(std::floor(y)) * (1.0F - fy) + row(std::floor(y) + 1.0) * fy;
}

enum class Direction
{
    Horizontal,
    Vertical
};

/// One direction of a blur at another resolution. Where `keepsTransparent`, texels of alpha 0 stay.
Pixels convolve(const Pixels& picture, int width, int height, const std::vector<Tap>& taps,
                Direction direction, bool keepsTransparent = true)
{
    return Pixels::generate(width, height, [&](int x, int y) {
        const double u = (x + 0.5) / width;
        const double v = (y + 0.5) / height;
        const QVector4D centre = sample(picture, u, v);
        if (keepsTransparent && centre.w() <= 0.0F) {
            return centre;
        }
        std::array<double, 4> sum{};
        for (const Tap& tap : taps) {
            for (const double sign : {-1.0, 1.0}) {
                const double du = direction == Direction::Horizontal ? sign * tap.offset / width : 0.0;
                const double dv = direction == Direction::Vertical ? sign * tap.offset / height : 0.0;
                const QVector4D colour = sample(picture, u + du, v + dv);
                for (int c = 0; c < 4; ++c) {
                    sum[static_cast<size_t>(c)] +=
                        static_cast<double>(colour[c]) * tap.weight * (tap.offset == 0.0 ? 0.5 : 1.0);
                }
            }
        }
        return QVector4D(static_cast<float>(sum[0]), static_cast<float>(sum[1]), static_cast<float>(sum[2]),
                         static_cast<float>(sum[3]));
    });
}

Pixels noise(int width, int height, bool hasHoles)
{
    std::mt19937 random(7);
    std::uniform_real_distribution<float> value(0.0F, 1.0F);
    return Pixels::generate(width, height, [&](int x, int y) {
        const bool hole = hasHoles && (x / 5 + y / 4) % 3 == 0;
        const QVector3D colour(value(random), value(random), value(random));
        return hole ? QVector4D() : QVector4D(colour, 1.0F - 0.5F * value(random));
    });
}

QVariant variant(Texture* texture)
{
    return QVariant::fromValue<QObject*>(texture);
}

class BlurTest : public GLTest
{
protected:
    /// Runs a frame with one user of the output, and gives the output's reference back.
    Texture* run(RenderPass& pass)
    {
        context().applyBaseState();
        pass.setNumOutputUsers(0, 1);
        pass.start(nullptr);
        auto* output = qobject_cast<Texture*>(pass.output(0).value<QObject*>());
        TextureManager::Instance()->releaseTempTextureRef(output, 1);
        EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
        return output;
    }
    Pixels draw(RenderPass& pass) { return readTexture(run(pass)); }

    static void setUp(GaussianBlurRenderPass& pass, const QSize& viewport, Texture* input, float radius,
                      float divider = 0.0F)
    {
        using Pass = GaussianBlurRenderPass;
        pass.setInput(Pass::Viewport, QRect(QPoint(3, 4), viewport));
        pass.setInput(Pass::Input, variant(input));
        pass.setInput(Pass::BlurRadius, radius);
        pass.setInput(Pass::ResolutionDivider, divider);
    }
    static void setUp(BlurAndCombineRenderPass& pass, const QSize& viewport, Texture* normal, Texture* blur,
                      float radius, float threshold, float amount)
    {
        using Pass = BlurAndCombineRenderPass;
        pass.setInput(Pass::Viewport, QRect(QPoint(3, 4), viewport));
        pass.setInput(Pass::NormalFrame, variant(normal));
        pass.setInput(Pass::BlurFrame, variant(blur));
        pass.setInput(Pass::BlurRadius, radius);
        pass.setInput(Pass::GlowThreshold, threshold);
        pass.setInput(Pass::GlowAmount, amount);
    }
    static std::unique_ptr<Texture> texture(const Pixels& pixels)
    {
        return std::unique_ptr<Texture>(makeTexture(pixels, GL_RGBA32F));
    }
};

TEST_F(BlurTest, ConvolvesWithTheGaussianAtEveryRadius)
{
    GaussianBlurRenderPass pass;
    for (const bool hasHoles : {false, true}) {
        const Pixels picture = noise(37, 23, hasHoles);
        const auto input = texture(picture);
        Pixels first;
        for (const float radius : {1.3F, 4.0F, 9.0F, 1.3F}) {
            setUp(pass, {37, 23}, input.get(), radius);
            const std::vector<Tap> taps = wholeTaps(static_cast<double>(radius));
            const Pixels horizontal = convolve(picture, 37, 23, taps, Direction::Horizontal);
            const Pixels expected = convolve(horizontal, 37, 23, taps, Direction::Vertical);
            const Pixels actual = draw(pass);
            EXPECT_TRUE(equal(actual, expected, blurTolerance)) << radius;
            if (radius != 1.3F) {
                continue;
            }
            // Back at a radius, the picture is the very same.
            if (first.width == 0) {
                first = actual;
            } else {
                EXPECT_TRUE(equal(actual, first));
            }
        }
    }
}

TEST_F(BlurTest, ReducedResolutionBlursItsOwnTexels)
{
    const Pixels picture = noise(39, 25, false);
    const auto input = texture(picture);
    GaussianBlurRenderPass pass;
    for (const float divider : {2.0F, 3.0F, 0.5F}) {
        // Rounded down: 39 / 2 is 19.
        const int width = static_cast<int>(39.0F / divider);
        const int height = static_cast<int>(25.0F / divider);
        setUp(pass, {39, 25}, input.get(), 3.0F, divider);
        const std::vector<Tap> taps = foldedTaps(3.0);
        const Pixels horizontal = convolve(picture, width, height, taps, Direction::Horizontal);
        const Pixels expected = convolve(horizontal, width, height, taps, Direction::Vertical);
        EXPECT_TRUE(equal(draw(pass), expected, blurTolerance)) << divider;
    }
}

TEST_F(BlurTest, ImpulseBecomesTheKernelAndAConstantStays)
{
    GaussianBlurRenderPass pass;
    const auto impulse = texture(Pixels::generate(21, 21, [](int x, int y) {
        return x == 10 && y == 10 ? QVector4D(1, 1, 1, 1) : QVector4D(0, 0, 0, 0.5F);
    }));
    setUp(pass, {21, 21}, impulse.get(), 2.0F);
    const std::vector<double> taps = gaussianTaps(2.0);
    const auto weight = [&](int distance) {
        return distance < static_cast<int>(taps.size()) ? taps[static_cast<size_t>(distance)] : 0.0;
    };
    EXPECT_TRUE(equal(draw(pass),
                      Pixels::generate(21, 21,
                                       [&](int x, int y) {
                                           const auto v = static_cast<float>(weight(std::abs(x - 10)) *
                                                                             weight(std::abs(y - 10)));
                                           return QVector4D(v, v, v, 0.5F + 0.5F * v);
                                       }),
                      blurTolerance));

    const auto grey = texture(Pixels::generate(9, 7, [](int, int) { return QVector4D(0.25F, 0.5F, 4, 1); }));
    setUp(pass, {31, 17}, grey.get(), 5.0F);
    // The weights add up to 1 but for a float's rounding, which half floats may round down by a step a draw.
    const Pixels blurred = draw(pass);
    EXPECT_TRUE(equal(
        blurred, Pixels::generate(31, 17, [](int, int) { return QVector4D(0.25F, 0.5F, 4, 1); }), 0.008F));
    EXPECT_NEAR(static_cast<double>(blurred.at(15, 8).x()), 0.25, 0.0005);
}

TEST_F(BlurTest, SmallRadiusPassesTheInputOn)
{
    TextureManager* pool = TextureManager::Instance();
    GaussianBlurRenderPass pass;
    Texture* input = pool->tempTexture(TextureFormat::RGBA8, 4, 4);
    setUp(pass, {4, 4}, input, 1.0F);
    const int numTextures = pool->numTextures();
    pass.setNumOutputUsers(0, 3);
    pass.start(nullptr);
    EXPECT_EQ(pass.output(0).value<QObject*>(), input);
    EXPECT_EQ(pool->numReferences(), 3);
    EXPECT_EQ(pool->numTextures(), numTextures);
    pool->releaseTempTextureRef(input, 3);

    setUp(pass, {4, 4}, nullptr, 0.5F);
    EXPECT_EQ(run(pass), nullptr);
}

TEST_F(BlurTest, MissingInputsBlurTransparentBlack)
{
    GaussianBlurRenderPass pass;
    setUp(pass, {5, 3}, nullptr, 2.0F);
    EXPECT_TRUE(equal(draw(pass), Pixels::generate(5, 3, [](int, int) { return QVector4D(); })));
    // Opaque red stays behind as the clear colour.
    std::array<float, 4> clearColour{};
    glGetFloatv(GL_COLOR_CLEAR_VALUE, clearColour.data());
    EXPECT_EQ(clearColour, (std::array{1.0F, 0.0F, 0.0F, 1.0F}));
    pass.setInput(GaussianBlurRenderPass::Viewport, {});
    EXPECT_EQ(draw(pass).width, 1);
    // The fallback's storage is not what the pool lends out next.
    Texture* single = TextureManager::Instance()->tempTexture(TextureFormat::RGBA16F, 1, 1);
    EXPECT_EQ(single->internalFormat(), static_cast<unsigned int>(GL_RGBA16F));
    TextureManager::Instance()->releaseTempTextureRef(single, 1);
}

// A radius of a quarter has the kernel of one tap, so that only the bright texels are added.
TEST_F(BlurTest, GlowKeepsTexelsFromTheThresholdOn)
{
    const float luma = 0.7154F;
    const auto input = texture(Pixels::generate(
        3, 1, [](int x, int) { return QVector4D(0, 0.5F + 0.5F * static_cast<float>(x), 0, 0.25F); }));
    BlurAndCombineRenderPass pass;
    const auto expect = [&](float first, float second, float third) {
        const std::array green{first, second, third};
        const Pixels actual = draw(pass);
        EXPECT_TRUE(equal(actual, Pixels::generate(3, 1, [&](int x, int) {
                              const float g = green[static_cast<size_t>(x)];
                              return QVector4D(0, g, 0, g > 0.0F ? 0.25F : 0.0F);
                          })));
    };
    setUp(pass, {3, 1}, nullptr, input.get(), 0.25F, luma, 1.0F);
    expect(0.0F, 1.0F, 1.5F);
    // Until the radius changes too, the threshold in force stays.
    setUp(pass, {3, 1}, nullptr, input.get(), 0.25F, std::nextafter(luma, 1.0F), 1.0F);
    expect(0.0F, 1.0F, 1.5F);
    setUp(pass, {3, 1}, nullptr, input.get(), 0.3F, std::nextafter(luma, 1.0F), 1.0F);
    expect(0.0F, 0.0F, 1.5F);
    setUp(pass, {3, 1}, nullptr, input.get(), 0.3F, -1.0F, 1.0F);
    expect(0.5F, 1.0F, 1.5F);
}

TEST_F(BlurTest, GlowAddsTheBlurredFrame)
{
    const Pixels normal = noise(30, 20, false);
    const Pixels bright = noise(30, 20, true);
    const auto normalTexture = texture(normal);
    const auto brightTexture = texture(bright);
    BlurAndCombineRenderPass pass;
    for (const float threshold : {0.0F, 0.45F}) {
        setUp(pass, {30, 20}, normalTexture.get(), brightTexture.get(), threshold > 0.0F ? 3.0F : 5.0F,
              threshold, 0.75F);
        const std::vector<Tap> taps = wholeTaps(threshold > 0.0F ? 3.0 : 5.0);
        const Pixels passed = Pixels::generate(30, 20, [&](int x, int y) {
            const QVector4D c = bright.at(x, y);
            const float luma = 0.2125F * c.x() + 0.7154F * c.y() + 0.0721F * c.z();
            return luma >= threshold ? c : QVector4D();
        });
        const Pixels horizontal = convolve(passed, 30, 20, taps, Direction::Horizontal);
        const Pixels glow = convolve(horizontal, 30, 20, taps, Direction::Vertical, false);
        // A sum above 1 is a step of half floats coarser.
        EXPECT_TRUE(equal(
            draw(pass),
            Pixels::generate(30, 20, [&](int x, int y) { return normal.at(x, y) + 0.75F * glow.at(x, y); }),
            blurTolerance));
    }
}

TEST_F(BlurTest, GlowOfNothingPassesTheFrameOnAndDropsTheOther)
{
    TextureManager* pool = TextureManager::Instance();
    BlurAndCombineRenderPass pass;
    for (const auto& [radius, amount] : {std::pair{0.0F, 1.0F}, std::pair{4.0F, 0.0F}}) {
        Texture* normal = pool->tempTexture(TextureFormat::RGBA8, 4, 4);
        Texture* bright = pool->tempTexture(TextureFormat::RGBA8, 4, 4);
        setUp(pass, {4, 4}, normal, bright, radius, 0.5F, amount);
        EXPECT_EQ(run(pass), normal);
    }
    // The glow alone, and the frame alone.
    const auto white = texture(Pixels::generate(4, 4, [](int, int) { return QVector4D(1, 1, 1, 1); }));
    setUp(pass, {4, 4}, nullptr, white.get(), 2.0F, 0.0F, 0.5F);
    EXPECT_NEAR(static_cast<double>(draw(pass).at(2, 2).w()), 0.5, 0.001);
    setUp(pass, {4, 4}, white.get(), nullptr, 2.0F, 0.5F, 0.5F);
    EXPECT_EQ(draw(pass).at(2, 2), QVector4D(1, 1, 1, 1));
}

} // namespace
} // namespace Morvane::Qel::Test
