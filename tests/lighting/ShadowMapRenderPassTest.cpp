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
using RenderData = ShadowMapManager::RenderData;

constexpr int side = ShadowMapManager::mapSize;
constexpr float farAway = 1.0e9F;
constexpr float bias = 0.0001F;
const QVector3D lower(-1.0F, -1.0F, 0.0F);
const QVector3D upper(1.0F, 1.0F, 1.0F);

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

    /// Runs a frame and reads the first map: mean depth in x, mean squared depth in y.
    static Pixels draw(Runner<ShadowMapRenderPass>& pass, const std::vector<Input>& values)
    {
        pass.run(values);
        return readLayers(record(pass).projectionTexture())[0];
    }

    /// The matrix of the first light's projector.
    QMatrix4x4 transform()
    {
        RenderData data;
        const QPair<QVector3D, QVector3D> bounds(lower, upper);
        ShadowMapManager::processLights(inputs(nullptr)[ShadowMapRenderPass::Lights].value(), data, nullptr,
                                        nullptr, &bounds);
        return data.transform(0);
    }

    std::vector<Light> lights;
};

TEST_F(ShadowMapRenderPassTest, StepsAreBlurredByTheGaussian)
{
    ModelData data;
    addRectangle(data, -3.0F, 3.0F, -3.0F, 3.0F, 0.0F);
    // The lower left quarter; its edges lie between texels 255 and 256.
    addRectangle(data, -3.0F, 0.0F, -3.0F, 0.0F, 0.5F);
    GPUModel model(data);
    Runner<ShadowMapRenderPass> pass;
    const Pixels map = draw(pass, inputs(&model));

    // The share of the lower left quarter in a row or column.
    const auto share = [](int at) {
        double sum = 0.0;
        double covered = 0.0;
        for (int i = -3; i <= 3; ++i) {
            const double weight = std::exp(-0.5 * i * i / (4.5 * 4.5));
            sum += weight;
            covered += at + i < 256 ? weight : 0.0;
        }
        return covered / sum;
    };
    const auto depthAt = [&](float z) { return transform().map(QVector3D(0, 0, z)).z() + bias; };
    const float high = depthAt(0.5F);
    const float low = depthAt(0.0F);
    // All texels: taps beyond an edge read the edge, not the border.
    const Pixels expected = Pixels::generate(side, side, [&](int x, int y) {
        const auto covered = static_cast<float>(share(x) * share(y));
        return QVector4D(low + covered * (high - low), low * low + covered * (high * high - low * low), 0, 1);
    });
    // Single precision, twice seven products.
    EXPECT_TRUE(equal(map, expected, 2e-6F));
}

TEST_F(ShadowMapRenderPassTest, DepthsAreClampedToOneAndNothingOutsideThePlanesCastsAShadow)
{
    const auto heightOf = [&](float depth) { return transform().inverted().map(QVector3D(0, 0, depth)).z(); };
    // Side by side: before the near plane, at the far plane up to less than the bias, behind it.
    ModelData data;
    addRectangle(data, -3.0F, -0.4F, -3.0F, 3.0F, heightOf(-0.01F));
    addRectangle(data, -0.3F, 0.3F, -3.0F, 3.0F, heightOf(1.0F - 0.5F * bias));
    addRectangle(data, 0.4F, 3.0F, -3.0F, 3.0F, heightOf(1.01F));
    GPUModel model(data);
    Runner<ShadowMapRenderPass> pass;
    const Pixels map = draw(pass, inputs(&model));
    EXPECT_FLOAT_EQ(map.at(100, 256).x(), farAway);
    EXPECT_FLOAT_EQ(map.at(256, 256).x(), 1.0F);
    EXPECT_FLOAT_EQ(map.at(411, 256).y(), farAway);
}

TEST_F(ShadowMapRenderPassTest, FlagsSelectShadowCastersAndCulling)
{
    ModelData data;
    // Side by side: five facing the light, then two facing away.
    for (int i = 0; i < 7; ++i) {
        const float left = -0.9F + 0.25F * static_cast<float>(i);
        const float right = left + 0.2F;
        addRectangle(data, i > 4 ? right : left, i > 4 ? left : right, -0.5F, 0.5F, 0.5F);
    }
    GPUModel model(data);
    model.setDrawFlags(1, DrawFlag::Hidden);
    model.setDrawFlags(2, DrawFlag::CastsNoShadow);
    model.setDrawFlags(3, DrawFlag::DoubleSided | DrawFlag::CutOut | DrawFlag::Transparent);
    model.setDrawFlags(4, DrawFlag::CastsNoShadow | DrawFlag::DoubleSided);
    model.setDrawFlags(6, DrawFlag::DoubleSided);
    Runner<ShadowMapRenderPass> pass;
    pass.run(inputs(&model, true));
    // Culling and a viewport that were set before must not matter; the viewport is restored.
    context().enable(GL_CULL_FACE);
    context().setViewport(1, 2, 30, 40);
    pass->start(nullptr);
    EXPECT_EQ(context().viewport(), QRect(1, 2, 30, 40));
    for (const unsigned int capability : {GL_DEPTH_TEST, GL_CULL_FACE, GL_DEPTH_CLAMP, GL_BLEND}) {
        EXPECT_FALSE(context().isEnabled(capability));
    }
    Texture* maps = record(pass).projectionTexture();
    EXPECT_EQ(maps->parameter(GL_TEXTURE_WRAP_S), GL_CLAMP_TO_BORDER);
    const Pixels map = readLayers(maps)[0];
    const std::array<bool, 7> casts{true, false, false, true, false, false, true};
    for (int i = 0; i < 7; ++i) {
        const float x = transform().map(QVector3D(-0.8F + 0.25F * static_cast<float>(i), 0.0F, 0.5F)).x();
        const float mean = map.at(static_cast<int>((x + 1.0F) * side / 2), 256).x();
        EXPECT_EQ(mean < 1.0F, casts[static_cast<size_t>(i)]) << "rectangle " << i;
    }
    // Deliberate: without a caster the maps keep what they showed.
    for (int batch = 0; batch < 7; ++batch) {
        model.setDrawFlags(batch, DrawFlag::Hidden);
    }
    pass.run();
    EXPECT_TRUE(equal(readLayers(maps)[0], map));
}

TEST_F(ShadowMapRenderPassTest, CollectionsPlaceInstancesWhileTheyAreConnected)
{
    ModelData data;
    addRectangle(data, -0.2F, 0.2F, -0.2F, 0.2F, 0.5F);
    // By default the model's own transform does not count.
    data.instances[0].transform.translate(0.5F, 0.0F, 0.0F);
    GPUModel model(data);
    VeskInstanceBlock block{};
    QMatrix4x4 matrix;
    matrix.translate(-0.6F, 0.0F, 0.0F);
    std::copy_n(matrix.constData(), 16, block.modelMatrix.begin());
    const auto buffer = QSharedPointer<BufferObject>::create(GL_UNIFORM_BUFFER);
    buffer->uploadBytes(&block, sizeof(block), GL_STATIC_DRAW);
    InstanceDataCollection collection(InstanceDataRegistry::Instance()->getPlan(u"VeskInstance"_s), buffer,
                                      0);
    const QVariantList connected{QVariant(), 3, QVariant::fromValue<QObject*>(&collection)};
    Runner<ShadowMapRenderPass> pass;
    for (const bool isConnected : {false, true, false}) {
        std::vector<Input> values = inputs(&model, true);
        values[ShadowMapRenderPass::InstanceData] = isConnected ? connected : QVariantList();
        const Pixels map = draw(pass, values);
        for (const float place : {-0.6F, 0.0F, 0.5F}) {
            const float ndc = transform().map(QVector3D(place, 0, 0)).x();
            EXPECT_EQ(map.at(static_cast<int>((ndc + 1.0F) * side / 2), 256).x() < 1.0F,
                      place == (isConnected ? -0.6F : 0.0F))
                << place;
        }
    }
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
    {
        // Outside a map, nothing casts a shadow.
        Texture* maps = record(pass).projectionTexture();
        const AutoBinder binder(maps);
        std::array<float, 4> border{};
        glGetTexParameterfv(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_BORDER_COLOR, border.data());
        EXPECT_EQ(border, (std::array{farAway, farAway, farAway, 1.0F}));
        EXPECT_EQ(maps->parameter(GL_TEXTURE_WRAP_S), GL_CLAMP_TO_BORDER);
        EXPECT_EQ(maps->parameter(GL_TEXTURE_WRAP_T), GL_CLAMP_TO_BORDER);
    }
    EXPECT_EQ(numPrimitives(inputs(model.get())), 0U);
    EXPECT_EQ(numPrimitives(inputs(model.get(), true)), perLayer);
    EXPECT_EQ(numPrimitives(inputs(model.get(), {})), perLayer) << "null counts as dirty";
    const quint64 serial = record(pass).projectionTexture()->serial();
    lights[0].direction.setX(0.1F);
    EXPECT_EQ(numPrimitives(inputs(model.get())), perLayer);
    EXPECT_EQ(record(pass).projectionTexture()->serial(), serial)
        << "the same number of layers keeps the maps";

    // Another number of layers needs other arrays, which are drawn whatever Dirty says.
    lights.resize(2);
    lights[1].type = ShadowMapManager::LightType::Point;
    EXPECT_EQ(numPrimitives(inputs(model.get())), 7 * perLayer);
    const std::vector<Pixels> layers = readLayers(record(pass).projectionTexture());
    EXPECT_LT(layers.at(0).at(256, 256).x(), 1.0F);
    // Seen from inside, front faces are turned away.
    EXPECT_FLOAT_EQ(layers.at(6).at(256, 256).x(), farAway);

    lights.clear();
    EXPECT_EQ(numPrimitives(inputs(model.get())), 0U) << "no light, no layer";
    EXPECT_EQ(record(pass).projectionTexture()->layers(), 0);
    glDeleteQueries(1, &query);
}

TEST_F(ShadowMapRenderPassTest, MissingGeometryAndProgramsAreReportedAndTheRecordIsStillPublished)
{
    Runner<ShadowMapRenderPass> pass;
    std::vector<Input> values = inputs(nullptr);
    pass.run(values);
    expectMessage(uR"(^\[Core/Qel/src/RenderPasses/ShadowMapRenderPass:\d+\] \[ !! \] Assertion )"
                  R"('false == modelAsQVariant\.isNull\(\)' failed: Input Geometry is NULL$)"_s);
    values[ShadowMapRenderPass::Geometry] = 3;
    pass.run(values);
    expectMessage(uR"('true == modelAsQVariant\.canConvert<GPUModel\*>\(\)' failed: )"
                  R"(Input Geometry is not a 'GPUModel\*', type is 'int'$)"_s);
    EXPECT_EQ(record(pass).numLayers(), 1);
    EXPECT_TRUE(equal(readLayers(record(pass).projectionTexture())[0],
                      Pixels::filled(side, side, {farAway, farAway, 0, 1})));

    // A model that becomes available is not a change by itself.
    Texture* maps = record(pass).projectionTexture();
    ASSERT_NE(maps, nullptr);
    const std::vector<float> poison(size_t{2} * side * side, 7.0F);
    maps->setImage3D(GL_RG32F, side, side, 1, GL_RG, GL_FLOAT, poison.data());
    const auto model = makeCubeModel();
    EXPECT_EQ(draw(pass, inputs(model.get())).at(256, 256).x(), 7.0F);
    EXPECT_LT(draw(pass, inputs(model.get(), true)).at(256, 256).x(), 1.0F);

    Runner<ShadowMapRenderPass> broken;
    broken->setInstanceDataPlanName(u"OBJMaterial"_s);
    broken.run(inputs(model.get()));
    expectMessage(u"getModelMatrix"_s);
    EXPECT_EQ(messages().information.filter(u"getModelMatrix"_s).size(), 1);
    EXPECT_NE(record(broken).projectionTexture(), nullptr);
}

} // namespace
} // namespace Morvane::Qel::Test
