// Shading from lists of fragments against the forward pass's colours and the blending worked out here.

#include <QMatrix4x4>
#include <QRect>

#include <algorithm>
#include <bit>
#include <cmath>

#include <epoxy/gl.h>

#include "support/Lists.h"
#include "support/Models.h"
#include "support/Passes.h"
#include "support/ScopedGLTest.h"
#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilityBufferRenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilityDeferredRenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilitySortRenderPass.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel::Test {
namespace {

using Pass = VisibilityDeferredRenderPass;

struct View
{
    QMatrix4x4 projection;
    QMatrix4x4 camera;
    QRect viewport;
};

/// Looks along -z at the square from -1 to 1.
View straightView(int side)
{
    View view{{}, {}, QRect(0, 0, side, side)};
    view.projection.ortho(-1.0F, 1.0F, -1.0F, 1.0F, -2.0F, 2.0F);
    return view;
}

/// A square from -1 to 1 at a height, with normals that fan out and texture coordinates of 0 to 1.
void addSquare(MeshData& mesh, float height, const QVector3D& tilt)
{
    const auto first = static_cast<unsigned int>(mesh.positions.size());
    for (const QVector2D& corner : {QVector2D(-1, -1), QVector2D(1, -1), QVector2D(-1, 1), QVector2D(1, 1)}) {
        mesh.positions.emplace_back(corner, height);
        mesh.normals.push_back((QVector3D(0.3F * corner, 1.0F) + tilt).normalized());
        mesh.texCoords.push_back((corner + QVector2D(1, 1)) / 2.0F);
    }
    for (const unsigned int offset : {0U, 1U, 2U, 2U, 1U, 3U}) {
        mesh.indices.push_back(first + offset);
    }
}

/// A picture without seams, so coarse that its levels of detail hardly ever come into play.
QImage makeWaves()
{
    constexpr int side = 8;
    QImage image(side, side, QImage::Format_RGBA8888);
    const auto wave = [](int i) {
        return 160 + static_cast<int>(std::lround(90.0 * std::sin(6.2831853 * i / side)));
    };
    for (int y = 0; y < side; ++y) {
        for (int x = 0; x < side; ++x) {
            image.setPixelColor(x, y, QColor(wave(x), wave(y), wave(x + y)));
        }
    }
    return image;
}

/// A model of one mesh with a material whose colours change over the surface.
ModelData makeModel(const MeshData& mesh, float dissolve)
{
    ModelData data;
    data.meshes = {mesh};
    data.images = {makeWaves()};
    MaterialData& material = data.materials.emplace_back();
    material.kd = {0.45F, 0.5F, 0.55F};
    material.ks = {0.2F, 0.1F, 0.15F};
    material.ns = 4.0F;
    material.d = dissolve;
    material.mapKd = 0;
    data.instances.emplace_back();
    return data;
}

struct Blended
{
    QVector3D colour;
    float alpha = 1.0F;
};

/// Lays a layer under those that are there.
void blend(Blended& result, const QVector3D& colour, float d)
{
    result.colour = (1.0F - d) * result.colour + d * colour;
    result.alpha = std::clamp(d + (1.0F - d) * result.alpha, 0.0F, 1.0F);
    result.colour = result.alpha * d * colour + result.colour;
    result.alpha = (1.0F - d) * result.alpha;
}

QVector4D asStored(const Blended& blended)
{
    QVector4D value(blended.colour, blended.alpha);
    for (int i = 0; i < 4; ++i) {
        value[i] = std::clamp(value[i], 0.0F, 1.0F);
    }
    return value;
}

/// Compares with the forward pass, which leaves objects alive.
class VisibilityDeferredTest : public ScopedGLTest
{
protected:
    /// Lists, sort and shading in a row.
    static Pixels shade(const View& view, GPUModel* model)
    {
        VisibilityBufferRenderPass lists;
        runFrame(lists, {view.viewport, view.projection, view.camera, QVariant::fromValue(model)});
        VisibilitySortRenderPass sort;
        runFrame(sort, {view.viewport, lists.output(0), lists.output(1), lists.output(2)});
        Pass pass;
        runFrame(pass, {view.viewport, view.projection, view.camera, sort.output(0), sort.output(1),
                        sort.output(2), QVariant::fromValue(model)});
        return readTexture(outputTexture(pass));
    }

    static Pixels shadeLists(const View& view, const Lists& lists, GPUModel* model)
    {
        const ListTextures textures = makeListTextures(lists);
        Pass pass;
        runFrame(pass,
                 {view.viewport, view.projection, view.camera, textureInput(textures.headPointers.get()),
                  textureInput(textures.nodes.get()), textures.nodeBufferWidth, QVariant::fromValue(model)});
        return readTexture(outputTexture(pass));
    }

    static Pixels forward(const View& view, GPUModel* model)
    {
        ForwardRenderPass pass;
        runFrame(pass, {view.viewport, view.projection, view.camera, QVariant::fromValue(model)});
        return readTexture(outputTexture(pass));
    }

    /// An opaque model shows the double of the forward pass's colours, and alpha 0.
    static void expectForwardTwice(const View& view, GPUModel* model, float tolerance)
    {
        const Pixels once = forward(view, model);
        EXPECT_GT(std::count_if(once.values.begin(), once.values.end(),
                                [](const QVector4D& value) { return value.w() > 0.0F; }),
                  static_cast<std::ptrdiff_t>(once.values.size() / 5));
        const Pixels expected = Pixels::generate(once.width, once.height, [&](int x, int y) {
            if (once.at(x, y) == QVector4D()) {
                return QVector4D();
            }
            Blended result;
            blend(result, once.at(x, y).toVector3D(), 1.0F);
            return asStored(result);
        });
        EXPECT_TRUE(equal(shade(view, model), expected, tolerance));
    }
};

TEST_F(VisibilityDeferredTest, BlendsTheLayersInItsOwnSequence)
{
    constexpr int side = 24;
    const View view = straightView(side);
    const std::vector<std::pair<float, QVector3D>> squares{
        {0.1F, {0.5F, 0, 0}}, {0.9F, {0, 0.6F, 0}}, {-0.7F, {-0.5F, -0.5F, 0}}, {0.4F, {0.8F, 0.8F, 0}}};
    for (const float dissolve : {1.0F, 0.5F, 0.2F, 0.0F}) {
        MeshData all;
        std::vector<std::pair<float, Pixels>> layers;
        for (const auto& [height, tilt] : squares) {
            addSquare(all, height, tilt);
            MeshData alone;
            addSquare(alone, height, tilt);
            GPUModel model(makeModel(alone, dissolve));
            layers.emplace_back(height, forward(view, &model));
        }
        std::sort(layers.begin(), layers.end(),
                  [](const auto& a, const auto& b) { return a.first > b.first; });
        if (!isFullMode()) {
            layers.resize(1);
        }
        GPUModel model(makeModel(all, dissolve));
        const Pixels expected = Pixels::generate(side, side, [&](int x, int y) {
            Blended result;
            for (const auto& [height, colours] : layers) {
                blend(result, colours.at(x, y).toVector3D(), dissolve);
                if (dissolve >= 1.0F) {
                    break;
                }
            }
            return asStored(result);
        });
        // The forward pass's bytes are half a step off, which the sequence doubles, and the rounding.
        EXPECT_TRUE(equal(shade(view, &model), expected, 2.01F / 255.0F)) << "dissolve " << dissolve;
    }
}

TEST_F(VisibilityDeferredTest, RebuildsAttributesAsTheRasteriserInterpolatesThem)
{
    // The forward pass's bytes, doubled, and what the rasteriser's fixed-point corners make of the
    // attributes.
    constexpr float tolerance = 4.01F / 255.0F;
    View view{{}, {}, QRect(0, 0, 200, 150)};
    view.projection.perspective(70.0F, 4.0F / 3.0F, 0.1F, 50.0F);
    view.camera.lookAt({0.9F, 0.9F, 1.0F}, {0.0F, 0.0F, 0.0F}, {0.0F, 1.0F, 0.0F});
    ModelData data = makeModel(makeCube(), 1.0F);
    data.instances[0].transform.rotate(20.0F, 1.0F, 2.0F, 3.0F);
    data.instances[0].transform.scale(1.0F, -0.7F, 1.3F);
    {
        SCOPED_TRACE("perspective, mirrored");
        GPUModel model(data);
        expectForwardTwice(view, &model, tolerance);
    }
    {
        SCOPED_TRACE("orthographic");
        View parallel = view;
        parallel.projection.setToIdentity();
        parallel.projection.ortho(-1.0F, 1.0F, -0.8F, 0.8F, 0.0F, 10.0F);
        GPUModel model(data);
        expectForwardTwice(parallel, &model, tolerance);
    }
    {
        SCOPED_TRACE("a floor that reaches behind the eye");
        MeshData floor;
        addSquare(floor, 0.0F, {});
        ModelData scene = makeModel(floor, 1.0F);
        scene.instances[0].transform.translate(0.0F, -0.4F, 0.0F);
        scene.instances[0].transform.rotate(-90.0F, 1.0F, 0.0F, 0.0F);
        scene.instances[0].transform.scale(8.0F, 8.0F, 1.0F);
        GPUModel model(scene);
        expectForwardTwice(view, &model, tolerance);
    }
    {
        SCOPED_TRACE("without indices");
        ModelData loose = data;
        MeshData& mesh = loose.meshes[0];
        const MeshData cube = makeCube();
        mesh = {};
        for (const unsigned int index : cube.indices) {
            mesh.indices.push_back(static_cast<unsigned int>(mesh.positions.size()));
            mesh.positions.push_back(cube.positions[index]);
            mesh.normals.push_back(cube.normals[index]);
            mesh.texCoords.push_back(cube.texCoords[index]);
        }
        GPUModel model(loose);
        model.drawBuffers(0)->setIndexedDraw({}, 0, 0);
        model.drawBuffers(0)->setVertexCount(static_cast<int>(mesh.positions.size()));
        expectForwardTwice(view, &model, tolerance);
    }
}

TEST_F(VisibilityDeferredTest, ShadesEveryBatchAsTheFirstOne)
{
    MeshData mesh;
    addSquare(mesh, 0.0F, {});
    ModelData data = makeModel(mesh, 1.0F);
    data.meshes.push_back(mesh);
    data.meshes[1].material = 1;
    data.materials.push_back(data.materials[0]);
    data.materials[1].kd = {0.0F, 0.9F, 0.0F};
    data.materials[1].mapKd = -1;
    data.materials[0].mapKd = -1;
    data.instances.push_back({1, {}});
    data.instances[0].transform.translate(-1.0F, 0.0F);
    data.instances[1].transform.translate(1.0F, 0.0F);
    GPUModel model(data);
    const View view = straightView(16);
    const Pixels picture = shade(view, &model);
    // The second one's fragments show the first one's material, not green.
    EXPECT_GT(picture.at(12, 8).x(), 0.5F);
    EXPECT_LT(std::abs(picture.at(12, 8).x() - picture.at(4, 8).x()), 0.3F);
}

TEST_F(VisibilityDeferredTest, SurvivesListsThatMakeNoSense)
{
    MeshData mesh;
    addSquare(mesh, 0.0F, {});
    mesh.indices.insert(mesh.indices.end(), {1, 1, 1});
    GPUModel model(makeModel(mesh, 0.5F));
    const View view = straightView(4);
    // Primitives that the model does not have, and one without area.
    Lists lists{4, 4, std::vector<std::vector<Fragment>>(16)};
    lists.at(0, 0) = {{~0U, 0.5F, 0}, {0, 0.5F, 0}, {4, 0.5F, 9}, {0x7fffffffU, NAN, 0}};
    lists.at(1, 0) = {{3, 0.5F, 0}};
    lists.at(3, 3) = {{1, 0.5F, 0}, {2, 0.5F, 0}};
    const ListTextures textures = makeListTextures(lists);
    const auto run = [&](const QVariant& width) {
        Pass pass;
        runFrame(pass,
                 {view.viewport, view.projection, view.camera, textureInput(textures.headPointers.get()),
                  textureInput(textures.nodes.get()), width, QVariant::fromValue(&model)});
        return readTexture(outputTexture(pass));
    };
    const Pixels picture = run(textures.nodeBufferWidth);
    EXPECT_EQ(picture.at(2, 2), QVector4D()) << "an empty list";
    EXPECT_GT(picture.at(3, 3).x(), 0.0F);
    for (const QVector4D& value : picture.values) {
        EXPECT_FALSE(std::isnan(value.x()));
    }
    // Every pointer now names a node outside the buffer, or none.
    for (const int width : {0, -5, 1, 1 << 30}) {
        run(width);
    }

    // A circle, a longer one with a lead, and pointers to nowhere.
    std::vector<unsigned int> nodes(64 * 4);
    const auto setNode = [&](unsigned int number, unsigned int next) {
        nodes[4UL * (number - 1)] = next;
        nodes[4UL * (number - 1) + 1] = 1;
    };
    setNode(1, 1);
    for (unsigned int i = 2; i < 30; ++i) {
        setNode(i, i + 1);
    }
    setNode(30, 7);
    setNode(31, 65);
    std::vector<unsigned int> heads(16);
    heads[0] = 1;
    heads[1] = 2;
    heads[2] = 31;
    heads[3] = ~0U;
    textures.headPointers->setImage2D(0, GL_R32UI, 4, 4, GL_RED_INTEGER, GL_UNSIGNED_INT, heads.data());
    textures.nodes->setImage2D(0, GL_RGBA32UI, 64, 1, GL_RGBA_INTEGER, GL_UNSIGNED_INT, nodes.data());
    const Pixels round = run(64);
    EXPECT_EQ(round.at(2, 0), run(64).at(2, 0));
    EXPECT_GT(round.at(0, 0).x(), 0.0F);
    EXPECT_GT(round.at(1, 0).x(), 0.0F);
    EXPECT_GT(round.at(2, 0).x(), 0.0F);
    EXPECT_EQ(round.at(3, 0), QVector4D());
}

TEST_F(VisibilityDeferredTest, LooksPrimitivesUpWhereTheDrawSaysTheyBegin)
{
    MeshData mesh;
    addSquare(mesh, 0.0F, {});
    addSquare(mesh, 0.0F, {-1.5F, -1.5F, 0.0F});
    GPUModel model(makeModel(mesh, 0.5F));
    const View view = straightView(8);
    const auto ofPrimitive = [&](unsigned int primitive) {
        return shadeLists(view, {8, 8, std::vector<std::vector<Fragment>>(64, {{primitive, 0.5F, 0}})},
                          &model)
            .at(1, 1);
    };
    const QVector4D first = ofPrimitive(1);
    const QVector4D third = ofPrimitive(3);
    ASSERT_NE(first, third);
    // By the index and by the vertex.
    for (const DrawElementsIndirectCommand& command :
         {DrawElementsIndirectCommand(6, 1, 6, 0, 0), DrawElementsIndirectCommand(6, 1, 0, 4, 0)}) {
        model.drawBuffers(0)->setDrawElementsIndirectCommands(&command, 1);
        EXPECT_EQ(ofPrimitive(1), third);
    }
}

TEST_F(VisibilityDeferredTest, FollowsTheModelAndPutsTheDepthTestBack)
{
    const View view = straightView(8);
    const Lists lists{8, 8, std::vector<std::vector<Fragment>>(64, {{1, 0.5F, 0}})};
    const ListTextures textures = makeListTextures(lists);
    Pass pass;
    std::vector<QVector4D> seen;
    for (const QVector3D& tilt : {QVector3D(), QVector3D(-0.8F, -0.8F, 0.0F), QVector3D()}) {
        MeshData mesh;
        addSquare(mesh, 0.0F, tilt);
        GPUModel model(makeModel(mesh, 0.5F));
        for (size_t i = 0; i < 2; ++i) {
            runFrame(pass, {view.viewport, view.projection, view.camera,
                            textureInput(textures.headPointers.get()), textureInput(textures.nodes.get()),
                            textures.nodeBufferWidth, QVariant::fromValue(&model)});
        }
        seen.push_back(readTexture(outputTexture(pass)).at(2, 2));
        context().enable(GL_DEPTH_TEST);
        pass.start(nullptr);
        EXPECT_TRUE(context().isEnabled(GL_DEPTH_TEST));
    }
    EXPECT_NE(seen[0], seen[1]);
    EXPECT_EQ(seen[0], seen[2]);
}

} // namespace
} // namespace Morvane::Qel::Test
