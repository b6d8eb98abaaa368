#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/GLTest.h"
#include <Qel/RenderPasses/postprocessing/BlurBaseRenderPass.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

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

/// Computes the weights and offsets with one rounded operation a line; volatile keeps the compiler from
/// fusing or reordering them.
std::pair<QVector<float>, QVector<float>> kernelStepByStep(float radius)
{
    const volatile float sigma = radius + 0.0001F;
    const volatile float limit = 2.0F * radius;
    const volatile double area = static_cast<double>(sigma) * 2.5066282746310002;
    const volatile double norm = 1.0 / area;
    const volatile float twoSigma = sigma + sigma;
    const volatile float variance = sigma * twoSigma;
    QVector<float> raw;
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
    QVector<float> weights{raw[0]};
    QVector<float> offsets{0.0F};
    for (qsizetype nearer = 1; nearer + 1 < raw.size(); nearer += 2) {
        const volatile float both = raw[nearer] + raw[nearer + 1];
        const volatile float farMoment = raw[nearer + 1] * static_cast<float>(nearer + 1);
        const volatile float nearMoment = raw[nearer] * static_cast<float>(nearer);
        const volatile float moment = farMoment + nearMoment;
        weights.push_back(float{both});
        offsets.push_back(moment / both);
    }
    return {weights, offsets};
}

TEST(BlurWeights, EqualTheDefinitionToTheBit)
{
    for (const float radius :
         {0.0F, 0.5F, 0.75F, 1.0F, 2.5F, 3.3F, 5.0F, 5.5F, 7.3F, 37.2F, 100.0F, 1000.0F}) {
        const auto [weights, offsets] = kernelStepByStep(radius);
        EXPECT_EQ(Kernel(radius).weights(), weights) << radius;
        EXPECT_EQ(Kernel(radius).offsets(), offsets) << radius;
    }
}

TEST(BlurWeights, ExistForEveryRadius)
{
    EXPECT_EQ(Kernel(-7.0F).weights(), QVector<float>{1.0F});
    EXPECT_EQ(Kernel(std::numeric_limits<float>::quiet_NaN()).weights().size(), 1);
    const MessageRecorder messages;
    EXPECT_GT(Kernel(std::numeric_limits<float>::infinity()).weights().size(), 1000);
    EXPECT_EQ(messages.failures.filter(u"blur radius of inf"_s).size(), 1);
}

} // namespace
} // namespace Morvane::Qel::Test
