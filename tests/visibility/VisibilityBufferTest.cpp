// Lists of fragments against a rasteriser of our own, in the mode that the context has.

#include <QMatrix4x4>
#include <QRect>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <optional>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Lists.h"
#include "support/Models.h"
#include "support/Passes.h"
#include "support/Paths.h"
#include <Qel/RenderPasses/visibility/VisibilityBufferRenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilityDeferredRenderPass.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Pass = VisibilityBufferRenderPass;

struct View
{
    QMatrix4x4 projection;
    QMatrix4x4 camera;
    QSize size;
};

View orthographic(int width, int height)
{
    View view{{}, {}, {width, height}};
    view.projection.ortho(-1.0F, 1.0F, -1.0F, 1.0F, -1.0F, 1.0F);
    return view;
}

View perspective(int width, int height, const QVector3D& eye, const QVector3D& target)
{
    View view{{}, {}, {width, height}};
    view.projection.perspective(60.0F, static_cast<float>(width) / static_cast<float>(height), 0.1F, 60.0F);
    view.camera.lookAt(eye, target, {0.0F, 1.0F, 0.0F});
    return view;
}

/// What a pixel shows of a triangle: nothing, something, or either, since drivers round corners to a fraction
/// of a pixel.
struct Coverage
{
    bool certain;
    /// Where it is certain.
    float depth;
};
/// By number of the draw and of the primitive plus one.
using Covered = std::map<std::pair<unsigned int, unsigned int>, Coverage>;

/// A triangle in clip space.
class ClipTriangle
{
public:
    using Corner = std::array<double, 4>;

    explicit ClipTriangle(const std::array<Corner, 3>& corners)
        : m_corners(corners)
    {
    }

    /// What the triangle shows at a place on the screen, given the distances from which drivers may sample.
    std::optional<Coverage> at(double x, double y, double reachX, double reachY) const
    {
        const std::array<double, 3> here = edges(x, y);
        const double sum = here[0] + here[1] + here[2];
        if (sum == 0.0) {
            return {};
        }
        std::array<double, 3> lowest = here;
        std::array<double, 3> highest = here;
        for (const auto& [dx, dy] : {std::pair{-1, -1}, {1, -1}, {-1, 1}, {1, 1}}) {
            const std::array<double, 3> there = edges(x + dx * reachX, y + dy * reachY);
            for (size_t i = 0; i < 3; ++i) {
                lowest[i] = std::min(lowest[i], there[i]);
                highest[i] = std::max(highest[i], there[i]);
            }
        }
        bool certain = true;
        double z = 0.0;
        double w = 0.0;
        for (size_t i = 0; i < 3; ++i) {
            const double low = sum > 0.0 ? lowest[i] : -highest[i];
            const double high = sum > 0.0 ? highest[i] : -lowest[i];
            if (high < 0.0) {
                return {};
            }
            certain = certain && low > 0.0;
            z += here[i] / sum * m_corners[i][2];
            w += here[i] / sum * m_corners[i][3];
        }
        if (!certain) {
            return Coverage{false, 0.0F};
        }
        return w > 0.0 && std::abs(z) <= w
                   ? std::optional(Coverage{true, static_cast<float>(0.5 + 0.5 * z / w)})
                   : std::nullopt;
    }

private:
    /// Three functions that are linear on the screen, each 0 on one edge.
    std::array<double, 3> edges(double x, double y) const
    {
        const auto a = [&](size_t i) { return m_corners[i][0] - x * m_corners[i][3]; };
        const auto b = [&](size_t i) { return m_corners[i][1] - y * m_corners[i][3]; };
        return {a(1) * b(2) - b(1) * a(2), a(2) * b(0) - b(2) * a(0), a(0) * b(1) - b(0) * a(1)};
    }

    std::array<Corner, 3> m_corners;
};

/// Rasterises a model in double precision.
std::vector<Covered> rasterise(const ModelData& data, const View& view)
{
    const int width = view.size.width();
    const int height = view.size.height();
    std::vector<Covered> pixels(static_cast<size_t>(width) * static_cast<size_t>(height));
    for (size_t draw = 0; draw < data.instances.size(); ++draw) {
        const InstanceData& instance = data.instances[draw];
        const MeshData& mesh = data.meshes[static_cast<size_t>(instance.mesh)];
        const QMatrix4x4 toClip = view.projection * view.camera * instance.transform;
        for (size_t i = 0; i + 2 < mesh.indices.size(); i += 3) {
            std::array<ClipTriangle::Corner, 3> corners{};
            bool isAhead = true;
            QVector2D lower(1e9F, 1e9F);
            QVector2D upper(-1e9F, -1e9F);
            for (size_t corner = 0; corner < 3; ++corner) {
                const QVector4D clip = toClip * QVector4D(mesh.positions[mesh.indices[i + corner]], 1.0F);
                corners[corner] = {clip.x(), clip.y(), clip.z(), clip.w()};
                isAhead = isAhead && clip.w() > 0.0F;
                const QVector2D place = clip.toVector2DAffine();
                lower = {std::min(lower.x(), place.x()), std::min(lower.y(), place.y())};
                upper = {std::max(upper.x(), place.x()), std::max(upper.y(), place.y())};
            }
            const ClipTriangle triangle(corners);
            const auto pixelOf = [](float place, int size) {
                return static_cast<int>(std::clamp((place + 1.0F) / 2.0F, 0.0F, 1.0F) *
                                        static_cast<float>(size));
            };
            const int left = isAhead ? std::max(pixelOf(lower.x(), width) - 1, 0) : 0;
            const int right = isAhead ? std::min(pixelOf(upper.x(), width) + 1, width) : width;
            const int bottom = isAhead ? std::max(pixelOf(lower.y(), height) - 1, 0) : 0;
            const int top = isAhead ? std::min(pixelOf(upper.y(), height) + 1, height) : height;
            for (int y = bottom; y < top; ++y) {
                for (int x = left; x < right; ++x) {
                    // In pixels.
                    constexpr double reach = 1.0 / 64.0;
                    const auto coverage =
                        triangle.at((x + 0.5) / width * 2.0 - 1.0, (y + 0.5) / height * 2.0 - 1.0,
                                    2.0 * reach / width, 2.0 * reach / height);
                    if (coverage) {
                        pixels[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)]
                              [{static_cast<unsigned int>(draw), static_cast<unsigned int>(i / 3 + 1)}] =
                                  *coverage;
                    }
                }
            }
        }
    }
    return pixels;
}

std::vector<QVariant> inputs(const View& view, GPUModel* model)
{
    return {QRect(QPoint(0, 0), view.size), view.projection, view.camera, QVariant::fromValue(model)};
}

Lists read(const Pass& pass)
{
    return readLists(outputTexture(pass, Pass::HeadPointers), outputTexture(pass, Pass::NodeBuffer),
                     pass.output(Pass::NodeBufferWidth).toInt());
}

/// Whether every list holds what its pixel shows: all of it, or in the reduced mode what is nearest.
void expectLists(const Lists& lists, const std::vector<Covered>& expected, float tolerance)
{
    ASSERT_EQ(lists.pixels.size(), expected.size());
    size_t numFragments = 0;
    for (size_t pixel = 0; pixel < expected.size(); ++pixel) {
        const std::vector<Fragment>& list = lists.pixels[pixel];
        const Covered& covered = expected[pixel];
        const auto place = [&] {
            return ::testing::Message()
                   << static_cast<int>(pixel) % lists.width << ", " << static_cast<int>(pixel) / lists.width;
        };
        if (isFullMode()) {
            std::map<std::pair<unsigned int, unsigned int>, float> found;
            for (const Fragment& fragment : list) {
                EXPECT_TRUE(found.insert({{fragment.draw, fragment.primitive}, fragment.depth}).second)
                    << "twice at " << place();
                const auto candidate = covered.find({fragment.draw, fragment.primitive});
                ASSERT_NE(candidate, covered.end()) << "primitive " << fragment.primitive << " of draw "
                                                    << fragment.draw << " at " << place();
                if (candidate->second.certain) {
                    EXPECT_NEAR(fragment.depth, candidate->second.depth, tolerance) << place();
                }
            }
            for (const auto& [key, coverage] : covered) {
                EXPECT_TRUE(!coverage.certain || found.contains(key))
                    << "primitive " << key.second << " of draw " << key.first << " lacks at " << place();
            }
        } else {
            ASSERT_LE(list.size(), 1U) << place();
            float nearest = 2.0F;
            for (const auto& [key, coverage] : covered) {
                nearest = coverage.certain ? std::min(nearest, coverage.depth) : nearest;
            }
            ASSERT_TRUE(!list.empty() || nearest > 1.0F) << place();
            if (!list.empty()) {
                EXPECT_LE(list[0].depth, nearest + tolerance) << place();
                EXPECT_EQ(list[0].draw, 0U);
                EXPECT_TRUE(std::any_of(covered.begin(), covered.end(), [&](const auto& candidate) {
                    return candidate.first.second == list[0].primitive &&
                           (!candidate.second.certain ||
                            std::abs(candidate.second.depth - list[0].depth) <= tolerance);
                })) << place();
            }
        }
        numFragments += list.size();
    }
    EXPECT_GT(numFragments, expected.size() / 4);
}

/// A sphere of radius 1 around the origin.
MeshData makeSphere(unsigned int columns, unsigned int rows)
{
    constexpr float pi = 3.14159265F;
    MeshData sphere;
    for (unsigned int row = 0; row <= rows; ++row) {
        for (unsigned int column = 0; column <= columns; ++column) {
            const float polar = pi * static_cast<float>(row) / static_cast<float>(rows);
            const float azimuth = 2.0F * pi * static_cast<float>(column) / static_cast<float>(columns);
            const QVector3D normal(std::sin(polar) * std::sin(azimuth), -std::cos(polar),
                                   std::sin(polar) * std::cos(azimuth));
            sphere.positions.push_back(normal);
            sphere.normals.push_back(normal);
            sphere.texCoords.emplace_back();
            if (row < rows && column < columns) {
                const unsigned int first = row * (columns + 1) + column;
                for (const unsigned int offset : {0U, 1U, columns + 1, columns + 1, 1U, columns + 2}) {
                    sphere.indices.push_back(first + offset);
                }
            }
        }
    }
    return sphere;
}

/// Squares that cover the right part of an orthographic view, each reaching less far to the left, in a mesh
/// of their own and at its own depth; the order of depths is not that of drawing.
ModelData makeStack(const std::vector<float>& heights)
{
    ModelData data;
    data.materials.emplace_back();
    for (size_t i = 0; i < heights.size(); ++i) {
        const float left = -1.0F + 2.0F * static_cast<float>(i) / static_cast<float>(heights.size());
        MeshData& square = data.meshes.emplace_back();
        square.positions = {
            {left, -1, heights[i]}, {1, -1, heights[i]}, {left, 1, heights[i]}, {1, 1, heights[i]}};
        square.normals.assign(4, {0, 0, 1});
        square.texCoords.resize(4);
        square.indices = {0, 1, 2, 2, 1, 3};
        data.instances.emplace_back().mesh = static_cast<int>(i);
    }
    return data;
}

class VisibilityBufferTest : public GLTest
{
};

TEST_F(VisibilityBufferTest, RecordsEveryLayerOfAStackOfPlanes)
{
    const ModelData data = makeStack({0.0F, 0.5F, -0.75F, 0.25F, -0.5F});
    GPUModel model(data);
    const View view = orthographic(40, 11);
    Pass pass;
    runFrame(pass, inputs(view, &model));
    const Lists lists = read(pass);
    expectLists(lists, rasterise(data, view), 1e-6F);
    for (int x = 0; x < 40; ++x) {
        const size_t numPlanes = static_cast<size_t>(x) / 8 + 1;
        EXPECT_EQ(lists.at(x, 5).size(), isFullMode() ? numPlanes : 1) << x;
    }
    EXPECT_EQ(outputTexture(pass, Pass::Depth), nullptr);
    EXPECT_EQ(pass.output(Pass::NodeBufferWidth).toInt(), isFullMode() ? 4096 : 40);
    const QRegularExpression mode(
        uR"(^\[Core/Qel/src/RenderPasses/VisibilityBufferRenderPass:\d+\] Using %1$)"_s.arg(
            isFullMode() ? u"GL4 mode"_s : u"non-GL4 mode"_s));
    EXPECT_EQ(messages().information.filter(mode).size(), 1) << "it says in which mode it runs";
}

TEST_F(VisibilityBufferTest, RecordsASphereInACube)
{
    ModelData data;
    data.meshes = {makeCube(), makeSphere(24, 16)};
    data.materials.emplace_back();
    data.instances.resize(2);
    data.instances[0].transform.scale(2.0F);
    data.instances[1].mesh = 1;
    data.instances[1].transform.scale(0.6F);
    GPUModel model(data);
    const View view = perspective(64, 48, {1.2F, 1.0F, 2.5F}, {0.0F, 0.0F, 0.0F});
    Pass pass;
    runFrame(pass, inputs(view, &model));
    const Lists lists = read(pass);
    expectLists(lists, rasterise(data, view), 1e-4F);
    // Front and back of both.
    EXPECT_EQ(lists.at(32, 24).size(), isFullMode() ? 4U : 1U);
}

TEST_F(VisibilityBufferTest, RecordsAModelOfManyBatchesAroundTheEye)
{
    QString error;
    const auto data = importModel(sourcePath(u"examples/scenes/arcade.obj"_s), &error);
    ASSERT_TRUE(data) << qPrintable(error);
    GPUModel model(*data);
    ASSERT_GT(model.numBatches(), 1);
    const View view = perspective(48, 32, {0.3F, 1.7F, 2.1F}, {0.0F, 1.5F, -8.0F});
    Pass pass;
    runFrame(pass, inputs(view, &model));
    expectLists(read(pass), rasterise(*data, view), 1e-3F);
}

TEST_F(VisibilityBufferTest, DrawsTheBatchesThatItsFlagsSelect)
{
    ModelData data = makeStack({0.0F, 0.5F});
    GPUModel model(data);
    model.setDrawFlags(0, 0b101);
    model.setDrawFlags(1, 0b110);
    const View view = orthographic(8, 8);
    Pass pass(0b010, 0b011);
    runFrame(pass, inputs(view, &model));
    const Lists lists = read(pass);
    // The second one alone, which covers the right half.
    EXPECT_TRUE(lists.at(1, 4).empty());
    ASSERT_EQ(lists.at(6, 4).size(), 1U);
    EXPECT_EQ(lists.at(6, 4)[0].draw, isFullMode() ? 1U : 0U);
    EXPECT_NEAR(lists.at(6, 4)[0].depth, 0.25F, 1e-6F);
}

TEST_F(VisibilityBufferTest, BeginsEveryFrameWithEmptyListsAndNodes)
{
    const ModelData full = makeStack({0.0F, 0.1F, 0.2F});
    const ModelData half = makeStack({0.9F, 0.0F});
    GPUModel fullModel(full);
    GPUModel halfModel(half);
    Pass pass;
    // More nodes than a row of the node buffer holds, then fewer, in other sizes.
    for (const auto& [data, model, size] :
         {std::tuple(&full, &fullModel, 100), {&half, &halfModel, 20}, {&full, &fullModel, 33}}) {
        const View view = orthographic(size, size);
        runFrame(pass, inputs(view, model));
        expectLists(read(pass), rasterise(*data, view), 1e-6F);
    }
    runFrame(pass, inputs(orthographic(100, 100), &fullModel));
    Texture* nodes = outputTexture(pass, Pass::NodeBuffer);
    runFrame(pass, inputs(orthographic(100, 100), nullptr));
    EXPECT_EQ(outputTexture(pass, Pass::NodeBuffer), nodes);
    const Lists lists = read(pass);
    EXPECT_TRUE(std::all_of(lists.pixels.begin(), lists.pixels.end(),
                            [](const std::vector<Fragment>& list) { return list.empty(); }));
    FramebufferObject framebuffer;
    framebuffer.attach(nodes, GL_COLOR_ATTACHMENT0, 0);
    const AutoBinder binder(&framebuffer);
    framebuffer.setDrawBuffers();
    std::vector<unsigned int> texels(static_cast<size_t>(nodes->size().width()) * 100 * 4);
    glReadPixels(0, 0, nodes->size().width(), 100, GL_RGBA_INTEGER, GL_UNSIGNED_INT, texels.data());
    EXPECT_EQ(std::count(texels.begin(), texels.end(), 0U), static_cast<std::ptrdiff_t>(texels.size()));
}

TEST_F(VisibilityBufferTest, ReducedModeKeepsThePixelsOwnNode)
{
    if (isFullMode()) {
        GPUModel model(makeStack({0.0F}));
        Pass pass;
        runFrame(pass, inputs(orthographic(8, 8), &model));
        EXPECT_EQ(outputTexture(pass, Pass::NodeBuffer)->size(), QSize(4096, 4096));
        return;
    }
    GPUModel model(makeStack({0.5F, -0.5F}));
    Pass pass;
    runFrame(pass, inputs(orthographic(7, 5), &model));
    std::vector<unsigned int> heads(7 * 5);
    std::vector<std::array<unsigned int, 4>> nodes(7 * 5);
    {
        const AutoBinder binder(outputTexture(pass, Pass::HeadPointers));
        glGetTexImage(GL_TEXTURE_2D, 0, GL_RED_INTEGER, GL_UNSIGNED_INT, heads.data());
    }
    const AutoBinder binder(outputTexture(pass, Pass::NodeBuffer));
    glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA_INTEGER, GL_UNSIGNED_INT, nodes.data());
    for (unsigned int i = 0; i < heads.size(); ++i) {
        EXPECT_EQ(heads[i], i + 1);
        EXPECT_EQ(nodes[i][0], 0U);
    }
}

/// Five planes of 2048 x 2048 fragments, for four of which there are nodes. Which ones find no place is left
/// to chance, and what their pixels had goes with them.
TEST_F(VisibilityBufferTest, AFullNodeBufferLosesFragmentsAndNothingElse)
{
    if (!isFullMode()) {
        // A node for each pixel is always enough.
        GPUModel model(makeStack({0.0F}));
        Pass pass;
        runFrame(pass, inputs(orthographic(300, 200), &model));
        EXPECT_EQ(read(pass).at(299, 199).size(), 1U);
        return;
    }
    constexpr size_t numPlanes = 5;
    ModelData data = makeStack({0.0F, 0.1F, 0.2F, 0.3F, 0.4F});
    for (MeshData& plane : data.meshes) {
        plane.positions[0].setX(-1.0F);
        plane.positions[2].setX(-1.0F);
    }
    GPUModel model(data);
    constexpr int side = 2048;
    const View view = orthographic(side, side);
    Pass pass;
    runFrame(pass, inputs(view, &model));
    constexpr int numRows = 200;
    const Lists lists = readLists(outputTexture(pass, Pass::HeadPointers),
                                  outputTexture(pass, Pass::NodeBuffer), 4096, numRows);
    size_t numWrong = 0;
    for (const std::vector<Fragment>& list : lists.pixels) {
        std::array<bool, numPlanes> isFound{};
        for (const Fragment& fragment : list) {
            const float depth = 0.5F - 0.05F * static_cast<float>(fragment.draw);
            const bool isRight = fragment.draw < numPlanes && !isFound[fragment.draw] &&
                                 (fragment.primitive == 1 || fragment.primitive == 2) &&
                                 std::abs(fragment.depth - depth) < 1e-6F;
            isFound[fragment.draw % numPlanes] = true;
            numWrong += isRight ? 0 : 1;
        }
    }
    EXPECT_EQ(numWrong, 0U) << "fragments that were never there, or twice";

    // Who reads the lists takes the lost nodes for the end.
    VisibilityDeferredRenderPass deferred;
    runFrame(deferred, {QRect(0, 0, side, side), view.projection, view.camera, pass.output(0), pass.output(1),
                        pass.output(2), QVariant::fromValue(&model)});
    const Pixels picture = readTexture(outputTexture(deferred));
    for (size_t i = 0; i < lists.pixels.size(); ++i) {
        numWrong += (picture.values[i] == QVector4D()) != lists.pixels[i].empty() ? 1 : 0;
    }
    EXPECT_EQ(numWrong, 0U);
    const auto numEmpty = std::count(picture.values.begin(), picture.values.end(), QVector4D());
    EXPECT_GT(numEmpty, 0);
    EXPECT_LT(numEmpty, side * side);

    // And the next frame knows nothing of it.
    const View small = orthographic(16, 16);
    runFrame(pass, inputs(small, &model));
    expectLists(read(pass), rasterise(data, small), 1e-6F);
}

} // namespace
} // namespace Morvane::Qel::Test
