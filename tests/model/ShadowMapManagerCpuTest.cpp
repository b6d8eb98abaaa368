#include <QtMath>

#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include <Qel/model/ShadowMapManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Light = ShadowMapManager::Light;
using LightType = ShadowMapManager::LightType;
using Bounds = QPair<QVector3D, QVector3D>;

constexpr float infinity = std::numeric_limits<float>::infinity();
const Bounds hall({-4.0F, -0.5F, -8.0F}, {5.0F, 6.0F, 9.0F});

const QVector3D slanted(0.3F, -1.0F, -0.2F);

QVariantList listOf(std::vector<Light>& lights)
{
    QVariantList list;
    for (Light& light : lights) {
        list.append(QVariant::fromValue(&light));
    }
    return list;
}

bool process(std::vector<Light>& lights, ShadowMapManager::RenderData& data,
             const QMatrix4x4* projection = nullptr, const QMatrix4x4* camera = nullptr,
             const Bounds* bounds = nullptr)
{
    return ShadowMapManager::processLights(listOf(lights), data, projection, camera, bounds);
}

Light directional(const QVector3D& direction, int cascades = 1)
{
    Light light;
    light.direction = direction;
    light.cascades = cascades;
    return light;
}

QMatrix4x4 perspective(float angle, float aspect)
{
    QMatrix4x4 matrix;
    matrix.perspective(angle, aspect, 0.1F, 40.0F);
    return matrix;
}

QMatrix4x4 cameraAt(const QVector3D& eye, const QVector3D& target)
{
    QMatrix4x4 matrix;
    matrix.lookAt(eye, target, {0.0F, 1.0F, 0.0F});
    return matrix;
}

std::vector<QVector3D> cornersOf(const Bounds& bounds)
{
    std::vector<QVector3D> corners;
    for (unsigned int i = 0; i < 8; ++i) {
        QVector3D& corner = corners.emplace_back();
        for (int axis = 0; axis < 3; ++axis) {
            corner[axis] = (i >> axis & 1U) != 0 ? bounds.second[axis] : bounds.first[axis];
        }
    }
    return corners;
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

QVector3D randomIn(const Bounds& bounds, std::mt19937& random)
{
    std::uniform_real_distribution<float> share(0.0F, 1.0F);
    QVector3D point;
    for (int axis = 0; axis < 3; ++axis) {
        point[axis] = bounds.first[axis] + (bounds.second[axis] - bounds.first[axis]) * share(random);
    }
    return point;
}

TEST(ShadowMapManager, ADirectionalLightCoversTheScene)
{
    for (const QVector3D& direction :
         {QVector3D(0, -1, 0), QVector3D(0, 3, 0), QVector3D(1, 0, 0), QVector3D(-5, -2, 7)}) {
        std::vector<Light> lights{directional(direction)};
        ShadowMapManager::RenderData data;
        ASSERT_TRUE(process(lights, data, nullptr, nullptr, &hall));
        ASSERT_EQ(data.numLayers(), 1);
        float reach = 0.0F;
        for (const QVector3D& corner : cornersOf(hall)) {
            EXPECT_TRUE(isOnMap(data.transform(0), corner, ShadowMapManager::projectorMargin - 0.01F));
            reach = std::max(reach, std::abs(data.transform(0).map(corner).x()));
        }
        EXPECT_GT(reach, 0.95F) << "texels are wasted";
        // Along the light, only the depth changes.
        const QVector3D step =
            data.transform(0).map(direction.normalized()) - data.transform(0).map(QVector3D());
        EXPECT_GT(step.z(), 0.0F);
        EXPECT_LT(step.toVector2D().length(), 1e-5F);
        EXPECT_EQ(data.cascadeEnd(0), infinity);
    }
}

TEST(ShadowMapManager, CascadesCoverTheView)
{
    std::mt19937 random(5);
    // With a narrow field of view, the corners of a slice extend furthest beyond the next slice.
    const QMatrix4x4 wide = perspective(60.0F, 16.0F / 9.0F);
    const QMatrix4x4 narrow = perspective(20.0F, 1.0F);
    const QMatrix4x4 camera = cameraAt({1.0F, 1.7F, 7.0F}, {-0.5F, 1.5F, -8.0F});
    constexpr const Bounds* noBounds = nullptr;
    for (const auto& [project, bounds] : {std::pair{wide, &hall}, std::pair{wide, noBounds},
                                          std::pair{narrow, &hall}, std::pair{narrow, noBounds}}) {
        const QMatrix4x4 toClip = project * camera;
        std::vector<Light> lights{directional(slanted, 4)};
        ShadowMapManager::RenderData data;
        process(lights, data, &project, &camera, bounds);
        ASSERT_EQ(data.numLayers(), 4);
        EXPECT_EQ(data.cascadeEnd(3), infinity);
        std::array<int, 4> numPoints{};
        for (int i = 0; i < 20000; ++i) {
            const QVector3D point = randomIn(hall, random);
            const float viewDepth = (toClip * QVector4D(point, 1.0F)).w();
            if (viewDepth < 0.1F || !isOnMap(toClip, point)) {
                continue;
            }
            int layer = 0;
            while (viewDepth > data.cascadeEnd(layer)) {
                ++layer;
            }
            ++numPoints[static_cast<size_t>(layer)];
            EXPECT_TRUE(isOnMap(data.transform(layer), point, 7.0F)) << "cascade " << layer;
            if (layer < 3 && viewDepth > ShadowMapManager::cascadeFadeBegin * data.cascadeEnd(layer)) {
                EXPECT_TRUE(isOnMap(data.transform(layer + 1), point, 7.0F)) << "beyond cascade " << layer;
            }
        }
        if (project == narrow) {
            continue;
        }
        EXPECT_GT(numPoints[0], 10);
        EXPECT_GT(numPoints[1], 100);
        // The nearer a cascade, the finer its texels.
        const auto texelsPerUnit = [&](int layer) {
            return data.transform(layer).row(0).toVector3D().length();
        };
        EXPECT_GT(texelsPerUnit(0), 2.0F * texelsPerUnit(1));
        EXPECT_GE(texelsPerUnit(1), texelsPerUnit(2));
        EXPECT_GE(texelsPerUnit(2), texelsPerUnit(3));
        // Casters outside the view are on the map too.
        const QVector3D floor(1.0F, 0.0F, 5.0F);
        for (int layer = 0; bounds && layer < 4; ++layer) {
            const float roofDepth = data.transform(layer).map(floor - 5.0F * slanted).z();
            EXPECT_GT(roofDepth, 0.0F);
            EXPECT_LT(roofDepth, data.transform(layer).map(floor).z());
        }
    }
}

TEST(ShadowMapManager, MapsDoNotShimmerWhileTheCameraMovesAndTurns)
{
    const QMatrix4x4 project = perspective(60.0F, 16.0F / 9.0F);
    std::mt19937 random(9);
    std::uniform_real_distribution<float> step(-0.004F, 0.004F);
    for (const Bounds* bounds : {&hall, static_cast<const Bounds*>(nullptr)}) {
        QVector3D eye(1.0F, 1.7F, 6.0F);
        QVector3D target(-0.5F, 1.5F, -8.0F);
        std::vector<Light> lights{directional(slanted, 4)};
        ShadowMapManager::RenderData data;
        std::vector<QMatrix4x4> first;
        std::vector<QMatrix4x4> previous;
        int numMoved = 0;
        for (int frame = 0; frame < 300; ++frame) {
            const QMatrix4x4 camera = cameraAt(eye, target);
            process(lights, data, &project, &camera, bounds);
            for (int layer = 0; layer < data.numLayers(); ++layer) {
                const QMatrix4x4& matrix = data.transform(layer);
                if (frame == 0) {
                    first.push_back(matrix);
                    previous.push_back(matrix);
                }
                const QMatrix4x4& initial = first[static_cast<size_t>(layer)];
                numMoved += matrix != previous[static_cast<size_t>(layer)] ? 1 : 0;
                previous[static_cast<size_t>(layer)] = matrix;
                // Scale and direction stay equal to the bit; the offset changes by whole texels.
                for (int row = 0; row < 4; ++row) {
                    EXPECT_EQ(matrix.row(row).toVector3D(), initial.row(row).toVector3D());
                    const float texels =
                        (matrix(row, 3) - initial(row, 3)) * (ShadowMapManager::mapSize / 2.0F);
                    if (row < 2) {
                        EXPECT_NEAR(texels, std::round(texels), 0.01F);
                    } else if (bounds) {
                        EXPECT_EQ(texels, 0.0F);
                    }
                }
            }
            const QVector3D move(step(random), step(random), step(random));
            eye += move;
            target += 3.0F * move;
        }
        EXPECT_GT(numMoved, 20);
        EXPECT_LT(numMoved, 800) << "of 1200";
    }
}

TEST(ShadowMapManager, ASpotLightCoversItsConeAndAPointLightEveryDirection)
{
    std::mt19937 random(3);
    std::normal_distribution<float> normal;
    std::vector<Light> lights(2);
    Light& spot = lights[0];
    spot.type = LightType::Spot;
    spot.position = {1.0F, 5.0F, 2.0F};
    spot.direction = {0.5F, -2.0F, -1.0F};
    spot.angle = 70.0F;
    Light& point = lights[1];
    point.type = LightType::Point;
    point.position = {-1.0F, 2.0F, 0.0F};
    point.range = 6.0F;
    ShadowMapManager::RenderData data;
    process(lights, data, nullptr, nullptr, &hall);
    ASSERT_EQ(data.lights().size(), 2U);
    EXPECT_EQ(data.lights()[0].numProjectors, 1);
    EXPECT_EQ(data.lights()[1].firstLayer, 1);
    EXPECT_EQ(data.lights()[1].numProjectors, 6);
    ASSERT_EQ(data.numLayers(), 7);
    // The farthest corner is (-4, -0.5, -8).
    EXPECT_NEAR(data.lights()[0].source.range, std::sqrt(25.0F + 30.25F + 100.0F), 1e-4F);
    EXPECT_NEAR(data.lights()[0].source.direction.length(), 1.0F, 1e-6F);
    EXPECT_EQ(data.lights()[1].source.range, 6.0F);

    const QVector3D axis = spot.direction.normalized();
    EXPECT_LT(data.transform(0).map(spot.position + 3.0F * axis).toVector2D().length(), 1e-5F);
    int numInCone = 0;
    for (int i = 0; i < 3000; ++i) {
        const QVector3D direction = QVector3D(normal(random), normal(random), normal(random)).normalized();
        const float cosine = QVector3D::dotProduct(direction, axis);
        if (cosine > std::cos(qDegreesToRadians(35.0F))) {
            ++numInCone;
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
    EXPECT_GT(numInCone, 100);
}

TEST(ShadowMapManager, ReportsWhetherAnythingChanged)
{
    const QMatrix4x4 project = perspective(60.0F, 16.0F / 9.0F);
    QMatrix4x4 camera = cameraAt({1.0F, 1.7F, 7.0F}, {0.0F, 1.5F, -8.0F});
    std::vector<Light> lights{directional({0, -1, 0.5F}, 3), Light(), Light()};
    lights[1].type = LightType::Spot;
    lights[2].type = LightType::Point;
    const std::vector<Light> initial = lights;
    ShadowMapManager::RenderData data;
    const auto isChanged = [&] { return process(lights, data, &project, &camera, &hall); };
    EXPECT_TRUE(isChanged());
    const std::vector<std::function<void()>> changes{
        [&] { lights[0].direction.setX(1e-6F); },
        [&] { lights[0].cascades = 2; },
        [&] { lights[1].angle = 46.0F; },
        [&] { lights[2].position.setX(0.001F); },
        [&] { lights[2].color.setX(0.5F); },
        [&] { lights.pop_back(); },
        [&] { lights.push_back(lights[1]); },
        [&] { std::swap(lights[0], lights[2]); },
        [&] { lights.clear(); },
        [&] { camera.translate(0.5F, 0.0F, 0.0F); },
    };
    for (size_t i = 0; i < changes.size(); ++i) {
        lights = initial;
        isChanged();
        changes[i]();
        EXPECT_TRUE(isChanged()) << "change " << i;
        EXPECT_FALSE(isChanged()) << "change " << i;
    }
    lights = initial;
    isChanged();
    lights[0].direction *= 4.0F;
    EXPECT_FALSE(isChanged()) << "the length of a direction does not matter";
}

TEST(ShadowMapManager, UnusableInputsGiveUsableProjectors)
{
    const auto isUsable = [](const ShadowMapManager::RenderData& data) {
        for (int layer = 0; layer < data.numLayers(); ++layer) {
            // NaN fails the comparison too.
            if (!(std::abs(data.transform(layer).determinant()) >= 1e-30)) {
                return false;
            }
        }
        return true;
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    constexpr float largest = std::numeric_limits<float>::max();
    std::vector<Light> lights(4);
    lights[0].direction = {};
    lights[0].cascades = -7;
    lights[1].type = LightType::Spot;
    lights[1].direction = {};
    lights[1].angle = 400.0F;
    lights[2].type = LightType::Point;
    lights[2].range = -3.0F;
    lights[3].direction = {1e-30F, 0.0F, 0.0F};
    lights[3].cascades = 4;
    const QMatrix4x4 project = perspective(60.0F, 16.0F / 9.0F);
    const QMatrix4x4 camera = cameraAt({1.0F, 1.7F, 7.0F}, {0.0F, 1.5F, -8.0F});
    const QMatrix4x4 singular(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    const std::array<Bounds, 7> allBounds{
        hall,
        Bounds{hall.second, hall.first},
        Bounds{{2, 2, 2}, {2, 2, 2}},
        Bounds{{nan, 0, 0}, {1, 1, 1}},
        Bounds{{-1, 0, -1}, {1, 0, 1}},
        Bounds{{100, 100, 100}, {101, 101, 101}},
        Bounds{{largest, largest, largest}, {-largest, -largest, -largest}}};
    for (const QVector3D& position : {QVector3D(0, 0, 0), QVector3D(2, 2, 2), QVector3D(0, 50, 0)}) {
        lights[1].position = lights[2].position = position;
        for (size_t i = 0; i <= allBounds.size(); ++i) {
            const Bounds* bounds = i < allBounds.size() ? &allBounds[i] : nullptr;
            for (const QMatrix4x4* matrix : {static_cast<const QMatrix4x4*>(nullptr), &singular, &project}) {
                for (const QMatrix4x4* view : {static_cast<const QMatrix4x4*>(nullptr), &singular, &camera}) {
                    ShadowMapManager::RenderData data;
                    EXPECT_TRUE(process(lights, data, matrix, view, bounds));
                    EXPECT_EQ(data.numLayers(), matrix == &project && view == &camera ? 12 : 9);
                    EXPECT_TRUE(isUsable(data));
                    EXPECT_FALSE(process(lights, data, matrix, view, bounds));
                }
            }
        }
    }
    ShadowMapManager::RenderData data;
    process(lights, data);
    EXPECT_EQ(data.lights()[0].source.direction, QVector3D(0, -1, 0));
    EXPECT_EQ(data.lights()[1].source.angle, 170.0F);
    EXPECT_EQ(data.lights()[3].source.direction, QVector3D(1, 0, 0));

    // Entries that are no usable light are skipped.
    lights[1].position.setY(nan);
    QVariantList list{QVariant(), u"sun"_s, QVariant::fromValue<Light*>(nullptr)};
    list += listOf(lights);
    EXPECT_TRUE(ShadowMapManager::processLights(list, data, nullptr, nullptr, nullptr));
    EXPECT_EQ(data.lights().size(), 3U);
    EXPECT_EQ(data.numLayers(), 8);
    EXPECT_TRUE(ShadowMapManager::processLights(u"sun"_s, data, nullptr, nullptr, nullptr));
    EXPECT_EQ(data.numLayers(), 0);

    // A light that exceeds the layer limit gets no projector; a later one with fewer may still fit.
    std::vector<Light> many(43, lights[2]);
    many.push_back(lights[0]);
    process(many, data);
    EXPECT_EQ(data.lights()[41].numProjectors, 6);
    EXPECT_EQ(data.lights()[42].numProjectors, 0);
    EXPECT_EQ(data.lights()[43].numProjectors, 1);
    EXPECT_EQ(data.numLayers(), 253);
}

} // namespace
} // namespace Morvane::Qel::Test
