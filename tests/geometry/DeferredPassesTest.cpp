// Shading of G-buffers against the same formulas on the CPU.

#include <algorithm>
#include <cmath>

#include <epoxy/gl.h>

#include "support/Scene.h"
#include "support/ScopedGLTest.h"
#include <Qel/RenderPasses/geometry/DeferredRenderPass.h>
#include <Qel/RenderPasses/geometry/GBufferRenderPass.h>
#include <Qel/RenderPasses/geometry/ModelDeferredPass.h>

namespace Morvane::Qel::Test {
namespace {

constexpr int width = 12;
constexpr int height = 9;
const QRect viewport(0, 0, width, height);
/// Half a step of 8 bits, and the last bits of what is rounded to it.
constexpr float halfStep = 0.51F / 255.0F;

Pixels everywhere(const QVector4D& value)
{
    return Pixels::filled(width, height, value);
}

/// Normals in all directions and of several lengths, with a w that counts.
Pixels makeNormals()
{
    return Pixels::generate(width, height, [](int x, int y) {
        const float a = 0.7F * static_cast<float>(x);
        const float b = 0.5F * static_cast<float>(y);
        return QVector4D(std::sin(a) * std::cos(b), std::sin(b), std::cos(a) * std::cos(b), 0.05F * a) * 1.2F;
    });
}

/// The grey of DeferredRenderPass: the depth is not mapped to -1..1, and the inverse projection is
/// transposed.
Pixels greys(const Pixels& normals, const Pixels& depths, const QMatrix4x4& projection,
             const QMatrix4x4& camera)
{
    const QMatrix4x4 unproject = projection.inverted().transposed();
    const QMatrix4x4 normalMatrix = camera.inverted().transposed();
    const QVector3D light = (camera * QVector4D(100, 100, 100, 1)).toVector3D();
    return Pixels::generate(width, height, [&](int x, int y) {
        const QVector4D clip((static_cast<float>(x) + 0.5F) / width * 2.0F - 1.0F,
                             (static_cast<float>(y) + 0.5F) / height * 2.0F - 1.0F, depths.at(x, y).x(), 1);
        const QVector4D position = unproject * clip;
        const QVector3D eye = (camera * (position / position.w())).toVector3D();
        const QVector3D normal = (normalMatrix * normals.at(x, y)).toVector3D();
        const float cosine = QVector3D::dotProduct((light - eye).normalized(), normal);
        const float grey = std::clamp(cosine, 0.0F, 1.0F);
        return QVector4D(grey, grey, grey, 1);
    });
}

struct Matrices
{
    QMatrix4x4 projection;
    QMatrix4x4 camera;
};

/// Neither rigid nor affine, so that the normal's w contributes.
Matrices makeSkewedMatrices()
{
    Matrices skewed;
    skewed.projection.frustum(-2, 3, -1, 2, 1, 40);
    skewed.camera = QMatrix4x4(2, 0.3F, 0, 4, 0, 1, -0.5F, 2, 0.2F, 0, 1.5F, -3, 0.01F, 0.002F, 0, 1);
    return skewed;
}

using DeferredPassesTest = ScopedGLTest;

TEST_F(DeferredPassesTest, GreyIsTheCosineAtThePositionFromTheTransposedInverse)
{
    const Pixels normals = makeNormals();
    const Pixels depths = Pixels::noise(width, height, 1);
    const auto normalTexture = makeTexture(normals, GL_RGBA32F);
    const auto depthTexture = makeTexture(depths, GL_R32F);
    Matrices perspective;
    perspective.projection.perspective(50.0F, 4.0F / 3.0F, 0.5F, 400.0F);
    perspective.camera.lookAt({40, 30, 50}, {0, 0, 0}, {0, 1, 0});
    // A projection without an inverse counts as the identity.
    Matrices flat;
    flat.projection.scale(1, 1, 0);
    for (const Matrices& m : {Matrices(), perspective, makeSkewedMatrices(), flat}) {
        Runner<DeferredRenderPass> pass;
        const Pixels expected = greys(normals, depths, m.projection, m.camera);
        // The texture coordinate has no effect.
        for (const Input& texCoord : {Input(nullptr), Input(normalTexture)}) {
            EXPECT_TRUE(
                equal(pass.render({viewport, m.projection, m.camera, normalTexture, texCoord, depthTexture}),
                      expected, halfStep));
        }
    }
}

TEST_F(DeferredPassesTest, TheDocumentedMatricesPutTheLightAtItsPosition)
{
    // A floor of 200 x 200 below the light, in world space.
    MeshData floor = makeSquare();
    floor.positions = {{0, 40, 0}, {200, 40, 0}, {200, 40, 200}, {0, 40, 200}};
    floor.normals.assign(4, {0, 1, 0});
    const Scene scene(makeModelData(floor));
    const GPUModel model(scene.data());
    const QSize size(width, height);
    for (const View& projection :
         {View::perspective(size, 60.0F, 1.0F, 500.0F), View::orthographic(size, 80, 60, 1, 500)}) {
        const View view = projection.from({60, 130, 230}, {100, 40, 100});
        Runner<GBufferRenderPass> gbuffer;
        gbuffer.run(view.inputs({model.drawBuffers(0)}));
        QMatrix4x4 toDepth;
        toDepth.translate(0, 0, 0.5F);
        toDepth.scale(1, 1, 0.5F);
        Runner<DeferredRenderPass> pass;
        const Pixels actual =
            pass.render({view.viewport(), (toDepth * view.projection * view.camera).transposed(),
                         QMatrix4x4(), gbuffer.take(0), gbuffer.take(1), gbuffer.take(2)});
        EXPECT_TRUE(equal(
            actual,
            scene.image(view,
                        [](const Hit* hit) {
                            const float grey =
                                hit ? (QVector3D(100, 100, 100) - hit->position).normalized().y() : 0.0F;
                            return QVector4D(grey, grey, grey, 1);
                        }),
            halfStep));
    }
}

TEST_F(DeferredPassesTest, OnlyAMissingDepthMakesTheFallback)
{
    // With these matrices the normal's w contributes: 1 where nothing is bound, 0 in the fallback.
    const auto [projection, camera] = makeSkewedMatrices();
    const Pixels normals = makeNormals();
    const Pixels depths = Pixels::noise(width, height, 1);
    const auto normalTexture = makeTexture(normals, GL_RGBA32F);
    const auto depthTexture = makeTexture(depths, GL_R32F);
    Runner<DeferredRenderPass> pass;
    const auto render = [&](const Input& normal, const Input& depth) {
        return pass.render({viewport, projection, camera, normal, nullptr, depth});
    };
    EXPECT_TRUE(equal(render(nullptr, depthTexture),
                      greys(everywhere({0, 0, 0, 1}), depths, projection, camera), halfStep));
    EXPECT_TRUE(
        equal(render(normalTexture, nullptr), greys(normals, everywhere({}), projection, camera), halfStep));
    EXPECT_TRUE(
        equal(render(nullptr, depthTexture), greys(everywhere({}), depths, projection, camera), halfStep));
}

TEST_F(DeferredPassesTest, MaterialsAreShadedByBlinnPhong)
{
    const auto material = [](int x, int y) {
        MaterialData m;
        m.kd = {0.1F * static_cast<float>(x), 0.1F * static_cast<float>(y), 0.4F};
        m.d = static_cast<float>(x) / width;
        m.ks = {0.5F, 0.25F, 0.1F * static_cast<float>(y)};
        // A shininess of 0 gives full highlights.
        m.ns = static_cast<float>(x * x);
        return m;
    };
    // Normals are used as they are stored, of any length.
    const auto normal = [](int x, int y) {
        const float a = 0.2F * static_cast<float>(x) - 1.0F;
        const float b = 0.2F * static_cast<float>(y) - 0.5F;
        return QVector3D(std::sin(a) * std::cos(b), std::sin(b), std::cos(a) * std::cos(b)) *
               (x % 2 == 0 ? 1.0F : 0.8F);
    };
    const auto diffuse = makeTexture(width, height, GL_RGBA32F, [&](int x, int y) {
        return QVector4D(material(x, y).kd, material(x, y).d);
    });
    const auto specular = makeTexture(width, height, GL_RGBA32F, [&](int x, int y) {
        return QVector4D(material(x, y).ks, material(x, y).ns);
    });
    const auto normals =
        makeTexture(width, height, GL_RGB32F, [&](int x, int y) { return QVector4D(normal(x, y), 0); });
    const auto depth = makeTexture(everywhere({0.5F, 0, 0, 1}), GL_R32F);
    const auto [projection, camera] = makeSkewedMatrices();
    Runner<ModelDeferredPass> pass;
    const auto expected = Pixels::generate(width, height, [&](int x, int y) {
        QVector4D color(blinnPhong(material(x, y), normal(x, y)), material(x, y).d);
        for (int i = 0; i < 4; ++i) {
            color[i] = std::clamp(color[i], 0.0F, 1.0F);
        }
        return color;
    });
    // Matrices have no effect.
    EXPECT_TRUE(
        equal(pass.render({viewport, {}, {}, diffuse, specular, normals, depth}), expected, halfStep));
    EXPECT_TRUE(equal(pass.render({viewport, projection, camera, diffuse, specular, normals, depth}),
                      expected, halfStep));

    // Without normals only the dissolve is left. The fallback exists once a depth was missing.
    const auto shiny = makeTexture(everywhere({0.5F, 0.5F, 0.5F, 8}), GL_RGBA32F);
    const auto half = makeTexture(everywhere({1, 1, 1, 0.5F}), GL_RGBA32F);
    const auto render = [&](const Input& kd, const Input& depthInput) {
        return pass.render({viewport, {}, {}, kd, shiny, nullptr, depthInput});
    };
    EXPECT_TRUE(equal(render(half, depth), everywhere({0, 0, 0, 128.0F / 255.0F}), 1e-6F));
    EXPECT_TRUE(equal(render(nullptr, depth), everywhere({0, 0, 0, 1})));
    EXPECT_TRUE(equal(render(nullptr, nullptr), everywhere({})));
    EXPECT_TRUE(equal(render(nullptr, depth), everywhere({})));
}

TEST_F(DeferredPassesTest, ReturnPooledInputsAndRestoreTheirParameters)
{
    const auto check = [](auto& pass, int numTextures) {
        std::vector<Input> inputs{viewport, {}, {}};
        Texture* first = nullptr;
        for (int i = 0; i < numTextures; ++i) {
            first = makePooledTexture(everywhere({}), TextureFormat::RGBA16F);
            first->setWrap(GL_REPEAT);
            inputs.emplace_back(first);
        }
        pass.run(inputs);
        EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
        EXPECT_EQ(first->parameter(GL_TEXTURE_WRAP_S), GL_REPEAT);
    };
    Runner<DeferredRenderPass> deferred;
    check(deferred, 3);
    Runner<ModelDeferredPass> model;
    check(model, 4);
}

} // namespace
} // namespace Morvane::Qel::Test
