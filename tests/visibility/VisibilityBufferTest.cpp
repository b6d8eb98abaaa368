// Fragment lists against a CPU ray caster, in the mode that the context has.

#include <algorithm>
#include <array>
#include <cmath>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Lists.h"
#include "support/Scene.h"
#include <Qel/RenderPasses/visibility/VisibilityBufferRenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilityDeferredRenderPass.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Pass = VisibilityBufferRenderPass;

Lists read(Runner<Pass>& pass, int numRows = -1)
{
    return readLists(pass.texture(Pass::HeadPointers), pass.texture(Pass::NodeBuffer),
                     pass->output(Pass::NodeBufferWidth).toInt(), numRows);
}

/// Draws a scene and compares every list away from triangle edges: all layers, or the nearest in the reduced
/// mode.
void expectListsOf(const Scene& scene, Runner<Pass>& pass, const View& view, float tolerance)
{
    GPUModel model(scene.data());
    pass.run(view.inputs({&model}));
    Lists lists = read(pass);
    ASSERT_EQ(QSize(lists.width, lists.height), view.size);
    Lists expected{lists.width, lists.height, std::vector<std::vector<Fragment>>(lists.pixels.size())};
    for (int y = 0; y < lists.height; ++y) {
        for (int x = 0; x < lists.width; ++x) {
            if (scene.isEdge(view, x, y)) {
                lists.at(x, y).clear();
                continue;
            }
            std::vector<Fragment>& list = expected.at(x, y);
            for (const Hit& hit : scene.hits(view, x + 0.5, y + 0.5)) {
                const auto draw = static_cast<unsigned int>(isFullMode() ? hit.object : 0);
                list.push_back({static_cast<unsigned int>(hit.primitive) + 1, hit.depth, draw});
            }
            list.resize(isFullMode() ? list.size() : std::min<size_t>(list.size(), 1));
        }
    }
    EXPECT_TRUE(equal(lists.sorted().layers(), expected.sorted().layers(), tolerance));
    EXPECT_GT(expected.layers().mean().x(), 0.0F);
}

/// Squares that face an orthographic view at these heights, in one batch each. Each covers all of the view,
/// or less of its left than the one before.
ModelData makeStack(const std::vector<float>& heights, bool coversAll = false)
{
    ModelData data;
    for (size_t i = 0; i < heights.size(); ++i) {
        const float left =
            coversAll ? -1.0F : -1.0F + 2.0F * static_cast<float>(i) / static_cast<float>(heights.size());
        QMatrix4x4 transform;
        transform.translate((left + 1.0F) / 2.0F, 0.0F, heights[i]);
        transform.scale(1.0F - left, 2.0F, 1.0F);
        addObject(data, makeSquare(), {}, transform);
    }
    return data;
}

/// The number of nodes in the first rows of the node buffer that are not 0.
size_t numUsedNodes(Runner<Pass>& pass)
{
    Texture* nodes = pass.texture(Pass::NodeBuffer);
    FramebufferObject framebuffer;
    framebuffer.attach(nodes, GL_COLOR_ATTACHMENT0, 0);
    const AutoBinder binder(&framebuffer);
    framebuffer.setDrawBuffers();
    const QSize size = nodes->size().boundedTo(QSize(1 << 14, 100));
    std::vector<std::array<unsigned int, 4>> texels(static_cast<size_t>(size.width()) *
                                                    static_cast<size_t>(size.height()));
    glReadPixels(0, 0, size.width(), size.height(), GL_RGBA_INTEGER, GL_UNSIGNED_INT, texels.data());
    return texels.size() -
           static_cast<size_t>(std::count(texels.begin(), texels.end(), decltype(texels)::value_type{}));
}

size_t numFragments(Runner<Pass>& pass)
{
    size_t number = 0;
    for (const std::vector<Fragment>& list : read(pass).pixels) {
        number += list.size();
    }
    return number;
}

using VisibilityBufferTest = GLTest;

TEST_F(VisibilityBufferTest, RecordsEveryFragment)
{
    Runner<Pass> pass;
    expectListsOf(Scene(makeStack({0.0F, 0.5F, -0.75F, 0.25F, -0.5F})), pass, View::orthographic({40, 11}),
                  1e-6F);
    EXPECT_EQ(pass.texture(Pass::NodeBuffer)->size(), isFullMode() ? QSize(4096, 4096) : QSize(40, 11));
    const QRegularExpression mode(
        uR"(^\[Core/Qel/src/RenderPasses/VisibilityBufferRenderPass:\d+\] Using %1$)"_s.arg(
            isFullMode() ? u"GL4 mode"_s : u"non-GL4 mode"_s));
    EXPECT_EQ(messages().information.filter(mode).size(), 1);
    if (!isFullMode()) {
        const std::vector<unsigned int> heads = readIntegers(pass.texture(Pass::HeadPointers));
        for (unsigned int i = 0; i < heads.size(); ++i) {
            EXPECT_EQ(heads[i], i + 1);
        }
    }

    expectListsOf(Scene(makeSceneData()), pass, makeSceneView({64, 48}), 1e-4F);
}

TEST_F(VisibilityBufferTest, DrawsTheBatchesThatItsFlagsSelect)
{
    GPUModel model(makeStack({0.0F, 0.5F}));
    model.setDrawFlags(0, 0b101);
    model.setDrawFlags(1, 0b110);
    Runner<Pass> pass(0b010U, 0b011U);
    pass.run(View::orthographic({8, 8}).inputs({&model}));
    const Lists lists = read(pass);
    // Only the second, which covers the right half.
    EXPECT_TRUE(lists.at(1, 4).empty());
    ASSERT_EQ(lists.at(6, 4).size(), 1U);
    EXPECT_NEAR(lists.at(6, 4)[0].depth, 0.25F, 1e-6F);
}

TEST_F(VisibilityBufferTest, StartsEveryFrameWithEmptyListsAndNodes)
{
    const Scene full(makeStack({0.0F, 0.1F, 0.2F}));
    const Scene half(makeStack({0.9F, 0.0F}));
    Runner<Pass> pass;
    // More nodes than a row of the node buffer holds, then fewer, in other sizes.
    expectListsOf(full, pass, View::orthographic({100, 100}), 1e-6F);
    expectListsOf(half, pass, View::orthographic({20, 20}), 1e-6F);
    EXPECT_EQ(numUsedNodes(pass), numFragments(pass));
    expectListsOf(full, pass, View::orthographic({100, 100}), 1e-6F);
    EXPECT_EQ(numUsedNodes(pass), numFragments(pass));
    Texture* nodes = pass.texture(Pass::NodeBuffer);
    pass.run(View::orthographic({100, 100}).inputs({nullptr}));
    EXPECT_EQ(pass.texture(Pass::NodeBuffer), nodes);
    EXPECT_EQ(numFragments(pass), 0U);
    EXPECT_EQ(numUsedNodes(pass), 0U);
}

/// Five planes of 2048 x 2048 fragments, with nodes for four of them. Which fragments get no node is left to
/// chance; what their pixels had recorded before is lost with them.
TEST_F(VisibilityBufferTest, AFullNodeBufferLosesFragmentsAndNothingElse)
{
    if (!isFullMode()) {
        return; // One node per pixel is always enough.
    }
    constexpr size_t numPlanes = 5;
    constexpr int side = 2048;
    ModelData data = makeStack({0.0F, 0.1F, 0.2F, 0.3F, 0.4F}, true);
    // Shaded, any fragment leaves alpha behind.
    data.materials.front().d = 0.5F;
    const Scene scene(data);
    GPUModel model(scene.data());
    const View view = View::orthographic({side, side});
    Runner<Pass> pass;
    pass.run(view.inputs({&model}));
    const Lists lists = read(pass, 200);
    size_t numWrong = 0;
    for (const std::vector<Fragment>& list : lists.pixels) {
        std::array<bool, numPlanes> isFound{};
        for (const Fragment& fragment : list) {
            const float depth = 0.5F - 0.05F * static_cast<float>(fragment.draw);
            const bool isRight = fragment.draw < numPlanes && !isFound[fragment.draw] &&
                                 std::abs(fragment.depth - depth) < 1e-6F;
            isFound[fragment.draw % numPlanes] = true;
            numWrong += isRight ? 0 : 1;
        }
    }
    EXPECT_EQ(numWrong, 0U) << "fragments that were never drawn, or twice";

    // Readers treat a lost node as the end of the list.
    Runner<VisibilityDeferredRenderPass> deferred;
    const Pixels image = deferred.render(view.inputs(
        {pass->output(Pass::HeadPointers), pass->output(Pass::NodeBuffer), pass->output(2), &model}));
    for (size_t i = 0; i < lists.pixels.size(); ++i) {
        numWrong += (image.values[i] == QVector4D()) != lists.pixels[i].empty() ? 1 : 0;
    }
    EXPECT_EQ(numWrong, 0U);
    const auto numEmpty = std::count(image.values.begin(), image.values.end(), QVector4D());
    EXPECT_GT(numEmpty, 0);
    EXPECT_LT(numEmpty, side * side);

    expectListsOf(scene, pass, View::orthographic({16, 16}), 1e-6F);
}

} // namespace
} // namespace Morvane::Qel::Test
