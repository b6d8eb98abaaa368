// The overlay against a count of differing neighbours on the CPU.

#include <algorithm>
#include <cmath>
#include <functional>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/geometry/WireframeRenderPass.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

/// Primitives of three by two pixels, some split into parts by a diagonal, with a margin of background.
Pixels makeIds(int width, int height)
{
    return Pixels::generate(width, height, [](int x, int y) {
        if (x < 2 || y < 2) {
            return QVector4D();
        }
        const int id = 1 + x / 3 + 100 * (y / 2);
        const auto primitive = static_cast<float>(id);
        const float part = x / 3 % 2 == 0 && x % 3 > y % 2 ? 1.0F : 0.0F;
        return QVector4D(primitive, primitive, part, primitive);
    });
}

/// The weight of the differing neighbours at a distance of `step` texels, clamped to the edge.
float weightAt(const Pixels& ids, int x, int y, int step = 1)
{
    const auto whole = [](float value) { return std::floor(value + 0.1F); };
    const QVector4D& centre = ids.at(x, y);
    float sum = 0.0F;
    for (const int j : {-step, 0, step}) {
        for (const int i : {-step, 0, step}) {
            const QVector4D& neighbour = ids.clamped(x + i, y + j);
            if (whole(neighbour.x()) != whole(centre.x())) {
                sum += 1.0F;
            } else if (whole(neighbour.z()) != whole(centre.z())) {
                sum += 0.33F;
            }
        }
    }
    return sum / 8.0F;
}

/// Whether an image is the premultiplied overlay of these weights.
testing::AssertionResult shows(const Pixels& image, const std::function<float(int, int)>& weight)
{
    // Drivers round halves to 8 bits either way.
    constexpr float halfStep = 0.501F / 255.0F;
    return equal(image,
                 Pixels::generate(
                     image.width, image.height,
                     [&](int x, int y) { return QVector4D(1, 1, 1, 1) * (26.0F / 255.0F * weight(x, y)); }),
                 halfStep);
}

using WireframeRenderPassTest = GLTest;

TEST_F(WireframeRenderPassTest, WeighsNeighboursOnePixelOfTheViewportApart)
{
    const Pixels ids = makeIds(24, 18);
    const auto texture = makeTexture(ids, GL_RGBA32F);
    texture->setWrap(GL_CLAMP_TO_EDGE);
    Runner<WireframeRenderPass> pass;
    for (const int users : {1, 0, 2}) {
        pass.setNumUsers(users);
        EXPECT_TRUE(shows(pass.render({QRect(0, 0, 24, 18), texture}),
                          [&](int x, int y) { return weightAt(ids, x, y); }));
    }
    // At a third of the size, pixel centres fall on every third texel.
    EXPECT_TRUE(shows(pass.render({QRect(0, 0, 8, 6), texture}),
                      [&](int x, int y) { return weightAt(ids, 3 * x + 1, 3 * y + 1, 3); }));
    // An origin shifts the drawing inside the output; the rest is cleared.
    EXPECT_TRUE(shows(pass.render({QRect(5, 3, 24, 18), texture}),
                      [&](int x, int y) { return x < 5 || y < 3 ? 0.0F : weightAt(ids, x - 5, y - 3); }));

    // If the texture repeats, the opposite border is next.
    const auto halves =
        makeTexture(8, 8, GL_RGBA32F, [](int x, int) { return QVector4D(x < 4 ? 1.0F : 2.0F, 0, 0, 0); });
    halves->setWrap(GL_REPEAT);
    EXPECT_TRUE(shows(pass.render({QRect(0, 0, 8, 8), halves}),
                      [](int x, int) { return x == 3 || x == 4 || x % 7 == 0 ? 0.375F : 0.0F; }));
}

TEST_F(WireframeRenderPassTest, RoundsIdsDownAfterATenth)
{
    // Two columns, each with three neighbours in the other.
    Runner<WireframeRenderPass> pass;
    for (const QVector3D& c : {QVector3D(4.9999F, 5.0F, 0.0F), QVector3D(5.0F, 5.95F, 0.375F),
                               QVector3D(5.0F, 5.85F, 0.0F), QVector3D(0.0F, 1.0F, 0.375F)}) {
        const auto texture =
            makeTexture(2, 3, GL_RGBA32F, [&](int x, int) { return QVector4D(c[x], 0, 0, 0); });
        texture->setWrap(GL_CLAMP_TO_EDGE);
        EXPECT_TRUE(shows(pass.render({QRect(0, 0, 2, 3), texture}), [&](int, int) { return c.z(); }))
            << c.x() << " and " << c.y();
    }
}

/// Has a port before the inherited ones, and no outputs at first.
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
    Runner<RearrangedPass> pass;
    Texture* ids = makePooledTexture(makeIds(4, 4), TextureFormat::RGBA8);
    pass.run({7, QRect(0, 0, 4, 4), ids});
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 1) << "without its output the pass does nothing";
    pass->addOutput(u"Qel_int_Own"_s);
    pass->addOutput(u"Qel_QelTexture*_Frame"_s);
    pass.run();
    EXPECT_TRUE(pass.texture(1));
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 1) << "only that of the output's user";
    pass.run({7, QRect(0, 0, 4, 4), nullptr});
    EXPECT_FALSE(pass->output(1).isValid());
}

} // namespace
} // namespace Morvane::Qel::Test
