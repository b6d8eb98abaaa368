#include <QRect>

#include <algorithm>
#include <cmath>
#include <random>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>
#include <Qel/gl/OpenGLDeviceContext.h>

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

/// The method on the CPU in double precision, in texels. Records the smallest margin of its decisions: GL may
/// decide otherwise where it is less than the rounding of 8-bit filtering.
class Model
{
public:
    Model(const Pixels& image, const Parameters& parameters)
        : m_image(image)
        , m_parameters(parameters)
    {
    }

    QVector4D filter(int x, int y)
    {
        m_margin = 1.0;
        m_isFiltered = false;
        const auto luma = [&](int dx, int dy) {
            return static_cast<double>(m_image.clamped(x + dx, y + dy).y());
        };
        const double m = luma(0, 0);
        const std::array<double, 4> cross{luma(-1, 0), luma(1, 0), luma(0, -1), luma(0, 1)};
        const double highest = std::max(m, *std::max_element(cross.begin(), cross.end()));
        const double lowest = std::min(m, *std::min_element(cross.begin(), cross.end()));
        const double range = highest - lowest;
        if (decide(range, std::max(m_parameters.thresholdMin, highest * m_parameters.threshold))) {
            return m_image.at(x, y);
        }
        m_isFiltered = true;

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
        const double across = (takesBefore ? -1.0 : 1.0) * (isHorizontal ? 1.0 : m_parameters.stepX);
        const double along = isHorizontal ? m_parameters.stepX : 1.0;
        const auto excess = [&](double reach) {
            const double a = reach * along;
            const double b = across / 2.0;
            return static_cast<double>(
                       (isHorizontal ? m_image.linear(x + a, y + b) : m_image.linear(x + b, y + a)).y()) -
                   edgeLuma;
        };

        std::array<double, 2> reach{};
        std::array<double, 2> found{};
        for (size_t side = 0; side < 2; ++side) {
            for (size_t k = 0; k < steps.size(); ++k) {
                reach[side] += steps[k];
                if (k + 1 == steps.size()) {
                    break;
                }
                found[side] = excess(side == 0 ? -reach[side] : reach[side]);
                if (!decide(std::abs(found[side]), std::abs(partner - m) / 4.0)) {
                    break;
                }
            }
        }
        const double nearer = reach[0] < reach[1] ? found[0] : found[1];
        const bool turns = decide(nearer, 0.0) != (m < edgeLuma);
        const double edgeShift = turns ? 0.5 - std::min(reach[0], reach[1]) / (reach[0] + reach[1]) : 0.0;

        const double contrast = std::min(std::abs(weighted / 12.0 - m) / range, 1.0);
        const double eased = contrast * contrast * (3.0 - 2.0 * contrast);
        const double shift = across * std::max(edgeShift, eased * eased * m_parameters.subpix);
        QVector4D colour = isHorizontal ? m_image.linear(x, y + shift) : m_image.linear(x + shift, y);
        colour.setW(static_cast<float>(m));
        return colour;
    }

    double margin() const { return m_margin; }
    bool isFiltered() const { return m_isFiltered; }

private:
    /// Whether a is less than b.
    bool decide(double a, double b)
    {
        m_margin = std::min(m_margin, std::abs(a - b));
        return a < b;
    }
    const Pixels& m_image;
    const Parameters& m_parameters;
    double m_margin = 1.0;
    bool m_isFiltered = false;
};

constexpr int size = 64;
const QRect viewport(0, 0, size, size);

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

class FastApproximateAntiAliasingRenderPassTest : public GLTest
{
};

TEST_F(FastApproximateAntiAliasingRenderPassTest, FiltersAsTheMethodDefines)
{
    // Filtering rounds to 8 bits, with weights of 8 bits.
    constexpr double smallestMargin = 1.5 / 255.0;
    constexpr float tolerance = 2.0F / 255.0F;
    const Pixels image = makeImage();
    const auto frame = makeTexture(image, GL_RGBA8);
    // Opposite borders must not be blended.
    frame->setWrap(GL_REPEAT);
    struct Case
    {
        const char* name;
        int port;
        QVariant value;
        Parameters parameters;
    };
    for (const Case& c : {Case{"defaults", Pass::SubPixelQuality, {}, {}},
                          Case{"long steps", Pass::RcpFrameQuality, 2.0F, {.stepX = 2.0}},
                          Case{"soft", Pass::SubPixelQuality, 1.0F, {.subpix = 1.0}},
                          Case{"strong edges", Pass::EdgeThresholdQuality, 0.6F, {.threshold = 0.6}},
                          Case{"bright edges", Pass::EdgeThresholdMinQuality, 0.5F, {.thresholdMin = 0.5}},
                          Case{"a text counts as 0", Pass::SubPixelQuality, u"much"_s, {.subpix = 0.0}}}) {
        Runner<Pass> pass;
        pass.set(c.port, c.value);
        const Pixels actual = pass.render({viewport, frame}).roundedToBytes();
        Model model(image, c.parameters);
        int numFiltered = 0;
        int numUndecided = 0;
        Pixels filtered = actual;
        Pixels copied = actual;
        for (int y = 0; y < size; ++y) {
            for (int x = 0; x < size; ++x) {
                const QVector4D colour = model.filter(x, y);
                if (model.margin() < smallestMargin) {
                    ++numUndecided;
                } else if (model.isFiltered()) {
                    ++numFiltered;
                    filtered.at(x, y) = colour;
                } else {
                    copied.at(x, y) = image.at(x, y);
                }
            }
        }
        EXPECT_TRUE(equal(actual, filtered, tolerance)) << c.name;
        EXPECT_TRUE(equal(actual, copied.roundedToBytes())) << c.name;
        EXPECT_GT(numFiltered, 150) << c.name;
        EXPECT_LT(numUndecided, size * size / 6) << c.name;
    }
}

TEST_F(FastApproximateAntiAliasingRenderPassTest, FindsNoEdgesWithoutGreen)
{
    const Pixels red = Pixels::generate(16, 16, [](int x, int y) {
        return QVector4D(x > y ? 1.0F : 0.0F, 0.0F, x > 7 ? 153 / 255.0F : 51 / 255.0F, 204 / 255.0F);
    });
    const auto frame = makeTexture(red, GL_RGBA8);
    // With a minimum threshold of 0 the filter runs, shifts nothing and writes the green, 0, as alpha.
    const Pixels transparent = red.mapped([](const QVector4D& c) { return QVector4D(c.toVector3D(), 0.0F); });
    Runner<Pass> pass;
    EXPECT_TRUE(
        equal(pass.render({QRect(0, 0, 16, 16), frame}).roundedToBytes(), transparent.roundedToBytes()));
    pass.set(Pass::EdgeThresholdMinQuality, 0.01F);
    EXPECT_TRUE(equal(pass.render().roundedToBytes(), red.roundedToBytes()));
}

TEST_F(FastApproximateAntiAliasingRenderPassTest, KeepsTheParametersOfTheFrameAndFollowsItsAbsence)
{
    const auto frame = makeTexture(makeImage(), GL_RGBA8);
    frame->setFilter(GL_NEAREST, GL_LINEAR);
    Runner<Pass> pass;
    pass.run({viewport, frame});
    EXPECT_EQ(frame->parameter(GL_TEXTURE_MIN_FILTER), GL_NEAREST);
    EXPECT_EQ(frame->parameter(GL_TEXTURE_MAG_FILTER), GL_LINEAR);
    EXPECT_EQ(context().viewport(), viewport);
    pass.run({viewport, nullptr});
    EXPECT_FALSE(pass->output(Pass::AntiAliasedFrame).isValid());
}

} // namespace
} // namespace Morvane::Qel::Test
