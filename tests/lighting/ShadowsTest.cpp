// Shadows as the example pass draws them fall where geometry says.

#include <QMatrix4x4>
#include <QRect>
#include <QtMath>

#include <algorithm>
#include <array>
#include <cmath>

#include "ShadowedForwardRenderPass.h"
#include "support/GLTest.h"
#include "support/Models.h"
#include "support/Passes.h"
#include "support/Paths.h"
#include <Qel/RenderPasses/lighting/ShadowMapRenderPass.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/RenderGraph.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Light = ShadowMapManager::Light;
using LightType = ShadowMapManager::LightType;

struct Box
{
    QVector3D low;
    QVector3D high;
};

/// A slab above the floor, and a pillar on it.
const std::array boxes{Box{{-1.2F, 0.8F, -0.6F}, {-0.2F, 1.0F, 0.4F}},
                       Box{{0.8F, 0.0F, -0.4F}, {1.3F, 1.4F, 0.1F}}};
constexpr float floorSize = 4.0F;

/// Whether a ray meets a box at a distance up to `reach` times the length of `direction`.
bool meets(const Box& box, const QVector3D& origin, const QVector3D& direction, float reach)
{
    float begin = 1e-4F;
    float end = reach;
    for (int axis = 0; axis < 3; ++axis) {
        const float a = (box.low[axis] - origin[axis]) / direction[axis];
        const float b = (box.high[axis] - origin[axis]) / direction[axis];
        begin = std::max(begin, std::min(a, b));
        end = std::min(end, std::max(a, b));
    }
    return begin <= end;
}

bool meetsAny(const QVector3D& origin, const QVector3D& direction, float reach)
{
    return std::any_of(boxes.begin(), boxes.end(),
                       [&](const Box& box) { return meets(box, origin, direction, reach); });
}

bool standsOn(const QVector3D& place)
{
    const Box& pillar = boxes[1];
    return place.x() > pillar.low.x() && place.x() < pillar.high.x() && place.z() > pillar.low.z() &&
           place.z() < pillar.high.z();
}

/// From a place towards the light.
QVector3D towards(const Light& light, const QVector3D& place)
{
    return light.type == LightType::Directional ? -10.0F * light.direction : light.position - place;
}

/// Whether geometry hides the light.
bool isHidden(const Light& light, const QVector3D& place)
{
    return standsOn(place) || meetsAny(place, towards(light, place), 1.0F);
}

float smoothstep(float a, float b, float x)
{
    const float t = std::clamp((x - a) / (b - a), 0.0F, 1.0F);
    return t * t * (3.0F - 2.0F * t);
}

/// What the floor, white and matt, shows where nothing hides the light.
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

ModelData makeScene()
{
    ModelData data;
    data.materials.emplace_back().kd = {1.0F, 1.0F, 1.0F};
    data.meshes = {makeCube()};
    data.instances.resize(3);
    for (size_t i = 0; i < boxes.size(); ++i) {
        data.instances[i].transform.translate((boxes[i].low + boxes[i].high) / 2.0F);
        data.instances[i].transform.scale(boxes[i].high - boxes[i].low);
    }
    data.instances[2].transform.translate(0.0F, -0.1F, 0.0F);
    data.instances[2].transform.scale(2.0F * floorSize, 0.2F, 2.0F * floorSize);
    return data;
}

class ShadowsTest : public GLTest
{
protected:
    static constexpr int width = 320;
    static constexpr int height = 240;
    /// On the floor: what the blur reaches, the texels of the coarsest map, and the light's slant.
    static constexpr float penumbra = 0.16F;

    /// Draws the scene under one light and compares every pixel of the floor that is clear of penumbrae.
    void expectShadowsOfGeometry(const Light& light)
    {
        GPUModel model(makeScene());
        QMatrix4x4 projection;
        projection.perspective(50.0F, static_cast<float>(width) / height, 1.0F, 30.0F);
        const QVector3D eye(0.3F, 5.0F, 5.0F);
        QMatrix4x4 camera;
        camera.lookAt(eye, {0.0F, 0.0F, 0.0F}, {0.0F, 1.0F, 0.0F});

        Light given = light;
        ShadowMapRenderPass shadows;
        shadows.setInstanceDataPlanName(u"InstanceInfo"_s);
        runFrame(shadows, {QVariant::fromValue(&model),
                           {},
                           QVariantList{QVariant::fromValue(&given)},
                           false,
                           projection,
                           camera,
                           model.bounds().first,
                           model.bounds().second});
        ShadowedForwardRenderPass lit;
        const Pixels picture = render(lit, {QRect(0, 0, width, height), projection, camera,
                                            QVariant::fromValue(&model), shadows.output(0), 0.0F});

        const QMatrix4x4 toWorld = (projection * camera).inverted();
        int numLit = 0;
        int numHidden = 0;
        int numAtFoot = 0;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const QVector3D ndc((static_cast<float>(x) + 0.5F) * 2.0F / width - 1.0F,
                                    (static_cast<float>(y) + 0.5F) * 2.0F / height - 1.0F, 1.0F);
                const QVector3D ray = toWorld.map(ndc) - eye;
                const QVector3D place = eye - ray * (eye.y() / ray.y());
                if (ray.y() >= 0.0F ||
                    std::max(std::abs(place.x()), std::abs(place.z())) > floorSize - penumbra ||
                    meetsAny(eye, place - eye, 1.05F)) {
                    continue;
                }
                const bool hidden = isHidden(light, place);
                bool isClear = true;
                bool isAtFoot = false;
                for (int i = 0; i < 16; ++i) {
                    const float angle = static_cast<float>(i) * static_cast<float>(M_PI) / 8.0F;
                    const QVector3D around =
                        place + penumbra * QVector3D(std::cos(angle), 0.0F, std::sin(angle));
                    isClear = isClear && isHidden(light, around) == hidden;
                    isAtFoot = isAtFoot || standsOn(around);
                }
                if (!isClear) {
                    continue;
                }
                numHidden += hidden ? 1 : 0;
                numLit += hidden ? 0 : 1;
                numAtFoot += hidden && isAtFoot ? 1 : 0;
                const float expected = hidden ? 0.0F : brightness(light, place);
                // Eight bits, and the little that the bound on the variance takes.
                ASSERT_NEAR(picture.at(x, y).x(), expected, 2.0F / 255.0F)
                    << (hidden ? "hidden" : "lit") << " at " << place.x() << ", " << place.z();
            }
        }
        EXPECT_GT(numLit, 10000);
        EXPECT_GT(numHidden, 500);
        EXPECT_GT(numAtFoot, 50) << "no shadow begins at the pillar";
    }
};

TEST_F(ShadowsTest, OfADirectionalLight)
{
    Light light;
    light.direction = QVector3D(0.6F, -1.0F, 0.35F).normalized();
    light.color = {1.0F, 1.0F, 1.0F};
    for (const int cascades : {1, 3, 4}) {
        light.cascades = cascades;
        expectShadowsOfGeometry(light);
    }
}

TEST_F(ShadowsTest, OfASpotLight)
{
    Light light;
    light.type = LightType::Spot;
    light.position = {-2.0F, 3.5F, -1.5F};
    light.direction = {0.6F, -1.0F, 0.45F};
    light.angle = 75.0F;
    light.range = 15.0F;
    light.color = {12.0F, 12.0F, 12.0F};
    expectShadowsOfGeometry(light);
}

TEST_F(ShadowsTest, OfAPointLight)
{
    Light light;
    light.type = LightType::Point;
    light.position = {0.2F, 2.0F, -0.2F};
    light.range = 12.0F;
    light.color = {4.0F, 4.0F, 4.0F};
    expectShadowsOfGeometry(light);
}

TEST_F(ShadowsTest, TheExampleGraphDrawsTheSameShadowsInEveryFrame)
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

    // Each light lights something.
    const std::vector<LightDescription> lights = description->lights;
    ASSERT_EQ(lights.size(), 3U);
    for (size_t i = 0; i < lights.size(); ++i) {
        description->lights = lights;
        description->lights[i].intensity = 0.0F;
        graph = RenderGraph::create(*description, registry, {}, &faults);
        ASSERT_TRUE(graph && graph->renderFrame(&error)) << qPrintable(error);
        EXPECT_FALSE(equal(readTexture(graph->picture()), first, 0.2F)) << lights[i].type.toStdString();
    }
    graph.reset();
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
}

} // namespace
} // namespace Morvane::Qel::Test
