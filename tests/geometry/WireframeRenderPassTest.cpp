// The overlay against a count of differing neighbours on the CPU.

#include <QRect>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include "support/Pixels.h"
#include <Qel/RenderPasses/geometry/WireframeRenderPass.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Pass = WireframeRenderPass;

/// Primitives of three by two pixels, some split into parts by a diagonal, on a background of a margin.
Pixels makeIds(int width, int height)
{
    return Pixels::generate(width, height, [](int x, int y) {
        if (x < 2 || y < 2) {
            return QVector4D();
        }
        const int number = 1 + x / 3 + 100 * (y / 2);
        const auto primitive = static_cast<float>(number);
        const float part = x / 3 % 2 == 0 && x % 3 > y % 2 ? 1.0F : 0.0F;
        return QVector4D(primitive, primitive, part, primitive);
    });
}

/// The fraction of neighbours that differ, whose places are whole numbers of texels.
float fractionAt(const Pixels& ids, int x, int y, int step = 1)
{
    const auto whole = [](float value) { return std::floor(value + 0.1F); };
    const auto at = [&](int i, int j) {
        return ids.at(std::clamp(i, 0, ids.width - 1), std::clamp(j, 0, ids.height - 1));
    };
    const QVector4D centre = at(x, y);
    float sum = 0.0F;
    for (const int j : {-step, 0, step}) {
        for (const int i : {-step, 0, step}) {
            const QVector4D neighbour = at(x + i, y + j);
            if (whole(neighbour.x()) != whole(centre.x())) {
                sum += 1.0F;
            } else if (whole(neighbour.z()) != whole(centre.z())) {
                sum += 0.33F;
            }
        }
    }
    return sum / 8.0F;
}

/// Whether each pixel is the premultiplied overlay of its fraction.
testing::AssertionResult shows(const Pixels& picture, const std::function<float(int, int)>& fraction)
{
    // Drivers round halves to 8 bits either way.
    constexpr float halfStep = 0.501F / 255.0F;
    return equal(picture,
                 Pixels::generate(picture.width, picture.height,
                                  [&](int x, int y) {
                                      const float level = 26.0F * fraction(x, y) / 255.0F;
                                      return QVector4D(level, level, level, level);
                                  }),
                 halfStep);
}

std::unique_ptr<Texture> makeIdTexture(const Pixels& ids)
{
    std::unique_ptr<Texture> texture(makeTexture(ids, GL_RGBA32F));
    texture->setWrap(GL_CLAMP_TO_EDGE);
    return texture;
}

class WireframeRenderPassTest : public GLTest
{
};

TEST_F(WireframeRenderPassTest, CountsTheNeighboursOfOtherPrimitivesAndParts)
{
    const Pixels ids = makeIds(24, 16);
    const std::unique_ptr<Texture> texture = makeIdTexture(ids);
    Pass pass;
    const Pixels actual = render(pass, {QRect(0, 0, 24, 16), textureInput(texture.get())});
    EXPECT_EQ(QSize(actual.width, actual.height), QSize(24, 16));
    EXPECT_TRUE(shows(actual, [&](int x, int y) { return fractionAt(ids, x, y); }));
    EXPECT_EQ(actual.at(0, 0), QVector4D()) << "background amid background";
}

TEST_F(WireframeRenderPassTest, RoundsIdsDownAfterATenth)
{
    // Two columns, each with one neighbouring column.
    const struct
    {
        float left;
        float right;
        float fraction;
    } cases[] = {{4.9999F, 5.0F, 0.0F}, {5.0F, 5.95F, 0.375F}, {5.0F, 5.85F, 0.0F}, {0.0F, 1.0F, 0.375F}};
    Pass pass;
    for (const auto& c : cases) {
        const Pixels ids = Pixels::generate(2, 3, [&](int x, int) {
            const float id = x == 0 ? c.left : c.right;
            return QVector4D(id, 0, 0, 0);
        });
        const std::unique_ptr<Texture> texture = makeIdTexture(ids);
        const Pixels actual = render(pass, {QRect(0, 0, 2, 3), textureInput(texture.get())});
        EXPECT_TRUE(shows(actual, [&](int, int) { return c.fraction; })) << c.left << " and " << c.right;
    }
}

TEST_F(WireframeRenderPassTest, NeighboursAreOnePixelOfTheViewportApart)
{
    const Pixels ids = makeIds(24, 18);
    const std::unique_ptr<Texture> texture = makeIdTexture(ids);
    Pass pass;
    // A third of the size: the centres of pixels lie on those of every third texel.
    const Pixels small = render(pass, {QRect(0, 0, 8, 6), textureInput(texture.get())});
    EXPECT_TRUE(shows(small, [&](int x, int y) { return fractionAt(ids, 3 * x + 1, 3 * y + 1, 3); }));

    // An origin shifts the drawing in a target of the viewport's size; the rest is cleared.
    const Pixels shifted = render(pass, {QRect(5, 3, 24, 18), textureInput(texture.get())});
    EXPECT_TRUE(
        shows(shifted, [&](int x, int y) { return x < 5 || y < 3 ? 0.0F : fractionAt(ids, x - 5, y - 3); }));
}

TEST_F(WireframeRenderPassTest, BordersFollowTheWrapMode)
{
    const Pixels ids = Pixels::generate(8, 8, [](int x, int) {
        const float id = x < 4 ? 1.0F : 2.0F;
        return QVector4D(id, id, id, id);
    });
    const std::unique_ptr<Texture> texture = makeIdTexture(ids);
    Pass pass;
    const auto edges = [&](bool aroundTheBorder) {
        return
            [=](int x, int) { return x == 3 || x == 4 || (aroundTheBorder && x % 7 == 0) ? 0.375F : 0.0F; };
    };
    EXPECT_TRUE(shows(render(pass, {QRect(0, 0, 8, 8), textureInput(texture.get())}), edges(false)));
    texture->setWrap(GL_REPEAT);
    EXPECT_TRUE(shows(render(pass, {QRect(0, 0, 8, 8), textureInput(texture.get())}), edges(true)));
}

/// Ports in places of its own.
class RearrangedPass : public WireframeRenderPass
{
public:
    RearrangedPass()
    {
        m_inputs.insert(m_inputs.begin(), {u"Qel_int_Own"_s, {}, {}});
        m_outputs.clear();
    }
};

TEST_F(WireframeRenderPassTest, FindsItsPortsByName)
{
    TextureManager* pool = TextureManager::Instance();
    RearrangedPass pass;
    Texture* ids = pool->tempTexture(TextureFormat::RGBA8, 4, 4);
    const std::vector<QVariant> inputs{7, QRect(0, 0, 4, 4), textureInput(ids)};
    runFrame(pass, inputs);
    EXPECT_EQ(pool->numReferences(), 1) << "without its output the pass does nothing";
    pass.addOutput(u"Qel_int_Own"_s);
    pass.addOutput(u"Qel_QelTexture*_Frame"_s);
    runFrame(pass, inputs);
    ASSERT_TRUE(outputTexture(pass, 1));
    EXPECT_EQ(outputTexture(pass, 1)->size(), QSize(4, 4));
    EXPECT_EQ(pool->numReferences(), 1) << "that of the output's user";
    pool->releaseTempTextureRef(outputTexture(pass, 1), 1);

    runFrame(pass, {7, QRect(0, 0, 4, 4), QVariant()});
    EXPECT_FALSE(pass.output(1).isValid());
}

} // namespace
} // namespace Morvane::Qel::Test
