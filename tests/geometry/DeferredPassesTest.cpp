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

using Matrices = std::pair<QMatrix4x4, QMatrix4x4>;

/// A projection and a camera, neither rigid nor affine, so that the normal's w contributes.
Matrices makeSkewedMatrices()
{
    QMatrix4x4 projection;
    projection.frustum(-2, 3, -1, 2, 1, 40);
    return {projection, QMatrix4x4(2, 0.3F, 0, 4, 0, 1, -0.5F, 2, 0.2F, 0, 1.5F, -3, 0.01F, 0.002F, 0, 1)};
}

using DeferredPassesTest = ScopedGLTest;

TEST_F(DeferredPassesTest, GreyIsTheCosineAtThePositionFromTheTransposedInverse)
{
    const Pixels normals = makeNormals();
    const Pixels depths = Pixels::noise(width, height, 1);
    const auto normalTexture = makeTexture(normals, GL_RGBA32F);
    const auto depthTexture = makeTexture(depths, GL_R32F);
    // A projection without an inverse counts as the identity.
    QMatrix4x4 flat;
    flat.scale(1, 1, 0);
    const Matrices skewed = makeSkewedMatrices();
    for (const auto& [projection, camera] : {skewed, Matrices(flat, skewed.second)}) {
        Runner<DeferredRenderPass> pass;
        const auto check = [&, &p = projection, &c = camera](const Input& normal, const Input& depth,
                                                             const Pixels& shownNormals,
                                                             const Pixels& shownDepths) {
            // The texture coordinate has no effect.
            for (const Input& texCoord : {Input(nullptr), Input(normalTexture)}) {
                EXPECT_TRUE(equal(pass.render({viewport, p, c, normal, texCoord, depth}),
                                  greys(shownNormals, shownDepths, p, c), halfStep));
            }
        };
        check(normalTexture, depthTexture, normals, depths);
        // Only a missing depth makes the fallback: where nothing is bound, the normal's w is 1, later 0.
        check(nullptr, depthTexture, everywhere({0, 0, 0, 1}), depths);
        check(normalTexture, nullptr, normals, everywhere({}));
        check(nullptr, depthTexture, everywhere({}), depths);
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
    const View view =
        View::perspective({width, height}, 60.0F, 1.0F, 500.0F).from({60, 130, 230}, {100, 40, 100});
    Runner<GBufferRenderPass> gbuffer;
    gbuffer.run(view.inputs({model.drawBuffers(0)}));
    QMatrix4x4 toDepth;
    toDepth.translate(0, 0, 0.5F);
    toDepth.scale(1, 1, 0.5F);
    Runner<DeferredRenderPass> pass;
    EXPECT_TRUE(equal(pass.render({viewport, (toDepth * view.projection * view.camera).transposed(),
                                   QMatrix4x4(), gbuffer.take(0), gbuffer.take(1), gbuffer.take(2)}),
                      scene.image(view,
                                  [](const Hit* hit) {
                                      const float grey =
                                          hit ? (QVector3D(100, 100, 100) - hit->position).normalized().y()
                                              : 0.0F;
                                      return QVector4D(grey, grey, grey, 1);
                                  }),
                      halfStep));
}

TEST_F(DeferredPassesTest, MaterialsAreShadedByBlinnPhong)
{
    // Normals are used as they are stored, of any length.
    const Pixels normals = makeNormals();
    const Pixels diffuse = Pixels::noise(width, height, 2);
    // A shininess of 0 gives full highlights.
    const Pixels specular = Pixels::generate(width, height, [](int x, int y) {
        return QVector4D(0.5F, 0.25F, 0.1F * static_cast<float>(y), static_cast<float>(x * x));
    });
    const auto depth = makeTexture(everywhere({0.5F, 0, 0, 1}), GL_R32F);
    const auto expected = Pixels::generate(width, height, [&](int x, int y) {
        MaterialData material;
        material.kd = diffuse.at(x, y).toVector3D();
        material.ks = specular.at(x, y).toVector3D();
        material.ns = specular.at(x, y).w();
        QVector4D color(blinnPhong(material, normals.at(x, y).toVector3D()), diffuse.at(x, y).w());
        for (int i = 0; i < 4; ++i) {
            color[i] = std::clamp(color[i], 0.0F, 1.0F);
        }
        return color;
    });
    const auto diffuseTexture = makeTexture(diffuse, GL_RGBA32F);
    const auto specularTexture = makeTexture(specular, GL_RGBA32F);
    const auto normalTexture = makeTexture(normals, GL_RGBA32F);
    const auto [skewedProjection, skewedCamera] = makeSkewedMatrices();
    Runner<ModelDeferredPass> pass;
    // Matrices have no effect.
    EXPECT_TRUE(equal(pass.render({viewport, skewedProjection, skewedCamera, diffuseTexture, specularTexture,
                                   normalTexture, depth}),
                      expected, halfStep));

    // Without normals only the dissolve is left. The fallback exists once a depth was missing.
    const auto half = makeTexture(everywhere({1, 1, 1, 0.5F}), GL_RGBA32F);
    const auto shiny = makeTexture(everywhere({0.5F, 0.5F, 0.5F, 8}), GL_RGBA32F);
    const auto render = [&](const Input& kd, const Input& depthInput) {
        return pass.render({viewport, {}, {}, kd, shiny, nullptr, depthInput});
    };
    EXPECT_TRUE(equal(render(half, depth), everywhere({0, 0, 0, 128.0F / 255.0F}), 1e-6F));
    EXPECT_TRUE(equal(render(nullptr, depth), everywhere({0, 0, 0, 1})));
    EXPECT_TRUE(equal(render(nullptr, nullptr), everywhere({})));
    EXPECT_TRUE(equal(render(nullptr, depth), everywhere({})));
}

} // namespace
} // namespace Morvane::Qel::Test
