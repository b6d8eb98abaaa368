// Shading of G-buffers against the same formulas on the CPU, and against what is known of the scene.

#include <QMatrix4x4>
#include <QRect>

#include <algorithm>
#include <cmath>
#include <memory>

#include <epoxy/gl.h>

#include "support/Models.h"
#include "support/Passes.h"
#include "support/Paths.h"
#include "support/Pixels.h"
#include "support/ScopedGLTest.h"
#include <Qel/RenderPasses/geometry/DeferredRenderPass.h>
#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>
#include <Qel/RenderPasses/geometry/GBufferRenderPass.h>
#include <Qel/RenderPasses/geometry/ModelDeferredPass.h>
#include <Qel/RenderPasses/geometry/ModelRenderPass.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/Texture.h>
#include <Qel/model/ModelImport.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

constexpr int width = 12;
constexpr int height = 9;
const QRect viewport(0, 0, width, height);
/// Half a step of 8 bits, and the last bits of what is rounded to it.
constexpr float halfStep = 0.51F / 255.0F;

Pixels everywhere(const QVector4D& value)
{
    return Pixels::generate(width, height, [&](int, int) { return value; });
}

float clamped(float value)
{
    return std::clamp(value, 0.0F, 1.0F);
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

Pixels makeDepths()
{
    return Pixels::generate(width, height, [](int x, int y) {
        return QVector4D(static_cast<float>((x * 5 + y * 7) % 19) / 18.0F, 0, 0, 1);
    });
}

/// The grey of DeferredRenderPass: the depth is not taken to -1..1, and the inverse projection is transposed.
Pixels greys(const Pixels& normals, const Pixels& depths, const QMatrix4x4& projection,
             const QMatrix4x4& camera)
{
    const QMatrix4x4 unproject = projection.inverted().transposed();
    const QMatrix4x4 normalMatrix = camera.inverted().transposed();
    const QVector3D light = (camera * QVector4D(100, 100, 100, 1)).toVector3D();
    return Pixels::generate(width, height, [&](int x, int y) {
        const QVector4D clip((static_cast<float>(x) + 0.5F) / width * 2.0F - 1.0F,
                             (static_cast<float>(y) + 0.5F) / height * 2.0F - 1.0F, depths.at(x, y).x(), 1);
        const QVector4D place = unproject * clip;
        const QVector3D eye = (camera * (place / place.w())).toVector3D();
        const QVector3D normal = (normalMatrix * normals.at(x, y)).toVector3D();
        const float grey = clamped(QVector3D::dotProduct((light - eye).normalized(), normal));
        return QVector4D(grey, grey, grey, 1);
    });
}

struct View
{
    QMatrix4x4 projection;
    QMatrix4x4 camera;
};

std::vector<View> makeViews()
{
    std::vector<View> views(4);
    views[1].projection.perspective(50.0F, 4.0F / 3.0F, 0.5F, 400.0F);
    views[1].camera.lookAt({40, 30, 50}, {0, 0, 0}, {0, 1, 0});
    views[2].projection.ortho(-60, 90, -40, 50, -20, 300);
    views[2].camera.lookAt({10, 90, 20}, {30, 0, 0}, {0, 0, 1});
    // Neither rigid nor affine, so that w and translation of the normal's matrix take part.
    views[3].projection.frustum(-2, 3, -1, 2, 1, 40);
    views[3].camera = QMatrix4x4(2, 0.3F, 0, 4, 0, 1, -0.5F, 2, 0.2F, 0, 1.5F, -3, 0.01F, 0.002F, 0, 1);
    return views;
}

class DeferredPassesTest : public ScopedGLTest
{
protected:
    QVariant texture(const Pixels& pixels, unsigned int internalFormat = GL_RGBA32F)
    {
        m_textures.emplace_back(makeTexture(pixels, internalFormat));
        return textureInput(m_textures.back().get());
    }
    void TearDown() override
    {
        m_textures.clear();
        ScopedGLTest::TearDown();
    }

private:
    std::vector<std::unique_ptr<Texture>> m_textures;
};

TEST_F(DeferredPassesTest, GreyIsTheCosineAtThePlaceThatTheTransposedInverseGives)
{
    const Pixels normals = makeNormals();
    const Pixels depths = makeDepths();
    for (const View& view : makeViews()) {
        DeferredRenderPass pass;
        const Pixels expected = greys(normals, depths, view.projection, view.camera);
        EXPECT_TRUE(equal(render(pass, {viewport, view.projection, view.camera, texture(normals), QVariant(),
                                        texture(depths, GL_R32F)}),
                          expected, halfStep));
        // The texture coordinate changes nothing.
        EXPECT_TRUE(equal(render(pass, {viewport, view.projection, view.camera, texture(normals),
                                        texture(makeNormals()), texture(depths, GL_R32F)}),
                          expected, halfStep));
    }
    // A projection without an inverse counts as the identity.
    QMatrix4x4 flat;
    flat.scale(1, 1, 0);
    DeferredRenderPass pass;
    EXPECT_TRUE(equal(
        render(pass, {viewport, flat, QVariant(), texture(normals), QVariant(), texture(depths, GL_R32F)}),
        greys(normals, depths, {}, {}), halfStep));
}

TEST_F(DeferredPassesTest, MatricesThatUndoTheTranspositionPutTheLightWhereItIsSaidToBe)
{
    // A floor of 200 x 200 below the light.
    ModelData data;
    MeshData& floor = data.meshes.emplace_back();
    floor.positions = {{0, 40, 0}, {200, 40, 0}, {200, 40, 200}, {0, 40, 200}};
    floor.normals.assign(4, {0, 1, 0});
    floor.texCoords.resize(4);
    floor.indices = {0, 1, 2, 0, 2, 3};
    data.materials.emplace_back();
    data.instances.emplace_back();
    const GPUModel model(data);
    QMatrix4x4 perspective;
    perspective.perspective(60.0F, 4.0F / 3.0F, 1.0F, 500.0F);
    QMatrix4x4 orthographic;
    orthographic.ortho(-80, 80, -60, 60, 1, 500);
    QMatrix4x4 camera;
    camera.lookAt({60, 130, 230}, {100, 40, 100}, {0, 1, 0});
    for (const QMatrix4x4& projection : {perspective, orthographic}) {
        GBufferRenderPass gbuffer;
        runFrame(gbuffer,
                 {viewport, projection, camera, QVariant::fromValue<QObject*>(model.drawBuffers(0))});
        QMatrix4x4 toDepth;
        toDepth.translate(0, 0, 0.5F);
        toDepth.scale(1, 1, 0.5F);
        const QMatrix4x4 undone = (toDepth * projection * camera).transposed();
        DeferredRenderPass pass;
        const Pixels picture = render(
            pass, {viewport, undone, QMatrix4x4(), gbuffer.output(0), gbuffer.output(1), gbuffer.output(2)});

        const QMatrix4x4 unproject = (projection * camera).inverted();
        int numOnFloor = 0;
        const auto expected = Pixels::generate(width, height, [&](int x, int y) {
            const float u = (static_cast<float>(x) + 0.5F) / width * 2.0F - 1.0F;
            const float v = (static_cast<float>(y) + 0.5F) / height * 2.0F - 1.0F;
            const QVector3D from = unproject.map(QVector3D(u, v, -1));
            const QVector3D to = unproject.map(QVector3D(u, v, 1));
            const QVector3D place = from + (40 - from.y()) / (to.y() - from.y()) * (to - from);
            const bool onFloor = std::min(place.x(), place.z()) > 0 && std::max(place.x(), place.z()) < 200;
            numOnFloor += onFloor ? 1 : 0;
            const float grey = onFloor ? (QVector3D(100, 100, 100) - place).normalized().y() : 0;
            return QVector4D(grey, grey, grey, 1);
        });
        EXPECT_GT(numOnFloor, width * height / 2);
        EXPECT_TRUE(equal(picture, expected, halfStep));
        // Nearly below the light.
        EXPECT_GT(std::max_element(picture.values.begin(), picture.values.end(),
                                   [](const QVector4D& a, const QVector4D& b) { return a.x() < b.x(); })
                      ->x(),
                  0.97F);
    }
}

TEST_F(DeferredPassesTest, OnlyAMissingDepthMakesWhatStandsInForTextures)
{
    const Pixels normals = makeNormals();
    // The one in which a normal's w takes part: 1 where nothing is bound, 0 in what stands in.
    const View view = makeViews()[3];
    const Pixels depths = makeDepths();
    const QVariant depth = texture(depths, GL_R32F);
    DeferredRenderPass pass;
    const auto expectGreys = [&](const QVariant& normal, const QVariant& depthInput,
                                 const Pixels& normalsInForce, const Pixels& depthsInForce) {
        EXPECT_TRUE(
            equal(render(pass, {viewport, view.projection, view.camera, normal, QVariant(), depthInput}),
                  greys(normalsInForce, depthsInForce, view.projection, view.camera), halfStep));
    };
    expectGreys({}, depth, everywhere({0, 0, 0, 1}), depths);
    expectGreys(texture(normals), {}, normals, everywhere({}));
    expectGreys({}, depth, everywhere({}), depths);
    runFrame(pass, {QRect(), QVariant(), QVariant(), QVariant(), QVariant(), QVariant()});
    EXPECT_TRUE(outputTexture(pass)) << "an empty viewport keeps its place";
}

QVector3D blinnPhong(const QVector4D& kd, const QVector4D& ks, const QVector3D& normal)
{
    const QVector3D light = QVector3D(1, 1, 1).normalized();
    const QVector3D half = (light + QVector3D(0, 0, 1)).normalized();
    const float diffuse = std::max(0.0F, QVector3D::dotProduct(normal, light));
    const float specular = std::max(0.0F, QVector3D::dotProduct(normal, half));
    return diffuse * kd.toVector3D() + std::pow(specular, ks.w()) * ks.toVector3D();
}

QVector4D lit(const QVector4D& kd, const QVector4D& ks, const QVector3D& normal)
{
    const QVector3D color = blinnPhong(kd, ks, normal);
    return {clamped(color.x()), clamped(color.y()), clamped(color.z()), clamped(kd.w())};
}

TEST_F(DeferredPassesTest, MaterialsAreLitByBlinnPhong)
{
    const auto diffuse = Pixels::generate(width, height, [](int x, int y) {
        return QVector4D(0.1F * static_cast<float>(x), 0.1F * static_cast<float>(y), 0.4F,
                         static_cast<float>(x) / width);
    });
    // Shininess from 1 up; Ns = 0 makes full highlights.
    const auto specular = Pixels::generate(width, height, [](int x, int y) {
        return QVector4D(0.5F, 0.25F, 0.1F * static_cast<float>(y), static_cast<float>(x * x));
    });
    const Pixels normals = Pixels::generate(width, height, [](int x, int y) {
        const float a = 0.2F * static_cast<float>(x) - 1.0F;
        const float b = 0.2F * static_cast<float>(y) - 0.5F;
        return QVector4D(std::sin(a) * std::cos(b), std::sin(b), std::cos(a) * std::cos(b), 0) *
               (x % 2 == 0 ? 1.0F : 0.8F);
    });
    const auto expected = Pixels::generate(width, height, [&](int x, int y) {
        return lit(diffuse.at(x, y), specular.at(x, y), normals.at(x, y).toVector3D());
    });
    const QVariant diffuseInput = texture(diffuse);
    const QVariant specularInput = texture(specular);
    const QVariant normalInput = texture(normals, GL_RGB32F);
    const QVariant depthInput = texture(makeDepths(), GL_R32F);
    ModelDeferredPass pass;
    for (const View& view : makeViews()) {
        EXPECT_TRUE(equal(render(pass, {viewport, view.projection, view.camera, diffuseInput, specularInput,
                                        normalInput, depthInput}),
                          expected, halfStep));
    }
    // Where no model is.
    const QVariant zero = texture(everywhere({}));
    EXPECT_TRUE(equal(render(pass, {viewport, QVariant(), QVariant(), zero, texture(everywhere({0, 0, 0, 1})),
                                    zero, depthInput}),
                      everywhere({})));
    // Without normals only the dissolve is left. Until a depth is missing nothing stands in for textures.
    const QVariant shiny = texture(everywhere({0.5F, 0.5F, 0.5F, 8}));
    const QVariant half = texture(everywhere({1, 1, 1, 0.5F}));
    EXPECT_TRUE(equal(render(pass, {viewport, QVariant(), QVariant(), half, shiny, QVariant(), depthInput}),
                      everywhere({0, 0, 0, 128.0F / 255.0F}), 1e-6F));
    EXPECT_TRUE(
        equal(render(pass, {viewport, QVariant(), QVariant(), QVariant(), shiny, QVariant(), depthInput}),
              everywhere({0, 0, 0, 1})));
    EXPECT_TRUE(
        equal(render(pass, {viewport, QVariant(), QVariant(), QVariant(), shiny, QVariant(), QVariant()}),
              everywhere({})));
    EXPECT_TRUE(
        equal(render(pass, {viewport, QVariant(), QVariant(), QVariant(), shiny, QVariant(), depthInput}),
              everywhere({})));
}

/// Writes what ModelRenderPass does, but the normal as it was interpolated.
void addRawNormalStages(ShaderProgram& program)
{
    const InstanceDataRegistry* registry = InstanceDataRegistry::Instance();
    program.setFragDataLocations({u"out_Kd"_s, u"out_Ks"_s, u"out_Normal"_s, u"out_Id"_s});
    program.addShader(GL_VERTEX_SHADER, uR"(#version 150
#instancedata "InstanceInfo"
uniform mat4 u_ProjectionMatrix;
uniform mat4 u_CameraMatrix;
in vec3 va_Vertex;
in vec3 va_Normal;
out vec3 vo_Normal;
void main()
{
    mat4 modelView = u_CameraMatrix * getModelMatrix();
    gl_Position = u_ProjectionMatrix * u_CameraMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
    vo_Normal = inverse(transpose(mat3(modelView))) * va_Normal;
})"_s,
                      {});
    program.addShader(GL_VERTEX_SHADER, registry->getPlan(u"InstanceInfo"_s)->glslc(), {});
    program.addShader(GL_FRAGMENT_SHADER, uR"(#version 150
in vec3 vo_Normal;
out vec4 out_Kd;
out vec4 out_Ks;
out vec3 out_Normal;
out vec4 out_Id;
void main() { out_Kd = out_Ks = out_Id = vec4(0.0); out_Normal = vo_Normal; })"_s,
                      {});
}

TEST_F(DeferredPassesTest, AModelLooksAsDrawnForward)
{
    QString error;
    const std::optional<ModelData> data = importModel(sourcePath(u"examples/scenes/arcade.obj"_s), &error);
    ASSERT_TRUE(data) << qPrintable(error);
    GPUModel model(*data);
    constexpr int columns = 160;
    constexpr int rows = 90;
    QMatrix4x4 projection;
    projection.perspective(60.0F, 16.0F / 9.0F, 0.1F, 100.0F);
    QMatrix4x4 camera;
    camera.lookAt({0, 1.7F, 7}, {0, 1.75F, -8}, {0, 1, 0});
    const std::vector<QVariant> inputs{QRect(0, 0, columns, rows), projection, camera,
                                       QVariant::fromValue(&model)};
    ForwardRenderPass forward;
    runFrame(forward, inputs);
    const Pixels forwardPicture = readTexture(outputTexture(forward));
    ModelRenderPass material;
    runFrame(material, inputs);
    ModelDeferredPass deferred;
    const Pixels picture =
        render(deferred, {inputs[0], projection, camera, material.output(ModelRenderPass::Diffuse),
                          material.output(ModelRenderPass::Specular),
                          material.output(ModelRenderPass::Normal), material.output(ModelRenderPass::Depth)});
    ShaderProgram rawNormals;
    addRawNormalStages(rawNormals);
    ModelRenderPass raw;
    raw.setShaderProgram(&rawNormals);
    runFrame(raw, inputs);
    const Pixels normals = readTexture(outputTexture(raw, ModelRenderPass::Normal));
    const Pixels diffuse = readTexture(outputTexture(material, ModelRenderPass::Diffuse));
    const Pixels specular = readTexture(outputTexture(material, ModelRenderPass::Specular));

    // Forward lights with normals as they come, deferred with normals of unit length.
    const auto litBy = [&](const std::function<QVector3D(const QVector3D&)>& change) {
        return Pixels::generate(columns, rows, [&](int x, int y) {
            return lit(diffuse.at(x, y), specular.at(x, y), change(normals.at(x, y).toVector3D()));
        });
    };
    const Pixels expectedForward = litBy([](const QVector3D& normal) { return normal; });
    const Pixels expected = litBy([](const QVector3D& normal) { return normal.normalized(); });
    int numFlat = 0;
    int numSmooth = 0;
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x) {
            const float length = normals.at(x, y).toVector3D().length();
            if (length == 0.0F) {
                continue;
            }
            const auto expectNear = [&](const QVector4D& a, const QVector4D& b, const char* what) {
                for (int i = 0; i < 4; ++i) {
                    EXPECT_NEAR(a[i], b[i], 1.02F / 255.0F) << what << " at " << x << ", " << y;
                }
            };
            expectNear(picture.at(x, y), expected.at(x, y), "deferred");
            expectNear(forwardPicture.at(x, y), expectedForward.at(x, y), "forward");
            if (std::abs(length - 1.0F) < 1e-5F) {
                ++numFlat;
                expectNear(picture.at(x, y), forwardPicture.at(x, y), "flat");
            } else if (length < 0.999F) {
                ++numSmooth;
            }
        }
    }
    EXPECT_GT(numFlat, 4000);
    EXPECT_GT(numSmooth, 100) << "the model is to have both kinds";
}

} // namespace
} // namespace Morvane::Qel::Test
