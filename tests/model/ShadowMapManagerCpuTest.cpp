// What the projectors of shadow maps cover, and when they change.

#include <QtMath>

#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "support/Scene.h"
#include <Qel/model/ShadowMapManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Light = ShadowMapManager::Light;
using LightType = ShadowMapManager::LightType;
using RenderData = ShadowMapManager::RenderData;
using Bounds = QPair<QVector3D, QVector3D>;

constexpr const Bounds* noBounds = nullptr;
const Bounds hall({-4.0F, -0.5F, -8.0F}, {5.0F, 6.0F, 9.0F});
const QVector3D slanted(0.3F, -1.0F, -0.2F);
const View wide =
    View::perspective({16, 9}, 60.0F, 0.1F, 40.0F).from({1.0F, 1.7F, 7.0F}, {-0.5F, 1.5F, -8.0F});

QVariantList listOf(std::vector<Light>& lights)
{
    QVariantList list;
    for (Light& light : lights) {
        list.append(QVariant::fromValue(&light));
    }
    return list;
}

bool process(std::vector<Light>& lights, RenderData& data, const View& view, const Bounds* bounds)
{
    return ShadowMapManager::processLights(listOf(lights), data, &view.projection, &view.camera, bounds);
}

/// A directional light.
Light sun(const QVector3D& direction, int cascades)
{
    return {LightType::Directional, {}, direction, {1, 1, 1}, 45.0F, 0.0F, cascades};
}

/// Whether a point projects into the map, at least this many texels from its edge, and between the depth
/// planes.
bool isOnMap(const QMatrix4x4& transform, const QVector3D& point, float texels = 0.0F)
{
    const QVector3D p = transform.map(point);
    const float edge = 1.0F - 2.0F * texels / ShadowMapManager::mapSize;
    return std::abs(p.x()) <= edge && std::abs(p.y()) <= edge && p.z() >= 0.0F && p.z() <= 1.0F &&
           (transform * QVector4D(point, 1.0F)).w() > 0.0F;
}

TEST(ShadowMapManager, DirectionalLightsCoverTheSceneAndTheView)
{
    // Without a view there is one projector, which covers the scene.
    std::vector<Light> lights{sun({-5, -2, 7}, 4)};
    RenderData data;
    ShadowMapManager::processLights(listOf(lights), data, nullptr, nullptr, &hall);
    ASSERT_EQ(data.numLayers(), 1);
    std::mt19937 random(5);
    std::uniform_real_distribution<float> x(hall.first.x(), hall.second.x());
    std::uniform_real_distribution<float> y(hall.first.y(), hall.second.y());
    std::uniform_real_distribution<float> z(hall.first.z(), hall.second.z());
    float reach = 0.0F;
    for (int i = 0; i < 20000; ++i) {
        const QVector3D point(x(random), y(random), z(random));
        EXPECT_TRUE(isOnMap(data.transform(0), point, ShadowMapManager::projectorMargin - 0.01F));
        reach = std::max(reach, std::abs(data.transform(0).map(point).x()));
    }
    EXPECT_GT(reach, 0.9F) << "texels are wasted";
    // Along the light, only the depth changes.
    const QVector3D step =
        data.transform(0).map(lights[0].direction.normalized()) - data.transform(0).map(QVector3D());
    EXPECT_GT(step.z(), 0.0F);
    EXPECT_LT(step.toVector2D().length(), 1e-5F);

    // With a narrow field of view, the corners of a slice extend furthest beyond the next slice.
    View narrow = wide;
    narrow.projection = View::perspective({1, 1}, 20.0F, 0.1F, 40.0F).projection;
    lights = {sun(slanted, 4)};
    for (const auto& [view, bounds] :
         {std::pair{narrow, &hall}, {narrow, noBounds}, {wide, noBounds}, {wide, &hall}}) {
        const QMatrix4x4 toClip = view.projection * view.camera;
        process(lights, data, view, bounds);
        ASSERT_EQ(data.numLayers(), 4);
        for (int i = 0; i < 20000; ++i) {
            const QVector3D point(x(random), y(random), z(random));
            const float viewDepth = (toClip * QVector4D(point, 1.0F)).w();
            if (viewDepth < 0.1F || !isOnMap(toClip, point)) {
                continue;
            }
            int layer = 0;
            while (viewDepth > data.cascadeEnd(layer)) {
                ++layer;
            }
            EXPECT_TRUE(isOnMap(data.transform(layer), point, 7.0F)) << "cascade " << layer;
            if (layer < 3 && viewDepth > ShadowMapManager::cascadeFadeBegin * data.cascadeEnd(layer)) {
                EXPECT_TRUE(isOnMap(data.transform(layer + 1), point, 7.0F)) << "beyond cascade " << layer;
            }
        }
    }
    // The nearer a cascade, the finer its texels.
    const auto texelsPerUnit = [&](int layer) { return data.transform(layer).row(0).toVector3D().length(); };
    EXPECT_GT(texelsPerUnit(0), 2.0F * texelsPerUnit(1));
    // Casters outside the view are on the map too.
    const QVector3D floor(1.0F, 0.0F, 5.0F);
    for (int layer = 0; layer < 4; ++layer) {
        const float roofDepth = data.transform(layer).map(floor - 5.0F * slanted).z();
        EXPECT_GT(roofDepth, 0.0F);
        EXPECT_LT(roofDepth, data.transform(layer).map(floor).z());
    }
}

TEST(ShadowMapManager, MapsDoNotShimmerWhileTheCameraMovesAndTurns)
{
    std::mt19937 random(9);
    std::uniform_real_distribution<float> step(-0.004F, 0.004F);
    for (const Bounds* bounds : {&hall, noBounds}) {
        QVector3D eye(1.0F, 1.7F, 6.0F);
        QVector3D target(-0.5F, 1.5F, -8.0F);
        std::vector<Light> lights{sun(slanted, 4)};
        RenderData first;
        process(lights, first, wide.from(eye, target), bounds);
        RenderData data;
        int numMoved = 0;
        for (int frame = 0; frame < 300; ++frame) {
            const QVector3D move(step(random), step(random), step(random));
            eye += move;
            target += 3.0F * move;
            process(lights, data, wide.from(eye, target), bounds);
            for (int layer = 0; layer < 4; ++layer) {
                // Scale and direction stay equal to the bit; the offset changes by whole texels.
                const QMatrix4x4 change = data.transform(layer) - first.transform(layer);
                for (int row = 0; row < 4; ++row) {
                    EXPECT_EQ(change.row(row).toVector3D(), QVector3D());
                }
                const QVector4D texels = change.column(3) * (ShadowMapManager::mapSize / 2.0F);
                EXPECT_NEAR(texels.x(), std::round(texels.x()), 0.01F);
                EXPECT_NEAR(texels.y(), std::round(texels.y()), 0.01F);
                EXPECT_TRUE(texels.z() == 0.0F || !bounds);
                numMoved += texels.isNull() ? 0 : 1;
            }
        }
        EXPECT_GT(numMoved, 20);
    }
}

TEST(ShadowMapManager, ASpotLightCoversItsConeAndAPointLightEveryDirection)
{
    std::mt19937 random(3);
    std::normal_distribution<float> normal;
    std::vector<Light> lights{{LightType::Spot, {1, 5, 2}, {0.5F, -2, -1}, {1, 1, 1}, 70.0F},
                              {LightType::Point, {-1, 2, 0}, {}, {1, 1, 1}, 45.0F, 6.0F}};
    const Light& spot = lights[0];
    const Light& point = lights[1];
    RenderData data;
    process(lights, data, wide, &hall);
    ASSERT_EQ(data.numLayers(), 7);
    // The farthest corner is (-4, -0.5, -8).
    EXPECT_NEAR(data.lights()[0].source.range, std::sqrt(25.0F + 30.25F + 100.0F), 1e-4F);

    const QVector3D axis = spot.direction.normalized();
    for (int i = 0; i < 3000; ++i) {
        const QVector3D direction = QVector3D(normal(random), normal(random), normal(random)).normalized();
        const float cosine = QVector3D::dotProduct(direction, axis);
        if (cosine > std::cos(qDegreesToRadians(35.0F))) {
            EXPECT_TRUE(isOnMap(data.transform(0), spot.position + 2.0F * direction, 7.9F));
        } else if (cosine < std::cos(qDegreesToRadians(50.0F))) {
            EXPECT_FALSE(isOnMap(data.transform(0), spot.position + 2.0F * direction));
        }

        // The largest component selects the face of the cube; depth grows with the distance.
        int face = 0;
        for (int a = 1; a < 3; ++a) {
            face = std::abs(direction[a]) > std::abs(direction[face]) ? a : face;
        }
        const QMatrix4x4& transform = data.transform(1 + 2 * face + (direction[face] < 0.0F ? 1 : 0));
        EXPECT_TRUE(isOnMap(transform, point.position + 0.4F * direction, 7.9F));
        EXPECT_TRUE(isOnMap(transform, point.position + 5.9F * direction, 7.9F));
        EXPECT_LT(transform.map(point.position + 5.0F * direction).z(),
                  transform.map(point.position + 5.1F * direction).z());
    }
}

TEST(ShadowMapManager, ReportsWhetherAnythingChanged)
{
    View view = wide;
    const std::vector<Light> initial{sun({0, -1, 0.5F}, 3), {LightType::Spot, {}}, {LightType::Point, {}}};
    std::vector<Light> lights;
    RenderData data;
    const auto isChanged = [&] { return process(lights, data, view, &hall); };
    const std::vector<std::function<void()>> changes{
        [&] { lights[0].direction.setX(1e-6F); },
        [&] { lights[0].cascades = 2; },
        [&] { lights[1].angle = 46.0F; },
        [&] { lights[2].color.setX(0.5F); },
        [&] { lights.pop_back(); },
        [&] { lights.push_back(lights[1]); },
        [&] { lights.clear(); },
        [&] { view.camera.translate(0.5F, 0.0F, 0.0F); },
    };
    for (size_t i = 0; i < changes.size(); ++i) {
        lights = initial;
        isChanged();
        changes[i]();
        EXPECT_TRUE(isChanged()) << "change " << i;
        EXPECT_FALSE(isChanged()) << "change " << i;
    }
}

TEST(ShadowMapManager, UnusableInputsGiveUsableProjectors)
{
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    constexpr float largest = std::numeric_limits<float>::max();
    std::vector<Light> lights{sun({}, -7),
                              {LightType::Spot, {}, {}, {}, 400.0F},
                              {.type = LightType::Point, .position = {}, .range = -3.0F},
                              sun({1e-30F, 0.0F, 0.0F}, 4)};
    View singular = wide;
    singular.projection.fill(0.0F);
    const std::array<Bounds, 6> allBounds{hall,
                                          Bounds{hall.second, hall.first},
                                          Bounds{{2, 2, 2}, {2, 2, 2}},
                                          Bounds{{nan, 0, 0}, {1, 1, 1}},
                                          Bounds{{100, 0, 100}, {101, 0, 101}},
                                          Bounds{{largest, largest, largest}, {-largest, 0, 0}}};
    for (const QVector3D& position : {QVector3D(2, 2, 2), QVector3D(0, 50, 0)}) {
        lights[1].position = lights[2].position = position;
        for (const Bounds& bounds : allBounds) {
            for (const View& view : {wide, singular}) {
                RenderData data;
                process(lights, data, view, &bounds);
                ASSERT_EQ(data.numLayers(), view.projection == wide.projection ? 12 : 9);
                for (int layer = 0; layer < data.numLayers(); ++layer) {
                    // NaN fails the comparison too.
                    EXPECT_GE(std::abs(data.transform(layer).determinant()), 1e-30);
                }
                EXPECT_FALSE(process(lights, data, view, &bounds));
            }
        }
    }
    RenderData data;
    // So far out that the depths of a slice are one float.
    const View remote = View::perspective({16, 9}, 60.0F, 0.1F, 0.5F).from({1e8F, 1e8F, 1e8F}, {0, 0, 0});
    process(lights, data, remote, nullptr);
    for (int layer = 0; layer < data.numLayers(); ++layer) {
        EXPECT_TRUE(std::isfinite(data.transform(layer).determinant())) << layer;
    }
    process(lights, data, wide, nullptr);
    EXPECT_EQ(data.lights()[0].source.direction, QVector3D(0, -1, 0));
    EXPECT_EQ(data.lights()[1].source.angle, 170.0F);
    EXPECT_EQ(data.lights()[3].source.direction, QVector3D(1, 0, 0));

    // A light that exceeds the layer limit gets no projector; a later one with fewer may still fit.
    std::vector<Light> many(43, lights[2]);
    many.push_back(lights[0]);
    process(many, data, wide, nullptr);
    EXPECT_EQ(data.lights()[41].numProjectors, 6);
    EXPECT_EQ(data.lights()[42].numProjectors, 0);
    EXPECT_EQ(data.lights()[43].numProjectors, 1);

    // Entries that are no usable light are skipped.
    lights[1].position.setY(nan);
    QVariantList list{QVariant(), u"sun"_s, QVariant::fromValue<Light*>(nullptr)};
    list += listOf(lights);
    EXPECT_TRUE(ShadowMapManager::processLights(list, data, nullptr, nullptr, nullptr));
    EXPECT_EQ(data.lights().size(), 3U);
    EXPECT_TRUE(ShadowMapManager::processLights(u"sun"_s, data, nullptr, nullptr, nullptr));
    EXPECT_EQ(data.numLayers(), 0);
}

} // namespace
} // namespace Morvane::Qel::Test
