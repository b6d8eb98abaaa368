// The contents of shadow maps, and when they are drawn.

#include <algorithm>
#include <array>
#include <cmath>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Scene.h"
#include <Qel/RenderPasses/lighting/ShadowMapRenderPass.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Light = ShadowMapManager::Light;
using LightType = ShadowMapManager::LightType;
using RenderData = ShadowMapManager::RenderData;

constexpr int side = ShadowMapManager::mapSize;
constexpr float farAway = 1.0e9F;
constexpr float bias = 0.0001F;
const QVector3D lower(-1.0F, -1.0F, 0.0F);
const QVector3D upper(1.0F, 1.0F, 1.0F);

/// One layer of the maps after a frame, mean depth in x and mean squared depth in y.
Pixels layerOf(Texture* maps, size_t layer = 0)
{
    return readLayers(maps)[layer];
}

/// Fills maps with a value that drawing never leaves.
void poison(Texture* texture)
{
    const std::vector<float> values(2 * static_cast<size_t>(texture->layers()) * side * side, 7.0F);
    const AutoBinder binder(texture);
    glTexSubImage3D(GL_TEXTURE_2D_ARRAY, 0, 0, 0, 0, side, side, texture->layers(), GL_RG, GL_FLOAT,
                    values.data());
}

/// Adds a rectangle that faces +z at height z.
void addRectangle(ModelData& data, float left, float right, float low, float high, float z)
{
    MeshData mesh = makeSquare();
    for (QVector3D& position : mesh.positions) {
        position = {position.x() > 0.0F ? right : left, position.y() > 0.0F ? high : low, z};
    }
    addObject(data, mesh);
}

class ShadowMapRenderPassTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        lights.emplace_back().direction = {0.0F, 0.0F, -1.0F};
    }

    /// The inputs for lights that look along -z at the box from `lower` to `upper`.
    std::vector<Input> inputs(GPUModel* model, const Input& dirty = false)
    {
        QVariantList list;
        for (Light& light : lights) {
            list.append(QVariant::fromValue(&light));
        }
        return {model ? Input(model) : Input(), {}, list, dirty, {}, {}, lower, upper};
    }

    static const RenderData& record(Runner<ShadowMapRenderPass>& pass)
    {
        return *qobject_cast<RenderData*>(pass->output(0).value<QObject*>());
    }

    /// Runs a frame and reads the first map.
    static Pixels draw(Runner<ShadowMapRenderPass>& pass, const std::vector<Input>& values)
    {
        pass.run(values);
        return layerOf(record(pass).projectionTexture());
    }

    Pixels draw(const ModelData& data)
    {
        GPUModel model(data);
        Runner<ShadowMapRenderPass> pass;
        Pixels map = draw(pass, inputs(&model));
        transform = record(pass).transform(0);
        return map;
    }

    /// The depth that the map shows for a height, bias included.
    float depthAt(float z) const { return transform.map(QVector3D(0.0F, 0.0F, z)).z() + bias; }

    std::vector<Light> lights;
    QMatrix4x4 transform;
};

TEST_F(ShadowMapRenderPassTest, PlanesHaveTheirDepthAndNothingElsewhere)
{
    ModelData data;
    addRectangle(data, -0.5F, 0.5F, -0.5F, 0.5F, 0.25F);
    const Pixels map = draw(data);
    const float depth = depthAt(0.25F);
    // The map spans the box and a margin, so the plane lies between 1/4 and 3/4 of it.
    for (const int at : {140, 256, 371}) {
        EXPECT_NEAR(map.at(at, 512 - at).x(), depth, 1e-6F);
        EXPECT_NEAR(map.at(at, 512 - at).y(), depth * depth, 1e-6F);
    }
    for (const int at : {0, 100, 411, 511}) {
        EXPECT_FLOAT_EQ(map.at(at, 256).x(), farAway) << at;
        EXPECT_FLOAT_EQ(map.at(256, at).y(), farAway) << at;
    }
}

TEST_F(ShadowMapRenderPassTest, StepsAreBlurredByTheGaussian)
{
    ModelData data;
    addRectangle(data, -3.0F, 3.0F, -3.0F, 3.0F, 0.0F);
    // The lower left quarter; its edges lie between texels 255 and 256.
    addRectangle(data, -3.0F, 0.0F, -3.0F, 0.0F, 0.5F);
    const Pixels map = draw(data);

    std::array<double, 4> weights{};
    double sum = 0.0;
    for (int i = 0; i < 4; ++i) {
        weights[static_cast<size_t>(i)] = std::exp(-0.5 * i * i / (4.5 * 4.5));
        sum += (i == 0 ? 1.0 : 2.0) * weights[static_cast<size_t>(i)];
    }
    // The share of the lower left quarter in a row or column.
    const auto share = [&](int at) {
        double result = 0.0;
        for (int i = -3; i <= 3; ++i) {
            result += at + i < 256 ? weights[static_cast<size_t>(std::abs(i))] / sum : 0.0;
        }
        return result;
    };
    const auto high = static_cast<double>(depthAt(0.5F));
    const auto low = static_cast<double>(depthAt(0.0F));
    // All texels: taps beyond an edge read the edge, not the border.
    float worst = 0.0F;
    for (int y = 0; y < side; ++y) {
        for (int x = 0; x < side; ++x) {
            const double covered = share(x) * share(y);
            const double mean = low + covered * (high - low);
            const double square = low * low + covered * (high * high - low * low);
            worst = std::max({worst, std::abs(map.at(x, y).x() - static_cast<float>(mean)),
                              std::abs(map.at(x, y).y() - static_cast<float>(square))});
        }
    }
    // Single precision, twice seven products.
    EXPECT_LT(worst, 2e-6F);
}

TEST_F(ShadowMapRenderPassTest, DepthsAreClampedToOneAndNothingOutsideThePlanesCastsAShadow)
{
    RenderData data;
    const QPair<QVector3D, QVector3D> bounds(lower, upper);
    ShadowMapManager::processLights(inputs(nullptr)[ShadowMapRenderPass::Lights].value(), data, nullptr,
                                    nullptr, &bounds);
    const auto heightOf = [&](float depth) {
        return data.transform(0).inverted().map(QVector3D(0, 0, depth)).z();
    };
    // Side by side: before the near plane, at the far plane up to less than the bias, behind it.
    ModelData scene;
    addRectangle(scene, -3.0F, -0.4F, -3.0F, 3.0F, heightOf(-0.01F));
    addRectangle(scene, -0.3F, 0.3F, -3.0F, 3.0F, heightOf(1.0F - 0.5F * bias));
    addRectangle(scene, 0.4F, 3.0F, -3.0F, 3.0F, heightOf(1.01F));
    const Pixels map = draw(scene);
    EXPECT_FLOAT_EQ(map.at(100, 256).x(), farAway);
    EXPECT_FLOAT_EQ(map.at(256, 256).x(), 1.0F);
    EXPECT_FLOAT_EQ(map.at(256, 256).y(), 1.0F);
    EXPECT_FLOAT_EQ(map.at(411, 256).x(), farAway);
}

TEST_F(ShadowMapRenderPassTest, FlagsSelectShadowCastersAndCulling)
{
    ModelData data;
    // Side by side: five facing the light, then two facing away.
    for (int i = 0; i < 7; ++i) {
        const float left = -0.9F + 0.25F * static_cast<float>(i);
        addRectangle(data, left, left + 0.2F, -0.5F, 0.5F, 0.5F);
        if (i > 4) {
            std::swap(data.meshes.back().indices[1], data.meshes.back().indices[2]);
            std::swap(data.meshes.back().indices[4], data.meshes.back().indices[5]);
        }
    }
    GPUModel model(data);
    model.setDrawFlags(1, DrawFlag::Hidden);
    model.setDrawFlags(2, DrawFlag::CastsNoShadow);
    model.setDrawFlags(3, DrawFlag::DoubleSided | DrawFlag::CutOut | DrawFlag::Transparent);
    model.setDrawFlags(4, DrawFlag::CastsNoShadow | DrawFlag::DoubleSided);
    model.setDrawFlags(6, DrawFlag::DoubleSided);
    Runner<ShadowMapRenderPass> pass;
    pass.run(inputs(&model, true));
    // Culling that was enabled before must not matter.
    context().enable(GL_CULL_FACE);
    pass->start(nullptr);
    EXPECT_FALSE(context().isEnabled(GL_CULL_FACE));
    const Pixels map = layerOf(record(pass).projectionTexture());
    const std::array<bool, 7> casts{true, false, false, true, false, false, true};
    for (int i = 0; i < 7; ++i) {
        const QVector3D middle(-0.8F + 0.25F * static_cast<float>(i), 0.0F, 0.5F);
        const float x = record(pass).transform(0).map(middle).x();
        const float mean = map.at(static_cast<int>((x + 1.0F) * side / 2), 256).x();
        EXPECT_EQ(mean < 1.0F, casts[static_cast<size_t>(i)]) << "rectangle " << i;
    }
}

TEST_F(ShadowMapRenderPassTest, InstancesArePlacedByTheirPlan)
{
    ModelData data;
    addRectangle(data, -0.2F, 0.2F, -0.2F, 0.2F, 0.5F);
    data.instances[0].transform.translate(0.5F, 0.0F, 0.0F);
    GPUModel model(data);
    const auto centreOf = [&](const QString& plan, const Input& collections) {
        Runner<ShadowMapRenderPass> pass;
        pass->setInstanceDataPlanName(plan);
        std::vector<Input> values = inputs(&model);
        values[ShadowMapRenderPass::InstanceData] = collections;
        const Pixels map = draw(pass, values);
        int numColumns = 0;
        int sum = 0;
        for (int x = 0; x < side; ++x) {
            if (map.at(x, 256).x() < 1.0F) {
                ++numColumns;
                sum += x;
            }
        }
        EXPECT_GT(numColumns, 60);
        const float ndc =
            (static_cast<float>(sum) / static_cast<float>(numColumns) + 0.5F) * 2.0F / side - 1.0F;
        return record(pass).transform(0).inverted().map(QVector3D(ndc, 0, 0)).x();
    };
    constexpr float texel = 2.1F / side;
    EXPECT_NEAR(centreOf(u"InstanceInfo"_s, {}), 0.5F, texel);
    EXPECT_NEAR(centreOf(u"VeskInstance"_s, {}), 0.0F, texel);

    VeskInstanceBlock block{};
    QMatrix4x4 matrix;
    matrix.translate(-0.6F, 0.0F, 0.0F);
    std::copy_n(matrix.constData(), 16, block.modelMatrix.begin());
    const auto buffer = QSharedPointer<BufferObject>::create(GL_UNIFORM_BUFFER);
    buffer->uploadBytes(&block, sizeof(block), GL_STATIC_DRAW);
    InstanceDataCollection collection(InstanceDataRegistry::Instance()->getPlan(u"VeskInstance"_s), buffer,
                                      0);
    const QVariantList collections{QVariant(), 3, QVariant::fromValue<QObject*>(&collection)};
    EXPECT_NEAR(centreOf(u"VeskInstance"_s, collections), -0.6F, texel);
    EXPECT_NEAR(centreOf(u"VeskInstance"_s, {}), 0.0F, texel) << "the collection stays bound";
}

TEST_F(ShadowMapRenderPassTest, DrawsOnlyWhenSomethingChanged)
{
    const auto model = makeCubeModel();
    Runner<ShadowMapRenderPass> pass;
    unsigned int query = 0;
    glGenQueries(1, &query);
    const auto numPrimitives = [&](const std::vector<Input>& values) {
        glBeginQuery(GL_PRIMITIVES_GENERATED, query);
        pass.run(values);
        glEndQuery(GL_PRIMITIVES_GENERATED);
        unsigned int count = 0;
        glGetQueryObjectuiv(query, GL_QUERY_RESULT, &count);
        return count;
    };
    // For each layer the cube, and two triangles in each direction of the blur.
    constexpr unsigned int perLayer = 12 + 4;
    EXPECT_EQ(numPrimitives(inputs(model.get())), perLayer) << "the first frame is drawn";
    Texture* maps = record(pass).projectionTexture();
    const quint64 serial = maps->serial();
    poison(maps);
    EXPECT_EQ(numPrimitives(inputs(model.get())), 0U);
    EXPECT_EQ(layerOf(maps).at(256, 256).x(), 7.0F);
    EXPECT_EQ(numPrimitives(inputs(model.get(), true)), perLayer);
    EXPECT_LT(layerOf(maps).at(256, 256).x(), 1.0F);
    EXPECT_EQ(numPrimitives(inputs(model.get(), {})), perLayer) << "null counts as dirty";
    EXPECT_EQ(numPrimitives(inputs(model.get())), 0U);
    lights[0].direction.setX(0.1F);
    EXPECT_EQ(numPrimitives(inputs(model.get())), perLayer);
    EXPECT_EQ(record(pass).projectionTexture()->serial(), serial)
        << "the same number of layers keeps the maps";

    // Another number of layers needs other arrays, which are drawn whatever Dirty says.
    lights.resize(3);
    lights[1].type = LightType::Spot;
    lights[1].position = {0.0F, 0.0F, 3.0F};
    lights[1].direction = {0.0F, 0.0F, -1.0F};
    lights[2].type = LightType::Point;
    EXPECT_EQ(numPrimitives(inputs(model.get())), 8 * perLayer);
    const RenderData& data = record(pass);
    ASSERT_EQ(data.lights().size(), 3U);
    EXPECT_EQ(data.projectionTexture()->layers(), 8);
    const std::vector<Pixels> layers = readLayers(data.projectionTexture());
    EXPECT_LT(layers[0].at(256, 256).x(), 1.0F);
    EXPECT_LT(layers[1].at(256, 256).x(), 1.0F) << "the spot light sees the cube";
    for (size_t face = 2; face < 8; ++face) {
        // Seen from inside, front faces are turned away.
        EXPECT_FLOAT_EQ(layers[face].at(256, 256).x(), farAway) << "face " << face;
    }
    EXPECT_EQ(numPrimitives(inputs(model.get())), 0U);

    lights.resize(1);
    EXPECT_EQ(numPrimitives(inputs(model.get())), perLayer);
    EXPECT_EQ(record(pass).projectionTexture()->layers(), 1);
    lights.clear();
    EXPECT_EQ(numPrimitives(inputs(model.get())), 0U) << "no light, no layer";
    EXPECT_EQ(record(pass).numLayers(), 0);
    EXPECT_EQ(record(pass).projectionTexture()->layers(), 0);
    glDeleteQueries(1, &query);
}

TEST_F(ShadowMapRenderPassTest, LookupsOutsideOfAMapAreUnshadowedAndStateIsRestored)
{
    const auto model = makeCubeModel();
    context().setViewport(1, 2, 30, 40);
    Runner<ShadowMapRenderPass> pass;
    pass.run(inputs(model.get()));
    EXPECT_EQ(context().viewport(), QRect(1, 2, 30, 40));
    for (const unsigned int capability : {GL_DEPTH_TEST, GL_CULL_FACE, GL_DEPTH_CLAMP, GL_BLEND}) {
        EXPECT_FALSE(glIsEnabled(capability));
        EXPECT_FALSE(context().isEnabled(capability));
    }
    Texture* maps = record(pass).projectionTexture();
    EXPECT_EQ(maps->parameter(GL_TEXTURE_WRAP_S), GL_CLAMP_TO_BORDER);
    EXPECT_EQ(maps->parameter(GL_TEXTURE_WRAP_T), GL_CLAMP_TO_BORDER);
    const AutoBinder binder(maps);
    std::array<float, 4> border{};
    glGetTexParameterfv(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_BORDER_COLOR, border.data());
    EXPECT_EQ(border, (std::array{farAway, farAway, farAway, 1.0F}));
}

TEST_F(ShadowMapRenderPassTest, MissingGeometryIsReportedAndTheRecordIsStillPublished)
{
    const QString prefix =
        uR"(^\[Core/Qel/src/RenderPasses/ShadowMapRenderPass:\d+\] \[ !! \] Assertion ')"_s;
    Runner<ShadowMapRenderPass> pass;
    std::vector<Input> values = inputs(nullptr);
    pass.run(values);
    expectMessage(prefix + uR"(false == modelAsQVariant\.isNull\(\)' failed: Input Geometry is NULL$)"_s);
    values[ShadowMapRenderPass::Geometry] = 3;
    pass.run(values);
    expectMessage(prefix + uR"(true == modelAsQVariant\.canConvert<GPUModel\*>\(\)' failed: )"
                           R"(Input Geometry is not a 'GPUModel\*', type is 'int'$)"_s);
    EXPECT_EQ(record(pass).numLayers(), 1);
    ASSERT_NE(record(pass).projectionTexture(), nullptr);

    // A model that becomes available is not a change by itself.
    poison(record(pass).projectionTexture());
    const auto model = makeCubeModel();
    EXPECT_EQ(draw(pass, inputs(model.get())).at(256, 256).x(), 7.0F);
    EXPECT_LT(draw(pass, inputs(model.get(), true)).at(256, 256).x(), 1.0F);
}

TEST_F(ShadowMapRenderPassTest, AProgramThatDoesNotBuildIsLoggedAndNothingIsDrawn)
{
    const auto model = makeCubeModel();
    Runner<ShadowMapRenderPass> pass;
    pass->setInstanceDataPlanName(u"OBJMaterial"_s);
    pass.run(inputs(model.get()));
    expectMessage(u"getModelMatrix"_s);
    EXPECT_TRUE(
        messages()
            .information.filter(QRegularExpression(R"(^\[ShadowMapRenderPass:\d+\] .*getModelMatrix)"))
            .size() == 1);
    EXPECT_NE(record(pass).projectionTexture(), nullptr);
}

} // namespace
} // namespace Morvane::Qel::Test
