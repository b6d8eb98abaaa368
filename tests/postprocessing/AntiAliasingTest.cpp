// The anti-aliasing passes behind forward drawing, against what thin blades cover of each pixel.

#include <QMatrix4x4>
#include <QRect>
#include <QVector2D>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include <stdlib.h>

#include "support/GLTest.h"
#include "support/Pixels.h"
#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>
#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>
#include <Qel/RenderPasses/postprocessing/SMAARenderPass.h>
#include <Qel/RenderPasses/postprocessing/TemporalAAJitterPass.h>
#include <Qel/RenderPasses/postprocessing/TemporalAARenderPass.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/model/GPUModel.h>

namespace Morvane::Qel::Test {
namespace {

constexpr int extent = 96;

using Triangle = std::array<QVector2D, 3>;

/// Blades from the rim to the middle, up to two pixels wide: most of them are lost between the samples of a
/// single frame, where only more samples help.
std::vector<Triangle> makeBlades()
{
    constexpr int numBlades = 17;
    constexpr float halfWidth = 2.0F / extent;
    std::vector<Triangle> blades;
    for (int i = 0; i < numBlades; ++i) {
        const float angle = 2.0F * std::numbers::pi_v<float> * static_cast<float>(i) / numBlades + 0.1F;
        const QVector2D out(std::cos(angle), std::sin(angle));
        const QVector2D across(-out.y(), out.x());
        blades.push_back({0.1F * out, 0.95F * out - halfWidth * across, 0.95F * out + halfWidth * across});
    }
    return blades;
}

std::unique_ptr<GPUModel> makeModel(const std::vector<Triangle>& triangles)
{
    MeshData mesh;
    for (const Triangle& triangle : triangles) {
        for (const QVector2D& corner : triangle) {
            mesh.indices.push_back(static_cast<unsigned int>(mesh.positions.size()));
            mesh.positions.emplace_back(corner, 0.0F);
            mesh.normals.emplace_back(0.0F, 0.0F, 1.0F);
            mesh.texCoords.emplace_back(0.0F, 0.0F);
        }
    }
    ModelData data;
    data.meshes = {mesh};
    data.materials.emplace_back();
    data.instances.emplace_back();
    return std::make_unique<GPUModel>(data);
}

bool isInside(const Triangle& triangle, const QVector2D& point)
{
    for (size_t k = 0; k < 3; ++k) {
        const QVector2D side = triangle[(k + 1) % 3] - triangle[k];
        const QVector2D there = point - triangle[k];
        if (side.x() * there.y() - side.y() * there.x() <= 0.0F) {
            return false;
        }
    }
    return true;
}

/// The part of each pixel that the triangles cover, from 16 x 16 samples.
std::vector<double> coverages(const std::vector<Triangle>& triangles)
{
    constexpr int numSamples = 16;
    constexpr int size = extent * numSamples;
    std::vector<double> result(extent * extent);
    for (int j = 0; j < size; ++j) {
        for (int i = 0; i < size; ++i) {
            const QVector2D point((static_cast<float>(i) + 0.5F) * 2.0F / size - 1.0F,
                                  (static_cast<float>(j) + 0.5F) * 2.0F / size - 1.0F);
            const bool covered = std::any_of(triangles.begin(), triangles.end(),
                                             [&](const Triangle& t) { return isInside(t, point); });
            const int pixel = j / numSamples * extent + i / numSamples;
            result[static_cast<size_t>(pixel)] += covered ? 1.0 / (numSamples * numSamples) : 0.0;
        }
    }
    return result;
}

class AntiAliasingTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        m_coverages = coverages(makeBlades());
        m_model = makeModel(makeBlades());
        m_forward = std::make_unique<ForwardRenderPass>();
        m_forward->setInput(ForwardRenderPass::Viewport, viewport);
        m_forward->setInput(ForwardRenderPass::Geometry, QVariant::fromValue(m_model.get()));
    }
    void TearDown() override
    {
        m_forward.reset();
        m_model.reset();
        m_scope.reset();
        GLTest::TearDown();
    }

    QVariant draw(const QVariant& projection)
    {
        const ResourceScope::Activation inside(&context(), scope());
        context().applyBaseState();
        m_forward->setInput(ForwardRenderPass::ProjectionMatrix, projection);
        m_forward->start(nullptr);
        return m_forward->output(ForwardRenderPass::Frame);
    }

    /// The mean error of a frame, relative to the colour of the blades.
    double error(const QVariant& frame) const
    {
        const Pixels pixels = readTexture(qobject_cast<Texture*>(frame.value<QObject*>()));
        double sum = 0.0;
        for (size_t i = 0; i < m_coverages.size(); ++i) {
            sum += std::abs(static_cast<double>(pixels.values[i].x()) / m_colour - m_coverages[i]);
        }
        return sum / static_cast<double>(m_coverages.size());
    }

    /// The error of what a pass makes of the frame without jitter.
    double filteredError(RenderPass& pass)
    {
        pass.setup(nullptr);
        const QVariant frame = draw(QMatrix4x4());
        context().applyBaseState();
        pass.setInput(0, viewport);
        pass.setInput(1, frame);
        pass.setNumOutputUsers(0, 1);
        pass.start(nullptr);
        const double result = error(pass.output(0));
        TextureManager::Instance()->releaseTempTextureRef(
            qobject_cast<Texture*>(pass.output(0).value<QObject*>()), 1);
        pass.teardown(nullptr);
        return result;
    }

    ResourceScope* scope()
    {
        if (!m_scope) {
            m_scope = std::make_unique<ResourceScope>(&context());
        }
        return m_scope.get();
    }

    const QRect viewport{0, 0, extent, extent};

private:
    std::vector<double> m_coverages;
    /// Lambert's law for the default material and the light at (1, 1, 1) of the forward pass.
    const double m_colour = 0.8 / std::sqrt(3.0);
    std::unique_ptr<GPUModel> m_model;
    /// Owns what the forward pass leaves behind.
    std::unique_ptr<ResourceScope> m_scope;
    std::unique_ptr<ForwardRenderPass> m_forward;
};

TEST_F(AntiAliasingTest, EveryMethodComesNearerToTheCoverageAndTheMeanOfJitteredFramesNearest)
{
    const double aliased = error(draw(QMatrix4x4()));
    FastApproximateAntiAliasingRenderPass fxaaPass;
    const double fxaa = filteredError(fxaaPass);
    SMAARenderPass smaaPass;
    const double smaa = filteredError(smaaPass);

    srand48(21);
    TemporalAAJitterPass jitter;
    jitter.setInput(TemporalAAJitterPass::Viewport, viewport);
    jitter.setInput(TemporalAAJitterPass::Dirty, false);
    double temporal = 0.0;
    {
        TemporalAARenderPass mean;
        mean.setInput(TemporalAARenderPass::Viewport, viewport);
        mean.setInput(TemporalAARenderPass::Dirty, false);
        // The restart's frame and the jittered ones.
        for (int frame = 1; frame <= 31; ++frame) {
            jitter.start(nullptr);
            mean.setInput(TemporalAARenderPass::Frame, draw(jitter.output(0)));
            mean.start(nullptr);
        }
        temporal = error(mean.output(0));
    }
    RecordProperty("errors", std::to_string(aliased) + " aliased, " + std::to_string(fxaa) + " FXAA, " +
                                 std::to_string(smaa) + " SMAA, " + std::to_string(temporal) + " temporal");
    EXPECT_LT(fxaa, 0.8 * aliased);
    EXPECT_LT(smaa, 0.6 * aliased);
    EXPECT_LT(temporal, 0.5 * std::min(fxaa, smaa));
}

} // namespace
} // namespace Morvane::Qel::Test
