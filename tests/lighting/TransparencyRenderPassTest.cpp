// Weighted blended transparency against the method's formula on the hits of a ray caster.

#include <algorithm>
#include <cmath>
#include <random>

#include <epoxy/gl.h>

#include "support/GLState.h"
#include "support/GLTest.h"
#include "support/Scene.h"
#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>
#include <Qel/RenderPasses/lighting/TransparencyRenderPass.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ResourceScope.h>

namespace Morvane::Qel::Test {
namespace {

using Pass = TransparencyRenderPass;

constexpr int side = 16;

/// Orthographic, one unit wide and high; the window depth is the distance.
const View sheetView = View::orthographic({side, side}, 0.5F, 0.5F, 0.0F, 1.0F);

/// Adds a sheet that faces the camera at a distance and covers these pixels of the view, as a batch of its
/// own.
void addSheet(ModelData& data, const QRect& area, float distance, const QVector3D& kd, float d)
{
    MaterialData material;
    material.kd = kd;
    material.d = d;
    const QPointF centre = QRectF(area).center() - QPointF(side, side) / 2.0;
    QMatrix4x4 transform;
    transform.translate(static_cast<float>(centre.x()) / side, static_cast<float>(centre.y()) / side,
                        -distance);
    transform.scale(static_cast<float>(area.width()) / side, static_cast<float>(area.height()) / side, 1.0F);
    addObject(data, makeSquare(), material, transform);
}

/// The method's result for the surfaces behind a pixel.
QVector4D composite(const Scene& scene, const View& view, const std::vector<Hit>& hits)
{
    const QMatrix4x4 normalMatrix = view.camera.inverted().transposed();
    QVector3D opaque;
    float opaqueAlpha = 0.0F;
    QVector3D colours;
    float coverages = 0.0F;
    float revealage = 1.0F;
    for (const Hit& hit : hits) {
        const MaterialData& material = scene.material(hit);
        const QVector3D colour = blinnPhong(material, normalMatrix.mapVector(hit.normal));
        if (material.d == 1.0F) {
            opaque = colour;
            opaqueAlpha = 1.0F;
            break;
        }
        const float weight = std::pow(hit.depth, -5.0F);
        colours += weight * colour;
        coverages += weight * material.d;
        revealage *= 1.0F - material.d;
    }
    const QVector3D mean = colours / std::clamp(coverages, 1e-4F, 5e4F);
    return {(1.0F - revealage) * mean + revealage * opaque,
            revealage * (1.0F - revealage) + revealage * opaqueAlpha};
}

Pixels expectedImage(const Scene& scene, const View& view)
{
    return Pixels::generate(view.size.width(), view.size.height(), [&](int x, int y) {
        return scene.isEdge(view, x, y) ? anyPixel
                                        : composite(scene, view, scene.hits(view, x + 0.5, y + 0.5));
    });
}

Pixels renderSheets(const ModelData& data)
{
    GPUModel model(data);
    // The pass goes by dissolve alone.
    for (int i = 0; i < model.numBatches(); ++i) {
        model.setDrawFlags(i, 0);
    }
    Runner<Pass> pass;
    return pass.render(sheetView.inputs({&model}));
}

using TransparencyTest = GLTest;

TEST_F(TransparencyTest, FollowsTheMethod)
{
    // A solid scene in perspective with one translucent object, seen through its front and back.
    ModelData data = makeSceneData();
    for (MaterialData& material : data.materials) {
        // Normals are longer than 1 and not normalised, so a high exponent would give huge highlights.
        material.ns = 1.0F;
    }
    const Scene solid(data);
    const View view = makeSceneView({48, 40});
    GPUModel solidModel(solid.data());
    Runner<Pass> pass;
    // Interpolated normals and powers of depth on the GPU.
    EXPECT_TRUE(equal(pass.render(view.inputs({&solidModel})), expectedImage(solid, view), 1e-4F));
    data.instances.pop_back();
    EXPECT_TRUE(equal(pass.pixels(Pass::Depth), Scene(data).depths(view), 1e-5F));

    data = {};
    addSheet(data, {0, 0, 16, 4}, 0.95F, {0.3F, 0.3F, 0.3F}, 1.0F);
    // The nearer one first: the order of drawing does not matter.
    addSheet(data, {2, 0, 6, 16}, 0.5F, {0.0F, 0.2F, 20.0F}, 0.25F);
    addSheet(data, {0, 0, 6, 16}, 0.8F, {0.9F, 0.1F, 0.0F}, 0.5F);
    // So near that the coverage exceeds its upper bound.
    addSheet(data, {10, 0, 2, 16}, 0.08F, {0.9F, 0.1F, 0.0F}, 0.9F);
    // So thin that it stays below the lower bound.
    addSheet(data, {13, 0, 2, 16}, 0.99F, {0.0F, 0.2F, 0.8F}, 2e-5F);
    // Hidden.
    addSheet(data, {0, 0, 16, 3}, 0.97F, {1.0F, 1.0F, 1.0F}, 0.5F);
    // Drivers compute powers by logarithms of some 20 bits.
    EXPECT_TRUE(equal(renderSheets(data), expectedImage(Scene(data), sheetView), 4e-5F));
}

TEST_F(TransparencyTest, LosesNoPixelByKeepingToWhatTheModelCovers)
{
    ModelData data;
    MaterialData glass;
    glass.kd = {0.9F, 0.5F, 0.1F};
    glass.d = 0.5F;
    // So far from the origin that vertices are rounded by pixels.
    QMatrix4x4 farAway;
    farAway.translate(4e6F, 3e6F, 0.0F);
    addObject(data, makeSquare(), glass);
    addObject(data, makeSphere(), glass);
    addObject(data, makeSphere(), glass, farAway);
    GPUModel model(data);
    GPUModel unbounded(data);
    constexpr float far = 1e30F;
    unbounded.setBounds({QVector3D(-far, -far, -far), QVector3D(far, far, far)});
    std::mt19937 engine(1);
    std::uniform_real_distribution<float> place(-2.5F, 2.5F);
    const auto point = [&] { return QVector3D(place(engine), place(engine), place(engine)); };
    Runner<Pass> pass;
    int numSeen = 0;
    for (int i = 0; i < 120; ++i) {
        // In front of, inside and behind the eye, partly or wholly outside the image.
        const QVector3D origin = i % 2 == 0 ? QVector3D() : farAway.map(QVector3D());
        const QSize size(40 + i, 30);
        const View view = (i % 3 == 0 ? View::orthographic(size, 3.0F, 2.0F, 0.1F, 20.0F)
                                      : View::perspective(size, 60.0F, 0.05F))
                              .from(origin + point(), origin + point());
        const Pixels expected = pass.render(view.inputs({&unbounded}));
        EXPECT_TRUE(equal(pass.render(view.inputs({&model})), expected)) << "view " << i;
        numSeen += equal(expected, Pixels::filled(size.width(), size.height(), {})) ? 0 : 1;
    }
    EXPECT_GT(numSeen, 60);
}

TEST_F(TransparencyTest, ATextureReplacesMissingMaps)
{
    ModelData data;
    addSheet(data, {0, 0, 8, side}, 0.5F, {0.8F, 0.6F, 0.4F}, 1.0F);
    addSheet(data, {8, 0, 8, side}, 0.5F, {0.8F, 0.6F, 0.4F}, 0.5F);
    data.images.emplace_back(1, 1, QImage::Format_RGBA8888).fill(QColor(0, 0, 255));
    for (MaterialData& material : data.materials) {
        material.ks = {0.5F, 0.5F, 0.5F};
        material.ns = 2.0F;
    }
    // The first sheet lacks the specular map, the second both.
    data.materials[0].mapKd = 0;
    GPUModel model(data);
    const auto expected = [&](const QVector3D& standIn) {
        return Pixels::generate(side, side, [&](int x, int) {
            MaterialData material = data.materials[x < 8 ? 0 : 1];
            material.kd *= x < 8 ? QVector3D(0, 0, 1) : standIn;
            material.ks *= standIn;
            return QVector4D(blinnPhong(material, {0, 0, 1}), x < 8 ? 1.0F : 0.25F);
        });
    };
    const auto makeStandIn = [] {
        return makePooledTexture(Pixels::filled(1, 1, {0.5F, 0.25F, 0.75F, 0.125F}), TextureFormat::RGBA16F);
    };
    Runner<Pass> pass;
    EXPECT_TRUE(
        equal(pass.render(sheetView.inputs({&model, makeStandIn()})), expected({0.5F, 0.25F, 0.75F}), 1e-6F));

    // Afterwards neither this pass nor another one samples it.
    EXPECT_TRUE(equal(pass.render(sheetView.inputs({&model, {}})), expected({1, 1, 1}), 1e-6F));
    pass.run(sheetView.inputs({&model, makeStandIn()}));
    ResourceScope scope;
    const ResourceScope::Activation inside(&scope);
    Runner<ForwardRenderPass> forward;
    EXPECT_EQ(forward.render(sheetView.inputs({&model})).roundedToBytes().at(12, 4).toVector3D(),
              expected({1, 1, 1}).roundedToBytes().at(12, 4).toVector3D());
}

TEST_F(TransparencyTest, ClearsWithoutAModelAndLeavesTheStateThatItNames)
{
    ModelData data;
    addSheet(data, {0, 0, 8, 16}, 0.5F, {0.9F, 0.3F, 0.2F}, 1.0F);
    GPUModel model(data);
    Runner<Pass> pass;
    EXPECT_TRUE(equal(pass.render({QRect(7, 7, 9, 4)}), Pixels::filled(9, 4, {})));
    EXPECT_TRUE(equal(pass.pixels(Pass::Depth), Pixels::filled(9, 4, {1, 1, 1, 1})));
    // The accumulation is tested against the depth of the new size.
    EXPECT_TRUE(equal(pass.render(sheetView.inputs({&model})), expectedImage(Scene(data), sheetView), 1e-6F));
    for (const bool before : {true, false}) {
        context().setEnabled(GL_DEPTH_TEST, before);
        context().setEnabled(GL_BLEND, !before);
        pass->start(nullptr);
        EXPECT_EQ(glIsEnabled(GL_DEPTH_TEST) == GL_TRUE, before);
        EXPECT_EQ(glIsEnabled(GL_BLEND) == GL_TRUE, !before);
    }
    EXPECT_EQ(stateInGL(GL_DEPTH_WRITEMASK), static_cast<unsigned int>(GL_TRUE));
    EXPECT_EQ(stateInGL(GL_BLEND_SRC_RGB), static_cast<unsigned int>(GL_ONE_MINUS_SRC_ALPHA));

    // With a depth function that passes equal depths, opaque fragments reach the accumulation and set the
    // revealage to 0, alpha included.
    EXPECT_EQ(pass.render().at(2, 2).w(), 1.0F);
    glDepthFunc(GL_LEQUAL);
    context().makeCurrent();
    pass->start(nullptr);
    EXPECT_EQ(pass.pixels().at(2, 2).w(), 0.0F);
}

} // namespace
} // namespace Morvane::Qel::Test
