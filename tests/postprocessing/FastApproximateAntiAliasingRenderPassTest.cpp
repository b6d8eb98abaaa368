#include <QRect>

#include <algorithm>
#include <cmath>
#include <optional>
#include <random>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Pass = FastApproximateAntiAliasingRenderPass;

struct Parameters
{
    double subpix = 0.75;
    double stepX = 1.0;
    double threshold = 0.166;
    double thresholdMin = 0.0;
};

/// Preset 12: the steps of the search, of which the last moves without sampling.
constexpr std::array steps{1.0, 1.5, 2.0, 4.0, 12.0};

/// The method on the CPU in double precision, in texels.
struct Model
{
    const Pixels& image;
    const Parameters& parameters;
    /// The smallest margin of the decisions about a pixel. GL may decide otherwise where it is less than the
    /// rounding of 8-bit filtering.
    double margin = 1.0;

    /// The filtered colour of a pixel; none where it is copied.
    std::optional<QVector4D> filter(int x, int y)
    {
        margin = 1.0;
        const auto luma = [&](int dx, int dy) {
            return static_cast<double>(image.clamped(x + dx, y + dy).y());
        };
        const double m = luma(0, 0);
        const std::array<double, 4> cross{luma(-1, 0), luma(1, 0), luma(0, -1), luma(0, 1)};
        const double highest = std::max(m, *std::max_element(cross.begin(), cross.end()));
        const double lowest = std::min(m, *std::min_element(cross.begin(), cross.end()));
        const double range = highest - lowest;
        if (decide(range, std::max(parameters.thresholdMin, highest * parameters.threshold))) {
            return std::nullopt;
        }

        double acrossRows = 0.0;
        double acrossColumns = 0.0;
        double weighted = 0.0;
        for (int i = -1; i <= 1; ++i) {
            const double weight = i == 0 ? 2.0 : 1.0;
            acrossRows += weight * std::abs(luma(i, -1) - 2.0 * luma(i, 0) + luma(i, 1));
            acrossColumns += weight * std::abs(luma(-1, i) - 2.0 * luma(0, i) + luma(1, i));
            weighted += weight * (luma(i, -1) + luma(i, 1)) + (i == 0 ? 0.0 : 2.0 * luma(i, 0));
        }
        const bool isHorizontal = !decide(acrossRows, acrossColumns);
        const double before = isHorizontal ? luma(0, -1) : luma(-1, 0);
        const double behind = isHorizontal ? luma(0, 1) : luma(1, 0);
        const bool takesBefore = !decide(std::abs(before - m), std::abs(behind - m));
        const double partner = takesBefore ? before : behind;
        const double edgeLuma = (m + partner) / 2.0;
        const double across = (takesBefore ? -1.0 : 1.0) * (isHorizontal ? 1.0 : parameters.stepX);
        const double along = isHorizontal ? parameters.stepX : 1.0;
        const auto sample = [&](double a, double b) {
            return isHorizontal ? image.linear(x + a, y + b) : image.linear(x + b, y + a);
        };

        std::array<double, 2> reach{};
        std::array<double, 2> found{};
        for (size_t side = 0; side < 2; ++side) {
            bool isInside = true;
            for (size_t k = 0; k < steps.size() && isInside; ++k) {
                reach[side] += steps[k];
                if (k + 1 < steps.size()) {
                    const double position = (side == 0 ? -1.0 : 1.0) * reach[side] * along;
                    found[side] = static_cast<double>(sample(position, across / 2.0).y()) - edgeLuma;
                    isInside = decide(std::abs(found[side]), std::abs(partner - m) / 4.0);
                }
            }
        }
        const double nearer = reach[0] < reach[1] ? found[0] : found[1];
        const bool turns = decide(nearer, 0.0) != (m < edgeLuma);
        const double edgeShift = turns ? 0.5 - std::min(reach[0], reach[1]) / (reach[0] + reach[1]) : 0.0;

        const double contrast = std::min(std::abs(weighted / 12.0 - m) / range, 1.0);
        const double eased = contrast * contrast * (3.0 - 2.0 * contrast);
        const double shift = across * std::max(edgeShift, eased * eased * parameters.subpix);
        return QVector4D(sample(0.0, shift).toVector3D(), static_cast<float>(m));
    }

    /// Whether a is less than b.
    bool decide(double a, double b)
    {
        margin = std::min(margin, std::abs(a - b));
        return a < b;
    }
};

constexpr int size = 64;

/// Edges at several angles, some of them long, with noise that avoids ties.
Pixels makeImage()
{
    std::mt19937 random(7);
    return Pixels::generate(size, size, [&](int x, int y) {
        const bool inside = (x - 20) * (x - 20) + (y - 40) * (y - 40) < 230 || 9 * y < x + 60 ||
                            x > 52 + y / 22 || (y > 57 - x / 23 && y < 61);
        const auto level = [&](float bright, float dark) {
            const auto noise = static_cast<float>(random() % 1000) / 1000.0F - 0.5F;
            return std::round(255.0F * ((inside ? bright : dark) + 0.03F * noise)) / 255.0F;
        };
        return QVector4D(level(0.2F, 0.7F), level(0.85F, 0.25F), level(0.5F, 0.4F), level(0.9F, 0.6F));
    });
}

using FastApproximateAntiAliasingRenderPassTest = GLTest;

TEST_F(FastApproximateAntiAliasingRenderPassTest, FiltersAsTheMethodDefines)
{
    // Filtering rounds to 8 bits, with weights of 8 bits.
    constexpr double smallestMargin = 1.5 / 255.0;
    constexpr float tolerance = 2.0F / 255.0F;
    const Pixels image = makeImage();
    const auto frame = makeTexture(image, GL_RGBA8);
    struct Case
    {
        int port;
        QVariant value;
        Parameters parameters;
    };
    // The defaults, each input, and a text, which counts as 0.
    for (const Case& c :
         {Case{Pass::SubPixelQuality, {}, {}}, Case{Pass::RcpFrameQuality, 2.0F, {.stepX = 2.0}},
          Case{Pass::EdgeThresholdQuality, 0.6F, {.threshold = 0.6}},
          Case{Pass::EdgeThresholdMinQuality, 0.5F, {.thresholdMin = 0.5}},
          Case{Pass::SubPixelQuality, u"much"_s, {.subpix = 0.0}}}) {
        Runner<Pass> pass;
        pass.set(c.port, c.value);
        const Pixels actual = pass.render({QRect(0, 0, size, size), frame}).roundedToBytes();
        Model model{image, c.parameters};
        int numFiltered = 0;
        int numUndecided = 0;
        const auto expected = Pixels::generate(size, size, [&](int x, int y) {
            const std::optional<QVector4D> colour = model.filter(x, y);
            if (model.margin < smallestMargin) {
                ++numUndecided;
                return anyPixel;
            }
            numFiltered += colour ? 1 : 0;
            return colour.value_or(image.at(x, y));
        });
        EXPECT_TRUE(equal(actual, expected, tolerance)) << "port " << c.port;
        EXPECT_GT(numFiltered, 150) << "port " << c.port;
        EXPECT_LT(numUndecided, size * size / 6) << "port " << c.port;
    }
}

TEST_F(FastApproximateAntiAliasingRenderPassTest, FindsNoEdgesWithoutGreen)
{
    const Pixels red =
        Pixels::generate(16, 16, [](int x, int y) { return QVector4D(x > y ? 1 : 0, 0, x > 7 ? 1 : 0, 1); });
    const auto frame = makeTexture(red, GL_RGBA8);
    // With a minimum threshold of 0 the filter runs, shifts nothing and writes the green, 0, as alpha.
    const Pixels transparent = red.mapped([](const QVector4D& c) { return QVector4D(c.toVector3D(), 0.0F); });
    Runner<Pass> pass;
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 16, 16), frame}), transparent));
    EXPECT_EQ(frame->parameter(GL_TEXTURE_MIN_FILTER), GL_NEAREST);
    EXPECT_EQ(context().viewport(), QRect(0, 0, 16, 16));
    pass.set(Pass::EdgeThresholdMinQuality, 0.01F);
    EXPECT_TRUE(equal(pass.render(), red));
    pass.set(Pass::Frame, nullptr);
    pass.run();
    EXPECT_FALSE(pass->output(Pass::AntiAliasedFrame).isValid());
}

// A frame of another size than the viewport is filtered, not read at its texels.
TEST_F(FastApproximateAntiAliasingRenderPassTest, ScalesTheFrame)
{
    const auto level = [](double x, double y) {
        return static_cast<float>((100.0 + 4.0 * x + 8.0 * y) / 255.0);
    };
    const auto ramp = [&](int width, int height, double scale) {
        return Pixels::generate(width, height, [&](int x, int y) {
            const float value = level(scale * (x + 0.5), scale * (y + 0.5));
            return QVector4D(value, value, value, 1.0F);
        });
    };
    Runner<Pass> pass;
    const auto render = [&](int extent) {
        return pass.render({QRect(0, 0, extent, extent), makeTexture(ramp(8, 8, 1.0), GL_RGBA8)})
            .roundedToBytes();
    };
    // Away from the border, where the edge texels are repeated.
    const Pixels doubled = render(16);
    const Pixels expected = Pixels::generate(16, 16, [&](int x, int y) {
        return std::min(x, y) > 0 && std::max(x, y) < 15 ? ramp(16, 16, 0.5).at(x, y) : doubled.at(x, y);
    });
    EXPECT_TRUE(equal(doubled, expected));
    EXPECT_TRUE(equal(render(8), ramp(8, 8, 1.0).roundedToBytes()));
}

} // namespace
} // namespace Morvane::Qel::Test
