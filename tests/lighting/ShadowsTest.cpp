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

/// A white, matt floor at height 0, with or without a slab above it and a pillar on it.
Scene makeScene(bool hasCasters)
{
    ModelData data;
    const auto addBox = [&](const QVector3D& low, const QVector3D& high) {
        QMatrix4x4 transform;
        transform.translate((low + high) / 2.0F);
        transform.scale(high - low);
        addObject(data, makeCube(), {{}, {1.0F, 1.0F, 1.0F}}, transform);
    };
    addBox({-floorSize, -0.2F, -floorSize}, {floorSize, 0.0F, floorSize});
    if (hasCasters) {
        addBox({-1.2F, 0.8F, -0.6F}, {-0.2F, 1.0F, 0.4F});
        addBox({0.8F, 0.0F, -0.4F}, {1.3F, 1.4F, 0.1F});
    }
    return Scene(data);
}

class ShadowsTest : public GLTest
{
protected:
    /// Draws a scene under a light, with the shadows' projectors fitted to the box around the floor.
    static Pixels draw(const Scene& scene, const View& view, Light light)
    {
        GPUModel model(scene.data());
        Runner<ShadowMapRenderPass> shadows;
        shadows->setInstanceDataPlanName(u"InstanceInfo"_s);
        shadows.run({&model,
                     {},
                     QVariantList{QVariant::fromValue(&light)},
                     false,
                     view.projection,
                     view.camera,
                     QVector3D(-floorSize, -0.2F, -floorSize),
                     QVector3D(floorSize, 1.4F, floorSize)});
        Runner<ShadowedForwardRenderPass> lit;
        return lit.render(view.inputs({&model, shadows->output(0), 0.0F}));
    }

    /// Compares every floor pixel that is clear of penumbrae: it is black where a box hides the light, and
    /// elsewhere as bright as without the boxes.
    static void expectShadowsOfGeometry(const Light& light)
    {
        // On the floor: the reach of the blur, the texels of the coarsest map, and the slant of the light.
        constexpr float penumbra = 0.16F;
        const Scene scene = makeScene(true);
        const View view = View::perspective({160, 120}, 50.0F, 1.0F, 30.0F).from({0.3F, 5.0F, 5.0F});
        const Pixels bare = draw(makeScene(false), view, light);
        const auto isHidden = [&](const QVector3D& place) {
            const QVector3D above = place + QVector3D(0.0F, 1e-4F, 0.0F);
            return scene.isBlocked(above, light.type == LightType::Directional
                                              ? above - 10.0F * light.direction
                                              : light.position);
        };
        int numLit = 0;
        int numHidden = 0;
        const Pixels expected = Pixels::generate(view.size.width(), view.size.height(), [&](int x, int y) {
            const std::optional<Hit> hit = scene.at(view, x, y);
            if (!hit || hit->object != 0 || hit->normal.y() < 0.5F || scene.isEdge(view, x, y) ||
                std::max(std::abs(hit->position.x()), std::abs(hit->position.z())) > floorSize - penumbra) {
                return anyPixel;
            }
            const bool hidden = isHidden(hit->position);
            for (int i = 0; i < 16; ++i) {
                const float angle = static_cast<float>(i) * static_cast<float>(M_PI) / 8.0F;
                const QVector3D around(std::cos(angle), 0.0F, std::sin(angle));
                if (isHidden(hit->position + penumbra * around) != hidden) {
                    return anyPixel;
                }
            }
            ++(hidden ? numHidden : numLit);
            return hidden ? QVector4D(0.0F, 0.0F, 0.0F, 1.0F) : bare.at(x, y);
        });
        // Eight bits, and the lower bound on the variance.
        EXPECT_TRUE(equal(draw(scene, view, light), expected, 2.0F / 255.0F));
        EXPECT_GT(bare.mean().x(), 0.2F);
        EXPECT_GT(numLit, 2500);
        EXPECT_GT(numHidden, 100);
    }
};

TEST_F(ShadowsTest, FallWhereARayCasterFindsThem)
{
    Light light;
    light.direction = QVector3D(0.6F, -1.0F, 0.35F).normalized();
    for (const int cascades : {1, 4}) {
        light.cascades = cascades;
        expectShadowsOfGeometry(light);
    }

    expectShadowsOfGeometry({.type = LightType::Spot,
                             .position = {-2.0F, 3.5F, -1.5F},
                             .direction = {0.6F, -1.0F, 0.45F},
                             .color = {12.0F, 12.0F, 12.0F},
                             .angle = 75.0F,
                             .range = 15.0F});
    expectShadowsOfGeometry({.type = LightType::Point,
                             .position = {0.2F, 2.0F, -0.2F},
                             .color = {4.0F, 4.0F, 4.0F},
                             .range = 12.0F});
}

TEST_F(ShadowsTest, TheExampleGraphDrawsAllItsLights)
{
    QStringList errors;
    std::optional<GraphDescription> description =
        loadGraph(sourcePath(u"examples/shadows/shadows.json"_s), &errors);
    ASSERT_TRUE(description) << qPrintable(errors.join(u'\n'));
    description->viewport = {64, 36};
    PassRegistry registry = PassRegistry::builtin();
    registry.add<ShadowedForwardRenderPass>();
    std::unique_ptr<RenderGraph> graph = RenderGraph::create(*description, registry, {}, &errors);
    ASSERT_TRUE(graph) << qPrintable(errors.join(u'\n'));
    QString error;
    ASSERT_TRUE(graph->renderFrame(&error)) << qPrintable(error);
    const Pixels first = readTexture(graph->image());
    // Without any one of the lights the image differs.
    const std::vector<LightDescription> lights = description->lights;
    ASSERT_EQ(lights.size(), 3U);
    for (size_t i = 0; i < lights.size(); ++i) {
        description->lights = lights;
        description->lights[i].intensity = 0.0F;
        graph = RenderGraph::create(*description, registry, {}, &errors);
        ASSERT_TRUE(graph && graph->renderFrame(&error)) << qPrintable(error);
        EXPECT_FALSE(equal(readTexture(graph->image()), first, 0.2F)) << lights[i].type.toStdString();
    }
}

} // namespace
} // namespace Morvane::Qel::Test
