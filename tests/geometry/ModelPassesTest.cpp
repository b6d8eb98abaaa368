// Forward drawing and the material G-buffer of a model, on geometry whose answer is known.

#include <QMatrix4x4>
#include <QRect>

#include <cmath>
#include <memory>

#include <epoxy/gl.h>

#include "support/Models.h"
#include "support/Passes.h"
#include "support/Pixels.h"
#include "support/ScopedGLTest.h"
#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>
#include <Qel/RenderPasses/geometry/ModelRenderPass.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

constexpr int side = 16;

/// Two squares behind each other, the nearer one tilted, squeezed and to the right; distinct materials.
ModelData makeScene()
{
    ModelData data;
    data.meshes = {makeSquare(), makeSquare()};
    data.meshes[1].material = 1;
    data.materials.resize(2);
    data.materials[0].kd = {0.5F, 0.25F, 0.75F};
    data.materials[0].ks = {0.3F, 0.2F, 0.1F};
    data.materials[0].ns = 3.0F;
    data.materials[0].d = 0.4F;
    data.materials[1].kd = {0.1F, 0.6F, 0.2F};
    data.materials[1].ns = 250.0F;
    data.instances.resize(2);
    data.instances[1].mesh = 1;
    data.instances[1].transform.translate(0.25F, 0.0F, 0.5F);
    data.instances[1].transform.scale(0.5F, 1.0F, 3.0F);
    data.instances[1].transform.rotate(30.0F, 1.0F, 0.0F, 0.0F);
    return data;
}

/// Orthographic, looking along -z from z = 2: one unit of x and y is half of the picture.
QMatrix4x4 makeProjection()
{
    QMatrix4x4 projection;
    projection.ortho(-1.0F, 1.0F, -1.0F, 1.0F, 0.5F, 3.5F);
    return projection;
}

QMatrix4x4 makeCamera()
{
    QMatrix4x4 camera;
    camera.translate(0.0F, 0.0F, -2.0F);
    return camera;
}

std::vector<QVariant> inputs(GPUModel* model)
{
    return {QRect(0, 0, side, side), makeProjection(), makeCamera(), QVariant::fromValue(model)};
}

/// The normal of the second square as the instance's transform takes it, not of unit length.
QVector3D tiltedNormal(const ModelData& data)
{
    const QMatrix4x4 matrix = data.instances[1].transform.inverted().transposed();
    return matrix.mapVector({0, 0, 1});
}

enum class Cover
{
    Nothing,
    Back,
    Front
};

/// Height of the tilted square above z = 0 at a place on the screen; tan 30 degrees, stretched by 3.
float tiltedHeight(float v)
{
    return 0.5F + 3.0F * v * 0.57735027F;
}

/// What covers a pixel: the back square spans -0.5 to 0.5, the tilted one 0 to 0.5 in x and half of cos 30
/// degrees in y; its lower end dips behind the back square.
Cover coverAt(int x, int y)
{
    const float u = (static_cast<float>(x) + 0.5F) / side * 2.0F - 1.0F;
    const float v = (static_cast<float>(y) + 0.5F) / side * 2.0F - 1.0F;
    constexpr float halfHeight = 0.5F * 0.8660254F;
    if (u > 0.0F && u < 0.5F && std::abs(v) < halfHeight && tiltedHeight(v) > 0.0F) {
        return Cover::Front;
    }
    return std::abs(u) < 0.5F && std::abs(v) < 0.5F ? Cover::Back : Cover::Nothing;
}

using ModelPassesTest = ScopedGLTest;

TEST_F(ModelPassesTest, ForwardLightsWhatIsNearest)
{
    const ModelData data = makeScene();
    GPUModel model(data);
    ForwardRenderPass pass;
    runFrame(pass, inputs(&model));
    const QVector3D back = blinnPhong(data.materials[0], {0, 0, 1});
    // Lit with the normal as it comes, which the instance's scale has shortened or stretched.
    const QVector3D front = blinnPhong(data.materials[1], tiltedNormal(data));
    EXPECT_TRUE(equal(readTexture(outputTexture(pass, ForwardRenderPass::Frame)),
                      Pixels::generate(side, side,
                                       [&](int x, int y) {
                                           switch (coverAt(x, y)) {
                                           case Cover::Front:
                                               return QVector4D(front, data.materials[1].d);
                                           case Cover::Back:
                                               return QVector4D(back, data.materials[0].d);
                                           default:
                                               return QVector4D();
                                           }
                                       }),
                      0.51F / 255.0F));
    // The target's 8 bits hold no more of an Id than whether there is one.
    EXPECT_TRUE(equal(readTexture(outputTexture(pass, ForwardRenderPass::Id)),
                      Pixels::generate(side, side, [](int x, int y) {
                          return coverAt(x, y) == Cover::Nothing ? QVector4D() : QVector4D(1, 1, 1, 1);
                      })));
}

TEST_F(ModelPassesTest, MaterialBufferHoldsMaterialsNormalsDepthAndIds)
{
    const ModelData data = makeScene();
    GPUModel model(data);
    ModelRenderPass pass;
    runFrame(pass, inputs(&model));
    const auto expect = [&](int output, const QVector4D& back, const QVector4D& front, float tolerance) {
        EXPECT_TRUE(equal(readTexture(outputTexture(pass, output)),
                          Pixels::generate(side, side,
                                           [&](int x, int y) {
                                               const Cover cover = coverAt(x, y);
                                               return cover == Cover::Front  ? front
                                                      : cover == Cover::Back ? back
                                                                             : QVector4D();
                                           }),
                          tolerance))
            << "output " << output;
    };
    const MaterialData& m0 = data.materials[0];
    const MaterialData& m1 = data.materials[1];
    expect(ModelRenderPass::Diffuse, QVector4D(m0.kd, m0.d), QVector4D(m1.kd, m1.d), 0.0F);
    expect(ModelRenderPass::Specular, QVector4D(m0.ks, m0.ns), QVector4D(m1.ks, m1.ns), 0.0F);

    // The colour formats of fewer components read back with the alpha that GL gives them, 1.
    const Pixels normals = readTexture(outputTexture(pass, ModelRenderPass::Normal));
    const Pixels ids = readTexture(outputTexture(pass, ModelRenderPass::Id));
    const Pixels depths = readTexture(outputTexture(pass, ModelRenderPass::Depth));
    const QVector3D tilted = tiltedNormal(data).normalized();
    for (int y = 0; y < side; ++y) {
        for (int x = 0; x < side; ++x) {
            const Cover cover = coverAt(x, y);
            const QVector3D normal = cover == Cover::Front  ? tilted
                                     : cover == Cover::Back ? QVector3D(0, 0, 1)
                                                            : QVector3D();
            EXPECT_LT((normals.at(x, y).toVector3D() - normal).length(), 1e-5F) << x << ", " << y;
            // Two triangles a square, the lower right one first; on the diagonal either may win.
            const float id = ids.at(x, y).x();
            if (cover == Cover::Nothing) {
                EXPECT_EQ(id, 0.0F);
            } else if (cover == Cover::Back && x != y) {
                EXPECT_EQ(id, y < x ? 1.0F : 2.0F) << x << ", " << y;
            } else {
                EXPECT_TRUE(id == 1.0F || id == 2.0F) << id;
            }
            // z = 0 lies half way between the planes at distances 0.5 and 3.5.
            const float depth = depths.at(x, y).x();
            if (cover != Cover::Front) {
                EXPECT_NEAR(depth, cover == Cover::Back ? 0.5F : 1.0F, 1e-6F);
            } else {
                const float v = (static_cast<float>(y) + 0.5F) / side * 2.0F - 1.0F;
                // The camera is at z = 2.
                EXPECT_NEAR(depth, (2.0F - tiltedHeight(v) - 0.5F) / 3.0F, 1e-5F);
            }
        }
    }
}

TEST_F(ModelPassesTest, DiscardsByTheDiffuseMapsAlphaWhenAskedBeforeTheFirstFrame)
{
    ModelData data;
    data.meshes = {makeSquare()};
    // The left texel transparent, the right one just above the limit.
    QImage image(2, 1, QImage::Format_RGBA8888);
    image.setPixelColor(0, 0, QColor(255, 255, 255, 2));
    image.setPixelColor(1, 0, QColor(255, 255, 255, 3));
    data.images = {image};
    data.materials.resize(1);
    data.materials[0].mapKd = 0;
    data.instances.resize(1);
    GPUModel model(data);
    const auto numCovered = [&](ModelRenderPass& pass) {
        runFrame(pass, inputs(&model));
        int count = 0;
        for (const QVector4D& depth : readTexture(outputTexture(pass, ModelRenderPass::Depth)).values) {
            count += depth.x() < 1.0F ? 1 : 0;
        }
        return count;
    };
    ModelRenderPass keeps;
    EXPECT_EQ(numCovered(keeps), side * side / 4);
    keeps.setDiscardOnDiffuseAlpha(true);
    EXPECT_EQ(numCovered(keeps), side * side / 4) << "too late to change anything";
    ModelRenderPass discards;
    discards.setDiscardOnDiffuseAlpha(true);
    EXPECT_LT(numCovered(discards), side * side / 4);
}

TEST_F(ModelPassesTest, WithoutAModelTheImagesAreClearAndFollowTheSize)
{
    ForwardRenderPass pass;
    runFrame(pass, {});
    EXPECT_EQ(outputTexture(pass), nullptr) << "no size, no texture";
    const auto empty = [](int width, int height) {
        return Pixels::generate(width, height, [](int, int) { return QVector4D(); });
    };
    EXPECT_TRUE(equal(render(pass, {QRect(0, 0, 9, 4)}), empty(9, 4)));
    const Texture* before = outputTexture(pass);
    EXPECT_TRUE(equal(render(pass, {QRect(7, 7, 9, 4)}), empty(9, 4)));
    EXPECT_EQ(outputTexture(pass), before) << "the same size keeps the textures";
    EXPECT_TRUE(equal(render(pass, {QRect(0, 0, 3, 8)}), empty(3, 8)));
}

TEST_F(ModelPassesTest, DrawsWithAProgramFromOutside)
{
    const auto model = makeCubeModel();
    ShaderProgram program;
    program.setFragDataLocations({u"out_FragColor"_s, u"out_Id"_s});
    program.addShader(GL_VERTEX_SHADER, uR"(#version 150
uniform mat4 u_ProjectionMatrix;
uniform mat4 u_CameraMatrix;
in vec3 va_Vertex;
void main() { gl_Position = u_ProjectionMatrix * u_CameraMatrix * vec4(va_Vertex, 1.0); })"_s,
                      {});
    program.addShader(GL_FRAGMENT_SHADER, uR"(#version 150
out vec4 out_FragColor;
out vec4 out_Id;
void main() { out_FragColor = vec4(0.2, 0.4, 0.6, 0.8); out_Id = vec4(0.0); })"_s,
                      {});
    const auto expected = Pixels::generate(side, side, [](int x, int y) {
        const bool inside = x >= side / 4 && x < side * 3 / 4 && y >= side / 4 && y < side * 3 / 4;
        return inside ? QVector4D(0.2F, 0.4F, 0.6F, 0.8F) : QVector4D();
    });
    {
        ForwardRenderPass pass;
        pass.setShaderProgram(&program);
        EXPECT_TRUE(equal(render(pass, inputs(model.get())), expected, 1e-6F));
    }
    // The program outlives the pass.
    EXPECT_TRUE(program.isValid());
}

} // namespace
} // namespace Morvane::Qel::Test
