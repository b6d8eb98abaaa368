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

/// The last bit of a half float below 1, by which results are rounded, up or down as the driver likes; twice
/// that for operators that exceed 1.
constexpr float halfPrecision = 1.0F / 2048.0F;
constexpr float above1 = 2.0F * halfPrecision;

/// Random premultiplied colours on the grid of 8 bits, with alphas 0, 1 and between, equally often, and with
/// channels at their ends, where operators change branches.
Pixels randomPicture(unsigned int seed, bool opaque = false)
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
        BlendRenderPass pass(mode);
        const std::unique_ptr<Texture> source(makeTexture(a, GL_RGBA32F));
        const std::unique_ptr<Texture> destination(makeTexture(b, GL_RGBA32F));
        return render(pass,
                      {QRect(0, 0, size, size), textureInput(source.get()), textureInput(destination.get())});
    }
};

/// What Qt's raster painter makes of the pair, in its format of 32-bit floats.
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

/// The general form of a separable blend mode, which composites what a function of the straight colours
/// gives: (source, destination, channel of the destination as it is stored) -> colour where both are opaque.
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

/// Makes the pair agree with its like wherever the destination is transparent, for operators that divide by
/// its alpha.
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
    const Pixels a = randomPicture(1);
    const Pixels b = randomPicture(2);
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
    // Over an opaque destination the two tests of overlay are the same.
    const Pixels opaque = randomPicture(3, true);
    EXPECT_TRUE(equal(blend(a, opaque, Mode::Overlay), paint(a, opaque, QPainter::CompositionMode_Overlay),
                      halfPrecision));
    // The painter's sum stops at 1 in alpha.
    Pixels sum = blend(a, b, Mode::Add);
    for (QVector4D& value : sum.values) {
        value[3] = std::min(value[3], 1.0F);
    }
    EXPECT_TRUE(equal(sum, paint(a, b, QPainter::CompositionMode_Plus), above1));
}

TEST_F(BlendRenderPassTest, OwnOperatorsFollowTheirFormulas)
{
    Pixels a = randomPicture(4);
    Pixels b = randomPicture(5);
    const auto overlay = [](double cs, double cd, double stored) {
        return 2.0 * stored <= 1.0 ? 2.0 * cs * cd : 1.0 - 2.0 * (1.0 - cs) * (1.0 - cd);
    };
    EXPECT_TRUE(equal(blend(a, b, Mode::Overlay), composite(a, b, overlay), above1));

    EXPECT_TRUE(equal(blend(a, b, Mode::MultiplyKeepAlpha),
                      Pixels::generate(size, size, [&](int x, int y) { return a.at(x, y) * b.at(x, y); }),
                      halfPrecision));
    // The inverted destination is that of the stored, premultiplied colours.
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
    // The operator jumps where cd is a quarter and bends where cs is a half: pairs on these edges may fall to
    // either side.
    for (size_t i = 0; i < b.values.size(); ++i) {
        for (int c = 0; c < 3; ++c) {
            if (4.0F * b.values[i][c] == b.values[i].w()) {
                b.values[i][c] = 0.0F;
            }
        }
    }
    EXPECT_TRUE(equal(blend(a, b, Mode::SoftLight), composite(a, b, softLight), above1));
}

TEST_F(BlendRenderPassTest, TheModeInputStaysInForceAndStrangeModesAreTransparent)
{
    const Pixels a = randomPicture(6);
    const Pixels b = randomPicture(7);
    const std::unique_ptr<Texture> source(makeTexture(a, GL_RGBA16F));
    const std::unique_ptr<Texture> destination(makeTexture(b, GL_RGBA16F));
    // What half floats make of the pictures.
    const Pixels halfA = readTexture(source.get());
    const Pixels halfB = readTexture(destination.get());
    const auto blendWith = [&](BlendRenderPass& pass, const QVariant& mode) {
        return render(pass, {QRect(0, 0, size, size), textureInput(source.get()),
                             textureInput(destination.get()), mode});
    };
    const Pixels transparent = Pixels::generate(size, size, [](int, int) { return QVector4D(); });

    BlendRenderPass pass(Mode::Source);
    EXPECT_TRUE(equal(blendWith(pass, {}), halfA));
    EXPECT_TRUE(equal(blendWith(pass, 2), halfB));
    EXPECT_TRUE(equal(blendWith(pass, {}), halfB)) << "an input that is taken away leaves its last mode";
    EXPECT_TRUE(equal(blendWith(pass, u"1"_s), halfA));
    for (const int strange : {-1, 26, 1 << 30}) {
        EXPECT_TRUE(equal(blendWith(pass, strange), transparent)) << strange;
    }

    // A missing source lets the destination through, a missing destination the source.
    EXPECT_TRUE(
        equal(render(pass, {QRect(0, 0, size, size), {}, textureInput(destination.get()), 3}), halfB));
    EXPECT_TRUE(equal(render(pass, {QRect(0, 0, size, size), textureInput(source.get()), {}, 3}), halfA));
    EXPECT_TRUE(equal(render(pass, {QRect(0, 0, size, size), {}, {}, 3}), transparent));
}

TEST_F(BlendRenderPassTest, StretchesInputsOverAViewportThatMayLieAside)
{
    const std::unique_ptr<Texture> left(makeTexture(
        Pixels::generate(2, 1, [](int x, int) { return x == 0 ? QVector4D(1, 0, 0, 1) : QVector4D(); }),
        GL_RGBA8));
    const std::unique_ptr<Texture> blue(
        makeTexture(Pixels::generate(3, 5, [](int, int) { return QVector4D(0, 0, 1, 1); }), GL_RGBA8));
    BlendRenderPass pass(Mode::SourceOver);
    const Pixels picture =
        render(pass, {QRect(2, 1, 6, 4), textureInput(left.get()), textureInput(blue.get())});
    const Pixels expected = Pixels::generate(6, 4, [](int x, int y) {
        if (x < 2 || y < 1) {
            return QVector4D();
        }
        return x < 5 ? QVector4D(1, 0, 0, 1) : QVector4D(0, 0, 1, 1);
    });
    EXPECT_TRUE(equal(picture, expected));
}

TEST_F(BlendRenderPassTest, OnePooledTextureMayBeBothInputs)
{
    TextureManager* pool = TextureManager::Instance();
    Texture* both = pool->tempTexture(TextureFormat::RGBA16F, 2, 2, 2);
    const std::vector<QVector4D> grey(4, QVector4D(0.5F, 0.5F, 0.5F, 1.0F));
    both->setImage2D(0, GL_RGBA16F, 2, 2, GL_RGBA, GL_FLOAT, grey.data());
    BlendRenderPass pass(Mode::Add);
    const Pixels picture = render(pass, {QRect(0, 0, 2, 2), textureInput(both), textureInput(both)});
    EXPECT_TRUE(equal(picture, Pixels::generate(2, 2, [](int, int) { return QVector4D(1, 1, 1, 2); })));
    EXPECT_EQ(pool->numReferences(), 0);
}

} // namespace
} // namespace Morvane::Qel::Test
