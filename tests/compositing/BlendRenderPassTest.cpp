#include <QImage>
#include <QPainter>
#include <QRect>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <random>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/compositing/BlendRenderPass.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Mode = BlendRenderPass::BlendMode;

constexpr int size = 64;

/// Two steps of a half float below 1, which drivers round up or down.
constexpr float tolerance = 1.0F / 1024.0F;

/// Random premultiplied colours on the grid of 8 bits. Alphas of 0, of 1 and between are equally frequent
/// unless they are below the minimum, and channels are often 0 or equal to alpha, where operators change
/// branches.
Pixels randomImage(unsigned int seed, int minAlpha = 0)
{
    std::mt19937 random(seed);
    const auto upTo = [&](int limit) {
        return static_cast<int>(random() % static_cast<unsigned>(limit + 1));
    };
    return Pixels::generate(size, size, [&](int, int) {
        const std::array alphas{0, 255, 1 + upTo(253)};
        const int alpha = std::max(alphas[random() % 3], minAlpha);
        const auto channel = [&] {
            const int where = upTo(7);
            return static_cast<float>(where == 0 ? 0 : where == 1 ? alpha : upTo(alpha)) / 255.0F;
        };
        return QVector4D(channel(), channel(), channel(), static_cast<float>(alpha) / 255.0F);
    });
}

Pixels blend(const Pixels& a, const Pixels& b, Mode mode)
{
    Runner<BlendRenderPass> pass(mode);
    const auto source = makeTexture(a, GL_RGBA32F);
    const auto destination = makeTexture(b, GL_RGBA32F);
    return pass.render({QRect(0, 0, size, size), source, destination});
}

/// Composites with Qt's raster painter, in 32-bit floats.
Pixels paint(const Pixels& a, const Pixels& b, QPainter::CompositionMode mode)
{
    const auto image = [](const Pixels& pixels) {
        QImage result(size, size, QImage::Format_RGBA32FPx4_Premultiplied);
        std::copy(pixels.values.begin(), pixels.values.end(), reinterpret_cast<QVector4D*>(result.bits()));
        return result;
    };
    QImage canvas = image(b);
    QPainter painter(&canvas);
    painter.setCompositionMode(mode);
    painter.drawImage(0, 0, image(a));
    painter.end();
    return Pixels::generate(size, size, [&](int x, int y) {
        return reinterpret_cast<const QVector4D*>(canvas.constScanLine(y))[x];
    });
}

using BlendRenderPassTest = GLTest;

TEST_F(BlendRenderPassTest, AgreesWithARasterPainter)
{
    // The painter gives the other modes the same numbers; soft light has a formula of its own.
    const std::map<int, QPainter::CompositionMode> renumbered{
        {0, QPainter::CompositionMode_Clear},           {1, QPainter::CompositionMode_Source},
        {2, QPainter::CompositionMode_Destination},     {3, QPainter::CompositionMode_SourceOver},
        {4, QPainter::CompositionMode_DestinationOver}, {22, QPainter::CompositionMode_Exclusion},
        {23, QPainter::CompositionMode_Difference}};
    for (int i = 0; i < 24; ++i) {
        const auto mode = static_cast<Mode>(i);
        const auto known = renumbered.find(i);
        const auto painterMode =
            known == renumbered.end() ? static_cast<QPainter::CompositionMode>(i) : known->second;
        if (mode == Mode::SoftLight) {
            continue;
        }
        // Dodge and burn divide by the destination's alpha. Over an opaque destination, comparing with 1 and
        // with alpha is the same.
        const bool divides = mode == Mode::ColorDodge || mode == Mode::ColorBurn;
        const int minAlpha = mode == Mode::Overlay ? 255 : divides ? 1 : 0;
        const Pixels a = randomImage(1);
        const Pixels b = randomImage(2, minAlpha);
        // The painter clamps the sum of the alphas to 1.
        const Pixels actual = blend(a, b, mode).mapped([](const QVector4D& c) {
            return QVector4D(c.toVector3D(), std::min(c.w(), 1.0F));
        });
        EXPECT_TRUE(equal(actual, paint(a, b, painterMode), tolerance)) << "operator " << i;
    }
}

TEST_F(BlendRenderPassTest, OwnOperatorsFollowTheirFormulas)
{
    const Pixels a = randomImage(4);
    const Pixels b = randomImage(5, 1);
    EXPECT_TRUE(equal(blend(a, b, Mode::MultiplyKeepAlpha),
                      Pixels::generate(size, size, [&](int x, int y) { return a.at(x, y) * b.at(x, y); }),
                      tolerance));

    // What an operator adds where both inputs cover the pixel, by premultiplied colours and alphas.
    const auto expectCovered = [&](Mode mode, float (*covered)(float s, float sa, float d, float da)) {
        const auto expected = Pixels::generate(size, size, [&](int x, int y) {
            const QVector4D s = a.at(x, y);
            const QVector4D d = b.at(x, y);
            QVector4D result = s * (1.0F - d.w()) + d * (1.0F - s.w());
            for (int c = 0; c < 3; ++c) {
                // Soft light jumps here.
                result = 4.0F * d[c] == d.w() ? anyPixel : result;
                result[c] += covered(s[c], s.w(), d[c], d.w());
            }
            result[3] += s.w() * d.w();
            return result;
        });
        EXPECT_TRUE(equal(blend(a, b, mode), expected, tolerance)) << "operator " << static_cast<int>(mode);
    };
    // Compares the stored, premultiplied destination with a half.
    expectCovered(Mode::Overlay, [](float s, float sa, float d, float da) {
        return 2.0F * d <= 1.0F ? 2.0F * s * d : sa * da - 2.0F * (sa - s) * (da - d);
    });
    // Inverts the stored, premultiplied destination.
    expectCovered(Mode::InvertAndAdd,
                  [](float s, float sa, float d, float da) { return (s + 1.0F - d) * 0.5F * sa * da; });
    // Deliberate: the last term of the cubic is subtracted.
    expectCovered(Mode::SoftLight, [](float s, float sa, float d, float da) {
        const float m = d / da;
        const float lightened = m <= 0.25F ? ((16.0F * m - 12.0F) * m - 3.0F) * m : std::sqrt(m) - m;
        return sa * d + (2.0F * s - sa) * da * (2.0F * s <= sa ? m * (1.0F - m) : lightened);
    });
}

TEST_F(BlendRenderPassTest, KeepsTheLastModeAndReplacesMissingInputsByTransparentBlack)
{
    const Pixels a = Pixels::filled(2, 2, {0.25F, 0.5F, 0.75F, 1.0F});
    const Pixels b = Pixels::filled(2, 2, {0.5F, 0.125F, 0.0F, 0.5F});
    const Pixels transparent = Pixels::filled(2, 2, {});
    const auto source = makeTexture(a, GL_RGBA16F);
    const auto destination = makeTexture(b, GL_RGBA16F);
    Runner<BlendRenderPass> pass(Mode::Source);
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 2, 2), source, destination}), a));
    for (const auto& [mode, expected] :
         {std::pair(QVariant(2), b), std::pair(QVariant(), b), std::pair(QVariant(u"1"_s), a),
          std::pair(QVariant(-1), transparent), std::pair(QVariant(26), transparent)}) {
        pass.set(u"BlendMode"_s, mode);
        EXPECT_TRUE(equal(pass.render(), expected)) << qPrintable(mode.toString());
    }
    const QRect viewport(0, 0, 2, 2);
    EXPECT_TRUE(equal(pass.render({viewport, nullptr, destination, 3}), b));
    EXPECT_TRUE(equal(pass.render({viewport, source, nullptr, 3}), a));

    // One pooled texture as both inputs.
    Texture* both = makePooledTexture(a, TextureFormat::RGBA16F);
    TextureManager::Instance()->addTempTextureRef(both, 1);
    EXPECT_TRUE(equal(pass.render({viewport, both, both, 12}), Pixels::filled(2, 2, {0.5F, 1, 1.5F, 2})));
}

TEST_F(BlendRenderPassTest, ReadsInputsOfItsSizeTexelByTexel)
{
    // Where texture coordinates of texel centres are rounded.
    const auto source = makeTexture(Pixels::noise(641, 357, 3), GL_RGBA16F);
    source->setFilter(GL_LINEAR, GL_LINEAR);
    Runner<BlendRenderPass> pass(Mode::Source);
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 641, 357), source}), readTexture(source.get())));
}

TEST_F(BlendRenderPassTest, StretchesInputsOverAViewportWithAnOrigin)
{
    const QVector4D red(1, 0, 0, 1);
    const QVector4D blue(0, 0, 1, 1);
    const auto left = makeTexture(2, 1, GL_RGBA8, [&](int x, int) { return x == 0 ? red : QVector4D(); });
    const auto background = makeTexture(Pixels::filled(3, 5, blue), GL_RGBA8);
    Runner<BlendRenderPass> pass(Mode::SourceOver);
    EXPECT_TRUE(
        equal(pass.render({QRect(2, 1, 6, 4), left, background}), Pixels::generate(6, 4, [&](int x, int y) {
                  return x < 2 || y < 1 ? QVector4D() : x < 5 ? red : blue;
              })));
}

} // namespace
} // namespace Morvane::Qel::Test
