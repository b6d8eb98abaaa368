#include <array>
#include <random>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Pixels.h"
#include <Qel/RenderPasses/postprocessing/LuminanceAverageRenderPass.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel::Test {
namespace {

class LuminanceAverageTest : public GLTest
{
protected:
    /// The mean luminance of a texture; takes no reference.
    float measure(Texture* texture, const QRect& viewport)
    {
        context().applyBaseState();
        m_pass.setInput(LuminanceAverageRenderPass::Viewport, viewport);
        m_pass.setInput(LuminanceAverageRenderPass::SourceTexture, QVariant::fromValue<QObject*>(texture));
        m_pass.start(nullptr);
        return m_pass.output(LuminanceAverageRenderPass::AverageLuminance).toFloat();
    }
    Pixels mean() { return readTexture(qobject_cast<Texture*>(m_pass.output(0).value<QObject*>())); }

    LuminanceAverageRenderPass m_pass;
};

std::array<double, 4> meanOf(const Pixels& pixels)
{
    std::array<double, 4> sum{};
    for (const QVector4D& value : pixels.values) {
        for (int c = 0; c < 4; ++c) {
            sum[static_cast<size_t>(c)] += static_cast<double>(value[c]);
        }
    }
    for (double& channel : sum) {
        channel /= static_cast<double>(pixels.values.size());
    }
    return sum;
}

// Widths that are no multiple of 8, portrait and panorama formats, widths that leave the reduced texture
// nothing, and viewports of another size than the frame's. The widest sums have more texels than a shader of
// the software rasteriser may take turns of a loop.
TEST_F(LuminanceAverageTest, IsTheMeanWhateverTheShape)
{
    std::mt19937 random(3);
    std::uniform_real_distribution<float> value(0.0F, 1.0F);
    const std::array<std::pair<QSize, QRect>, 12> cases{{
        {{64, 64}, {0, 0, 64, 64}},
        {{203, 117}, {0, 0, 203, 117}},
        {{45, 401}, {0, 0, 45, 401}},
        {{701, 33}, {0, 0, 701, 33}},
        {{9, 5}, {0, 0, 9, 5}},
        {{7, 90}, {0, 0, 7, 90}},
        {{600, 520}, {0, 0, 5, 5}},
        {{600, 520}, {}},
        {{100, 80}, {0, 0, 250, 250}},
        {{160, 160}, {0, 0, 160, 10}},
        {{1, 1}, {0, 0, 640, 480}},
        {{1920, 1080}, {0, 0, 1920, 1080}},
    }};
    for (const auto& [size, viewport] : cases) {
        const Pixels picture = Pixels::generate(size.width(), size.height(), [&](int x, int y) {
            return QVector4D(static_cast<float>(x) / 700.0F, static_cast<float>(y) / 600.0F, value(random),
                             x % 2 == 0 ? 0.25F : 1.0F);
        });
        const std::unique_ptr<Texture> texture(makeTexture(picture, GL_RGBA32F));
        const std::array<double, 4> expected = meanOf(picture);
        const double luminance = 0.2126 * expected[0] + 0.7152 * expected[1] + 0.0722 * expected[2];
        EXPECT_NEAR(static_cast<double>(measure(texture.get(), viewport)), luminance, luminance * 2e-6)
            << size.width() << "x" << size.height();
        const Pixels single = mean();
        ASSERT_EQ(single.values.size(), 1U);
        for (int c = 0; c < 4; ++c) {
            EXPECT_NEAR(static_cast<double>(single.at(0, 0)[c]), expected[static_cast<size_t>(c)], 2e-6);
        }
    }
}

TEST_F(LuminanceAverageTest, OfAUniformFrameIsItsColour)
{
    const QVector4D colour(12.5F, 0.25F, 3.0F, 0.5F);
    for (const QSize& size : {QSize(64, 64), QSize(203, 117), QSize(7, 90), QSize(1, 1)}) {
        const std::unique_ptr<Texture> texture(makeTexture(
            Pixels::generate(size.width(), size.height(), [&](int, int) { return colour; }), GL_RGBA16F));
        EXPECT_NEAR(static_cast<double>(measure(texture.get(), QRect({}, size))),
                    0.2126 * 12.5 + 0.7152 * 0.25 + 0.0722 * 3.0, 1e-5)
            << size.width() << "x" << size.height();
        for (int c = 0; c < 4; ++c) {
            EXPECT_NEAR(mean().at(0, 0)[c], colour[c], colour[c] * 2e-6F);
        }
    }
}

TEST_F(LuminanceAverageTest, EveryTexelCountsOnce)
{
    const QRect viewport(0, 0, 53, 131);
    for (const auto& [x, y] :
         {std::pair{0, 0}, std::pair{52, 130}, std::pair{0, 130}, std::pair{52, 0}, std::pair{8, 21},
          std::pair{9, 22}, std::pair{26, 65}, std::pair{47, 109}, std::pair{51, 129}}) {
        const std::unique_ptr<Texture> texture(
            makeTexture(Pixels::generate(53, 131,
                                         [x = x, y = y](int i, int j) {
                                             return i == x && j == y ? QVector4D(1, 1, 1, 1) : QVector4D();
                                         }),
                        GL_RGBA32F));
        EXPECT_NEAR(static_cast<double>(measure(texture.get(), viewport)) * 53 * 131, 1.0, 1e-6)
            << x << ", " << y;
    }
}

TEST_F(LuminanceAverageTest, KeepsItsTargetsAndDropsItsInput)
{
    TextureManager* pool = TextureManager::Instance();
    Texture* input = pool->tempTexture(TextureFormat::RGBA16F, 32, 32);
    measure(input, {0, 0, 32, 32});
    EXPECT_EQ(pool->numReferences(), 0);
    const auto* output = m_pass.output(0).value<QObject*>();
    EXPECT_EQ(measure(nullptr, {0, 0, 80, 20}), 0.0F);
    EXPECT_EQ(m_pass.output(0).value<QObject*>(), output);
    EXPECT_EQ(mean().at(0, 0), QVector4D());
}

} // namespace
} // namespace Morvane::Qel::Test
