// Depth of field against a model of the lens and of the ring-sampled bokeh on the CPU, in double precision.

#include <QPointer>

#include <array>
#include <cmath>
#include <numbers>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Pixels.h"
#include <Qel/RenderPasses/postprocessing/DepthOfFieldRenderPass.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel::Test {
namespace {

using Pass = DepthOfFieldRenderPass;

// Powers of two, at which the centres of texels are exact: what is in focus is copied to the bit.
constexpr int width = 64;
constexpr int height = 16;

/// Window depth of a distance in metres, by planes at 0.1 m and 100 m.
double windowDepth(double distance)
{
    return (100.0 - 10.0 / distance) / 99.9;
}

double distanceAt(int x)
{
    return 0.6 + 0.07 * x;
}

Pixels depthPicture()
{
    return Pixels::generate(width, height, [](int x, int) {
        return QVector4D(static_cast<float>(windowDepth(distanceAt(x))), 0, 0, 0);
    });
}

Pixels framePicture()
{
    return Pixels::generate(width, height, [](int x, int y) {
        const bool light = (x / 3 + y / 3) % 2 == 0;
        return QVector4D(light ? 1.0F : 0.1F, static_cast<float>(y) / height, light ? 0.8F : 0.3F, 0.5F);
    });
}

struct Lens
{
    double focalDepth;
    double focalLength;
    double fstop;
};

/// How far the thin lens spreads a point, over the circle of confusion that looks sharp.
double blurAt(double distance, const Lens& lens)
{
    const double f = lens.focalLength;
    const double d = lens.focalDepth * 1000.0;
    const double o = distance * 1000.0;
    const double imageOfPoint = o * f / (o - f);
    const double imageInFocus = d * f / (d - f);
    return std::clamp(std::abs(imageOfPoint - imageInFocus) * (d - f) / (d * lens.fstop * 0.03), 0.0, 1.0);
}

/// A channel of the frame between texels, clamped to the edge.
double channelAt(const Pixels& frame, int channel, double x, double y)
{
    const auto texel = [&](double i, double j) {
        return static_cast<double>(frame.at(std::clamp(static_cast<int>(i), 0, width - 1),
                                            std::clamp(static_cast<int>(j), 0, height - 1))[channel]);
    };
    const double x0 = std::floor(x);
    const double y0 = std::floor(y);
    return std::lerp(std::lerp(texel(x0, y0), texel(x0 + 1, y0), x - x0),
                     std::lerp(texel(x0, y0 + 1), texel(x0 + 1, y0 + 1), x - x0), y - y0);
}

/// Three rings of 3, 6 and 9 taps around the pixel, in a picture whose pixels are at whole coordinates. The
/// dither, a fraction of a percent of a pixel, is left out.
QVector4D bokeh(const Pixels& frame, int x, int y, double blur)
{
    std::array<double, 3> sum{};
    for (int c = 0; c < 3; ++c) {
        sum[static_cast<size_t>(c)] = static_cast<double>(frame.at(x, y)[c]);
    }
    double total = 1.0;
    for (int ring = 1; ring <= 3; ++ring) {
        for (int tap = 0; tap < 3 * ring; ++tap) {
            const double angle = 2.0 * std::numbers::pi * tap / (3.0 * ring);
            const double px = x + ring * blur * std::cos(angle);
            const double py = y + ring * blur * std::sin(angle);
            const double fringe = 0.7 * blur;
            const std::array colour{channelAt(frame, 0, px, py + fringe),
                                    channelAt(frame, 1, px - 0.866 * fringe, py - 0.5 * fringe),
                                    channelAt(frame, 2, px + 0.866 * fringe, py - 0.5 * fringe)};
            const double luma = 0.299 * colour[0] + 0.587 * colour[1] + 0.114 * colour[2];
            const double gained = 1.0 + std::max((luma - 0.5) * 2.0, 0.0) * blur;
            const double weight = 0.5 + 0.5 * ring / 3.0;
            for (size_t c = 0; c < 3; ++c) {
                sum[c] += weight * gained * colour[c];
            }
            total += weight;
        }
    }
    return {static_cast<float>(sum[0] / total), static_cast<float>(sum[1] / total),
            static_cast<float>(sum[2] / total), 1.0F};
}

class DepthOfFieldTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        m_frame = makeTexture(framePicture(), GL_RGBA32F);
        m_frame->setWrap(GL_CLAMP_TO_EDGE);
        m_depth = makeTexture(depthPicture(), GL_R32F);
        m_pass = std::make_unique<Pass>();
        m_pass->setInput(Pass::Viewport, QRect(0, 0, width, height));
        m_pass->setInput(Pass::Frame, QVariant::fromValue<QObject*>(m_frame.get()));
        m_pass->setInput(Pass::Depth, QVariant::fromValue<QObject*>(m_depth.get()));
    }
    void TearDown() override
    {
        m_pass.reset();
        m_frame.reset();
        m_depth.reset();
        GLTest::TearDown();
    }
    void set(const Lens& lens)
    {
        m_pass->setInput(Pass::FocalDepth, static_cast<float>(lens.focalDepth));
        m_pass->setInput(Pass::FocalLength, static_cast<float>(lens.focalLength));
        m_pass->setInput(Pass::FStop, static_cast<float>(lens.fstop));
    }
    Texture* run()
    {
        context().applyBaseState();
        m_pass->start(nullptr);
        return qobject_cast<Texture*>(m_pass->output(0).value<QObject*>());
    }
    static Pixels opaqueFrame()
    {
        const Pixels frame = framePicture();
        return Pixels::generate(width, height,
                                [&](int x, int y) { return QVector4D(frame.at(x, y).toVector3D(), 1.0F); });
    }

    std::unique_ptr<Texture> m_frame;
    std::unique_ptr<Texture> m_depth;
    std::unique_ptr<Pass> m_pass;
};

TEST_F(DepthOfFieldTest, BlursAsTheLensDoesAndKeepsWhatIsInFocus)
{
    const Pixels frame = framePicture();
    for (const Lens& lens : {Lens{2.0, 12.0, 2.0}, Lens{4.0, 24.0, 8.0}, Lens{0.9, 8.0, 4.0}}) {
        set(lens);
        const Pixels actual = readTexture(run());
        int numSharp = 0;
        int numBlurred = 0;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const double blur = blurAt(distanceAt(x), lens);
                if (std::abs(blur - 0.05) < 0.001) {
                    // Single precision may decide either way.
                    continue;
                }
                if (blur < 0.05) {
                    ++numSharp;
                    EXPECT_EQ(actual.at(x, y), QVector4D(frame.at(x, y).toVector3D(), 1.0F));
                    continue;
                }
                ++numBlurred;
                // The software rasteriser filters with weights of 8 bits.
                const QVector4D difference = actual.at(x, y) - bokeh(frame, x, y, blur);
                EXPECT_LT(difference.length(), 0.012F) << x << ", " << y << " blurred by " << blur;
                EXPECT_EQ(actual.at(x, y).w(), 1.0F);
            }
        }
        EXPECT_GT(numSharp, height);
        EXPECT_GT(numBlurred, height);
    }
}

TEST_F(DepthOfFieldTest, StaysSharpWithoutALensOrDepth)
{
    for (const Lens& lens : {Lens{2.0, 0.0, 2.0}, Lens{0.0, 12.0, 2.0}, Lens{0.0, 0.0, 0.0}}) {
        set(lens);
        EXPECT_TRUE(equal(readTexture(run()), opaqueFrame())) << lens.focalDepth << " " << lens.focalLength;
    }
    set({2.0, 24.0, 1.0});
    m_pass->setInput(Pass::Depth, {});
    EXPECT_TRUE(equal(readTexture(run()), opaqueFrame()));
}

TEST_F(DepthOfFieldTest, AutofocusMeasuresAtTheFocusPoint)
{
    const int column = 40;
    set({static_cast<double>(static_cast<float>(distanceAt(column))), 24.0, 2.0});
    const Pixels expected = readTexture(run());
    set({0.0, 24.0, 2.0});
    m_pass->setInput(Pass::AutoFocus, true);
    m_pass->setInput(Pass::Focus, QVector2D((static_cast<float>(column) + 0.5F) / width, 0.5F / height));
    // The distance comes out of the depth texture, whose floats lie a hundredth of a millimetre apart here.
    EXPECT_TRUE(equal(readTexture(run()), expected, 0.01F));
}

TEST_F(DepthOfFieldTest, OwnsItsTargetAndLeavesTheFrameAsItWas)
{
    set({2.0, 12.0, 2.0});
    m_frame->setFilter(GL_NEAREST, GL_NEAREST);
    const QPointer<Texture> first = run();
    EXPECT_EQ(run(), first.data());
    EXPECT_EQ(m_frame->parameter(GL_TEXTURE_MIN_FILTER), GL_NEAREST);
    EXPECT_EQ(m_frame->parameter(GL_TEXTURE_MAG_FILTER), GL_NEAREST);
    m_pass->setInput(Pass::Viewport, QRect(0, 0, 8, 6));
    EXPECT_EQ(run()->size(), QSize(8, 6));
    EXPECT_FALSE(first);

    TextureManager* pool = TextureManager::Instance();
    m_pass->setInput(Pass::Frame,
                     QVariant::fromValue<QObject*>(pool->tempTexture(TextureFormat::RGBA8, 8, 6)));
    m_pass->setInput(Pass::Depth,
                     QVariant::fromValue<QObject*>(pool->tempTexture(TextureFormat::Depth24Stencil8, 8, 6)));
    run();
    EXPECT_EQ(pool->numReferences(), 0);
    m_pass->setInput(Pass::Frame, {});
    m_pass->setInput(Pass::Depth,
                     QVariant::fromValue<QObject*>(pool->tempTexture(TextureFormat::Depth24Stencil8, 8, 6)));
    run();
    EXPECT_FALSE(m_pass->output(0).isValid());
    EXPECT_EQ(pool->numReferences(), 0);
}

} // namespace
} // namespace Morvane::Qel::Test
