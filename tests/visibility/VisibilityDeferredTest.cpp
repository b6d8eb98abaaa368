// Shading from fragment lists, against the blending formula and the forward pass.

#include <algorithm>
#include <cmath>

#include <epoxy/gl.h>

#include "support/Lists.h"
#include "support/Scene.h"
#include "support/ScopedGLTest.h"
#include "support/ScreenProgram.h"
#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilityBufferRenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilityDeferredRenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilitySortRenderPass.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/VertexArrayObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Pass = VisibilityDeferredRenderPass;

/// Appends the square from -1 to 1 at a height, with one normal at all corners.
void addSquare(MeshData& mesh, float height, const QVector3D& normal)
{
    const auto first = static_cast<unsigned int>(mesh.positions.size());
    const MeshData square = makeSquare();
    for (size_t i = 0; i < square.positions.size(); ++i) {
        mesh.positions.emplace_back(2.0F * square.positions[i].toVector2D(), height);
        mesh.normals.push_back(normal.normalized());
        mesh.texCoords.push_back(square.texCoords[i]);
    }
    for (const unsigned int index : square.indices) {
        mesh.indices.push_back(first + index);
    }
}

MaterialData makeMaterial(float dissolve)
{
    MaterialData material;
    material.kd = {0.45F, 0.5F, 0.55F};
    material.ks = {0.2F, 0.1F, 0.15F};
    material.ns = 4.0F;
    material.d = dissolve;
    return material;
}

/// Looks along -z at the square from -1 to 1.
View straightView(int side)
{
    return View::orthographic({side, side}, 1.0F, 1.0F, -2.0F, 2.0F);
}

/// One step of the pass's blending sequence.
void blend(QVector4D& result, const QVector3D& colour, float d)
{
    QVector3D rgb = (1.0F - d) * result.toVector3D() + d * colour;
    const float a = std::clamp(d + (1.0F - d) * result.w(), 0.0F, 1.0F);
    rgb += a * d * colour;
    result = QVector4D(rgb, (1.0F - d) * a);
}

/// As 8 bits store it, before rounding.
QVector4D clamped(const QVector4D& value)
{
    return {std::min(value.x(), 1.0F), std::min(value.y(), 1.0F), std::min(value.z(), 1.0F), value.w()};
}

/// Lists, sorting and shading.
Pixels shade(const View& view, GPUModel* model)
{
    Runner<VisibilityBufferRenderPass> lists;
    lists.run(view.inputs({model}));
    Runner<VisibilitySortRenderPass> sort;
    sort.run({view.viewport(), lists->output(0), lists->output(1), lists->output(2)});
    Runner<Pass> pass;
    return pass.render(view.inputs({sort->output(0), sort->output(1), sort->output(2), model}));
}

/// Lists of 8 x 8 pixels, each of which holds only this primitive.
ListTextures listsOf(unsigned int primitive)
{
    return makeListTextures({8, 8, std::vector<std::vector<Fragment>>(64, {{primitive, 0.5F, 0}})});
}

QVector4D shadeLists(Runner<Pass>& pass, const ListTextures& lists, GPUModel* model)
{
    return pass
        .render(straightView(8).inputs({lists.headPointers, lists.nodes, lists.nodeBufferWidth, model}))
        .at(1, 1);
}

/// Compares with the forward pass, which leaves objects alive.
using VisibilityDeferredTest = ScopedGLTest;

TEST_F(VisibilityDeferredTest, BlendsTheLayersInItsOwnSequence)
{
    // From back to front; drawn in another order.
    const std::vector<QVector3D> normals{{-0.5F, -0.5F, 1.0F}, {0.5F, 0.0F, 1.0F}, {0.0F, 0.6F, 1.0F}};
    MeshData mesh;
    for (const size_t i : {1U, 2U, 0U}) {
        addSquare(mesh, 0.5F * static_cast<float>(i), normals[i]);
    }
    for (const float dissolve : {1.0F, 0.5F, 0.2F, 0.0F}) {
        const MaterialData material = makeMaterial(dissolve);
        GPUModel model(makeModelData(mesh, material));
        QVector4D expected(0, 0, 0, 1);
        for (size_t i = normals.size(); i-- > 0;) {
            blend(expected, blinnPhong(material, normals[i].normalized()), dissolve);
            if (dissolve >= 1.0F || !isFullMode()) {
                break;
            }
        }
        // Half a step of 8 bits.
        EXPECT_TRUE(
            equal(shade(straightView(6), &model), Pixels::filled(6, 6, clamped(expected)), 0.51F / 255.0F))
            << "dissolve " << dissolve;
    }
}

TEST_F(VisibilityDeferredTest, ReconstructsAttributesAsTheRasteriserInterpolatesThem)
{
    // Seamless and so coarse that mip levels hardly matter.
    constexpr int side = 8;
    QImage waves(side, side, QImage::Format_RGBA8888);
    const auto wave = [](int i) {
        return 160 + static_cast<int>(std::lround(90.0 * std::sin(6.2831853 * i / side)));
    };
    for (int i = 0; i < side * side; ++i) {
        const int x = i % side;
        const int y = i / side;
        waves.setPixelColor(x, y, QColor(wave(x), wave(y), wave(x + y)));
    }
    MaterialData material = makeMaterial(1.0F);
    material.mapKd = 0;
    const auto expectForwardTwice = [&](const View& view, ModelData data, bool isIndexed = true) {
        data.images = {waves};
        GPUModel model(data);
        if (!isIndexed) {
            model.drawBuffers(0)->setIndexedDraw({}, 0, 0);
            model.drawBuffers(0)->setVertexCount(static_cast<int>(data.meshes[0].positions.size()));
        }
        Runner<ForwardRenderPass> forward;
        const Pixels once = forward.render(view.inputs({&model}));
        EXPECT_GT(once.mean().w(), 0.2F);
        const Pixels expected = once.mapped([](const QVector4D& value) {
            return value.w() == 0.0F ? QVector4D() : clamped(QVector4D(2.0F * value.toVector3D(), 0.0F));
        });
        // The forward pass's rounding to 8 bits, doubled, and the rasteriser's fixed-point vertices.
        EXPECT_TRUE(equal(shade(view, &model), expected, 4.01F / 255.0F));
    };
    const View view = View::perspective({200, 150}, 70.0F, 0.1F, 50.0F).from({0.9F, 0.9F, 1.0F});
    QMatrix4x4 mirrored;
    mirrored.rotate(20.0F, 1.0F, 2.0F, 3.0F);
    mirrored.scale(1.0F, -0.7F, 1.3F);
    expectForwardTwice(view, makeModelData(makeCube(), material, mirrored));
    expectForwardTwice(View::orthographic(view.size, 1.0F, 0.8F, 0.0F, 10.0F).from({0.9F, 0.9F, 1.0F}),
                       makeModelData(makeCube(), material, mirrored));
    QMatrix4x4 floor;
    floor.translate(0.0F, -0.4F, 0.0F);
    floor.rotate(-90.0F, 1.0F, 0.0F, 0.0F);
    floor.scale(16.0F, 16.0F, 1.0F);
    expectForwardTwice(view, makeModelData(makeSquare(), material, floor)); // reaches behind the eye
    const MeshData cube = makeCube();
    MeshData loose;
    for (const unsigned int index : cube.indices) {
        loose.indices.push_back(static_cast<unsigned int>(loose.indices.size()));
        loose.positions.push_back(cube.positions[index]);
        loose.normals.push_back(cube.normals[index]);
        loose.texCoords.push_back(cube.texCoords[index]);
    }
    expectForwardTwice(view, makeModelData(loose, material, mirrored), false);
}

TEST_F(VisibilityDeferredTest, ShadesEveryBatchAsTheFirst)
{
    QMatrix4x4 right;
    right.translate(1.0F, 0.0F);
    MaterialData green;
    green.kd = {0.0F, 0.9F, 0.0F};
    ModelData data = makeModelData(makeSquare(), makeMaterial(1.0F));
    addObject(data, makeSquare(), green, right);
    GPUModel model(data);
    const Pixels image = shade(straightView(16), &model);
    EXPECT_EQ(image.at(13, 8), image.at(8, 8));
    EXPECT_GT(image.at(13, 8).x(), 0.5F);
}

TEST_F(VisibilityDeferredTest, SurvivesInvalidLists)
{
    MeshData mesh;
    addSquare(mesh, 0.0F, {0, 0, 1});
    mesh.indices.insert(mesh.indices.end(), {1, 1, 1});
    GPUModel model(makeModelData(mesh, makeMaterial(0.5F)));
    Runner<Pass> pass;
    const auto run = [&](const ListTextures& lists, int width) {
        return pass.render(straightView(4).inputs({lists.headPointers, lists.nodes, width, &model}));
    };
    // Primitives that the model does not have, and one without area.
    Lists lists{4, 4, std::vector<std::vector<Fragment>>(16)};
    lists.at(0, 0) = {{~0U, 0.5F, 0}, {0, 0.5F, 0}, {4, 0.5F, 9}, {0x7fffffffU, NAN, 0}};
    lists.at(1, 0) = {{3, 0.5F, 0}};
    lists.at(3, 3) = {{1, 0.5F, 0}, {2, 0.5F, 0}};
    const ListTextures textures = makeListTextures(lists);
    const Pixels image = run(textures, textures.nodeBufferWidth);
    EXPECT_EQ(image.at(2, 2), QVector4D()) << "an empty list";
    EXPECT_GT(image.at(3, 3).x(), 0.0F);
    // With these widths every pointer names a node outside the buffer, or none.
    for (const int width : {0, -5, 1, 1 << 30}) {
        run(textures, width);
    }

    // A cycle, a longer one with a lead-in, a pointer out of the buffer, and the largest pointer.
    const std::vector<unsigned int> next{1, 3, 4, 3, 65};
    std::vector<unsigned int> nodes;
    for (const unsigned int pointer : next) {
        nodes.insert(nodes.end(), {pointer, 1, 0, 0});
    }
    std::vector<unsigned int> heads{1, 2, 5, ~0U};
    heads.resize(16);
    const Pixels cycles =
        run({makeIntegerTexture(4, 4, GL_R32UI, heads), makeIntegerTexture(5, 1, GL_RGBA32UI, nodes), 5}, 5);
    for (const int x : {0, 1, 2, 3}) {
        EXPECT_EQ(cycles.at(x, 0).x() > 0.0F, x < 3) << x;
    }
}

TEST_F(VisibilityDeferredTest, ScalesListsOfAnotherSizeToTheFrame)
{
    constexpr int numLists = 6;
    MeshData mesh;
    addSquare(mesh, 0.0F, {0, 0, 1});
    QMatrix4x4 rightThird;
    rightThird.translate(2.0F / 3.0F, 0.0F);
    rightThird.scale(1.0F / 3.0F, 1.0F, 1.0F);
    GPUModel model(makeModelData(mesh, makeMaterial(1.0F), rightThird));
    Runner<VisibilityBufferRenderPass> lists;
    lists.run(straightView(numLists).inputs({&model}));
    Runner<Pass> pass;
    for (const int side : {numLists, 17, 3}) {
        const Pixels image = pass.render(
            straightView(side).inputs({lists->output(0), lists->output(1), lists->output(2), &model}));
        for (int x = 0; x < side; ++x) {
            const double place = (x + 0.5) / side * numLists;
            EXPECT_EQ(image.at(x, side / 2).x() > 0.0F, place >= 4.0) << x << " of " << side;
        }
    }
}

TEST_F(VisibilityDeferredTest, ItsShaderFileTraversesListsInOtherPrograms)
{
    constexpr int side = 4;
    MeshData mesh;
    addSquare(mesh, 0.0F, {0, 0, 1});
    GPUModel model(makeModelData(mesh, makeMaterial(1.0F)));
    Lists lists{side, side, std::vector<std::vector<Fragment>>(16)};
    lists.at(1, 0) = {{1, 0.25F, 0}};
    lists.at(3, 2) = {{2, 0.5F, 0}, {2, 0.125F, 0}, {1, 0.75F, 0}};
    const ListTextures textures = makeListTextures(lists);
    const auto program = makeScreenProgram({uR"(#version 150
#include "VisibilityBuffer.glslh"
out vec4 out_FragColor;
void main()
{
    vec2 pixel = gl_FragCoord.xy / 4.0;
    vec3 position = vec3(0.0);
    vec3 normal;
    vec2 texCoord;
    float depth = 0.0;
    float count = 0.0;
    uint pointer;
    initializeVisibilityBufferQuery(pixel, pointer);
    for (; doesVisibilityBufferHaveFragment(pointer); ++count) {
        getFragmentInfo(pixel, pointer, position, depth, normal, texCoord);
    }
    out_FragColor = vec4(position.xy, depth, count);
})"_s});
    program->addShaderFromFile(GL_FRAGMENT_SHADER, u"VisibilityBuffer.glslc"_s);
    const InstanceDataPlan* plan = InstanceDataRegistry::Instance()->getPlan(u"InstanceInfo"_s);
    program->addShader(GL_FRAGMENT_SHADER, plan->glslc(), {});
    DrawBuffers* batch = model.drawBuffers(0);
    Texture positions;
    positions.setTarget(GL_TEXTURE_BUFFER);
    positions.setBuffer(GL_RGB32F, batch->VAO()->bo(u"va_Vertex"_s).data());
    Texture indices;
    indices.setTarget(GL_TEXTURE_BUFFER);
    indices.setBuffer(GL_R32I, batch->indexBO().data());
    const auto commands = batch->getDrawElementsIndirectCommandsUniformBufferObject();
    const AutoBinder commandBinder(commands.data());
    const AutoBinder programBinder(program.get());
    std::vector<std::unique_ptr<AutoBinder>> binders;
    const auto setSampler = [&](const QString& name, Texture& texture) {
        binders.push_back(std::make_unique<AutoBinder>(&texture));
        program->setUniform(name, texture.unit());
    };
    setSampler(u"u_SamplerHeadPointer"_s, *textures.headPointers);
    setSampler(u"u_SamplerNodeBuffer"_s, *textures.nodes);
    setSampler(u"u_VertexBuffer"_s, positions);
    setSampler(u"u_IndexBuffer"_s, indices);
    program->setUniform(u"u_SamplerNodeBufferWidth"_s, textures.nodeBufferWidth);
    program->setUniform(u"u_indexedDraw"_s, true);
    const View view = straightView(side);
    program->setUniform(u"u_ViewProjectionMatrix"_s, view.projection * view.camera);
    model.objectData(0)->bind(nullptr);
    const Pixels image = drawScreen(*program, side, side);
    model.objectData(0)->unbind(nullptr);
    // Where each list ends: on the square at the pixel's centre, in its last fragment.
    const Pixels expected = Pixels::generate(side, side, [&](int x, int y) {
        const std::vector<Fragment>& list = lists.at(x, y);
        return list.empty() ? QVector4D()
                            : QVector4D((static_cast<float>(x) + 0.5F) / 2.0F - 1.0F,
                                        (static_cast<float>(y) + 0.5F) / 2.0F - 1.0F, list.back().depth,
                                        static_cast<float>(list.size()));
    });
    EXPECT_TRUE(equal(image, expected, 1e-6F));
}

TEST_F(VisibilityDeferredTest, LooksPrimitivesUpInTheBuffersAndCommandOfTheCurrentModel)
{
    const QVector3D straight(0, 0, 1);
    const QVector3D tilted(-1, -1, 1);
    MeshData mesh;
    addSquare(mesh, 0.0F, straight);
    addSquare(mesh, 0.0F, tilted);
    GPUModel model(makeModelData(mesh, makeMaterial(0.5F)));
    Runner<Pass> pass;
    const ListTextures firstLists = listsOf(1);
    const ListTextures thirdLists = listsOf(3);
    const QVector4D first = shadeLists(pass, firstLists, &model);
    const QVector4D third = shadeLists(pass, thirdLists, &model);
    ASSERT_NE(first, third);
    // Whatever sampled the lists before.
    firstLists.headPointers->setFilter(GL_LINEAR, GL_LINEAR);
    firstLists.nodes->setFilter(GL_LINEAR_MIPMAP_LINEAR, GL_LINEAR);
    EXPECT_EQ(shadeLists(pass, firstLists, &model), first);
    // By a new buffer of the same vertex array.
    const QSharedPointer<VertexArrayObject> vertexArray = model.drawBuffers(0)->VAO();
    const auto normals = vertexArray->bo(u"va_Normal"_s);
    std::vector<float> allTilted;
    for (size_t i = 0; i < mesh.normals.size(); ++i) {
        allTilted.insert(allTilted.end(),
                         {tilted.normalized().x(), tilted.normalized().y(), tilted.normalized().z()});
    }
    const auto newNormals = QSharedPointer<BufferObject>::create(GL_ARRAY_BUFFER);
    newNormals->upload(allTilted.data(), static_cast<int>(allTilted.size()), GL_STATIC_DRAW);
    vertexArray->upload(u"va_Normal"_s, newNormals, 3, GL_FLOAT);
    EXPECT_EQ(shadeLists(pass, firstLists, &model), third);
    vertexArray->upload(u"va_Normal"_s, normals, 3, GL_FLOAT);
    // By first index and by base vertex.
    for (const DrawElementsIndirectCommand& command :
         {DrawElementsIndirectCommand(6, 1, 6, 0, 0), DrawElementsIndirectCommand(6, 1, 0, 4, 0)}) {
        model.drawBuffers(0)->setDrawElementsIndirectCommands(&command, 1);
        EXPECT_EQ(shadeLists(pass, firstLists, &model), third);
    }
    // Other models, which may live where a deleted one did.
    for (const QVector3D& normal : {tilted, straight}) {
        MeshData square;
        addSquare(square, 0.0F, normal);
        GPUModel other(makeModelData(square, makeMaterial(0.5F)));
        EXPECT_EQ(shadeLists(pass, firstLists, &other), normal == tilted ? third : first);
    }
}

} // namespace
} // namespace Morvane::Qel::Test
