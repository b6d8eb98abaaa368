#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "postprocessing/GaussianKernel.h"
#include "support/GLTest.h"
#include <Qel/RenderPasses/postprocessing/BlurBaseRenderPass.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

/// The kernel of a radius.
class Kernel : public BlurBaseRenderPass
{
public:
    explicit Kernel(float radius)
    {
        m_blurRadius = radius;
        calculateBlurWeights();
    }
    const QVector<float>& weights() const { return m_weights; }
    const QVector<float>& offsets() const { return m_offsets; }
};

// Linear filtering splits a folded tap into the two texels around it: those must get the weights of the
// Gaussian. The kernel is built in single precision, whose error grows with the exponent, -2 at the most.
TEST(BlurWeights, FoldedTapsSplitIntoTheGaussian)
{
    for (const float radius : {0.75F, 1.0F, 1.5F, 2.0F, 2.5F, 5.0F, 5.5F, 7.3F, 37.2F, 100.0F}) {
        const std::vector<double> taps = gaussianTaps(static_cast<double>(radius));
        const Kernel kernel(radius);
        ASSERT_EQ(kernel.weights().size(), static_cast<qsizetype>(1 + (taps.size() - 1) / 2)) << radius;
        ASSERT_EQ(kernel.offsets().size(), kernel.weights().size());
        EXPECT_NEAR(static_cast<double>(kernel.weights()[0]), taps[0], taps[0] * 5e-7);
        EXPECT_EQ(kernel.offsets()[0], 0.0F);
        double sum = static_cast<double>(kernel.weights()[0]);
        for (qsizetype i = 1; i < kernel.weights().size(); ++i) {
            const auto weight = static_cast<double>(kernel.weights()[i]);
            const double nearer = static_cast<double>(2 * i - 1);
            const double towardsFarther = static_cast<double>(kernel.offsets()[i]) - nearer;
            const double w1 = taps[static_cast<size_t>(2 * i - 1)];
            const double w2 = taps[static_cast<size_t>(2 * i)];
            EXPECT_NEAR(weight * (1.0 - towardsFarther), w1, weight * (1e-6 + nearer * 1.2e-7)) << radius;
            EXPECT_NEAR(weight * towardsFarther, w2, weight * (1e-6 + nearer * 1.2e-7)) << radius;
            sum += 2.0 * weight;
        }
        EXPECT_NEAR(sum, 1.0, 2e-6) << radius;
    }
}

struct FoldedKernel
{
    std::vector<float> weights;
    std::vector<float> offsets;
};

/// The kernel, one rounded operation a line: volatile keeps the compiler from fusing or reordering them.
FoldedKernel kernelStepByStep(float radius)
{
    const volatile float sigma = radius + 0.0001F;
    const volatile float limit = 2.0F * radius;
    const volatile double area = static_cast<double>(sigma) * 2.5066282746310002;
    const volatile double norm = 1.0 / area;
    const volatile float twoSigma = sigma + sigma;
    const volatile float variance = sigma * twoSigma;
    std::vector<float> raw;
    volatile float sum = 0.0F;
    for (int tap = 0; static_cast<float>(tap) < limit || raw.size() % 2 == 0; ++tap) {
        const volatile double square = static_cast<double>(tap) * static_cast<double>(tap);
        const volatile double quotient = -square / static_cast<double>(variance);
        const volatile auto exponent = static_cast<float>(quotient);
        const volatile double power = std::exp(static_cast<double>(exponent));
        const volatile double scaled = power * norm;
        const volatile auto weight = static_cast<float>(scaled);
        raw.push_back(float{weight});
        const volatile double oneSide = static_cast<double>(sum) + static_cast<double>(weight);
        const volatile double bothSides = oneSide + static_cast<double>(weight);
        sum = tap == 0 ? weight : static_cast<float>(bothSides);
    }
    for (float& weight : raw) {
        weight = weight / sum;
    }
    FoldedKernel kernel{{raw[0]}, {0.0F}};
    for (size_t nearer = 1; nearer + 1 < raw.size(); nearer += 2) {
        const volatile float both = raw[nearer] + raw[nearer + 1];
        const volatile float farMoment = raw[nearer + 1] * static_cast<float>(nearer + 1);
        const volatile float nearMoment = raw[nearer] * static_cast<float>(nearer);
        const volatile float moment = farMoment + nearMoment;
        kernel.weights.push_back(float{both});
        kernel.offsets.push_back(moment / both);
    }
    return kernel;
}

TEST(BlurWeights, EveryBitFollowsFromTheSteps)
{
    for (const float radius :
         {0.0F, 0.5F, 0.75F, 1.0F, 2.5F, 3.3F, 5.0F, 5.5F, 7.3F, 37.2F, 100.0F, 1000.0F}) {
        const FoldedKernel expected = kernelStepByStep(radius);
        const Kernel kernel(radius);
        ASSERT_EQ(static_cast<size_t>(kernel.weights().size()), expected.weights.size()) << radius;
        ASSERT_EQ(static_cast<size_t>(kernel.offsets().size()), expected.offsets.size()) << radius;
        const size_t numBytes = expected.weights.size() * sizeof(float);
        EXPECT_EQ(std::memcmp(kernel.weights().constData(), expected.weights.data(), numBytes), 0) << radius;
        EXPECT_EQ(std::memcmp(kernel.offsets().constData(), expected.offsets.data(), numBytes), 0) << radius;
    }
}

TEST(BlurWeights, EveryRadiusHasAKernel)
{
    for (const float radius : {-7.0F, -0.0F, 0.0F, 0.5F}) {
        const Kernel kernel(radius);
        EXPECT_EQ(kernel.weights(), QVector<float>{1.0F}) << radius;
        EXPECT_EQ(kernel.offsets(), QVector<float>{0.0F}) << radius;
    }
    EXPECT_EQ(Kernel(std::numeric_limits<float>::quiet_NaN()).weights().size(), 1);
    const MessageRecorder messages;
    EXPECT_GT(Kernel(std::numeric_limits<float>::infinity()).weights().size(), 1000);
    ASSERT_EQ(messages.failures.size(), 1);
    EXPECT_TRUE(messages.failures[0].contains(u"blur radius of inf"_s));
}

} // namespace
} // namespace Morvane::Qel::Test
