// The G-buffer against a CPU ray caster, and on rectangles in clip space.

#include <QPointer>

#include <epoxy/gl.h>

#include "support/Scene.h"
#include "support/ScopedGLTest.h"
#include <Qel/RenderPasses/geometry/GBufferRenderPass.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using GBufferRenderPassTest = ScopedGLTest;

TEST_F(GBufferRenderPassTest, HoldsNormalsTexCoordsDepthsAndIdsOfBatchesInWorldSpace)
{
    // The normals are not of unit length, and must stay so.
    MeshData cube = makeCube();
    for (QVector3D& normal : cube.normals) {
        normal *= 3.0F;
    }
    MeshData sphere = makeSphere();
    for (QVector3D& position : sphere.positions) {
        position += QVector3D(0.6F, 0.5F, 0.1F);
    }
    ModelData data;
    addObject(data, cube);
    addObject(data, sphere);
    const Scene scene(data);
    // The transforms of instances are not applied.
    for (InstanceData& instance : data.instances) {
        instance.transform.scale(0.1F);
    }
    const GPUModel model(data);
    const View view = View::perspective({48, 40}, 45.0F, 1.5F, 7.0F).from({1.9F, 2.1F, 2.6F});
    Runner<GBufferRenderPass> pass;
    pass.run(view.inputs(
        {QVariantList{Input(model.drawBuffers(0)).value(), Input(model.drawBuffers(1)).value()}}));
    const auto expect = [&](int output, float tolerance, const std::function<QVector4D(const Hit&)>& value) {
        EXPECT_TRUE(equal(
            pass.pixels(output),
            scene.image(view, [&](const Hit* hit) { return hit ? value(*hit) : QVector4D(0, 0, 0, 1); }),
            tolerance))
            << "output " << output;
    };
    expect(GBufferRenderPass::Normal, 2e-5F, [](const Hit& hit) { return QVector4D(hit.normal, 1); });
    expect(GBufferRenderPass::TexCoord, 2e-5F,
           [](const Hit& hit) { return QVector4D(hit.texCoord.x(), hit.texCoord.y(), 0, 1); });
    expect(GBufferRenderPass::Id, 0.0F,
           [](const Hit& hit) { return QVector4D(static_cast<float>(hit.primitive + 1), 0, 0, 1); });
    EXPECT_TRUE(equal(pass.pixels(GBufferRenderPass::Depth), scene.depths(view), 1e-5F));
}

/// A rectangle at a depth of clip space. Its normal is (0, 0, z), which tells which one a pixel shows.
std::unique_ptr<GPUModel> makeRectangle(float left, float right, float z)
{
    MeshData mesh = makeSquare();
    mesh.positions = {{left, -1, z}, {right, -1, z}, {right, 1, z}, {left, 1, z}};
    mesh.normals.assign(4, {0, 0, z});
    return std::make_unique<GPUModel>(makeModelData(mesh));
}

TEST_F(GBufferRenderPassTest, TakesABatchOrAnyListOfBatches)
{
    const auto nearModel = makeRectangle(-1.0F, 0.0F, -0.5F);
    const auto farModel = makeRectangle(-1.0F, 0.5F, 0.5F);
    DrawBuffers* near = nearModel->drawBuffers(0);
    DrawBuffers* far = farModel->drawBuffers(0);
    const QVariant nearBatch = Input(near).value();
    const QVariant farBatch = Input(far).value();
    const QRect viewport(0, 0, 8, 4);
    const auto expected = [](bool hasNear, bool hasFar) {
        return Pixels::generate(8, 4, [&](int x, int) {
            const float z = hasNear && x < 4 ? -0.5F : hasFar && x < 6 ? 0.5F : 0.0F;
            return QVector4D(0, 0, z, 1);
        });
    };
    Runner<GBufferRenderPass> pass;
    const auto normals = [&](const Input& geometry) { return pass.render({viewport, {}, {}, geometry}); };
    EXPECT_TRUE(equal(normals(nearBatch), expected(true, false)));
    EXPECT_TRUE(equal(normals(QVariant::fromValue(far)), expected(false, true)));
    for (const QVariant& both :
         {QVariant(QVariantList{nearBatch, farBatch}), QVariant(QVariantList{farBatch, nearBatch}),
          QVariant::fromValue(QList<DrawBuffers*>{near, far})}) {
        EXPECT_TRUE(equal(normals(both), expected(true, true)));
    }
    EXPECT_TRUE(messages().information.isEmpty()) << qPrintable(messages().information.join(u'\n'));

    // Anything else is left out, and reported once.
    const QVariant texture = Input(pass.texture()).value();
    for (int frame = 0; frame < 2; ++frame) {
        EXPECT_TRUE(equal(normals(QVariantList{farBatch, 3, texture, QVariant()}), expected(false, true)));
    }
    ASSERT_EQ(messages().information.size(), 1);
    EXPECT_TRUE(messages().information.front().contains(u"must be a DrawBuffers*, not int"))
        << qPrintable(messages().information.front());
}

TEST_F(GBufferRenderPassTest, WithoutGeometryClearsToTheColourInForceAndLeavesTheDepthTestAlone)
{
    Runner<GBufferRenderPass> pass;
    const auto run = [&](const QRect& viewport, const Input& geometry) {
        pass.set(GBufferRenderPass::Viewport, viewport);
        pass.set(GBufferRenderPass::Geometry, geometry);
        pass.runAround([](RenderPass& p) {
            glClearColor(0.25F, 0.5F, 0.75F, 0.125F);
            p.start(nullptr);
        });
    };
    run({}, {});
    EXPECT_EQ(pass.texture(GBufferRenderPass::Depth), nullptr) << "no size, no texture";
    for (const Input& nothing : {Input(), Input(QVariantList()), Input(nullptr)}) {
        run({0, 0, 3, 2}, nothing);
        EXPECT_FALSE(context().isEnabled(GL_DEPTH_TEST));
        const auto expect = [&](int output, const QVector4D& color) {
            EXPECT_TRUE(equal(pass.pixels(output), Pixels::filled(3, 2, color))) << "output " << output;
        };
        // Components that a format lacks read back as 0, alpha as 1.
        expect(GBufferRenderPass::Normal, {0.25F, 0.5F, 0.75F, 1});
        expect(GBufferRenderPass::TexCoord, {0.25F, 0.5F, 0, 1});
        expect(GBufferRenderPass::Depth, {1, 1, 1, 1});
        expect(GBufferRenderPass::Id, {0.25F, 0, 0, 1});
    }
    EXPECT_TRUE(messages().information.isEmpty());

    const QPointer<Texture> before = pass.texture();
    const auto rectangle = makeRectangle(-1.0F, 1.0F, 0.0F);
    run({5, 5, 3, 2}, rectangle->drawBuffers(0));
    EXPECT_TRUE(context().isEnabled(GL_DEPTH_TEST)) << "left enabled";
    EXPECT_EQ(pass.texture(), before) << "the same size keeps the textures";
    run({0, 0, 3, 3}, rectangle->drawBuffers(0));
    EXPECT_FALSE(before) << "replaced textures are deleted";
    EXPECT_EQ(pass.texture()->size(), QSize(3, 3));
}

} // namespace
} // namespace Morvane::Qel::Test
