#include <QImage>
#include <QPainter>
#include <QRect>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <random>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/compositing/BlendRenderPass.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Mode = BlendRenderPass::BlendMode;

constexpr int size = 64;

/// The last bit of a half float below 1, which drivers round up or down; twice that for operators that
/// exceed 1.
constexpr float halfPrecision = 1.0F / 2048.0F;
constexpr float above1 = 2.0F * halfPrecision;

/// Random premultiplied colours on the grid of 8 bits. Alphas of 0, of 1 and between are equally frequent,
/// and channels are often 0 or equal to alpha, where operators change branches.
Pixels randomImage(unsigned int seed, bool opaque = false)
{
    std::mt19937 random(seed);
    const auto upTo = [&](int limit) {
        return static_cast<int>(random() % static_cast<unsigned>(limit + 1));
    };
    return Pixels::generate(size, size, [&](int, int) {
        const int kind = upTo(2);
        const int alpha = opaque || kind == 1 ? 255 : kind == 0 ? 0 : 1 + upTo(253);
        const auto channel = [&] {
            const int where = upTo(7);
            return static_cast<float>(where == 0 ? 0 : where == 1 ? alpha : upTo(alpha)) / 255.0F;
        };
        return QVector4D(channel(), channel(), channel(), static_cast<float>(alpha) / 255.0F);
    });
}

class BlendRenderPassTest : public GLTest
{
protected:
    static Pixels blend(const Pixels& a, const Pixels& b, Mode mode)
    {
        Runner<BlendRenderPass> pass(mode);
        const auto source = makeTexture(a, GL_RGBA32F);
        const auto destination = makeTexture(b, GL_RGBA32F);
        return pass.render({QRect(0, 0, size, size), source, destination});
    }
};

/// Composites with Qt's raster painter, in 32-bit floats.
Pixels paint(const Pixels& a, const Pixels& b, QPainter::CompositionMode mode)
{
    const auto image = [](const Pixels& pixels) {
        QImage result(pixels.width, pixels.height, QImage::Format_RGBA32FPx4_Premultiplied);
        for (int y = 0; y < pixels.height; ++y) {
            std::copy_n(&pixels.at(0, y), pixels.width, reinterpret_cast<QVector4D*>(result.scanLine(y)));
        }
        return result;
    };
    QImage canvas = image(b);
    QPainter painter(&canvas);
    painter.setCompositionMode(mode);
    painter.drawImage(0, 0, image(a));
    painter.end();
    return Pixels::generate(a.width, a.height, [&](int x, int y) {
        return reinterpret_cast<const QVector4D*>(canvas.constScanLine(y))[x];
    });
}

/// The general form of a separable blend mode. `function` takes the straight source, the straight destination
/// and the stored destination, and returns the colour where both are opaque.
Pixels composite(const Pixels& a, const Pixels& b,
                 const std::function<double(double, double, double)>& function)
{
    return Pixels::generate(a.width, a.height, [&](int x, int y) {
        const QVector4D s = a.at(x, y);
        const QVector4D d = b.at(x, y);
        const auto sa = static_cast<double>(s.w());
        const auto da = static_cast<double>(d.w());
        QVector4D result;
        for (int c = 0; c < 3; ++c) {
            const auto stored = static_cast<double>(d[c]);
            const double cs = sa > 0.0 ? static_cast<double>(s[c]) / sa : 0.0;
            const double cd = da > 0.0 ? stored / da : 0.0;
            result[c] = static_cast<float>((1.0 - da) * sa * cs + (1.0 - sa) * da * cd +
                                           sa * da * function(cs, cd, stored));
        }
        result[3] = static_cast<float>(1.0 - (1.0 - sa) * (1.0 - da));
        return result;
    });
}

/// Replaces both colours wherever the destination is transparent, for operators that divide by its alpha.
void excludeTransparentDestination(Pixels& a, Pixels& b)
{
    for (size_t i = 0; i < b.values.size(); ++i) {
        if (b.values[i].w() == 0.0F) {
            a.values[i] = b.values[i] = QVector4D(0.25F, 0.5F, 0.75F, 1.0F);
        }
    }
}

TEST_F(BlendRenderPassTest, AgreesWithARasterPainter)
{
    const std::array operators{
        std::pair{Mode::Clear, QPainter::CompositionMode_Clear},
        std::pair{Mode::Source, QPainter::CompositionMode_Source},
        std::pair{Mode::Destination, QPainter::CompositionMode_Destination},
        std::pair{Mode::SourceOver, QPainter::CompositionMode_SourceOver},
        std::pair{Mode::DestinationOver, QPainter::CompositionMode_DestinationOver},
        std::pair{Mode::SourceIn, QPainter::CompositionMode_SourceIn},
        std::pair{Mode::DestinationIn, QPainter::CompositionMode_DestinationIn},
        std::pair{Mode::SourceOut, QPainter::CompositionMode_SourceOut},
        std::pair{Mode::DestinationOut, QPainter::CompositionMode_DestinationOut},
        std::pair{Mode::SourceAtop, QPainter::CompositionMode_SourceAtop},
        std::pair{Mode::DestinationAtop, QPainter::CompositionMode_DestinationAtop},
        std::pair{Mode::Xor, QPainter::CompositionMode_Xor},
        std::pair{Mode::Multiply, QPainter::CompositionMode_Multiply},
        std::pair{Mode::Screen, QPainter::CompositionMode_Screen},
        std::pair{Mode::Darken, QPainter::CompositionMode_Darken},
        std::pair{Mode::Lighten, QPainter::CompositionMode_Lighten},
        std::pair{Mode::HardLight, QPainter::CompositionMode_HardLight},
        std::pair{Mode::Exclusion, QPainter::CompositionMode_Exclusion},
        std::pair{Mode::Difference, QPainter::CompositionMode_Difference},
    };
    const Pixels a = randomImage(1);
    const Pixels b = randomImage(2);
    for (const auto& [mode, painterMode] : operators) {
        EXPECT_TRUE(equal(blend(a, b, mode), paint(a, b, painterMode), halfPrecision))
            << "operator " << static_cast<int>(mode);
    }

    Pixels someA = a;
    Pixels someB = b;
    excludeTransparentDestination(someA, someB);
    EXPECT_TRUE(equal(blend(someA, someB, Mode::ColorDodge),
                      paint(someA, someB, QPainter::CompositionMode_ColorDodge), halfPrecision));
    EXPECT_TRUE(equal(blend(someA, someB, Mode::ColorBurn),
                      paint(someA, someB, QPainter::CompositionMode_ColorBurn), halfPrecision));
    // Over an opaque destination, comparing with 1 and with the alpha is the same.
    const Pixels opaque = randomImage(3, true);
    EXPECT_TRUE(equal(blend(a, opaque, Mode::Overlay), paint(a, opaque, QPainter::CompositionMode_Overlay),
                      halfPrecision));
    // The painter clamps the sum of the alphas to 1.
    Pixels sum = blend(a, b, Mode::Add);
    for (QVector4D& value : sum.values) {
        value[3] = std::min(value[3], 1.0F);
    }
    EXPECT_TRUE(equal(sum, paint(a, b, QPainter::CompositionMode_Plus), above1));
}

TEST_F(BlendRenderPassTest, OwnOperatorsFollowTheirFormulas)
{
    Pixels a = randomImage(4);
    Pixels b = randomImage(5);
    const auto overlay = [](double cs, double cd, double stored) {
        return 2.0 * stored <= 1.0 ? 2.0 * cs * cd : 1.0 - 2.0 * (1.0 - cs) * (1.0 - cd);
    };
    EXPECT_TRUE(equal(blend(a, b, Mode::Overlay), composite(a, b, overlay), above1));

    EXPECT_TRUE(equal(blend(a, b, Mode::MultiplyKeepAlpha),
                      Pixels::generate(size, size, [&](int x, int y) { return a.at(x, y) * b.at(x, y); }),
                      halfPrecision));
    // Inverts the stored, premultiplied destination.
    const auto invertAndAdd = Pixels::generate(size, size, [&](int x, int y) {
        const QVector4D s = a.at(x, y);
        const QVector4D d = b.at(x, y);
        QVector4D result = s * (1.0F - d.w()) + d * (1.0F - s.w()) +
                           (s + (QVector4D(1.0F, 1.0F, 1.0F, 0.0F) - d)) * 0.5F * s.w() * d.w();
        result[3] = s.w() + d.w() * (1.0F - s.w());
        return result;
    });
    EXPECT_TRUE(equal(blend(a, b, Mode::InvertAndAdd), invertAndAdd, halfPrecision));

    excludeTransparentDestination(a, b);
    const auto softLight = [](double cs, double cd, double) {
        if (cs <= 0.5) {
            return cd - (1.0 - 2.0 * cs) * cd * (1.0 - cd);
        }
        const double lightened = cd <= 0.25 ? ((16.0 * cd - 12.0) * cd - 3.0) * cd : std::sqrt(cd) - cd;
        return cd + (2.0 * cs - 1.0) * lightened;
    };
    // The operator jumps where cd is a quarter and bends where cs is a half; values there may take either
    // branch.
    for (size_t i = 0; i < b.values.size(); ++i) {
        for (int c = 0; c < 3; ++c) {
            if (4.0F * b.values[i][c] == b.values[i].w()) {
                b.values[i][c] = 0.0F;
            }
        }
    }
    EXPECT_TRUE(equal(blend(a, b, Mode::SoftLight), composite(a, b, softLight), above1));
}

TEST_F(BlendRenderPassTest, KeepsTheLastModeAndReplacesMissingInputsByTransparentBlack)
{
    const auto source = makeTexture(randomImage(6), GL_RGBA16F);
    const auto destination = makeTexture(randomImage(7), GL_RGBA16F);
    // As rounded to half floats.
    const Pixels a = readTexture(source.get());
    const Pixels b = readTexture(destination.get());
    const Pixels transparent = Pixels::filled(size, size, {});
    const QRect viewport(0, 0, size, size);
    Runner<BlendRenderPass> pass(Mode::Source);
    EXPECT_TRUE(equal(pass.render({viewport, source, destination}), a));
    EXPECT_TRUE(equal(pass.render({viewport, source, destination, 2}), b));
    EXPECT_TRUE(equal(pass.render({viewport, source, destination, {}}), b)) << "the last mode";
    EXPECT_TRUE(equal(pass.render({viewport, source, destination, u"1"_s}), a));
    for (const int unknown : {-1, 26, 1 << 30}) {
        EXPECT_TRUE(equal(pass.render({viewport, source, destination, unknown}), transparent)) << unknown;
    }
    EXPECT_TRUE(equal(pass.render({viewport, nullptr, destination, 3}), b));
    EXPECT_TRUE(equal(pass.render({viewport, source, nullptr, 3}), a));
    EXPECT_TRUE(equal(pass.render({viewport, nullptr, nullptr, 3}), transparent));
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

TEST_F(BlendRenderPassTest, AcceptsOnePooledTextureAsBothInputs)
{
    Texture* both = makePooledTexture(Pixels::filled(2, 2, {0.5F, 0.5F, 0.5F, 1.0F}), TextureFormat::RGBA16F);
    TextureManager::Instance()->addTempTextureRef(both, 1);
    Runner<BlendRenderPass> pass(Mode::Add);
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 2, 2), both, both}), Pixels::filled(2, 2, {1, 1, 1, 2})));
}

} // namespace
} // namespace Morvane::Qel::Test
