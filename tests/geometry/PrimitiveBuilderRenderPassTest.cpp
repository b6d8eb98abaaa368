// Generated primitives, read back from their buffers and drawn.

#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>

#include <array>
#include <functional>
#include <vector>

#include <epoxy/gl.h>

#include "support/Passes.h"
#include "support/ScopedGLTest.h"
#include <Qel/RenderPasses/geometry/GBufferRenderPass.h>
#include <Qel/RenderPasses/geometry/PrimitiveBuilderRenderPass.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/VertexArrayObject.h>
#include <Qel/graph/RenderGraph.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

DrawBuffers* build(Runner<PrimitiveBuilderRenderPass>& pass)
{
    pass.run();
    return qobject_cast<DrawBuffers*>(pass->output(PrimitiveBuilderRenderPass::Geometry).value<QObject*>());
}

/// Draws a batch without matrices, which looks along +z, and compares the Ids. Two triangles that share a
/// square count as one: the image holds the first Id of each pair.
testing::AssertionResult covers(DrawBuffers* batch, int size, const std::function<float(int, int)>& firstId)
{
    Runner<GBufferRenderPass> gbuffer;
    gbuffer.run({QRect(0, 0, size, size), {}, {}, batch});
    const Pixels ids = gbuffer.pixels(GBufferRenderPass::Id).mapped([](const QVector4D& id) {
        const int number = static_cast<int>(id.x());
        return QVector4D(static_cast<float>(number == 0 ? 0 : (number - 1) / 2 * 2 + 1), 0, 0, 1);
    });
    return equal(
        ids, Pixels::generate(size, size, [&](int x, int y) { return QVector4D(firstId(x, y), 0, 0, 1); }));
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
using Commands = std::vector<std::array<unsigned int, 5>>;

template<class Vector>
std::vector<Vector> readAttribute(const DrawBuffers& batch, const QString& name)
{
    return readBuffer<Vector>(batch.VAO()->bo(name));
}

Commands commandsOf(const DrawBuffers& batch)
{
    Commands commands;
    for (const DrawElementsIndirectCommand& c : batch.drawElementsIndirectCommands()) {
        commands.push_back({c.count, c.instanceCount, c.firstIndex, c.baseVertex, c.baseInstance});
    }
    return commands;
}

using PrimitiveBuilderRenderPassTest = ScopedGLTest;

TEST_F(PrimitiveBuilderRenderPassTest, ACubeHasItsFacesInOrderEachWithItsNormalAndSquareOfCoordinates)
{
    Runner<PrimitiveBuilderRenderPass> pass;
    pass->addCube(2.0F, {1, 0, 0});
    DrawBuffers* batch = build(pass);
    ASSERT_TRUE(batch);
    const auto positions = readAttribute<Floats3>(*batch, u"va_Vertex"_s);
    const auto normals = readAttribute<Floats3>(*batch, u"va_Normal"_s);
    const auto coords = readAttribute<Floats2>(*batch, u"va_TexCoord"_s);
    // The signs of x, y and z, face by face, and the axes of the normals.
    constexpr std::array<const char*, 6> corners{"--- -+- +-- -+- +-- ++-", "--+ -++ +-+ -++ +-+ +++",
                                                 "--- -+- --+ -+- --+ -++", "+-- ++- +-+ ++- +-+ +++",
                                                 "--- +-- --+ +-- --+ +-+", "-+- ++- -++ ++- -++ +++"};
    constexpr std::array<size_t, 6> normalAxes{2, 2, 0, 0, 1, 1};
    ASSERT_EQ(positions.size(), 36U);
    ASSERT_EQ(normals.size(), 36U);
    ASSERT_EQ(coords.size(), 36U);
    for (size_t i = 0; i < 36; ++i) {
        const size_t face = i / 6;
        for (size_t axis = 0; axis < 3; ++axis) {
            const float sign = corners[face][4 * (i % 6) + axis] == '-' ? -1.0F : 1.0F;
            EXPECT_EQ(positions[i][axis], axis == 0 ? sign + 1.0F : sign) << "vertex " << i;
            EXPECT_EQ(normals[i][axis], axis == normalAxes[face] ? sign : 0.0F) << "vertex " << i;
        }
        // Opposite corners of the face's square on the diagonal come first and last.
        const auto f = static_cast<float>(face);
        const std::array<Floats2, 4> square{{{f + 1, f + 1}, {f + 1, f}, {f, f + 1}, {f, f}}};
        EXPECT_EQ(coords[i], square[i % 6 < 3 ? i % 6 : i % 6 - 2]) << "vertex " << i;
        EXPECT_EQ(readBuffer<unsigned int>(batch->indexBO())[i], i);
    }
    EXPECT_EQ(batch->count(), 36);
    EXPECT_EQ(commandsOf(*batch), (Commands{{36, 1, 0, 0, 0}}));
}

TEST_F(PrimitiveBuilderRenderPassTest, PrimitivesShareOneBatchInTheirOrder)
{
    Runner<PrimitiveBuilderRenderPass> pass;
    pass->addCube(0.5F, {-0.5F, 0, 0});
    pass->addQuad(-0.25F, {0.5F, 0.5F, 0.25F});
    pass->addQuad(0.25F, {0.5F, -0.5F, -0.75F});
    DrawBuffers* batch = build(pass);
    ASSERT_TRUE(batch);
    const auto indices = readBuffer<unsigned int>(batch->indexBO());
    EXPECT_EQ(std::vector(indices.begin() + 36, indices.end()),
              (std::vector<unsigned int>{36, 37, 38, 37, 38, 39, 40, 41, 42, 41, 42, 43}));
    // The base vertex comes on top of indices that hold it already.
    EXPECT_EQ(commandsOf(*batch), (Commands{{36, 1, 0, 0, 0}, {6, 1, 36, 36, 0}, {6, 1, 42, 40, 0}}));
    const auto positions = readAttribute<Floats3>(*batch, u"va_Vertex"_s);
    const auto normals = readAttribute<Floats3>(*batch, u"va_Normal"_s);
    ASSERT_EQ(positions.size(), 44U);
    EXPECT_EQ(positions[36], (Floats3{0.75F, 0.75F, 0.25F})) << "turned inside out by its size";
    EXPECT_EQ(positions[41], (Floats3{0.25F, -0.25F, -0.75F}));
    EXPECT_EQ(normals[37], (Floats3{0, 0, -1})) << "whatever the size";

    // The cube's face z- and both quads.
    EXPECT_TRUE(covers(batch, 16, [](int x, int y) {
        const auto isIn = [&](int left, int bottom) {
            return x >= left && x < left + 4 && y >= bottom && y < bottom + 4;
        };
        return isIn(2, 6) ? 1.0F : isIn(10, 10) ? 13.0F : isIn(10, 2) ? 15.0F : 0.0F;
    }));
    EXPECT_EQ((readAttribute<Floats2>(*batch, u"va_TexCoord"_s)[42]), (Floats2{1, 0}));
}

TEST_F(PrimitiveBuilderRenderPassTest, BuildsAnewOnlyAfterAChangeAndDeletesTheBatchBefore)
{
    Runner<PrimitiveBuilderRenderPass> pass;
    EXPECT_EQ(build(pass), nullptr);
    // Setting the initial value builds a batch too, an empty one.
    pass->setUseIndirectDrawCommands(true);
    const DrawBuffers* empty = build(pass);
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->count(), 0);
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
    expectReplaced([&] { pass->addQuad(1.0F, {}); }, 1);
    expectReplaced([&] { pass->addCube(1.0F, {}); }, 2);
    for (int i = 0; i < 2; ++i) {
        expectReplaced([&] { pass->setUseIndirectDrawCommands(false); }, 0);
    }
}

TEST_F(PrimitiveBuilderRenderPassTest, AGraphListsPrimitives)
{
    const QJsonObject options = QJsonDocument::fromJson(R"({"primitives": [
        {"type": "quad", "size": 0.25, "position": [-0.75, 0.25, 0]}, {"position": [0.5, -0.5, 0.5]}],
        "useIndirectDrawCommands": false})")
                                    .object();
    GraphDescription description;
    description.viewport = {4, 4};
    description.passes = {
        {u"primitives"_s, u"PrimitiveBuilderRenderPass"_s, {}, options},
        {u"gbuffer"_s, u"GBufferRenderPass"_s, {{u"Geometry"_s, u"@primitives.Geometry"_s}}, {}}};
    description.output = u"@gbuffer.Id"_s;
    QStringList errors;
    const auto graph = RenderGraph::create(description, PassRegistry::builtin(), {}, &errors);
    ASSERT_TRUE(graph) << qPrintable(errors.join(u'\n'));
    const PlannedPass& planned = graph->plan().passes[0];
    QString error;
    const auto pass = PassRegistry::builtin().create(planned.type, planned.options, &error);
    PassRunner(*pass).run();
    auto* batch = qobject_cast<DrawBuffers*>(pass->output(0).value<QObject*>());
    EXPECT_EQ(batch->count(), 6 + 36);
    EXPECT_TRUE(batch->drawElementsIndirectCommands().empty());
    // A quad of one pixel, then the front of a cube of four.
    EXPECT_TRUE(covers(batch, 4, [](int x, int y) {
        return x == 0 && y == 2 ? 1.0F : x >= 2 && y < 2 ? 3.0F : 0.0F;
    }));
}

} // namespace
} // namespace Morvane::Qel::Test
