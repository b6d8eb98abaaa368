// Depth of field against a thin lens and its ring-sampled bokeh on the CPU, in double precision.

#include <QPointer>

#include <cmath>
#include <numbers>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/postprocessing/DepthOfFieldRenderPass.h>

namespace Morvane::Qel::Test {
namespace {

// Texel centres are exact at powers of two, so that pixels in focus are copied to the bit.
constexpr int width = 64;
constexpr int height = 16;

struct Lens
{
    float focalDepth;
    float focalLength;
    float fstop;
};

/// The distance that a column shows, in metres.
double distanceAt(int x)
{
    return 0.6 + 0.07 * x;
}

/// The circle of confusion of a thin lens, relative to the acceptable one.
double blurAt(double distance, const Lens& lens)
{
    const auto f = static_cast<double>(lens.focalLength);
    const auto d = 1000.0 * static_cast<double>(lens.focalDepth);
    const double o = distance * 1000.0;
    const double imageOfPoint = o * f / (o - f);
    const double imageInFocus = d * f / (d - f);
    return std::clamp(std::abs(imageOfPoint - imageInFocus) * (d - f) /
                          (d * static_cast<double>(lens.fstop) * 0.03),
                      0.0, 1.0);
}

/// Three rings of 3, 6 and 9 taps around a pixel. The dither, a fraction of a percent of a pixel, is left
/// out.
QVector4D bokeh(const Pixels& frame, int x, int y, double blur)
{
    QVector3D sum = frame.at(x, y).toVector3D();
    float total = 1.0F;
    for (int ring = 1; ring <= 3; ++ring) {
        for (int tap = 0; tap < 3 * ring; ++tap) {
            const double angle = 2.0 * std::numbers::pi * tap / (3.0 * ring);
            const double px = x + ring * blur * std::cos(angle);
            const double py = y + ring * blur * std::sin(angle);
            const double fringe = 0.7 * blur;
            const QVector3D colour(frame.linear(px, py + fringe).x(),
                                   frame.linear(px - 0.866 * fringe, py - 0.5 * fringe).y(),
                                   frame.linear(px + 0.866 * fringe, py - 0.5 * fringe).z());
            const float luma = QVector3D::dotProduct(colour, {0.299F, 0.587F, 0.114F});
            const float gain = 1.0F + std::max((luma - 0.5F) * 2.0F, 0.0F) * static_cast<float>(blur);
            const float weight = 0.5F + 0.5F * static_cast<float>(ring) / 3.0F;
            sum += weight * gain * colour;
            total += weight;
        }
    }
    return {sum / total, 1.0F};
}

const Pixels image = Pixels::generate(width, height, [](int x, int y) {
    const bool light = (x / 3 + y / 3) % 2 == 0;
    return QVector4D(light ? 1.0F : 0.1F, static_cast<float>(y) / height, light ? 0.8F : 0.3F, 0.5F);
});
const Pixels opaqueImage = image.mapped([](const QVector4D& c) { return QVector4D(c.toVector3D(), 1.0F); });

/// Window depth by planes at 0.1 m and 100 m.
std::unique_ptr<Texture> makeDepth()
{
    return makeTexture(width, height, GL_R32F, [](int x, int) {
        return QVector4D(static_cast<float>((100.0 - 10.0 / distanceAt(x)) / 99.9), 0, 0, 0);
    });
}

std::vector<Input> inputs(const Input& frame, const Input& depth, const Lens& lens)
{
    return {QRect(0, 0, width, height), frame, depth, lens.focalDepth, lens.focalLength, lens.fstop};
}

using DepthOfFieldTest = GLTest;

TEST_F(DepthOfFieldTest, BlursAsAThinLensAndCopiesWhatIsInFocus)
{
    const auto frame = makeTexture(image, GL_RGBA32F);
    const auto depth = makeDepth();
    Runner<DepthOfFieldRenderPass> pass;
    for (const Lens& lens : {Lens{2.0F, 12.0F, 2.0F}, Lens{4.0F, 24.0F, 8.0F}, Lens{0.9F, 8.0F, 4.0F}}) {
        const Pixels actual = pass.render(inputs(frame, depth, lens));
        // Pixels beside the limit may go either way in single precision.
        const auto blurred = Pixels::generate(width, height, [&](int x, int y) {
            const double blur = blurAt(distanceAt(x), lens);
            return blur > 0.051 ? bokeh(image, x, y, blur) : actual.at(x, y);
        });
        const auto sharp = Pixels::generate(width, height, [&](int x, int y) {
            return blurAt(distanceAt(x), lens) < 0.049 ? opaqueImage.at(x, y) : actual.at(x, y);
        });
        // The software rasteriser filters with weights of 8 bits.
        EXPECT_TRUE(equal(actual, blurred, 0.01F)) << lens.focalDepth;
        EXPECT_TRUE(equal(actual, sharp)) << lens.focalDepth;
    }
}

TEST_F(DepthOfFieldTest, StaysSharpWithoutALensOrDepth)
{
    const auto frame = makeTexture(image, GL_RGBA32F);
    const auto depth = makeDepth();
    Runner<DepthOfFieldRenderPass> pass;
    for (const Lens& lens : {Lens{2.0F, 0.0F, 2.0F}, Lens{0.0F, 12.0F, 2.0F}, Lens{0.0F, 0.0F, 0.0F}}) {
        EXPECT_TRUE(equal(pass.render(inputs(frame, depth, lens)), opaqueImage)) << lens.focalDepth;
    }
    EXPECT_TRUE(equal(pass.render(inputs(frame, nullptr, {2.0F, 24.0F, 1.0F})), opaqueImage));
}

TEST_F(DepthOfFieldTest, AutofocusMeasuresAtTheFocusPoint)
{
    constexpr int column = 40;
    const auto frame = makeTexture(image, GL_RGBA32F);
    const auto depth = makeDepth();
    Runner<DepthOfFieldRenderPass> pass;
    const Pixels expected =
        pass.render(inputs(frame, depth, {static_cast<float>(distanceAt(column)), 24.0F, 2.0F}));
    std::vector<Input> autofocus = inputs(frame, depth, {0.0F, 24.0F, 2.0F});
    autofocus.emplace_back(true);
    autofocus.emplace_back(QVector2D((column + 0.5F) / width, 0.5F / height));
    // The depths of neighbouring floats are a hundredth of a millimetre apart here.
    EXPECT_TRUE(equal(pass.render(autofocus), expected, 0.01F));
}

TEST_F(DepthOfFieldTest, OwnsItsTargetAndLeavesTheFramesParameters)
{
    const auto frame = makeTexture(image, GL_RGBA32F);
    const auto depth = makeDepth();
    Runner<DepthOfFieldRenderPass> pass;
    pass.run(inputs(frame, depth, {2.0F, 12.0F, 2.0F}));
    const QPointer<Texture> first = pass.texture();
    pass.run();
    EXPECT_EQ(pass.texture(), first.data());
    EXPECT_EQ(frame->parameter(GL_TEXTURE_MIN_FILTER), GL_NEAREST);
    // A new size deletes the old target. The references of the inputs are released on both paths.
    const Pixels pixels = Pixels::filled(8, 6, {});
    pass.run({QRect(0, 0, 8, 6), makePooledTexture(pixels, TextureFormat::RGBA8),
              makePooledTexture(pixels, TextureFormat::Depth24Stencil8)});
    EXPECT_EQ(pass.texture()->size(), QSize(8, 6));
    EXPECT_FALSE(first);
    pass.run({QRect(0, 0, 8, 6), nullptr, makePooledTexture(pixels, TextureFormat::Depth24Stencil8)});
    EXPECT_FALSE(pass->output(0).isValid());
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
}

} // namespace
} // namespace Morvane::Qel::Test
