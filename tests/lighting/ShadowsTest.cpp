// The example pass draws shadows where a ray caster finds them.

#include <QtMath>

#include <algorithm>
#include <cmath>

#include "ShadowedForwardRenderPass.h"
#include "support/GLTest.h"
#include "support/Paths.h"
#include "support/Scene.h"
#include <Qel/RenderPasses/lighting/ShadowMapRenderPass.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/RenderGraph.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Light = ShadowMapManager::Light;
using LightType = ShadowMapManager::LightType;

constexpr float floorSize = 4.0F;

/// A floor at height 0, a slab above it and a pillar on it, white and matt.
Scene makeScene()
{
    MaterialData white;
    white.kd = {1.0F, 1.0F, 1.0F};
    ModelData data;
    const auto addBox = [&](const QVector3D& low, const QVector3D& high) {
        QMatrix4x4 transform;
        transform.translate((low + high) / 2.0F);
        transform.scale(high - low);
        addObject(data, makeCube(), white, transform);
    };
    addBox({-floorSize, -0.2F, -floorSize}, {floorSize, 0.0F, floorSize});
    addBox({-1.2F, 0.8F, -0.6F}, {-0.2F, 1.0F, 0.4F});
    addBox({0.8F, 0.0F, -0.4F}, {1.3F, 1.4F, 0.1F});
    return Scene(data);
}

/// From a place towards the light.
QVector3D towards(const Light& light, const QVector3D& place)
{
    return light.type == LightType::Directional ? -10.0F * light.direction : light.position - place;
}

float smoothstep(float a, float b, float x)
{
    const float t = std::clamp((x - a) / (b - a), 0.0F, 1.0F);
    return t * t * (3.0F - 2.0F * t);
}

/// The colour of the floor where nothing hides the light.
float brightness(const Light& light, const QVector3D& place)
{
    const QVector3D ray = towards(light, place);
    float strength = light.color.x() * ray.normalized().y();
    if (light.type != LightType::Directional) {
        const float ratio = ray.lengthSquared() / (light.range * light.range);
        const float window = std::clamp(1.0F - ratio * ratio, 0.0F, 1.0F);
        strength *= window * window / ray.lengthSquared();
    }
    if (light.type == LightType::Spot) {
        const float edge = std::cos(qDegreesToRadians(light.angle) / 2.0F);
        const float cosine = -QVector3D::dotProduct(ray.normalized(), light.direction.normalized());
        strength *= smoothstep(edge, edge + 0.2F * (1.0F - edge), cosine);
    }
    return std::pow(1.0F - std::exp(-strength), 1.0F / 2.2F);
}

class ShadowsTest : public GLTest
{
protected:
    /// Draws the scene under a light and compares every floor pixel that is clear of penumbrae.
    static void expectShadowsOfGeometry(Light light)
    {
        // On the floor: the reach of the blur, the texels of the coarsest map, and the slant of the light.
        constexpr float penumbra = 0.16F;
        const Scene scene = makeScene();
        GPUModel model(scene.data());
        const QVector3D eye(0.3F, 5.0F, 5.0F);
        const View view = View::perspective({160, 120}, 50.0F, 1.0F, 30.0F).from(eye);
        Runner<ShadowMapRenderPass> shadows;
        shadows->setInstanceDataPlanName(u"InstanceInfo"_s);
        shadows.run({&model,
                     {},
                     QVariantList{QVariant::fromValue(&light)},
                     false,
                     view.projection,
                     view.camera,
                     model.bounds().first,
                     model.bounds().second});
        Runner<ShadowedForwardRenderPass> lit;
        const Pixels image = lit.render(view.inputs({&model, shadows->output(0), 0.0F}));

        const auto isHidden = [&](const QVector3D& place) {
            const QVector3D above = place + QVector3D(0.0F, 1e-4F, 0.0F);
            return scene.isBlocked(above, above + towards(light, above));
        };
        int numLit = 0;
        int numHidden = 0;
        for (int y = 0; y < view.size.height(); ++y) {
            for (int x = 0; x < view.size.width(); ++x) {
                const std::optional<Hit> hit = scene.at(view, x, y);
                if (!hit || hit->object != 0 || hit->normal.y() < 0.5F ||
                    std::max(std::abs(hit->position.x()), std::abs(hit->position.z())) >
                        floorSize - penumbra) {
                    continue;
                }
                const bool hidden = isHidden(hit->position);
                bool isClear = !scene.isEdge(view, x, y);
                for (int i = 0; isClear && i < 16; ++i) {
                    const float angle = static_cast<float>(i) * static_cast<float>(M_PI) / 8.0F;
                    isClear = isHidden(hit->position + penumbra * QVector3D(std::cos(angle), 0.0F,
                                                                            std::sin(angle))) == hidden;
                }
                if (isClear) {
                    ++(hidden ? numHidden : numLit);
                    const float expected = hidden ? 0.0F : brightness(light, hit->position);
                    // Eight bits, and the lower bound on the variance.
                    ASSERT_NEAR(image.at(x, y).x(), expected, 2.0F / 255.0F)
                        << (hidden ? "hidden" : "lit") << " at " << x << ", " << y;
                }
            }
        }
        EXPECT_GT(numLit, 2500);
        EXPECT_GT(numHidden, 100);
    }
};

TEST_F(ShadowsTest, FallWhereARayCasterFindsThem)
{
    Light light;
    light.direction = QVector3D(0.6F, -1.0F, 0.35F).normalized();
    light.color = {1.0F, 1.0F, 1.0F};
    for (const int cascades : {1, 3, 4}) {
        light.cascades = cascades;
        expectShadowsOfGeometry(light);
    }

    light = {};
    light.type = LightType::Spot;
    light.position = {-2.0F, 3.5F, -1.5F};
    light.direction = {0.6F, -1.0F, 0.45F};
    light.angle = 75.0F;
    light.range = 15.0F;
    light.color = {12.0F, 12.0F, 12.0F};
    expectShadowsOfGeometry(light);

    light = {};
    light.type = LightType::Point;
    light.position = {0.2F, 2.0F, -0.2F};
    light.range = 12.0F;
    light.color = {4.0F, 4.0F, 4.0F};
    expectShadowsOfGeometry(light);
}

TEST_F(ShadowsTest, TheExampleGraphDrawsTheSameImageInEveryFrameWithAllItsLights)
{
    QStringList faults;
    std::optional<GraphDescription> description =
        loadGraph(sourcePath(u"examples/shadows/shadows.json"_s), &faults);
    ASSERT_TRUE(description) << qPrintable(faults.join(u'\n'));
    description->viewport = {64, 36};
    PassRegistry registry = PassRegistry::builtin();
    registry.add<ShadowedForwardRenderPass>();
    std::unique_ptr<RenderGraph> graph = RenderGraph::create(*description, registry, {}, &faults);
    ASSERT_TRUE(graph) << qPrintable(faults.join(u'\n'));
    QString error;
    ASSERT_TRUE(graph->renderFrame(&error)) << qPrintable(error);
    const Pixels first = readTexture(graph->picture());
    ASSERT_TRUE(graph->renderFrame(&error)) << qPrintable(error);
    EXPECT_TRUE(equal(readTexture(graph->picture()), first));

    // Without any one of the lights the image differs.
    const std::vector<LightDescription> lights = description->lights;
    ASSERT_EQ(lights.size(), 3U);
    for (size_t i = 0; i < lights.size(); ++i) {
        description->lights = lights;
        description->lights[i].intensity = 0.0F;
        graph = RenderGraph::create(*description, registry, {}, &faults);
        ASSERT_TRUE(graph && graph->renderFrame(&error)) << qPrintable(error);
        EXPECT_FALSE(equal(readTexture(graph->picture()), first, 0.2F)) << lights[i].type.toStdString();
    }
}

} // namespace
} // namespace Morvane::Qel::Test
