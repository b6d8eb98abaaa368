// Where the projectors of shadow maps stand and what they see.

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

QVariant listOf(std::vector<Light>& lights)
{
    QVariantList list;
    for (Light& light : lights) {
        list.append(QVariant::fromValue(&light));
    }
    return list;
}

Light directional(const QVector3D& direction, int cascades = 1)
{
    Light light;
    light.direction = direction;
    light.cascades = cascades;
    return light;
}

QMatrix4x4 projection(float farPlane = 40.0F)
{
    QMatrix4x4 matrix;
    matrix.perspective(60.0F, 16.0F / 9.0F, 0.1F, farPlane);
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

/// Whether a place lies on the map, this many texels from its edge, and between the planes.
bool isOnMap(const QMatrix4x4& transform, const QVector3D& place, float texels = 0.0F)
{
    const QVector3D p = transform.map(place);
    const float edge = 1.0F - 2.0F * texels / ShadowMapManager::mapSize;
    return std::abs(p.x()) <= edge && std::abs(p.y()) <= edge && p.z() >= 0.0F && p.z() <= 1.0F &&
           (transform * QVector4D(place, 1.0F)).w() > 0.0F;
}

QVector3D randomIn(const Bounds& bounds, std::mt19937& random)
{
    std::uniform_real_distribution<float> share(0.0F, 1.0F);
    QVector3D place;
    for (int axis = 0; axis < 3; ++axis) {
        place[axis] = bounds.first[axis] + (bounds.second[axis] - bounds.first[axis]) * share(random);
    }
    return place;
}

TEST(ShadowMapManager, ADirectionalLightSeesTheWholeSceneFromItsSide)
{
    for (const QVector3D& direction : {QVector3D(0, -1, 0), QVector3D(0, 3, 0), QVector3D(1, 0, 0),
                                       QVector3D(0.3F, -1, 0.2F), QVector3D(-5, -2, 7)}) {
        std::vector<Light> lights{directional(direction)};
        ShadowMapManager::RenderData data;
        ASSERT_TRUE(ShadowMapManager::processLights(listOf(lights), data, nullptr, nullptr, &hall));
        ASSERT_EQ(data.numLayers(), 1);
        float reach = 0.0F;
        for (const QVector3D& corner : cornersOf(hall)) {
            EXPECT_TRUE(isOnMap(data.transform(0), corner, ShadowMapManager::projectorMargin - 0.01F));
            reach = std::max(reach, std::abs(data.transform(0).map(corner).x()));
        }
        EXPECT_GT(reach, 0.95F) << "texels are wasted";
        // What is nearer to the light has the smaller depth, and along the light nothing moves on the map.
        const QVector3D near = data.transform(0).map(QVector3D());
        const QVector3D far = data.transform(0).map(direction.normalized());
        EXPECT_GT(far.z(), near.z());
        EXPECT_NEAR(far.x(), near.x(), 1e-5F);
        EXPECT_NEAR(far.y(), near.y(), 1e-5F);
        EXPECT_EQ(data.cascadeEnd(0), infinity);
    }
}

TEST(ShadowMapManager, CascadesCoverWhatTheCameraSees)
{
    std::mt19937 random(5);
    const QMatrix4x4 wide = projection();
    // Through a long lens, the corners of a slice stand out furthest from the next one.
    QMatrix4x4 narrow;
    narrow.perspective(20.0F, 1.0F, 0.1F, 40.0F);
    const QMatrix4x4 camera = cameraAt({1.0F, 1.7F, 7.0F}, {-0.5F, 1.5F, -8.0F});
    constexpr const Bounds* noBounds = nullptr;
    for (const auto& [project, bounds] : {std::pair{wide, &hall}, std::pair{wide, noBounds},
                                          std::pair{narrow, &hall}, std::pair{narrow, noBounds}}) {
        const QMatrix4x4 toClip = project * camera;
        std::vector<Light> lights{directional({0.3F, -1.0F, -0.2F}, 4)};
        ShadowMapManager::RenderData data;
        ShadowMapManager::processLights(listOf(lights), data, &project, &camera, bounds);
        ASSERT_EQ(data.numLayers(), 4);
        EXPECT_GT(data.cascadeEnd(0), 0.1F);
        EXPECT_LT(data.cascadeEnd(2), 40.0F);
        EXPECT_EQ(data.cascadeEnd(3), infinity);
        std::array<int, 4> numPlaces{};
        for (int i = 0; i < 20000; ++i) {
            const QVector3D place = randomIn(hall, random);
            const QVector3D p = toClip.map(place);
            const float viewDepth = (toClip * QVector4D(place, 1.0F)).w();
            if (viewDepth < 0.1F || std::max({std::abs(p.x()), std::abs(p.y()), std::abs(p.z())}) > 1.0F) {
                continue;
            }
            int layer = 0;
            while (viewDepth > data.cascadeEnd(layer)) {
                ++layer;
            }
            ++numPlaces[static_cast<size_t>(layer)];
            EXPECT_TRUE(isOnMap(data.transform(layer), place, 7.0F)) << "cascade " << layer;
            if (layer < 3 && viewDepth > ShadowMapManager::cascadeFadeBegin * data.cascadeEnd(layer)) {
                EXPECT_TRUE(isOnMap(data.transform(layer + 1), place, 7.0F)) << "beyond cascade " << layer;
            }
        }
        if (project == narrow) {
            continue;
        }
        // The nearest one holds little of the hall.
        EXPECT_GT(numPlaces[0], 10);
        EXPECT_GT(numPlaces[1], 100);
        // The nearer a cascade, the finer its texels.
        const auto texelsPerUnit = [&](int layer) {
            return data.transform(layer).row(0).toVector3D().length();
        };
        EXPECT_GT(texelsPerUnit(0), 2.0F * texelsPerUnit(1));
        EXPECT_GE(texelsPerUnit(1), texelsPerUnit(2));
        EXPECT_GE(texelsPerUnit(2), texelsPerUnit(3));
        // The roof shades the floor also where the camera does not see it.
        if (bounds) {
            const QVector3D below(1.0F, 0.0F, 5.0F);
            const QVector3D roof = below - 5.0F * QVector3D(0.3F, -1.0F, -0.2F);
            for (int layer = 0; layer < 4; ++layer) {
                const float depth = data.transform(layer).map(roof).z();
                EXPECT_GT(depth, 0.0F);
                EXPECT_LT(depth, data.transform(layer).map(below).z());
            }
        }
    }
}

TEST(ShadowMapManager, MapsDoNotShimmerWhileTheCameraMovesAndTurns)
{
    const QMatrix4x4 project = projection();
    std::mt19937 random(9);
    std::uniform_real_distribution<float> step(-0.004F, 0.004F);
    for (const Bounds* bounds : {&hall, static_cast<const Bounds*>(nullptr)}) {
        QVector3D eye(1.0F, 1.7F, 6.0F);
        QVector3D target(-0.5F, 1.5F, -8.0F);
        std::vector<Light> lights{directional({0.3F, -1.0F, -0.2F}, 4)};
        ShadowMapManager::RenderData data;
        std::vector<QMatrix4x4> first;
        std::vector<QMatrix4x4> previous;
        int numStill = 0;
        int numMoved = 0;
        for (int frame = 0; frame < 300; ++frame) {
            const QMatrix4x4 camera = cameraAt(eye, target);
            ShadowMapManager::processLights(listOf(lights), data, &project, &camera, bounds);
            for (int layer = 0; layer < data.numLayers(); ++layer) {
                const QMatrix4x4& matrix = data.transform(layer);
                if (frame == 0) {
                    first.push_back(matrix);
                    previous.push_back(matrix);
                    continue;
                }
                const QMatrix4x4& before = first[static_cast<size_t>(layer)];
                QMatrix4x4& last = previous[static_cast<size_t>(layer)];
                numStill += matrix == last ? 1 : 0;
                numMoved += matrix == last ? 0 : 1;
                last = matrix;
                // The same scale and direction to the bit, and an offset of whole texels.
                for (int row = 0; row < 4; ++row) {
                    EXPECT_EQ(matrix.row(row).toVector3D(), before.row(row).toVector3D());
                    const float texels =
                        (matrix(row, 3) - before(row, 3)) * (ShadowMapManager::mapSize / 2.0F);
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
        EXPECT_GT(numStill, 400);
        EXPECT_GT(numMoved, 20);
    }
}

TEST(ShadowMapManager, ASpotLightSeesItsConeAndAPointLightEveryDirection)
{
    std::mt19937 random(3);
    std::normal_distribution<float> normal;
    std::vector<Light> lights(2);
    lights[0].type = LightType::Spot;
    lights[0].position = {1.0F, 5.0F, 2.0F};
    lights[0].direction = {0.5F, -2.0F, -1.0F};
    lights[0].angle = 70.0F;
    lights[1].type = LightType::Point;
    lights[1].position = {-1.0F, 2.0F, 0.0F};
    lights[1].range = 6.0F;
    ShadowMapManager::RenderData data;
    ShadowMapManager::processLights(listOf(lights), data, nullptr, nullptr, &hall);
    ASSERT_EQ(data.lights().size(), 2U);
    EXPECT_EQ(data.lights()[0].numProjectors, 1);
    EXPECT_EQ(data.lights()[1].firstLayer, 1);
    EXPECT_EQ(data.lights()[1].numProjectors, 6);
    ASSERT_EQ(data.numLayers(), 7);
    // The farthest corner is (-4, -0.5, -8).
    EXPECT_NEAR(data.lights()[0].source.range, std::sqrt(25.0F + 30.25F + 100.0F), 1e-4F);
    EXPECT_NEAR(data.lights()[0].source.direction.length(), 1.0F, 1e-6F);
    EXPECT_EQ(data.lights()[1].source.range, 6.0F);

    const QVector3D axis = lights[0].direction.normalized();
    const QVector3D onAxis = data.transform(0).map(lights[0].position + 3.0F * axis);
    EXPECT_NEAR(onAxis.x(), 0.0F, 1e-5F);
    EXPECT_NEAR(onAxis.y(), 0.0F, 1e-5F);
    int numInCone = 0;
    for (int i = 0; i < 3000; ++i) {
        const QVector3D direction = QVector3D(normal(random), normal(random), normal(random)).normalized();
        const float cosine = QVector3D::dotProduct(direction, axis);
        if (cosine > std::cos(qDegreesToRadians(35.0F))) {
            ++numInCone;
            EXPECT_TRUE(isOnMap(data.transform(0), lights[0].position + 2.0F * direction, 7.9F));
        } else if (cosine < std::cos(qDegreesToRadians(50.0F))) {
            EXPECT_FALSE(isOnMap(data.transform(0), lights[0].position + 2.0F * direction));
        }

        // The face that the largest component tells, with a margin; depths grow with the distance.
        int face = 0;
        for (int a = 1; a < 3; ++a) {
            face = std::abs(direction[a]) > std::abs(direction[face]) ? a : face;
        }
        const int layer = 1 + 2 * face + (direction[face] < 0.0F ? 1 : 0);
        EXPECT_TRUE(isOnMap(data.transform(layer), lights[1].position + 0.4F * direction, 7.9F));
        EXPECT_TRUE(isOnMap(data.transform(layer), lights[1].position + 5.9F * direction, 7.9F));
        EXPECT_LT(data.transform(layer).map(lights[1].position + 5.0F * direction).z(),
                  data.transform(layer).map(lights[1].position + 5.1F * direction).z());
    }
    EXPECT_GT(numInCone, 100);
}

TEST(ShadowMapManager, SaysWhetherAnythingChanged)
{
    const QMatrix4x4 project = projection();
    QMatrix4x4 camera = cameraAt({1.0F, 1.7F, 7.0F}, {0.0F, 1.5F, -8.0F});
    std::vector<Light> lights{directional({0, -1, 0.5F}, 3), Light(), Light()};
    lights[1].type = LightType::Spot;
    lights[2].type = LightType::Point;
    ShadowMapManager::RenderData data;
    const auto isChanged = [&] {
        return ShadowMapManager::processLights(listOf(lights), data, &project, &camera, &hall);
    };
    EXPECT_TRUE(isChanged());
    EXPECT_FALSE(isChanged());
    const std::vector<Light> initial = lights;
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
    // The length of a direction is of no account.
    lights = initial;
    isChanged();
    lights[0].direction *= 4.0F;
    EXPECT_FALSE(isChanged());
}

TEST(ShadowMapManager, UnusableInputsAreSurvived)
{
    const auto isGood = [](const ShadowMapManager::RenderData& data) {
        for (int layer = 0; layer < data.numLayers(); ++layer) {
            const QMatrix4x4& matrix = data.transform(layer);
            for (int i = 0; i < 16; ++i) {
                if (!std::isfinite(matrix.constData()[i])) {
                    return false;
                }
            }
            if (std::abs(matrix.determinant()) < 1e-30) {
                return false;
            }
        }
        return true;
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
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
    const QMatrix4x4 project = projection();
    const QMatrix4x4 camera = cameraAt({1.0F, 1.7F, 7.0F}, {0.0F, 1.5F, -8.0F});
    const QMatrix4x4 singular(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    const Bounds emptyBounds({2, 2, 2}, {2, 2, 2});
    const Bounds noBounds({nan, 0, 0}, {1, 1, 1});
    const Bounds reversed(hall.second, hall.first);
    const Bounds flat({-1, 0, -1}, {1, 0, 1});
    const Bounds away({100, 100, 100}, {101, 101, 101});
    constexpr float largest = std::numeric_limits<float>::max();
    const Bounds empty({largest, largest, largest}, {-largest, -largest, -largest});
    for (const QVector3D& position : {QVector3D(0, 0, 0), QVector3D(2, 2, 2), QVector3D(0, 50, 0)}) {
        lights[1].position = lights[2].position = position;
        for (const Bounds* bounds : {static_cast<const Bounds*>(nullptr), &emptyBounds, &noBounds, &reversed,
                                     &flat, &away, &empty, &hall}) {
            for (const QMatrix4x4* matrix : {static_cast<const QMatrix4x4*>(nullptr), &singular, &project}) {
                for (const QMatrix4x4* view : {static_cast<const QMatrix4x4*>(nullptr), &singular, &camera}) {
                    ShadowMapManager::RenderData data;
                    EXPECT_TRUE(ShadowMapManager::processLights(listOf(lights), data, matrix, view, bounds));
                    EXPECT_EQ(data.numLayers(), matrix == &project && view == &camera ? 12 : 9);
                    EXPECT_TRUE(isGood(data));
                    EXPECT_FALSE(ShadowMapManager::processLights(listOf(lights), data, matrix, view, bounds));
                }
            }
        }
    }
    ShadowMapManager::RenderData data;
    ShadowMapManager::processLights(listOf(lights), data, nullptr, nullptr, nullptr);
    EXPECT_EQ(data.lights()[0].source.direction, QVector3D(0, -1, 0));
    EXPECT_EQ(data.lights()[1].source.angle, 170.0F);
    EXPECT_EQ(data.lights()[3].source.direction, QVector3D(1, 0, 0));

    // What is no usable light is passed over; no list is no light.
    lights[1].position.setY(nan);
    QVariantList list = listOf(lights).toList();
    list.prepend(QVariant());
    list.prepend(u"sun"_s);
    list.prepend(QVariant::fromValue<Light*>(nullptr));
    EXPECT_TRUE(ShadowMapManager::processLights(list, data, nullptr, nullptr, nullptr));
    EXPECT_EQ(data.lights().size(), 3U);
    EXPECT_EQ(data.numLayers(), 8);
    EXPECT_TRUE(ShadowMapManager::processLights(u"sun"_s, data, nullptr, nullptr, nullptr));
    EXPECT_EQ(data.numLayers(), 0);

    // A light that finds no layers left has none; a later, smaller one may.
    std::vector<Light> many(43, lights[2]);
    many.push_back(lights[0]);
    ShadowMapManager::processLights(listOf(many), data, nullptr, nullptr, nullptr);
    EXPECT_EQ(data.lights()[41].numProjectors, 6);
    EXPECT_EQ(data.lights()[42].numProjectors, 0);
    EXPECT_EQ(data.lights()[43].numProjectors, 1);
    EXPECT_EQ(data.numLayers(), 253);
}

} // namespace
} // namespace Morvane::Qel::Test
