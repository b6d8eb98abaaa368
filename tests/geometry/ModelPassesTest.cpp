// Forward drawing, the material G-buffer and its shading, on a scene that a CPU ray caster knows.

#include <algorithm>

#include <epoxy/gl.h>

#include "support/Scene.h"
#include "support/ScopedGLTest.h"
#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>
#include <Qel/RenderPasses/geometry/GBufferRenderPass.h>
#include <Qel/RenderPasses/geometry/ModelDeferredPass.h>
#include <Qel/RenderPasses/geometry/ModelRenderPass.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

const QSize size(48, 40);
/// Half a step of 8 bits, and as much again for the precision of the power function.
constexpr float shadingTolerance = 1.02F / 255.0F;

/// The shaded colour in 8 bits, with the dissolve as alpha.
QVector4D lit(const MaterialData& material, const QVector3D& eyeNormal)
{
    QVector4D color(blinnPhong(material, eyeNormal), material.d);
    for (int i = 0; i < 4; ++i) {
        color[i] = std::clamp(color[i], 0.0F, 1.0F);
    }
    return color;
}

using ModelPassesTest = ScopedGLTest;

TEST_F(ModelPassesTest, ForwardAndDeferredShadeWhatIsNearest)
{
    const Scene scene(makeSceneData());
    GPUModel model(scene.data());
    const View view = makeSceneView(size);
    const auto image = [&](const std::function<QVector4D(const Hit&)>& value, const QVector4D& background) {
        return scene.image(view, [&](const Hit* hit) { return hit ? value(*hit) : background; });
    };
    const auto eyeNormal = [&](const Hit& hit) { return view.camera.mapVector(hit.normal); };

    // Forward shades with normals as they are interpolated, of any length.
    Runner<ForwardRenderPass> forward;
    forward.run(view.inputs({&model}));
    EXPECT_TRUE(equal(forward.pixels(ForwardRenderPass::Frame),
                      image([&](const Hit& hit) { return lit(scene.material(hit), eyeNormal(hit)); }, {}),
                      shadingTolerance));
    // 8 bits clamp every Id to 1.
    EXPECT_TRUE(equal(forward.pixels(ForwardRenderPass::Id),
                      image([](const Hit&) { return QVector4D(1, 1, 1, 1); }, {})));

    Runner<ModelRenderPass> material;
    material.run(view.inputs({&model}));
    const auto expect = [&](int output, float tolerance, const QVector4D& background,
                            const std::function<QVector4D(const Hit&)>& value) {
        EXPECT_TRUE(equal(material.pixels(output), image(value, background), tolerance))
            << "output " << output;
    };
    expect(ModelRenderPass::Diffuse, 0.0F, {},
           [&](const Hit& hit) { return QVector4D(scene.material(hit).kd, scene.material(hit).d); });
    expect(ModelRenderPass::Specular, 0.0F, {},
           [&](const Hit& hit) { return QVector4D(scene.material(hit).ks, scene.material(hit).ns); });
    expect(ModelRenderPass::Normal, 2e-5F, {0, 0, 0, 1},
           [&](const Hit& hit) { return QVector4D(eyeNormal(hit).normalized(), 1); });
    expect(ModelRenderPass::Id, 0.0F, {0, 0, 0, 1},
           [](const Hit& hit) { return QVector4D(static_cast<float>(hit.primitive + 1), 0, 0, 1); });
    EXPECT_TRUE(equal(material.pixels(ModelRenderPass::Depth), scene.depths(view), 1e-5F));

    // The background's pow(0, 0) is up to the driver.
    Runner<ModelDeferredPass> deferred;
    EXPECT_TRUE(
        equal(deferred.render(view.inputs(
                  {material.take(ModelRenderPass::Diffuse), material.take(ModelRenderPass::Specular),
                   material.take(ModelRenderPass::Normal), material.take(ModelRenderPass::Depth)})),
              image([&](const Hit& hit) { return lit(scene.material(hit), eyeNormal(hit).normalized()); },
                    anyPixel),
              shadingTolerance));
}

TEST_F(ModelPassesTest, NormalsAreExtendedWithOne)
{
    // Under this camera the last column of the normal matrix is (-0.5, 0, 0, 1).
    QMatrix4x4 camera;
    camera(3, 0) = 0.5F;
    const ModelData data = makeModelData(makeSquare());
    GPUModel model(data);
    const QVector3D normal(-0.5F, 0, 1);
    Runner<ForwardRenderPass> forward;
    const std::vector<Input> inputs{QRect(0, 0, 5, 5), {}, camera, &model};
    const Pixels frame = forward.render(inputs);
    EXPECT_LT((frame.at(2, 2) - lit(data.materials[0], normal)).length(), shadingTolerance);
    Runner<ModelRenderPass> material;
    material.run(inputs);
    EXPECT_LT((material.pixels(ModelRenderPass::Normal).at(2, 2).toVector3D() - normal.normalized()).length(),
              1e-5F);
}

TEST_F(ModelPassesTest, DiscardsByTheDiffuseMapsAlphaIfSetBeforeTheFirstFrame)
{
    ModelData data = makeModelData(makeSquare());
    // 2 / 255 is below the limit of 0.01, 3 / 255 above.
    QImage image(2, 1, QImage::Format_RGBA8888);
    image.setPixelColor(0, 0, QColor(255, 255, 255, 2));
    image.setPixelColor(1, 0, QColor(255, 255, 255, 3));
    data.images = {image};
    data.materials[0].mapKd = 0;
    GPUModel model(data);
    // The square covers the middle quarter of the view.
    Runner<ModelRenderPass> keeps;
    Runner<ModelRenderPass> discards;
    discards->setDiscardOnDiffuseAlpha(true);
    for (auto* pass : {&keeps, &keeps, &discards}) {
        pass->run({QRect(0, 0, 16, 16), {}, {}, &model});
        const Pixels depth = pass->pixels(ModelRenderPass::Depth);
        EXPECT_EQ(depth.at(4, 8).x() < 1.0F, pass == &keeps);
        EXPECT_LT(depth.at(11, 8).x(), 1.0F);
        // Too late for a pass that has drawn.
        keeps->setDiscardOnDiffuseAlpha(true);
    }
}

TEST_F(ModelPassesTest, WithoutAModelTheOutputsAreClearedAndFollowTheSize)
{
    const auto check = [](auto& pass) {
        pass.run();
        EXPECT_EQ(pass.texture(), nullptr) << "no size, no texture";
        EXPECT_TRUE(equal(pass.render({QRect(0, 0, 9, 4)}), Pixels::filled(9, 4, {})));
        const Texture* before = pass.texture();
        EXPECT_TRUE(equal(pass.render({QRect(7, 7, 9, 4)}), Pixels::filled(9, 4, {})));
        EXPECT_EQ(pass.texture(), before) << "the same size keeps the textures";
        EXPECT_TRUE(equal(pass.render({QRect(0, 0, 3, 8)}), Pixels::filled(3, 8, {})));
    };
    Runner<ForwardRenderPass> forward;
    check(forward);
    Runner<ModelRenderPass> material;
    check(material);
}

template<class Pass>
void expectOwnProgramDraws(const QString& firstOutput, const Input& geometry)
{
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER,
                      u"#version 150\nin vec3 va_Vertex;\n"
                      "void main() { gl_Position = vec4(va_Vertex, 1.0); }"_s,
                      {});
    program.addShader(
        GL_FRAGMENT_SHADER,
        u"#version 150\nout vec4 %1;\nvoid main() { %1 = vec4(0.2, 0.4, 0.6, 0.8); }"_s.arg(firstOutput), {});
    {
        Runner<Pass> pass;
        pass->setShaderProgram(&program);
        const Pixels image = pass.render({QRect(0, 0, 4, 4), {}, {}, geometry});
        EXPECT_LT((image.at(1, 2).toVector3D() - QVector3D(0.2F, 0.4F, 0.6F)).length(), 1e-6F);
    }
    EXPECT_TRUE(program.isValid()) << "the caller keeps it";
}

TEST_F(ModelPassesTest, DrawWithAProgramOfTheCaller)
{
    const auto model = makeCubeModel();
    expectOwnProgramDraws<ForwardRenderPass>(u"out_FragColor"_s, model);
    expectOwnProgramDraws<ModelRenderPass>(u"out_Kd"_s, model);
    expectOwnProgramDraws<GBufferRenderPass>(u"out_Normal"_s, model->drawBuffers(0));
}

} // namespace
} // namespace Morvane::Qel::Test
