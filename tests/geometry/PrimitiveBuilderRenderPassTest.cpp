// Generated primitives, read back from their buffers and drawn.

#include <QFile>
#include <QPointer>
#include <QRect>
#include <QTemporaryDir>

#include <array>
#include <functional>
#include <set>
#include <vector>

#include <epoxy/gl.h>

#include "support/Passes.h"
#include "support/Pixels.h"
#include "support/ScopedGLTest.h"
#include <Qel/RenderPasses/geometry/GBufferRenderPass.h>
#include <Qel/RenderPasses/geometry/PrimitiveBuilderRenderPass.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/VertexArrayObject.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/RenderGraph.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

DrawBuffers* build(PrimitiveBuilderRenderPass& pass)
{
    runFrame(pass, {});
    return qobject_cast<DrawBuffers*>(pass.output(PrimitiveBuilderRenderPass::Geometry).value<QObject*>());
}

template<class Value>
std::vector<Value> readBuffer(const QSharedPointer<BufferObject>& buffer)
{
    const auto* values = static_cast<const Value*>(buffer->map(GL_READ_ONLY));
    std::vector<Value> copy(values, values + static_cast<size_t>(buffer->size()) / sizeof(Value));
    buffer->unmap();
    return copy;
}

using Floats3 = std::array<float, 3>;
using Floats2 = std::array<float, 2>;

template<class Vector>
std::vector<Vector> readAttribute(const DrawBuffers& batch, const char* name)
{
    return readBuffer<Vector>(batch.VAO()->bo(QString::fromLatin1(name)));
}

std::vector<std::array<unsigned int, 5>> commandsOf(const DrawBuffers& batch)
{
    std::vector<std::array<unsigned int, 5>> commands;
    for (const DrawElementsIndirectCommand& c : batch.drawElementsIndirectCommands()) {
        commands.push_back({c.count, c.instanceCount, c.firstIndex, c.baseVertex, c.baseInstance});
    }
    return commands;
}

using PrimitiveBuilderRenderPassTest = ScopedGLTest;

TEST_F(PrimitiveBuilderRenderPassTest, ACubeHasItsFacesInOrderEachWithItsNormalAndSquareOfCoordinates)
{
    PrimitiveBuilderRenderPass pass;
    pass.addCube(2.0F, {1, 0, 0});
    const DrawBuffers* batch = build(pass);
    ASSERT_TRUE(batch);
    const auto positions = readAttribute<Floats3>(*batch, "va_Vertex");
    const auto normals = readAttribute<Floats3>(*batch, "va_Normal");
    const auto coords = readAttribute<Floats2>(*batch, "va_TexCoord");
    // The signs of x, y and z, face by face.
    constexpr std::array<const char*, 6> corners{"--- -+- +-- -+- +-- ++-", "--+ -++ +-+ -++ +-+ +++",
                                                 "--- -+- --+ -+- --+ -++", "+-- ++- +-+ ++- +-+ +++",
                                                 "--- +-- --+ +-- --+ +-+", "-+- ++- -++ ++- -++ +++"};
    ASSERT_EQ(positions.size(), 36U);
    ASSERT_EQ(normals.size(), 36U);
    ASSERT_EQ(coords.size(), 36U);
    for (size_t i = 0; i < 36; ++i) {
        const size_t face = i / 6;
        const char* signs = corners[face] + 4 * (i % 6);
        for (size_t axis = 0; axis < 3; ++axis) {
            const float sign = signs[axis] == '-' ? -1.0F : 1.0F;
            EXPECT_EQ(positions[i][axis], axis == 0 ? sign + 1.0F : sign) << "vertex " << i;
            // The corners of a face agree in the sign along its normal.
            constexpr std::array<size_t, 6> normalAxes{2, 2, 0, 0, 1, 1};
            EXPECT_EQ(normals[i][axis], axis == normalAxes[face] ? sign : 0.0F) << "vertex " << i;
        }
        // Opposite corners of the face's square on the diagonal come first and last.
        const auto f = static_cast<float>(face);
        const std::array<Floats2, 6> square{
            {{f + 1, f + 1}, {f + 1, f}, {f, f + 1}, {f + 1, f}, {f, f + 1}, {f, f}}};
        EXPECT_EQ(coords[i], square[i % 6]) << "vertex " << i;
        EXPECT_EQ(readBuffer<unsigned int>(batch->indexBO())[i], i);
    }
    EXPECT_EQ(batch->count(), 36);
    EXPECT_EQ(commandsOf(*batch), (std::vector<std::array<unsigned int, 5>>{{36, 1, 0, 0, 0}}));
}

TEST_F(PrimitiveBuilderRenderPassTest, PrimitivesShareOneBatchInTheirOrder)
{
    PrimitiveBuilderRenderPass pass;
    pass.addCube(0.5F, {-0.5F, 0, 0});
    pass.addQuad(-0.25F, {0.5F, 0.5F, 0.25F});
    pass.addQuad(0.25F, {0.5F, -0.5F, -0.75F});
    const DrawBuffers* batch = build(pass);
    ASSERT_TRUE(batch);
    const auto indices = readBuffer<unsigned int>(batch->indexBO());
    EXPECT_EQ(std::vector(indices.begin() + 36, indices.end()),
              (std::vector<unsigned int>{36, 37, 38, 37, 38, 39, 40, 41, 42, 41, 42, 43}));
    // The base vertex comes on top of indices that hold it already.
    EXPECT_EQ(commandsOf(*batch), (std::vector<std::array<unsigned int, 5>>{
                                      {36, 1, 0, 0, 0}, {6, 1, 36, 36, 0}, {6, 1, 42, 40, 0}}));
    const auto positions = readAttribute<Floats3>(*batch, "va_Vertex");
    const auto normals = readAttribute<Floats3>(*batch, "va_Normal");
    ASSERT_EQ(positions.size(), 44U);
    EXPECT_EQ(positions[36], (Floats3{0.75F, 0.75F, 0.25F})) << "turned inside out by its size";
    EXPECT_EQ(positions[41], (Floats3{0.25F, -0.25F, -0.75F}));
    EXPECT_EQ(normals[37], (Floats3{0, 0, -1})) << "whatever the size";

    // Drawn without matrices, that is seen from -z: the cube's face z-, and both quads.
    GBufferRenderPass gbuffer;
    runFrame(gbuffer, {QRect(0, 0, 16, 16), QVariant(), QVariant(), pass.output(0)});
    const Pixels ids = readTexture(outputTexture(gbuffer, GBufferRenderPass::Id));
    const Pixels coords = readTexture(outputTexture(gbuffer, GBufferRenderPass::TexCoord));
    const auto covers = [](int x, int y, int left, int bottom) {
        return x >= left && x < left + 4 && y >= bottom && y < bottom + 4;
    };
    std::set<float> seen;
    for (int y = 0; y < 16; ++y) {
        for (int x = 0; x < 16; ++x) {
            const float id = ids.at(x, y).x();
            seen.insert(id);
            const float first = covers(x, y, 2, 6)     ? 1.0F
                                : covers(x, y, 10, 10) ? 13.0F
                                : covers(x, y, 10, 2)  ? 15.0F
                                                       : 0.0F;
            EXPECT_TRUE(id == first || (first > 0.0F && id == first + 1.0F))
                << x << ", " << y << ": " << id << ", not " << first;
            if (first == 15.0F) {
                EXPECT_EQ(coords.at(x, y).toVector2D(),
                          QVector2D(static_cast<float>(x - 10) + 0.5F, static_cast<float>(y - 2) + 0.5F) / 4);
            }
        }
    }
    EXPECT_EQ(seen, (std::set<float>{0, 1, 2, 13, 14, 15, 16})) << "both triangles of each";
}

TEST_F(PrimitiveBuilderRenderPassTest, BuildsAnewOnlyAfterAChangeAndDeletesTheBatchBefore)
{
    PrimitiveBuilderRenderPass pass;
    EXPECT_EQ(build(pass), nullptr);
    EXPECT_EQ(pass.output(0).metaType(), QMetaType::fromType<QObject*>());

    // The setting is the initial one, and the batch is empty.
    pass.setUseIndirectDrawCommands(true);
    const DrawBuffers* empty = build(pass);
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->count(), 0);
    GBufferRenderPass gbuffer;
    runFrame(gbuffer, {QRect(0, 0, 2, 2), QVariant(), QVariant(), pass.output(0)});
    EXPECT_TRUE(equal(readTexture(outputTexture(gbuffer)),
                      Pixels::generate(2, 2, [](int, int) { return QVector4D(0, 0, 0, 1); })));

    const int numObjects = scope().numObjects();
    const auto expectReplaced = [&](const std::function<void()>& change, size_t numCommands) {
        const QPointer<DrawBuffers> before = build(pass);
        EXPECT_EQ(build(pass), before) << "nothing has changed";
        change();
        const DrawBuffers* after = build(pass);
        EXPECT_TRUE(before.isNull()) << "still there";
        ASSERT_TRUE(after);
        EXPECT_EQ(after->drawElementsIndirectCommands().size(), numCommands);
        EXPECT_EQ(scope().numObjects(), numObjects);
    };
    expectReplaced([&] { pass.addQuad(1.0F, {}); }, 1);
    expectReplaced([&] { pass.addCube(1.0F, {}); }, 2);
    expectReplaced([&] { pass.setUseIndirectDrawCommands(false); }, 0);
    expectReplaced([&] { pass.setUseIndirectDrawCommands(false); }, 0);
}

TEST_F(PrimitiveBuilderRenderPassTest, AGraphListsPrimitives)
{
    QTemporaryDir folder;
    const QString path = folder.filePath(u"graph.json"_s);
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(R"({"viewport": [4, 4], "passes": [
        {"name": "primitives", "type": "PrimitiveBuilderRenderPass", "options": {"primitives": [
            {"type": "quad", "size": 0.25, "position": [-0.75, 0.25, 0]}, {"position": [0.5, -0.5, 0.5]}],
         "useIndirectDrawCommands": false}},
        {"name": "gbuffer", "type": "GBufferRenderPass",
         "inputs": {"Geometry": "@primitives.Geometry", "ProjectionMatrix": null, "CameraMatrix": null}}],
        "output": "@gbuffer.Id"})");
    file.close();
    QStringList faults;
    const std::optional<GraphDescription> description = loadGraph(path, &faults);
    ASSERT_TRUE(description) << qPrintable(faults.join(u'\n'));
    const auto graph = RenderGraph::create(*description, PassRegistry::builtin(), {}, &faults);
    ASSERT_TRUE(graph) << qPrintable(faults.join(u'\n'));
    QString error;
    ASSERT_TRUE(graph->renderFrame(&error)) << qPrintable(error);
    // A quad of one pixel and the front of a cube of four, whose triangles come after the quad's.
    const Pixels ids = readTexture(graph->picture());
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 4; ++x) {
            const float first = x == 0 && y == 2 ? 1.0F : x >= 2 && y < 2 ? 3.0F : 0.0F;
            const float id = ids.at(x, y).x();
            EXPECT_TRUE(id == first || (first > 0.0F && id == first + 1.0F)) << x << ", " << y << ": " << id;
        }
    }
    const PlannedPass& planned = graph->plan().passes[0];
    const auto pass = PassRegistry::builtin().create(planned.type, planned.options, &error);
    runFrame(*pass, {});
    const auto* batch = qobject_cast<DrawBuffers*>(pass->output(0).value<QObject*>());
    EXPECT_EQ(batch->count(), 6 + 36);
    EXPECT_TRUE(batch->drawElementsIndirectCommands().empty());
}

} // namespace
} // namespace Morvane::Qel::Test
