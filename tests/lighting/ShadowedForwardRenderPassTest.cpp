// The pass draws shadows where a ray caster finds them.

#include <QtMath>

#include <algorithm>
#include <cmath>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Scene.h"
#include <Qel/RenderPasses/lighting/ShadowMapRenderPass.h>
#include <Qel/RenderPasses/lighting/ShadowedForwardRenderPass.h>

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

class ShadowedForwardRenderPassTest : public GLTest
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

TEST_F(ShadowedForwardRenderPassTest, FallWhereARayCasterFindsThem)
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

TEST_F(ShadowedForwardRenderPassTest, HighlightsOfAnOrthographicViewAreThoseOfParallelRays)
{
    MaterialData mirror;
    mirror.kd = {0.0F, 0.0F, 0.0F};
    mirror.ks = {0.6F, 0.6F, 0.6F};
    mirror.ns = 8.0F;
    QMatrix4x4 flat;
    flat.rotate(-90.0F, 1.0F, 0.0F, 0.0F);
    flat.scale(40.0F);
    Light light;
    light.direction = QVector3D(0.3F, -1.0F, 0.2F).normalized();
    const QVector3D towardsEye = QVector3D(1.0F, 2.0F, 3.0F);
    const View view = View::orthographic({24, 16}, 3.0F, 2.0F, 0.1F, 20.0F).from(towardsEye);
    // The same everywhere on a plane.
    const QVector3D halfway = (towardsEye.normalized() - light.direction).normalized();
    const double specular = std::pow(0.6, 2.2) * std::pow(static_cast<double>(halfway.y()), 8.0);
    const auto lit = static_cast<float>(std::pow(1.0 - std::exp(-specular), 1.0 / 2.2));
    EXPECT_TRUE(equal(draw(Scene(makeModelData(makeSquare(), mirror, flat)), view, light),
                      Pixels::filled(24, 16, {lit, lit, lit, 1.0F}), 2e-3F));
}

TEST_F(ShadowedForwardRenderPassTest, ReadsEveryLayerAndIgnoresLightsBeyondTheLimit)
{
    const View view = View::perspective({32, 24}, 50.0F, 1.0F, 30.0F).from({0.3F, 5.0F, 5.0F});
    GPUModel model(makeScene(true).data());
    Runner<ShadowedForwardRenderPass> lit;
    Light light;
    light.cascades = 2;
    // Everything is in shadow except in the first layer of the last light, which is near the camera.
    const auto render = [&](int numLights, int lastLight) {
        const QVariantList lights(numLights, QVariant::fromValue(&light));
        ShadowMapManager::RenderData data;
        ShadowMapManager::processLights(lights, data, &view.projection, &view.camera, nullptr);
        std::vector<float> moments(2 * static_cast<size_t>(data.numLayers()), 0.0F);
        std::fill_n(moments.begin() + 4 * lastLight, 2, 1.0F);
        Texture maps;
        maps.setTarget(GL_TEXTURE_2D_ARRAY);
        maps.setImage3D(GL_RG32F, 1, 1, data.numLayers(), GL_RG, GL_FLOAT, moments.data());
        data.setProjectionTexture(&maps);
        return lit.render(view.inputs({&model, QVariant::fromValue<QObject*>(&data), 0.0F}));
    };
    const Pixels one = render(1, 0);
    EXPECT_GT(one.mean().x(), 0.1F);
    constexpr int most = ShadowedForwardRenderPass::maxLights;
    EXPECT_TRUE(equal(render(most, most - 1), one));
    // The two lights more have no layers left, and without a map would shine unshadowed.
    EXPECT_TRUE(equal(render(most + 2, most - 1), one));
    EXPECT_EQ(messages().information.filter(u"130 lights; only the first 128 are used"_s).size(), 1);
}

} // namespace
} // namespace Morvane::Qel::Test
